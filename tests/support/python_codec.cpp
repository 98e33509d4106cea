// Bytes go to Debian's Python as hex; each line back is a tag and fields, "=" + hex or "-".
#include "support/python_codec.h"

#include <sstream>
#include <stdexcept>
#include <strings.h>

#include "support/process.h"

namespace larkpost::test {
namespace {

// Mode "mime" prints H name value (top-level headers, read as Windows-1252), S structure,
// D defect, P type filename content-length raw-length payload; a codec prints D result.
constexpr char kPython[] = R"py(
import base64, binascii, email, email.policy, sys
def out(tag, *fields):
    text = lambda v: v if isinstance(v, bytes) else \
        str(v).encode("ascii", "surrogateescape").decode("cp1252", "replace").encode()
    print(tag, *("-" if v is None else "=" + text(v).hex() for v in fields))
def tree(p):
    inner = "(" + ",".join(map(tree, p.get_payload())) + ")" if p.is_multipart() else ""
    return p.get_content_type() + inner
if sys.argv[1] != "mime":
    module, name = sys.argv[1].rsplit(".", 1)
    for line in sys.stdin:
        out("D", getattr(sys.modules[module], name)(bytes.fromhex(line.strip())))
    sys.exit()
message = email.message_from_bytes(sys.stdin.buffer.read(), policy=email.policy.compat32)
for name, value in message.raw_items(): out("H", name, value)
out("S", tree(message))
for part in message.walk():
    for defect in part.defects: out("D", type(defect).__name__)
    if not part.is_multipart():
        out("P", part.get_content_type(), part.get_filename(), part.get("Content-Length"),
            str(len(part.get_payload())), part.get_payload(decode=True) or b"")
)py";

using Records = std::vector<std::pair<std::string, std::vector<std::optional<std::string>>>>;
Records RunPython(const std::string& mode, const std::string& input) {
    ProcessResult result = RunProcess({kSystemPython, "-c", kPython, mode}, input);
    if (result.exitCode != 0) throw std::runtime_error("python failed: " + result.err);
    Records records;
    std::istringstream lines(result.out);
    for (std::string line, word; std::getline(lines, line);) {
        std::istringstream words(line);
        auto& [tag, fields] = records.emplace_back();
        for (words >> tag; words >> word;) {
            auto& field = fields.emplace_back();
            if (word == "-") continue;
            field.emplace();
            for (std::size_t i = 1; i + 1 < word.size(); i += 2)
                *field += char(std::stoi(word.substr(i, 2), nullptr, 16));
        }
    }
    return records;
}

}  // namespace

std::vector<std::string> DecodeWithPython(const std::string& function,
                                          const std::vector<std::string>& texts) {
    static constexpr char digits[] = "0123456789abcdef";
    std::string input;
    for (const auto& text : texts) {
        for (unsigned char b : text) (input += digits[b >> 4]) += digits[b & 0xF];
        input += '\n';
    }
    std::vector<std::string> decoded;
    for (auto& [tag, fields] : RunPython(function, input)) decoded.push_back(*fields.at(0));
    return decoded;
}

ParsedMime ParseMime(const std::string& messageBytes) {
    ParsedMime parsed;
    for (auto& [tag, f] : RunPython("mime", messageBytes)) {
        if (tag == "H") parsed.headers.emplace_back(*f.at(0), *f.at(1));
        if (tag == "S") parsed.structure = *f.at(0);
        if (tag == "D") parsed.defects.push_back(*f.at(0));
        if (tag == "P") parsed.parts.push_back({*f[0], f[1], f[2], std::stoul(*f.at(3)), *f.at(4)});
    }
    return parsed;
}

std::optional<std::string> ParsedMime::Header(const std::string& name) const {
    for (const auto& [key, value] : headers)
        if (::strcasecmp(key.c_str(), name.c_str()) == 0) return value;
    return std::nullopt;
}

}  // namespace larkpost::test
