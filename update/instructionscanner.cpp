#include "update/instructionscanner.h"

#include <initializer_list>

namespace {

enum Operands : uint8_t {
    None = 0,
    ModRm = 1,
    Byte = 2,     // an 8-bit immediate
    Full = 4,     // a 32-bit immediate, 16-bit after the operand-size prefix
    Relative = 8, // a rel32 operand
    Test = 16,    // an immediate only for ModRM's reg field 0 and 1
    Move = 32,    // a 64-bit immediate with REX.W
    Unknown = 64,
};

struct OpcodeTable
{
    uint8_t single[256];
    uint8_t escaped[256]; // after 0x0F
    constexpr OpcodeTable()
        : single()
        , escaped()
    {
        for (int i = 0; i < 256; ++i)
            single[i] = escaped[i] = Unknown;
        // The eight arithmetic operations: register and memory forms, then AL and eAX forms.
        for (int op = 0; op < 0x40; op += 8) {
            for (int form = 0; form < 4; ++form)
                single[op + form] = ModRm;
            single[op + 4] = Byte;
            single[op + 5] = Full;
        }
        for (int op = 0x50; op < 0x60; ++op)
            single[op] = None;
        for (int op = 0x70; op < 0x80; ++op)
            single[op] = Byte;
        for (int op = 0x84; op < 0x8c; ++op)
            single[op] = ModRm;
        for (int op = 0xb0; op < 0xb8; ++op)
            single[op] = Byte;
        for (int op = 0xb8; op < 0xc0; ++op)
            single[op] = Full | Move;
        for (int op : {0x63, 0x8d, 0xd1, 0xd3, 0xff})
            single[op] = ModRm;
        for (int op : {0x6b, 0x83, 0xc0, 0xc1, 0xc6})
            single[op] = ModRm | Byte;
        for (int op : {0x69, 0x81, 0xc7})
            single[op] = ModRm | Full;
        single[0xf6] = ModRm | Byte | Test;
        single[0xf7] = ModRm | Full | Test;
        for (int op : {0x6a, 0xa8, 0xeb})
            single[op] = Byte;
        for (int op : {0x68, 0xa9})
            single[op] = Full;
        single[0xe8] = single[0xe9] = Relative;
        for (int op : {0x90, 0x98, 0x99, 0xc3, 0xc9, 0xcc})
            single[op] = None;
        for (int op = 0x80; op < 0x90; ++op)
            escaped[op] = Relative;
        for (int op = 0x40; op < 0x50; ++op)
            escaped[op] = ModRm;
        for (int op = 0x90; op < 0xa0; ++op)
            escaped[op] = ModRm;
        for (int op : {0x1f, 0xaf, 0xb6, 0xb7, 0xbe, 0xbf})
            escaped[op] = ModRm;
    }
};

constexpr OpcodeTable opcodes;

} // namespace

InstructionScanner::InstructionScanner()
{
    ZydisDecoderInit(&decoder, ZYDIS_MACHINE_MODE_LONG_64, ZYDIS_STACK_WIDTH_64);
    // Lengths and raw fields are all that is needed; the rest would double the time.
    ZydisDecoderEnableMode(&decoder, ZYDIS_DECODER_MODE_MINIMAL, ZYAN_TRUE);
}

bool InstructionScanner::decode(const uint8_t *code, int64_t available,
                                Instruction *instruction) const
{
    if (decodeCommon(code, available, instruction))
        return true;
    ZydisDecodedInstruction decoded;
    if (!ZYAN_SUCCESS(ZydisDecoderDecodeInstruction(&decoder, nullptr, code, ZyanUSize(available),
                                                    &decoded)))
        return false;
    const auto &raw = decoded.raw;
    instruction->length = decoded.length;
    instruction->relative = -1;
    if (raw.imm[0].is_relative && raw.imm[0].size == 32)
        instruction->relative = raw.imm[0].offset;
    else if (raw.modrm.offset > 0 && raw.modrm.mod == 0 && raw.modrm.rm == 5 && raw.disp.size == 32)
        instruction->relative = raw.disp.offset;
    return true;
}

// An optional operand-size prefix, an optional REX prefix, a one-byte or 0x0F opcode of the
// table, then ModRM, SIB, displacement and immediate as the opcode has them. Anything else is
// left to the full decoder.
bool InstructionScanner::decodeCommon(const uint8_t *code, int64_t available,
                                      Instruction *instruction) const
{
    int64_t at = 0;
    const bool operand16 = available > 0 && code[0] == 0x66;
    at += operand16;
    bool wide = false;
    if (at < available && (code[at] & 0xf0) == 0x40) {
        wide = code[at] & 8;
        ++at;
    }
    if (available - at < 2)
        return false;
    uint8_t operands = opcodes.single[code[at]];
    if (code[at] == 0x0f)
        operands = opcodes.escaped[code[++at]];
    ++at;
    if ((operands & Unknown) || (operand16 && (operands & Relative)))
        return false;
    instruction->relative = -1;
    int64_t immediate = operands & Byte ? 1 : 0;
    if (operands & Full)
        immediate = operand16 ? 2 : (wide && (operands & Move)) ? 8 : 4;
    if (operands & Relative) {
        instruction->relative = int(at);
        immediate = 4;
    }
    if (operands & ModRm) {
        if (at >= available)
            return false;
        const uint8_t modrm = code[at++];
        const int mod = modrm >> 6;
        const int rm = modrm & 7;
        if ((operands & Test) && ((modrm >> 3) & 7) > 1)
            immediate = 0;
        if (mod != 3 && rm == 4) {
            if (at >= available)
                return false;
            if (mod == 0 && (code[at] & 7) == 5)
                at += 4;
            ++at;
        }
        if (mod == 1)
            at += 1;
        else if (mod == 2)
            at += 4;
        else if (mod == 0 && rm == 5) {
            instruction->relative = int(at);
            at += 4;
        }
    }
    at += immediate;
    if (at > available)
        return false;
    instruction->length = int(at);
    return true;
}
