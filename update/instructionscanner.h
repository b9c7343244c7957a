#pragma once

#include <cstdint>

#include <Zydis/Decoder.h>

// Decodes x86-64 instructions for their length and the place of a 32-bit offset from their end:
// the rel32 operand of a call, jump or conditional jump, or the displacement of a RIP-relative
// operand. The most common instructions of compiled code are decoded here directly, several
// times faster than the full decoder, which takes all the others.
class InstructionScanner
{
public:
    struct Instruction
    {
        int length = 0;
        int relative = -1; // where the 32-bit offset starts, or -1
    };

    InstructionScanner();
    // False when the bytes hold no valid instruction.
    bool decode(const uint8_t *code, int64_t available, Instruction *instruction) const;

private:
    bool decodeCommon(const uint8_t *code, int64_t available, Instruction *instruction) const;

    ZydisDecoder decoder;
};
