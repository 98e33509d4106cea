// Text from outside the command, made safe to print on a terminal.
#ifndef LARKPOST_TOOLS_CONTROL_ESCAPES_H
#define LARKPOST_TOOLS_CONTROL_ESCAPES_H

#include <string>
#include <string_view>

namespace larkpost::cli {

// Server replies, file names and addresses may hold control characters that a terminal obeys
// (ESC sequences rewrite the screen or the window title). They are shown instead as \r, \n, \t,
// \xNN (other C0 controls, DEL, and bytes that are not UTF-8) or \u{NN} (C1 controls).
std::string EscapeControls(std::string_view text);

}  // namespace larkpost::cli

#endif
