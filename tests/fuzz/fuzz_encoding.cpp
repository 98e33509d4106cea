// The encoders against plain references, on code-page bytes and on any 16-bit text, appending to
// what is there. Quoted-printable: each byte but 33-45, 47-60 and 62-126 is "=XY"; a soft break
// comes before a piece that would take a line past 75. Base64, in every kernel the machine has:
// lines of 76 joined by CR LF, of the announced length. GetFileExtension: what follows the last ".".
#include "encoding/base64.h"
#include "encoding/file_extension.h"
#include "encoding/quoted_printable.h"
#include "fuzz_support.h"
#include "platform/codepage.h"

using namespace larkpost;

namespace {

std::u16string QuotedPrintable(std::string_view bytes) {
    constexpr char16_t hex[] = u"0123456789ABCDEF";
    std::u16string out;
    std::size_t line = 0;
    for (const unsigned char code : bytes) {
        const bool literal = code >= 33 && code <= 126 && code != '.' && code != '=';
        if (line + (literal ? 1 : 3) > 75) out += u"=\r\n", line = 0;
        out += literal ? std::u16string(1, code)
                       : std::u16string{u'=', hex[code >> 4], hex[code & 15]};
        line += literal ? 1 : 3;
    }
    return out;
}

std::u16string Base64(std::string_view bytes) {
    constexpr char16_t abc[] = u"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::u16string out;
    for (std::size_t i = 0; i < bytes.size(); i += 3) {
        if (i > 0 && i % 57 == 0) out += u"\r\n";
        const std::size_t n = std::min<std::size_t>(3, bytes.size() - i);
        uint32_t group = 0;
        for (std::size_t k = 0; k < 3; ++k)
            group = group << 8 | (k < n ? uint8_t(bytes[i + k]) : 0);
        for (std::size_t k = 0; k < 4; ++k) out += k <= n ? abc[group >> (18 - 6 * k) & 63] : u'=';
    }
    return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    const std::string bytes(reinterpret_cast<const char*>(data), size);
    for (const std::u16string& text : {detail::FromAnsi(bytes), fuzz::CodeUnits(data, size)}) {
        std::string appended = "x";
        detail::QuotedPrintableEncodeTo(text, appended);
        assert(detail::FromAnsi(appended) == u"x" + QuotedPrintable(detail::ToAnsi(text)));
        assert(detail::FromAnsi(detail::QuotedPrintableEncode(text)) ==
               QuotedPrintable(detail::ToAnsi(text)));
        const std::size_t dot = text.rfind(u'.');
        assert(detail::GetFileExtension(text) ==
               (dot == text.npos ? std::nullopt : std::optional(text.substr(dot + 1))));
    }
    const std::u16string expected = Base64(bytes), wide = fuzz::CodeUnits(data, size);
    assert(expected.size() == detail::Base64EncodedLength(size));
    for (const char* kernel : {"avx2", "ssse3", "scalar"}) {
        if (!detail::SelectBase64KernelForTesting(kernel)) continue;
        std::u16string appended = u"x";
        detail::Base64EncodeBytesTo(bytes, appended);
        assert(appended == u"x" + expected &&
               detail::Base64Encode(detail::FromAnsi(bytes)) == expected);
        assert(detail::Base64Encode(wide) == Base64(detail::ToAnsi(wide)));
    }
    return 0;
}
