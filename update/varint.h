#pragma once

#include <cstdint>
#include <string>

// Unsigned numbers in seven-bit groups, low first, the top bit set on all but the last byte.
void appendVarint(std::string *bytes, uint64_t value);
// The number at *at, moving *at past it; false when bytes end first or it exceeds 63 bits.
bool takeVarint(const std::string &bytes, size_t *at, uint64_t *value);
