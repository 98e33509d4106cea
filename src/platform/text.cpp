#include "larkpost/text.h"

#include "larkpost/error.h"

namespace larkpost {

std::string ToUtf8(std::u16string_view text) {
    std::string out;
    out.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i) {
        char32_t c = text[i];
        if (c >= 0xD800 && c <= 0xDBFF && i + 1 < text.size() && text[i + 1] >= 0xDC00 &&
            text[i + 1] <= 0xDFFF) {
            c = 0x10000 + ((c - 0xD800) << 10) + (text[++i] - 0xDC00);
        } else if (c >= 0xD800 && c <= 0xDFFF) {
            c = 0xFFFD;
        }
        if (c < 0x80) {
            out += static_cast<char>(c);
        } else if (c < 0x800) {
            out += static_cast<char>(0xC0 | (c >> 6));
            out += static_cast<char>(0x80 | (c & 0x3F));
        } else if (c < 0x10000) {
            out += static_cast<char>(0xE0 | (c >> 12));
            out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
            out += static_cast<char>(0x80 | (c & 0x3F));
        } else {
            out += static_cast<char>(0xF0 | (c >> 18));
            out += static_cast<char>(0x80 | ((c >> 12) & 0x3F));
            out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
            out += static_cast<char>(0x80 | (c & 0x3F));
        }
    }
    return out;
}

bool TryFromUtf8(std::string_view text, std::u16string& out) {
    out.clear();
    out.reserve(text.size());
    std::size_t i = 0;
    while (i < text.size()) {
        unsigned char b = static_cast<unsigned char>(text[i]);
        if (b < 0x80) {
            out += static_cast<char16_t>(b);
            ++i;
            continue;
        }
        int extra;
        char32_t c;
        char32_t minimum;
        if ((b & 0xE0) == 0xC0) {
            extra = 1;
            c = b & 0x1F;
            minimum = 0x80;
        } else if ((b & 0xF0) == 0xE0) {
            extra = 2;
            c = b & 0x0F;
            minimum = 0x800;
        } else if ((b & 0xF8) == 0xF0) {
            extra = 3;
            c = b & 0x07;
            minimum = 0x10000;
        } else
            return false;
        if (i + extra >= text.size()) return false;
        for (int k = 1; k <= extra; ++k) {
            unsigned char cont = static_cast<unsigned char>(text[i + k]);
            if ((cont & 0xC0) != 0x80) return false;
            c = (c << 6) | (cont & 0x3F);
        }
        if (c < minimum || c > 0x10FFFF || (c >= 0xD800 && c <= 0xDFFF)) return false;
        if (c >= 0x10000) {
            c -= 0x10000;
            out += static_cast<char16_t>(0xD800 + (c >> 10));
            out += static_cast<char16_t>(0xDC00 + (c & 0x3FF));
        } else {
            out += static_cast<char16_t>(c);
        }
        i += extra + 1;
    }
    return true;
}

std::u16string FromUtf8(std::string_view text) {
    std::u16string out;
    if (!TryFromUtf8(text, out))
        throw RaisedError(ERROR_INVALID_ARGUMENT, u"Invalid UTF-8 text", u"Larkpost");
    return out;
}

}  // namespace larkpost
