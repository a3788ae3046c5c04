#include "jitreader/code_dump.h"

#include <algorithm>
#include <iomanip>
#include <sstream>
#include <string>

#include <Zydis/Zydis.h>

#include "platform/text.h"

namespace velmark_3_11 {

namespace {

constexpr std::size_t kFormatBufferSize = 200;

/// A decoder and an Intel-syntax formatter for one machine mode. Neither holds resources of
/// its own; the class keeps their set-up and its result together.
class InstructionPrinter {
public:
    InstructionPrinter(ZydisMachineMode mode, ZydisStackWidth width)
    {
        m_ready = ZYAN_SUCCESS(ZydisDecoderInit(&m_decoder, mode, width)) &&
                  ZYAN_SUCCESS(ZydisFormatterInit(&m_formatter, ZYDIS_FORMATTER_STYLE_INTEL));
    }

    bool ready() const { return m_ready; }

    ZyanStatus decode(const unsigned char* data, std::size_t size)
    {
        return ZydisDecoderDecodeFull(&m_decoder, data, size, &m_instruction, m_operands);
    }

    ZyanStatus format(unsigned long long runtimeAddress, char* buffer, std::size_t size) const
    {
        return ZydisFormatterFormatInstruction(&m_formatter, &m_instruction, m_operands,
                                               m_instruction.operand_count_visible, buffer, size, runtimeAddress,
                                               ZYAN_NULL);
    }

    const ZydisDecodedInstruction& instruction() const { return m_instruction; }

private:
    ZydisDecoder m_decoder{};
    ZydisFormatter m_formatter{};
    ZydisDecodedInstruction m_instruction{};
    ZydisDecodedOperand m_operands[ZYDIS_MAX_OPERAND_COUNT]{};
    bool m_ready = false;
};

/// The decoder's word, or an empty text where it has none.
const char* orEmpty(const char* text)
{
    return text ? text : "";
}

std::string hexBytes(const unsigned char* data, std::size_t size)
{
    static const char kDigits[] = "0123456789ABCDEF";
    std::string text;
    text.reserve(size * 2);
    for (std::size_t i = 0; i < size; ++i) {
        text += kDigits[data[i] >> 4];
        text += kDigits[data[i] & 0xF];
    }
    return text;
}

} // namespace

void dumpCodeBytes(std::wostream& stream, const void* data, unsigned int size, unsigned long long address,
                   unsigned int arch)
{
    if (data == nullptr || size == 0) {
        stream << L"  no bytes" << L'\n';
        return;
    }

    ZydisMachineMode mode;
    ZydisStackWidth width;
    switch (arch) {
    case 0:
        mode = ZYDIS_MACHINE_MODE_LEGACY_32;
        width = ZYDIS_STACK_WIDTH_32;
        break;
    case 1:
    case 2:
        mode = ZYDIS_MACHINE_MODE_LONG_64;
        width = ZYDIS_STACK_WIDTH_64;
        break;
    default:
        stream << L"  wrong architecture of code" << L'\n';
        return;
    }

    InstructionPrinter printer(mode, width);
    std::ostringstream text;
    text << std::hex;
    if (!printer.ready()) {
        text << "       " << address << ": could not decode instruction. Error: " << ZYAN_STATUS_FAILED << '\n';
        stream << toWide(text.str());
        return;
    }

    const unsigned char* cursor = static_cast<const unsigned char*>(data);
    std::size_t remaining = size;
    char formatted[kFormatBufferSize];
    while (remaining > 0) {
        const std::size_t limit = std::min<std::size_t>(remaining, ZYDIS_MAX_INSTRUCTION_LENGTH);
        const ZyanStatus decoded = printer.decode(cursor, limit);
        if (!ZYAN_SUCCESS(decoded)) {
            text << "       " << address << ": could not decode instruction. Error: " << decoded << '\n';
            break;
        }
        const ZyanStatus printed = printer.format(address, formatted, sizeof formatted);
        if (!ZYAN_SUCCESS(printed)) {
            text << "       " << address << ": could not dump instruction. Error: " << printed << '\n';
            break;
        }

        const ZydisDecodedInstruction& instruction = printer.instruction();
        const std::size_t length = instruction.length;
        text << "  " << "OPLN " << address << ": " << std::setw(10)
             << orEmpty(ZydisCategoryGetString(instruction.meta.category)) << ' ' << std::setw(5)
             << orEmpty(ZydisISAExtGetString(instruction.meta.isa_ext)) << ' ' << std::setw(20)
             << hexBytes(cursor, length) << "  " << formatted << '\n';

        cursor += length;
        address += length;
        remaining -= length;
    }
    stream << toWide(text.str());
}

} // namespace velmark_3_11
