#include "update/packing.h"

#include "update/gzip.h"
#include "update/md5hash.h"
#include "update/zstd.h"

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

} // namespace

// Opened once: the first bytes tell the format, and the unpacker reads from the start.
bool unpackFileWithMD5(const QString &destination, const QString &source, QString *md5,
                       qint64 limit)
{
    const int descriptor = ::open(QFile::encodeName(source).constData(), O_RDONLY | O_CLOEXEC);
    if (descriptor < 0)
        return false;
    QByteArray magic(zstdMagic.size(), Qt::Uninitialized);
    if (::pread(descriptor, magic.data(), size_t(magic.size()), 0) != magic.size()
        || magic != zstdMagic)
        return unzipDescriptorWithMD5(destination, descriptor, md5, limit);
    QFile input;
    if (!input.open(descriptor, QIODevice::ReadOnly, QFileDevice::AutoCloseHandle)) {
        ::close(descriptor);
        return false;
    }
    Md5Hash hash;
    if (!unzstdFile(destination, input, &hash, limit))
        return false;
    *md5 = hash.result();
    return true;
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
