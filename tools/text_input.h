// Reading a body for the message: a UTF-8 file, or standard input for "-".
#ifndef LARKPOST_TOOLS_TEXT_INPUT_H
#define LARKPOST_TOOLS_TEXT_INPUT_H

#include <string>
#include <string_view>

namespace larkpost::cli {

// The text of the file (or of standard input for "-"), every line end made CR LF. Throws
// CliError with exit status 3 when it cannot be read or is not UTF-8; what names the input in
// the description ("body file").
std::u16string ReadTextInput(const std::string& path, std::string_view what);

// Line ends as the message needs them: CR LF, LF and a lone CR all become CR LF.
std::u16string WithCrLfLineEnds(std::u16string_view text);

}  // namespace larkpost::cli

#endif
