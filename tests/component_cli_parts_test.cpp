// The parts of the larkpost command that need no process: line ends of bodies, the progress
// line's look at any terminal width, sizes, and option parsing details.
#include <gtest/gtest.h>

#if __has_include("cli_options.h")
#include "cli_error.h"
#include "cli_options.h"
#include "progress_bar.h"
#include "text_input.h"

namespace larkpost::cli {
namespace {

TEST(CliTextInput, EveryLineEndBecomesCrLf) {
    const std::pair<std::u16string, std::u16string> cases[] = {
        {u"a\nb\r\nc\rd", u"a\r\nb\r\nc\r\nd"}, {u"\r\r\n\n", u"\r\n\r\n\r\n"},
        {u"no line end", u"no line end"},       {u"", u""},
        {u"end\r", u"end\r\n"}};
    for (const auto& [text, expected] : cases) EXPECT_EQ(WithCrLfLineEnds(text), expected);
}

TEST(CliProgress, SizesReadAsBytesKibAndMib) {
    const std::pair<int64_t, std::string> cases[] = {
        {0, "0 B"},           {1023, "1023 B"},          {1024, "1.0 KiB"},
        {1536, "1.5 KiB"},    {1024 * 1024, "1.0 MiB"}, {int64_t{5} << 30, "5120.0 MiB"}};
    for (const auto& [bytes, text] : cases) EXPECT_EQ(FormatSize(bytes), text);
}

TEST(CliProgress, LineShowsBarPercentAndCountsAndNeverWraps) {
    // 80 columns: the bar takes what the counts leave, less one column against wrapping.
    std::string quarter = FormatProgressLine(512, 2048, 80);
    EXPECT_EQ(quarter,
              "Sending [" + std::string(11, '#') + std::string(35, '.') + "]  25%  512 B of 2.0 KiB");
    EXPECT_EQ(quarter.size(), 79u);
    EXPECT_EQ(FormatProgressLine(2048, 2048, 100),
              "Sending [" + std::string(50, '#') + "] 100%  2.0 KiB, waiting for the server");
    for (int columns : {1, 2, 10, 20, 40, 60, 80, 200}) {
        std::string line = FormatProgressLine(700, 100000, columns);
        EXPECT_LE(static_cast<int>(line.size()), std::max(columns - 1, 1)) << columns << line;
    }
    EXPECT_NE(FormatProgressLine(0, 0, 80).find("100%"), std::string::npos);
    EXPECT_NE(FormatProgressLine(-5, 100, 80).find("  0%"), std::string::npos);
    EXPECT_NE(FormatProgressLine(500, 100, 80).find("100%"), std::string::npos);
}

Options Parse(std::vector<const char*> args) {
    args.insert(args.begin(), "larkpost");
    return ParseOptions(static_cast<int>(args.size()), args.data());
}

TEST(CliOptions, RepeatableOptionsAndInlineValues) {
    Options options = Parse({"--from=ann@example.org", "--to", "a@x", "--to=b@x", "--cc", "c@x",
                             "--bcc", "d@x", "--attach", "f1", "--attach", "f2", "--subject=--odd--",
                             "--server", "h", "--port=2525", "--timeout", "5", "--quiet"});
    EXPECT_EQ(options.to, (std::vector<std::string>{"a@x", "b@x"}));
    EXPECT_EQ(options.cc, std::vector<std::string>{"c@x"});
    EXPECT_EQ(options.bcc, std::vector<std::string>{"d@x"});
    EXPECT_EQ(options.attachments, (std::vector<std::string>{"f1", "f2"}));
    EXPECT_EQ(options.subject, "--odd--");
    EXPECT_EQ(options.port, 2525);
    EXPECT_EQ(options.timeout, 5);
    EXPECT_TRUE(options.quiet);
    EXPECT_FALSE(options.user.has_value());
    // Help and version need nothing else.
    EXPECT_TRUE(Parse({"--help"}).help);
    EXPECT_TRUE(Parse({"--version"}).version);
}

TEST(CliOptions, MistakesAreUsageErrorsNumbered5) {
    const std::vector<std::vector<const char*>> cases = {
        {"--from", "a", "--to", "b", "--server", "h", "--port", "0"},
        {"--from", "a", "--to", "b", "--server", "h", "--port", "25x"},
        {"--from", "a", "--to", "b", "--server", "h", "--port", ""},
        {"--from", "a", "--to"},
        {"--from", "a", "--to", "b", "--server", "h", "--timeout", "0"},
        {"-x"}};
    for (const auto& args : cases) {
        try {
            Parse(args);
            ADD_FAILURE() << "accepted: " << args.back();
        } catch (const CliError& error) {
            EXPECT_EQ(error.status, kExitUsage);
            EXPECT_EQ(error.number, 5);
            EXPECT_FALSE(error.description.empty());
        }
    }
}

}  // namespace
}  // namespace larkpost::cli
#else
TEST(CliParts, NotBuilt) { GTEST_SKIP() << "the larkpost command is not part of this build"; }
#endif
