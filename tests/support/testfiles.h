#pragma once

#include <QByteArray>
#include <QString>

// Small file helpers shared by the tests.

// Writes data to path, creating missing directories; false when that fails.
bool writeTestFile(const QString &path, const QByteArray &data);
// The file's bytes; empty when it cannot be read.
QByteArray readTestFile(const QString &path);
// Bytes that differ from file to file (by seed) and position to position.
QByteArray patternBytes(int size, int seed);
// Lower-case hex MD5, computed independently of the product's checksum code.
QString md5Of(const QByteArray &data);
