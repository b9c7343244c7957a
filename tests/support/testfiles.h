#pragma once

#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QFileInfo>

// Writes data to path, creating missing directories; false when that fails.
inline bool writeTestFile(const QString &path, const QByteArray &data)
{
    QDir().mkpath(QFileInfo(path).path());
    QFile file(path);
    return file.open(QIODevice::WriteOnly | QIODevice::Truncate) && file.write(data) == data.size();
}

// The file's bytes; empty when it cannot be read.
inline QByteArray readTestFile(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

// Bytes that differ from file to file (by seed) and position to position.
inline QByteArray patternBytes(int size, int seed)
{
    QByteArray data(size, Qt::Uninitialized);
    for (int i = 0; i < size; ++i)
        data[i] = char((i * 31 + seed * 17 + i / 251) & 0xff);
    return data;
}

// Lower-case hex MD5, computed independently of the product's checksum code.
inline QString md5Of(const QByteArray &data)
{
    return QString::fromLatin1(QCryptographicHash::hash(data, QCryptographicHash::Md5).toHex());
}
