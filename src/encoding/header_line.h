// One header field of a standard message (RFC 5322): folded at 78 characters where a fold is
// possible, all in 7-bit ASCII, with non-ASCII text as RFC 2047 encoded words and parameter values
// as RFC 2231 extended values.
#ifndef LARKPOST_ENCODING_HEADER_LINE_H
#define LARKPOST_ENCODING_HEADER_LINE_H

#include <string>
#include <string_view>

namespace larkpost::detail {

class HeaderLine {
public:
    // Starts "Name:". The name is ASCII.
    explicit HeaderLine(std::u16string_view name);

    // Text that is never broken, ASCII, after a space or not; with a space, the fold comes
    // before the space when the line would pass 78.
    void Atom(std::u16string_view text, bool spaceBefore = true);
    // Any text (a subject, an added header's value): the words as they are when they are plain
    // ASCII, else encoded words that a reader turns back into exactly this text.
    void Unstructured(std::u16string_view text);
    // A display name: a quoted string, or encoded words.
    void Phrase(std::u16string_view text);
    // "; name=value": a quoted string, or an RFC 2231 value (UTF-8, in pieces when long).
    void Parameter(std::u16string_view name, std::u16string_view value);
    // The field, ending in CR LF.
    std::u16string Finish() &&;

private:
    void EncodedWords(std::u16string_view text);
    std::size_t Room() const;

    std::u16string m_text;
    std::size_t m_lineStart = 0;
};

}  // namespace larkpost::detail

#endif
