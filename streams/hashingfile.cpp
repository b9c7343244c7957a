#include "streams/hashingfile.h"

HashingFile::HashingFile(const QString &name, bool bySha256)
    : QFile(name)
    , digests(bySha256 ? FileDigests::Sha256 : FileDigests::Md5)
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
    if (written > 0 && inOrder)
        addToHash(data, written);
    return written;
}

bool HashingFile::openToContinue()
{
    if (!open(QIODevice::ReadWrite | QIODevice::Unbuffered))
        return false;
    QByteArray block(1 << 20, Qt::Uninitialized);
    qint64 length = 0;
    while ((length = read(block.data(), block.size())) > 0)
        addToHash(block.constData(), length);
    if (length == 0)
        return true;
    close();
    return false;
}

void HashingFile::addToHash(const char *data, qint64 length)
{
    digests.addData(data, length);
    hashed += length;
}
