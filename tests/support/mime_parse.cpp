#include "support/mime_parse.h"

#include <cctype>
#include <map>
#include <memory>
#include <stdexcept>
#include <strings.h>

#include "larkpost/text.h"
#include "support/process.h"

namespace larkpost::test {
namespace {

// Just enough JSON for the script's output: objects, arrays, strings, numbers, true/false/null.
struct Json {
    enum class Kind { Null, Bool, Number, String, Array, Object } kind = Kind::Null;
    bool boolean = false;
    double number = 0;
    std::string text;
    std::vector<Json> items;
    std::map<std::string, Json> members;

    const Json& operator[](const std::string& key) const {
        auto it = members.find(key);
        if (kind != Kind::Object || it == members.end())
            throw std::runtime_error("parse_mime.py output lacks \"" + key + "\"");
        return it->second;
    }
    std::optional<std::string> OptionalText() const {
        if (kind == Kind::Null) return std::nullopt;
        return text;
    }
};

class JsonReader {
public:
    explicit JsonReader(const std::string& text) : m_text(text) {}

    Json ReadDocument() {
        Json value = ReadValue();
        SkipSpace();
        if (m_at != m_text.size()) Fail("trailing characters");
        return value;
    }

private:
    [[noreturn]] void Fail(const std::string& what) const {
        throw std::runtime_error("bad JSON from parse_mime.py (" + what + ") at " +
                                 std::to_string(m_at));
    }
    void SkipSpace() {
        while (m_at < m_text.size() && std::isspace(static_cast<unsigned char>(m_text[m_at])))
            ++m_at;
    }
    char Next() {
        if (m_at >= m_text.size()) Fail("unexpected end");
        return m_text[m_at++];
    }
    void Expect(const std::string& word) {
        if (m_text.compare(m_at, word.size(), word) != 0) Fail("expected " + word);
        m_at += word.size();
    }

    Json ReadValue() {
        SkipSpace();
        Json value;
        if (m_at >= m_text.size()) Fail("unexpected end");
        char c = m_text[m_at];
        if (c == '{') {
            value.kind = Json::Kind::Object;
            ++m_at;
            SkipSpace();
            if (m_text[m_at] == '}') return ++m_at, value;
            for (;;) {
                SkipSpace();
                if (Next() != '"') Fail("expected a key");
                std::string key = ReadString();
                SkipSpace();
                if (Next() != ':') Fail("expected :");
                value.members[key] = ReadValue();
                SkipSpace();
                char end = Next();
                if (end == '}') break;
                if (end != ',') Fail("expected , or }");
            }
        } else if (c == '[') {
            value.kind = Json::Kind::Array;
            ++m_at;
            SkipSpace();
            if (m_text[m_at] == ']') return ++m_at, value;
            for (;;) {
                value.items.push_back(ReadValue());
                SkipSpace();
                char end = Next();
                if (end == ']') break;
                if (end != ',') Fail("expected , or ]");
            }
        } else if (c == '"') {
            ++m_at;
            value.kind = Json::Kind::String;
            value.text = ReadString();
        } else if (c == 'n') {
            Expect("null");
        } else if (c == 't' || c == 'f') {
            value.kind = Json::Kind::Bool;
            value.boolean = c == 't';
            Expect(value.boolean ? "true" : "false");
        } else {
            value.kind = Json::Kind::Number;
            std::size_t used = 0;
            value.number = std::stod(m_text.substr(m_at, 32), &used);
            m_at += used;
        }
        return value;
    }

    unsigned ReadHex4() {
        if (m_at + 4 > m_text.size()) Fail("short \\u escape");
        unsigned v = static_cast<unsigned>(std::stoul(m_text.substr(m_at, 4), nullptr, 16));
        m_at += 4;
        return v;
    }

    // After the opening quote; the text in UTF-8.
    std::string ReadString() {
        std::string out;
        for (;;) {
            char c = Next();
            if (c == '"') return out;
            if (c != '\\') {
                out += c;
                continue;
            }
            char e = Next();
            switch (e) {
                case 'n': out += '\n'; break;
                case 'r': out += '\r'; break;
                case 't': out += '\t'; break;
                case 'b': out += '\b'; break;
                case 'f': out += '\f'; break;
                case 'u': {
                    std::u16string units(1, static_cast<char16_t>(ReadHex4()));
                    if (units[0] >= 0xD800 && units[0] <= 0xDBFF &&
                        m_text.compare(m_at, 2, "\\u") == 0) {
                        m_at += 2;
                        units += static_cast<char16_t>(ReadHex4());
                    }
                    out += ToUtf8(units);
                    break;
                }
                default: out += e;  // \" \\ \/
            }
        }
    }

    const std::string& m_text;
    std::size_t m_at = 0;
};

std::string FromHex(const std::string& hex) {
    std::string bytes;
    bytes.reserve(hex.size() / 2);
    for (std::size_t i = 0; i + 1 < hex.size(); i += 2)
        bytes += static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16));
    return bytes;
}

ParsedMime FromJson(const Json& json) {
    ParsedMime parsed;
    for (const auto& pair : json["headers"].items)
        parsed.headers.emplace_back(pair.items.at(0).text, pair.items.at(1).text);
    parsed.structure = json["structure"].text;
    for (const auto& defect : json["defects"].items) parsed.defects.push_back(defect.text);
    for (const auto& part : json["parts"].items) {
        MimeLeaf leaf;
        leaf.contentType = part["content_type"].text;
        leaf.charset = part["charset"].OptionalText();
        leaf.filename = part["filename"].OptionalText();
        leaf.disposition = part["disposition"].OptionalText();
        leaf.transferEncoding = part["transfer_encoding"].OptionalText();
        leaf.contentLength = part["content_length"].OptionalText();
        leaf.rawLength = static_cast<std::size_t>(part["raw_length"].number);
        leaf.payload = FromHex(part["payload_hex"].text);
        parsed.parts.push_back(std::move(leaf));
    }
    return parsed;
}

ParsedMime Run(const std::vector<std::string>& argv, const std::string& input) {
    ProcessResult result = RunProcess(argv, input);
    if (result.exitCode != 0)
        throw std::runtime_error("parse_mime.py failed (" + std::to_string(result.exitCode) +
                                 "): " + result.err);
    return FromJson(JsonReader(result.out).ReadDocument());
}

const std::string kScript = std::string(LARKPOST_TESTS_DIR) + "/tools/parse_mime.py";

}  // namespace

std::optional<std::string> ParsedMime::Header(const std::string& name) const {
    for (const auto& [key, value] : headers)
        if (::strcasecmp(key.c_str(), name.c_str()) == 0) return value;
    return std::nullopt;
}

std::vector<std::string> ParsedMime::HeaderNames() const {
    std::vector<std::string> names;
    for (const auto& header : headers) names.push_back(header.first);
    return names;
}

ParsedMime ParseMime(const std::string& messageBytes) {
    return Run({kSystemPython, kScript}, messageBytes);
}

ParsedMime ParseMimeFile(const std::string& path) { return Run({kSystemPython, kScript, path}, {}); }

}  // namespace larkpost::test
