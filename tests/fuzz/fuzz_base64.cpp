// Base64 encoder: the output decodes to the input bytes, its length is the announced one, and
// its lines are at most 76 characters, joined by CR LF with none behind the last.
#include <cstdint>
#include <string>

#include "encoding/common.h"
#include "fuzz_support.h"
#include "platform/codepage.h"

using namespace larkpost;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    const std::string_view bytes(reinterpret_cast<const char*>(data), size);

    std::u16string encoded = u"x";  // appends behind what is there
    detail::Base64EncodeBytesTo(bytes, encoded);
    FUZZ_CHECK(encoded[0] == u'x');
    encoded.erase(0, 1);

    FUZZ_CHECK(encoded.size() == detail::Base64EncodedLength(size));
    const auto decoded = fuzz::DecodeBase64(encoded);
    FUZZ_CHECK(decoded.has_value());
    FUZZ_CHECK(*decoded == bytes);

    std::size_t lineStart = 0;
    for (std::size_t i = 0; i < encoded.size(); ++i) {
        if (encoded[i] == u'\r') {
            FUZZ_CHECK(i - lineStart <= 76);
            FUZZ_CHECK(i + 2 < encoded.size());  // no line end behind the last line
            lineStart = i + 2;
        }
        FUZZ_CHECK(encoded[i] != u'\n' || (i > 0 && encoded[i - 1] == u'\r'));
    }
    FUZZ_CHECK(encoded.size() - lineStart <= 76);

    // The text entry point goes through the code page: the same bytes give the same text.
    FUZZ_CHECK(detail::Base64Encode(detail::FromAnsi(bytes)) == encoded);
    // Characters the page lacks are encoded as "?", never split into two bytes.
    const std::u16string wide = fuzz::CodeUnits(data, size);
    const auto wideDecoded = fuzz::DecodeBase64(detail::Base64Encode(wide));
    FUZZ_CHECK(wideDecoded.has_value() && *wideDecoded == detail::ToAnsi(wide));
    return 0;
}
