#include "update/varint.h"

void appendVarint(std::string *bytes, uint64_t value)
{
    while (value >= 0x80) {
        bytes->push_back(char(value | 0x80));
        value >>= 7;
    }
    bytes->push_back(char(value));
}

bool takeVarint(const std::string &bytes, size_t *at, uint64_t *value)
{
    *value = 0;
    for (int shift = 0; shift < 63 && *at < bytes.size(); shift += 7) {
        const auto byte = uint8_t(bytes[(*at)++]);
        *value |= uint64_t(byte & 0x7f) << shift;
        if (byte < 0x80)
            return true;
    }
    return false;
}
