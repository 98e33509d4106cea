// Quoted-printable encoder: the output decodes back to the code-page bytes of the input, keeps
// within its line limit, and holds no character a body must not carry.
#include <cstdint>
#include <string>

#include "encoding/common.h"
#include "fuzz_support.h"
#include "platform/codepage.h"

namespace {

using larkpost::fuzz::DecodeQuotedPrintable;

void CheckEncoding(const std::u16string& text) {
    const std::u16string encoded = larkpost::detail::QuotedPrintableEncode(text);

    const auto decoded = DecodeQuotedPrintable(encoded);
    FUZZ_CHECK(decoded.has_value());
    FUZZ_CHECK(*decoded == larkpost::detail::ToAnsi(text));

    // Physical lines: at most 76 characters, every one but the last ending in the soft break.
    std::size_t lineStart = 0;
    for (std::size_t i = 0; i < encoded.size(); ++i) {
        const char16_t c = encoded[i];
        FUZZ_CHECK(c != u'.' && c != u' ' && c < 127);
        if (c == u'\r') {
            FUZZ_CHECK(i + 1 < encoded.size() && encoded[i + 1] == u'\n');
            FUZZ_CHECK(i > 0 && encoded[i - 1] == u'=');
            FUZZ_CHECK(i - lineStart <= 76);
            // The break is greedy: it comes only when the next piece would not fit.
            FUZZ_CHECK(i + 2 < encoded.size());
            const std::size_t nextPiece = encoded[i + 2] == u'=' ? 3 : 1;
            FUZZ_CHECK((i - 1 - lineStart) + nextPiece > 75);
            lineStart = i + 2;
        }
    }
    FUZZ_CHECK(encoded.size() - lineStart <= 75);
    FUZZ_CHECK(encoded.size() >= text.size());

    // Appending to text already there gives the same characters behind it.
    std::u16string appended = u"prefix";
    larkpost::detail::QuotedPrintableEncodeTo(text, appended);
    FUZZ_CHECK(appended.compare(0, 6, u"prefix") == 0 && appended.substr(6) == encoded);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    // Every byte as one character of the code page: the round trip must be exact.
    CheckEncoding(larkpost::detail::FromAnsi(
        std::string_view(reinterpret_cast<const char*>(data), size)));
    // Any 16-bit characters, surrogates and characters the page lacks included.
    CheckEncoding(larkpost::fuzz::CodeUnits(data, size));
    return 0;
}
