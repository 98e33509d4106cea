// The parts of the larkpost command that need no process: line ends, sizes, the progress line at
// any width, options given inline, the port's range, escaped control characters, exit statuses.
#include <gtest/gtest.h>

#if __has_include("cli_options.h")
#include "cli_error.h"
#include "cli_options.h"
#include "control_escapes.h"
#include "larkpost/error.h"
#include "progress_bar.h"
#include "text_input.h"

namespace larkpost::cli {
namespace {

TEST(CommandParts, LineEndsSizesAndTheProgressLine) {
    EXPECT_EQ(WithCrLfLineEnds(u"a\nb\r\nc\r\r\n\nd\r"), u"a\r\nb\r\nc\r\n\r\n\r\nd\r\n");
    EXPECT_EQ(FormatSize(1023) + FormatSize(1024) + FormatSize(1536) + FormatSize(5 << 20),
              "1023 B1.0 KiB1.5 KiB5.0 MiB");
    // The bar takes what the counts leave of the width, less one column so that it never wraps.
    const std::string bar = std::string(11, '#') + std::string(35, '.');
    EXPECT_EQ(FormatProgressLine(512, 2048, 80), "Sending [" + bar + "]  25%  512 B of 2.0 KiB");
    EXPECT_EQ(FormatProgressLine(2048, 2048, 70),
              "Sending [" + std::string(21, '#') + "] 100%  2.0 KiB, waiting for the server");
    for (int columns : {1, 2, 10, 40, 200})
        EXPECT_LE(FormatProgressLine(700, 100000, columns).size(), std::max(columns - 1, 1));
}

TEST(CommandParts, OptionsInlineAndPortsFrom1) {
    const char* given[] = {"", "--from=a", "--to", "b", "--subject=--x=", "--server=h", "--port=9"};
    const Options o = ParseOptions(7, given);
    EXPECT_EQ(o.from + o.to[0] + o.subject + std::to_string(o.port), "ab--x=9");
    const char* zero[] = {"", "--from", "a", "--to", "b", "--server", "h", "--port", "0"};
    try {
        ParseOptions(9, zero);
        ADD_FAILURE() << "port 0 accepted";
    } catch (const CliError& e) {
        EXPECT_EQ(std::to_string(e.status) + std::to_string(e.number) + e.description,
                  "25option --port needs a whole number from 1 to 65535, not '0'");
    }
}

TEST(CommandParts, ControlCharactersEscapedAndStatusOfAnOversizedSend) {
    // Printable UTF-8 stays; C0, DEL and C1 controls and bytes that are not UTF-8 are escaped.
    EXPECT_EQ(EscapeControls(
                  "caf\xc3\xa9 \xe2\x82\xac\xf0\x9f\x93\xa7\\x1b\x1b]0;t\x07\r\n\t\x7f\xc2\x9b"),
              "caf\xc3\xa9 \xe2\x82\xac\xf0\x9f\x93\xa7\\x1b\\x1b]0;t\\x07\\r\\n\\t\\x7f\\u{9b}");
    EXPECT_EQ(EscapeControls("\x9b\xc0\xaf\xed\xa0\x80\xe2\x82"),
              "\\x9b\\xc0\\xaf\\xed\\xa0\\x80\\xe2\\x82");
    EXPECT_EQ(StatusFor(Step::Send, ERROR_OVERFLOW), kExitMessage);  // longer than int32 counts
}

}  // namespace
}  // namespace larkpost::cli
#else
TEST(CommandParts, NotBuilt) { GTEST_SKIP() << "the larkpost command is not part of this build"; }
#endif
