#include "update/gzip.h"

#include "update/md5hash.h"

#include <QFile>

#include <limits>

#include <unistd.h>
#include <zlib.h>

namespace {

constexpr unsigned blockSize = 65536;
// zlib reads the packed file through a buffer of its own, 8 KiB unless told otherwise.
constexpr unsigned packedBufferSize = 131072;

gzFile openGzip(const QString &path, const char *mode)
{
    return gzopen(QFile::encodeName(path).constData(), mode);
}

bool failAndRemove(gzFile gzip, QFile &output)
{
    gzclose(gzip);
    output.close();
    output.remove();
    return false;
}

// Unpacks gzip, which it closes, into destination, adding what it writes to hash, up to limit
// bytes. The source is opened first: one that cannot be read must not cost the destination
// anything.
bool unpack(const QString &destination, gzFile gzip, Md5Hash *hash, qint64 limit)
{
    if (!gzip)
        return false;
    QFile output(destination);
    if (!output.open(QIODevice::WriteOnly | QIODevice::Truncate | QIODevice::Unbuffered)) {
        gzclose(gzip);
        return false;
    }
    gzbuffer(gzip, packedBufferSize);
    gzrewind(gzip);
    char buffer[blockSize];
    for (qint64 room = limit < 0 ? std::numeric_limits<qint64>::max() : limit; room > 0;) {
        const int n = gzread(gzip, buffer, unsigned(qMin<qint64>(blockSize, room)));
        if (n < 0)
            return failAndRemove(gzip, output);
        if (n == 0) {
            // gzread ends a stream cut short like a complete one; only the error state tells
            // them apart.
            int error = Z_OK;
            gzerror(gzip, &error);
            if (error != Z_OK)
                return failAndRemove(gzip, output);
            break;
        }
        if (output.write(buffer, n) < n)
            return failAndRemove(gzip, output);
        hash->addData(buffer, n);
        room -= n;
    }
    output.close();
    if (gzclose(gzip) != Z_OK || output.error() != QFileDevice::NoError) {
        output.remove();
        return false;
    }
    return true;
}

} // namespace

bool unzipFileWithMD5(const QString &destination, const QString &source, QString *md5, qint64 limit)
{
    Md5Hash hash;
    if (!unpack(destination, openGzip(source, "rb"), &hash, limit))
        return false;
    *md5 = hash.result();
    return true;
}

bool unzipDescriptorWithMD5(const QString &destination, int source, QString *md5, qint64 limit)
{
    gzFile gzip = gzdopen(source, "rb");
    if (!gzip)
        ::close(source);
    Md5Hash hash;
    if (!unpack(destination, gzip, &hash, limit))
        return false;
    *md5 = hash.result();
    return true;
}

bool zipFile(const QString &source, const QString &destination)
{
    QFile input(source);
    if (!input.open(QIODevice::ReadOnly))
        return false;
    gzFile gzip = openGzip(destination, "wb");
    if (!gzip)
        return false;
    QFile output(destination);
    if (gzsetparams(gzip, 9, Z_DEFAULT_STRATEGY) != Z_OK)
        return failAndRemove(gzip, output);
    char buffer[blockSize];
    for (;;) {
        const qint64 n = input.read(buffer, blockSize);
        if (n < 0)
            return failAndRemove(gzip, output);
        if (n == 0)
            break;
        if (gzwrite(gzip, buffer, unsigned(n)) < n)
            return failAndRemove(gzip, output);
    }
    input.close();
    if (gzclose(gzip) != Z_OK) {
        output.remove();
        return false;
    }
    return true;
}
