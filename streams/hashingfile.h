#pragma once

#include "update/filedigests.h"

#include <QFile>

// The local file of a download, which checksums its bytes on their way to the disk, so that the
// final check needs not read the file again. Every digest is fed here, in one pass.
class HashingFile : public QFile
{
    Q_OBJECT

public:
    // With a SHA-256 to hold the file to, that is the one digest taken: it checks the same bytes
    // as MD5 would, more strictly, and one digest costs less than two.
    HashingFile(const QString &name, bool bySha256);

    // The digest taken of the file's content when all of it was written through this object in
    // order, from the start; otherwise empty, and only reading the file tells.
    QString writtenMD5() const;
    QString writtenSHA256() const;
    // Opens the file to write on after the bytes it holds, which count as written through this
    // object; false when it cannot be opened or read.
    bool openToContinue();

protected:
    qint64 writeData(const char *data, qint64 length) override;

private:
    bool wholeFileHashed() const;
    void addToHash(const char *data, qint64 length);

    FileDigests digests;
    qint64 hashed = 0;
    bool inOrder = true;
};
