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

// Unpacks gzip, which it closes, into output, adding what it writes to hash, up to limit bytes.
bool unpack(QIODevice &output, gzFile gzip, Md5Hash *hash, qint64 limit)
{
    gzbuffer(gzip, packedBufferSize);
    gzrewind(gzip);
    char buffer[blockSize];
    for (qint64 room = limit < 0 ? std::numeric_limits<qint64>::max() : limit; room > 0;) {
        const int n = gzread(gzip, buffer, unsigned(qMin<qint64>(blockSize, room)));
        if (n == 0)
            break;
        if (n < 0 || output.write(buffer, n) < n) {
            gzclose(gzip);
            return false;
        }
        hash->addData(buffer, n);
        room -= n;
    }
    // gzread ends a stream cut short like a complete one; only the error state tells them apart.
    int error = Z_OK;
    gzerror(gzip, &error);
    return gzclose(gzip) == Z_OK && error == Z_OK;
}

} // namespace

bool unzipDescriptor(QIODevice &output, int source, Md5Hash *hash, qint64 limit)
{
    gzFile gzip = gzdopen(source, "rb");
    if (!gzip) {
        ::close(source);
        return false;
    }
    return unpack(output, gzip, hash, limit);
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
