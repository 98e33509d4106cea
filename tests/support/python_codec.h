// Decoding with Python's own codecs, an implementation independent of the library's encoders.
#ifndef LARKPOST_TESTS_PYTHON_CODEC_H
#define LARKPOST_TESTS_PYTHON_CODEC_H

#include <string>
#include <vector>

namespace larkpost::test {

// Runs the Python function (such as "binascii.a2b_qp" or "base64.b64decode") over each text in
// one /usr/bin/python3 process and returns the decoded bytes, one result per text.
std::vector<std::string> DecodeWithPython(const std::string& function, const std::vector<std::string>& texts);

}  // namespace larkpost::test

#endif
