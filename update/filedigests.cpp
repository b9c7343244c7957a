#include "update/filedigests.h"

FileDigests::FileDigests(Kind kinds)
{
    if (kinds & Md5)
        md5Hash.emplace();
    if (kinds & Sha256)
        sha256Hash.emplace(Digest::Sha256);
}

void FileDigests::addData(const char *data, qint64 length)
{
    if (md5Hash)
        md5Hash->addData(data, length);
    if (sha256Hash)
        sha256Hash->addData(data, length);
}

QString FileDigests::md5() const
{
    return md5Hash ? md5Hash->result() : QString();
}

QString FileDigests::sha256() const
{
    return sha256Hash ? QString::fromLatin1(sha256Hash->result().toHex()) : QString();
}
