#include "streams/hashingfile.h"

HashingFile::HashingFile(const QString &name)
    : QFile(name)
{}

QString HashingFile::writtenMD5() const
{
    if (!inOrder || hashed != size())
        return QString();
    return hash.result();
}

qint64 HashingFile::writeData(const char *data, qint64 length)
{
    if (pos() != hashed)
        inOrder = false;
    const qint64 written = QFile::writeData(data, length);
    if (written > 0 && inOrder) {
        hash.addData(data, written);
        hashed += written;
    }
    return written;
}
