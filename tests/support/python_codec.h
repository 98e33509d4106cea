// Python as an independent reader of what the library writes: its codecs and its MIME parser.
#ifndef LARKPOST_TESTS_PYTHON_CODEC_H
#define LARKPOST_TESTS_PYTHON_CODEC_H

#include <optional>
#include <string>
#include <vector>

namespace larkpost::test {
// The results of the Python function (such as "binascii.a2b_qp") over each text.
std::vector<std::string> DecodeWithPython(const std::string& function,
                                          const std::vector<std::string>& texts);
struct MimeLeaf {
    std::string contentType;
    std::optional<std::string> filename, contentLength;
    std::size_t rawLength = 0;  // characters of the payload as it stands in the text
    std::string payload;        // decoded
};
struct ParsedMime {
    std::vector<std::pair<std::string, std::string>> headers;  // top level, in order, UTF-8
    std::string structure;  // as "multipart/mixed(multipart/alternative(text/plain))"
    std::vector<std::string> defects;
    std::vector<MimeLeaf> parts;
    std::optional<std::string> Header(const std::string& name) const;  // the first, any case
};
// Message bytes (Windows-1252 outside ASCII) as Python's email package reads them.
ParsedMime ParseMime(const std::string& messageBytes);
}  // namespace larkpost::test

#endif
