#include "streams/hashingfile.h"

HashingFile::HashingFile(const QString &name, bool withSha256)
    : QFile(name)
    , digests(withSha256)
{}

bool HashingFile::wholeFileHashed() const
{
    return inOrder && hashed == size();
}

QString HashingFile::writtenMD5() const
{
    return wholeFileHashed() ? digests.md5() : QString();
}

QString HashingFile::writtenSHA256() const
{
    return wholeFileHashed() ? digests.sha256() : QString();
}

qint64 HashingFile::writeData(const char *data, qint64 length)
{
    if (pos() != hashed)
        inOrder = false;
    const qint64 written = QFile::writeData(data, length);
    if (written > 0 && inOrder) {
        digests.addData(data, written);
        hashed += written;
    }
    return written;
}
