// A text body of a standard message: its UTF-8 bytes in quoted-printable (RFC 2045) or Base64,
// whichever is shorter.
#ifndef LARKPOST_ENCODING_TEXT_BODY_H
#define LARKPOST_ENCODING_TEXT_BODY_H

#include <string>
#include <string_view>

namespace larkpost::detail {

struct EncodedTextBody {
    std::u16string_view transferEncoding;  // "quoted-printable" or "base64"
    std::string text;                      // ASCII lines of at most 76, joined by CR LF
};

// A lone surrogate of the body becomes U+FFFD.
EncodedTextBody EncodeTextBody(std::u16string_view body);

// Quoted-printable as readers expect it: printable characters and spaces stay, CR LF stays a
// line end, everything else is "=XX", soft breaks keep lines within 76. A "." or "From " at the
// start of a line is encoded too, so no line can end the SMTP data or be taken for an mbox
// separator, and a space or tab before a line end, where transports may strip it.
void StandardQuotedPrintableTo(std::string_view bytes, std::string& out);

}  // namespace larkpost::detail

#endif
