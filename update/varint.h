#pragma once

#include <QByteArray>

// Unsigned numbers in seven-bit groups, low first, the top bit set on all but the last byte.
void appendVarint(QByteArray *bytes, quint64 value);
// The number at *at, moving *at past it; false when bytes end first or it exceeds 63 bits.
bool takeVarint(const QByteArray &bytes, qsizetype *at, quint64 *value);
