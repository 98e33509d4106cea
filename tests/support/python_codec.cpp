#include "support/python_codec.h"

#include <stdexcept>

#include "support/process.h"

namespace larkpost::test {
namespace {

constexpr char kDecoder[] = R"(
import base64, binascii, sys
module, name = sys.argv[1].rsplit(".", 1)
decode = getattr(sys.modules[module], name)
for line in sys.stdin:
    print(decode(bytes.fromhex(line.strip())).hex())
)";

std::string ToHex(const std::string& bytes) {
    static constexpr char digits[] = "0123456789abcdef";
    std::string hex;
    for (unsigned char b : bytes) {
        hex += digits[b >> 4];
        hex += digits[b & 0xF];
    }
    return hex;
}

std::string FromHex(const std::string& hex) {
    std::string bytes;
    for (std::size_t i = 0; i + 1 < hex.size(); i += 2) bytes += static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16));
    return bytes;
}

}  // namespace

std::vector<std::string> DecodeWithPython(const std::string& function, const std::vector<std::string>& texts) {
    std::string input;
    for (const auto& text : texts) input += ToHex(text) + "\n";
    ProcessResult result = RunProcess({kSystemPython, "-c", kDecoder, function}, input);
    if (result.exitCode != 0) throw std::runtime_error("python decoder failed: " + result.err);

    std::vector<std::string> decoded;
    std::size_t start = 0;
    for (std::size_t end; (end = result.out.find('\n', start)) != std::string::npos; start = end + 1)
        decoded.push_back(FromHex(result.out.substr(start, end - start)));
    return decoded;
}

}  // namespace larkpost::test
