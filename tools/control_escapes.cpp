#include "control_escapes.h"

#include <cstdio>

#include "larkpost/text.h"

namespace larkpost::cli {
namespace {

std::string Escape(const char* format, unsigned value) {
    char text[16];
    std::snprintf(text, sizeof text, format, value);
    return text;
}

// The length a UTF-8 sequence with this first byte would have; the decoder judges the rest.
std::size_t SequenceLength(unsigned char lead) { return lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : 2; }

}  // namespace

std::string EscapeControls(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    std::size_t i = 0;
    while (i < text.size()) {
        const auto byte = static_cast<unsigned char>(text[i]);
        if (byte >= 0x20 && byte < 0x7F) {
            out += text[i++];
            continue;
        }
        if (byte >= 0x80) {
            const std::string_view sequence = text.substr(i, SequenceLength(byte));
            std::u16string character;
            if (TryFromUtf8(sequence, character)) {
                const bool c1 = character[0] >= 0x80 && character[0] <= 0x9F;
                out += c1 ? Escape("\\u{%x}", character[0]) : std::string(sequence);
                i += sequence.size();
                continue;
            }
        }
        out += byte == '\r'   ? "\\r"
               : byte == '\n' ? "\\n"
               : byte == '\t' ? "\\t"
                              : Escape("\\x%02x", byte);
        ++i;
    }
    return out;
}

}  // namespace larkpost::cli
