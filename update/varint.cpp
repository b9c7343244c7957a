#include "update/varint.h"

void appendVarint(QByteArray *bytes, quint64 value)
{
    while (value >= 0x80) {
        bytes->append(char(value | 0x80));
        value >>= 7;
    }
    bytes->append(char(value));
}

bool takeVarint(const QByteArray &bytes, qsizetype *at, quint64 *value)
{
    *value = 0;
    for (int shift = 0; shift < 63 && *at < bytes.size(); shift += 7) {
        const auto byte = uchar(bytes.at((*at)++));
        *value |= quint64(byte & 0x7f) << shift;
        if (byte < 0x80)
            return true;
    }
    return false;
}
