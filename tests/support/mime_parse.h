// Message texts read back by Python's email package (tests/tools/parse_mime.py), so tests check
// that what Larkpost writes is what a real MIME reader sees.
#ifndef LARKPOST_TESTS_MIME_PARSE_H
#define LARKPOST_TESTS_MIME_PARSE_H

#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace larkpost::test {

// One leaf part. Optional fields are empty when the part does not have them.
struct MimeLeaf {
    std::string contentType;
    std::optional<std::string> charset;
    std::optional<std::string> filename;
    std::optional<std::string> disposition;
    std::optional<std::string> transferEncoding;
    std::optional<std::string> contentLength;
    std::size_t rawLength = 0;  // characters of the payload as it stands in the text
    std::string payload;        // decoded bytes
};

struct ParsedMime {
    std::vector<std::pair<std::string, std::string>> headers;  // top level, in order
    std::string structure;  // e.g. "multipart/mixed(multipart/alternative(text/plain))"
    std::vector<std::string> defects;
    std::vector<MimeLeaf> parts;

    // The value of the first header of that name (compared ignoring case), if any.
    std::optional<std::string> Header(const std::string& name) const;
    // Every header name in order.
    std::vector<std::string> HeaderNames() const;
};

// Parses message bytes given on the script's standard input. Throws std::runtime_error when the
// script fails or prints something that is not its JSON.
ParsedMime ParseMime(const std::string& messageBytes);
// Parses the file at path.
ParsedMime ParseMimeFile(const std::string& path);

}  // namespace larkpost::test

#endif
