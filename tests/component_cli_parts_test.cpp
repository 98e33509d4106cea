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
    EXPECT_EQ(FormatProgressLine("Sending", 512, 2048, 0, 80),
              "Sending [" + bar + "]  25%  512 B of 2.0 KiB");
    EXPECT_EQ(FormatProgressLine("Sending", 2048, 2048, 9, 70),
              "Sending [" + std::string(21, '#') + "] 100%  2.0 KiB, waiting for the server");
    // With a rate: the time left rounded to seconds, as minutes and seconds.
    EXPECT_EQ(FormatProgressLine("Preparing", 1 << 20, 200 << 20, 1.5 * (1 << 20), 90),
              "Preparing [" + std::string(28, '.') +
                  "]   0%  1.0 MiB of 200.0 MiB  1.5 MiB/s  2:13 left");
    for (int columns : {1, 2, 10, 40, 200})
        EXPECT_LE(FormatProgressLine("Sending", 700, 100000, 7e4, columns).size(),
                  std::max(columns - 1, 1));
}

TEST(CommandParts, OptionsInlineAndPortsFrom1) {
    const char* given[] = {"", "--from=a", "--to", "b", "--subject=--x=", "--server=h", "--port=9", "--", "-v", "--"};
    const Options o = ParseOptions(10, given);  // after "--" come recipients only
    EXPECT_EQ(o.from + o.to[0] + o.subject + std::to_string(o.port) + o.to[1] + o.to[2] + std::to_string(o.verbose),
              "ab--x=9-v--0");
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
