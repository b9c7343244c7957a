#include "update/packing.h"

#include "update/filesync.h"
#include "update/gzip.h"
#include "update/md5hash.h"
#include "update/zstd.h"

#include <QBuffer>
#include <QFile>

#include <fcntl.h>
#include <unistd.h>

namespace {

const QByteArray gzipMagic("\x1f\x8b", 2);
const QByteArray zstdMagic("\x28\xb5\x2f\xfd", 4);

// zstd's highest level below the "ultra" ones. Its window stays at 8 MiB, so an updater unpacks
// with about that much memory whatever the file size; the ultra levels and long-distance
// matching widen it to 128 MiB for a per cent or two. Packing is slow, once, on the publisher's
// machine; unpacking runs as fast as at any level.
constexpr int zstdLevel = 19;

QByteArray head(const QString &path, bool *ok)
{
    QFile file(path);
    *ok = file.open(QIODevice::ReadOnly);
    return file.read(zstdMagic.size());
}

// The first bytes tell the format, and the unpacker reads from the start; the descriptor goes
// either way.
bool unpackDescriptor(QIODevice &output, int descriptor, Md5Hash *hash, qint64 limit)
{
    QByteArray magic(zstdMagic.size(), Qt::Uninitialized);
    if (::pread(descriptor, magic.data(), size_t(magic.size()), 0) != magic.size()
        || magic != zstdMagic)
        return unzipDescriptor(output, descriptor, hash, limit);
    QFile input;
    if (!input.open(descriptor, QIODevice::ReadOnly, QFileDevice::AutoCloseHandle)) {
        ::close(descriptor);
        return false;
    }
    return unzstdDevice(output, input, hash, limit);
}

int openSource(const QString &source)
{
    return ::open(QFile::encodeName(source).constData(), O_RDONLY | O_CLOEXEC);
}

} // namespace

// The source is opened first: one that cannot be read must not cost the destination anything.
bool unpackFileWithMD5(const QString &destination, const QString &source, QString *md5,
                       qint64 limit)
{
    const int descriptor = openSource(source);
    if (descriptor < 0)
        return false;
    QFile output(destination);
    if (!output.open(QIODevice::WriteOnly | QIODevice::Truncate | QIODevice::Unbuffered)) {
        ::close(descriptor);
        return false;
    }
    Md5Hash hash;
    const bool unpacked = unpackDescriptor(output, descriptor, &hash, limit);
    output.close();
    if (!unpacked || output.error() != QFileDevice::NoError) {
        output.remove();
        return false;
    }
    *md5 = hash.result();
    return true;
}

InPlaceUnpacking unpackInPlace(const QString &source, const QString &destination,
                               const QString &md5, quint64 size)
{
    const int descriptor = openSource(source);
    if (descriptor < 0)
        return InPlaceUnpacking::Refused;
    QBuffer unpacked;
    unpacked.open(QIODevice::WriteOnly);
    Md5Hash hash;
    if (!unpackDescriptor(unpacked, descriptor, &hash, qint64(size) + 1)
        || quint64(unpacked.size()) != size || hash.result() != md5)
        return InPlaceUnpacking::Refused;
    if (!renameFile(source, destination))
        return InPlaceUnpacking::Refused;
    return overwriteFile(destination, unpacked.data()) ? InPlaceUnpacking::Unpacked
                                                       : InPlaceUnpacking::Lost;
}

bool packFile(const QString &source, const QString &destination, PackFormat format)
{
    return format == PackFormat::Zstd ? zstdFile(source, destination, zstdLevel)
                                      : zipFile(source, destination);
}

bool startsLikePackedData(const QString &path, bool *ok)
{
    const QByteArray bytes = head(path, ok);
    return bytes.startsWith(gzipMagic) || bytes.startsWith(zstdMagic);
}
