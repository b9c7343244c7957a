#pragma once

#include <QByteArray>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QRandomGenerator>
#include <QString>
#include <QTemporaryFile>

// Files of test releases and mirrors, written and read whole.

inline void writeTestFile(const QString &path, const QByteArray &content)
{
    QDir().mkpath(QFileInfo(path).path());
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly) || file.write(content) != content.size())
        qFatal("cannot write %s", qPrintable(path));
}

inline QByteArray readTestFile(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

// Bytes that gzip cannot shrink, the same on every run.
inline QByteArray noiseBytes(int size, quint32 seed)
{
    QRandomGenerator generator(seed);
    QByteArray bytes(size, Qt::Uninitialized);
    for (char &c : bytes)
        c = char(generator.bounded(256));
    return bytes;
}

// Bytes that gzip shrinks to a small share.
inline QByteArray textBytes(int lines)
{
    QByteArray bytes;
    for (int i = 0; i < lines; ++i)
        bytes += "line " + QByteArray::number(i) + " of a release file\n";
    return bytes;
}

// A copy of a list under a fresh name, so that QSettings parses the bytes on disk instead of
// answering from the cache it filled when this process wrote the list.
inline QString uncachedCopy(const QString &path, QTemporaryFile *copy)
{
    if (!copy->open() || copy->write(readTestFile(path)) < 0 || !copy->flush())
        qFatal("cannot copy %s", qPrintable(path));
    return copy->fileName();
}
