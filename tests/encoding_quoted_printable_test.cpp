#include <gtest/gtest.h>

#include <random>

#include "encoding/common.h"
#include "platform/codepage.h"
#include "support/python_codec.h"

namespace larkpost::detail {
namespace {

std::u16string Repeat(char16_t c, std::size_t n) { return std::u16string(n, c); }

std::u16string Repeat(std::u16string_view piece, int n) {
    std::u16string text;
    for (int i = 0; i < n; ++i) text += piece;
    return text;
}

std::u16string Encode(const std::u16string& text) { return QuotedPrintableEncode(text); }

TEST(QuotedPrintable, WorkedExamples) {
    EXPECT_EQ(Encode(u"a.b=c d"), u"a=2Eb=3Dc=20d");
    EXPECT_EQ(Encode(u"Hi there.\r\n"), u"Hi=20there=2E=0D=0A");
    EXPECT_EQ(Encode(std::u16string(1, char16_t{233})), u"=E9");

    const std::u16string line76 = Repeat(u'a', 75) + u"=\r\n";
    EXPECT_EQ(Encode(Repeat(u'a', 200)), line76 + line76 + Repeat(u'a', 50));

    const std::u16string spaces25 = Repeat(u"=20", 25);
    EXPECT_EQ(Encode(Repeat(u' ', 60)), spaces25 + u"=\r\n" + spaces25 + u"=\r\n" + Repeat(u"=20", 10));

    EXPECT_EQ(Encode(Repeat(u'a', 72) + u" b"), Repeat(u'a', 72) + u"=20=\r\nb");
    EXPECT_EQ(Encode(Repeat(u'a', 73) + u" b"), Repeat(u'a', 73) + u"=\r\n=20b");
}

TEST(QuotedPrintable, LiteralRangesEndExactly) {
    EXPECT_EQ(Encode(u"-./"), u"-=2E/");
    EXPECT_EQ(Encode(u"<=>"), u"<=3D>");
    EXPECT_EQ(Encode(u"~\x7F"), u"~=7F");
    EXPECT_EQ(Encode(u"!"), u"!");
    EXPECT_EQ(Encode(u"\t \n"), u"=09=20=0A");
    EXPECT_EQ(Encode(std::u16string(1, u'\0') + u"x"), u"=00x");  // counted, not ended by NUL
    EXPECT_EQ(Encode(u"\u00FF\u20AC"), u"=FF=80");                // through the code page
    EXPECT_EQ(Encode(u"\u4E2D"), u"?");                           // not on the page
}

TEST(QuotedPrintable, EmptyAndLineLengthLimit) {
    EXPECT_EQ(Encode(u""), u"");
    EXPECT_EQ(Encode(Repeat(u'a', 75)), Repeat(u'a', 75));
    EXPECT_EQ(Encode(Repeat(u'a', 76)), Repeat(u'a', 75) + u"=\r\na");
}

TEST(QuotedPrintable, ThreeCharacterPiecesBreakBeforeTheLimit) {
    // A line followed by "=2E" breaks at 73, 74 or 75 characters; a piece is never split.
    EXPECT_EQ(Encode(Repeat(u'a', 72) + u"."), Repeat(u'a', 72) + u"=2E");
    EXPECT_EQ(Encode(Repeat(u'a', 73) + u"."), Repeat(u'a', 73) + u"=\r\n=2E");
    EXPECT_EQ(Encode(Repeat(u'a', 75) + u"."), Repeat(u'a', 75) + u"=\r\n=2E");
    EXPECT_EQ(Encode(u"a" + Repeat(u' ', 25)), u"a" + Repeat(u"=20", 24) + u"=\r\n=20");
}

TEST(QuotedPrintable, LineEndsOfTheInputDoNotResetTheCount) {
    EXPECT_EQ(Encode(Repeat(u'a', 70) + u"\r\nb"), Repeat(u'a', 70) + u"=0D=\r\n=0Ab");
    EXPECT_EQ(Encode(u"x \r\ny\t"), u"x=20=0D=0Ay=09");
}

TEST(QuotedPrintable, AppendsBehindExistingText) {
    std::u16string out = u"head:";
    QuotedPrintableEncodeTo(Repeat(u'a', 76), out);
    EXPECT_EQ(out, u"head:" + Repeat(u'a', 75) + u"=\r\na");
}

// Random texts over all 256 codes decode back with Python's decoder, and every output line
// keeps the shape the message assembly depends on.
TEST(QuotedPrintable, RandomTextsRoundTripThroughAnIndependentDecoder) {
    std::mt19937 random(20240611);
    std::vector<std::string> inputs, encoded;
    for (int round = 0; round < 60; ++round) {
        std::string bytes(std::uniform_int_distribution<int>(0, 400)(random), '\0');
        const int alphabet = round % 3 == 0 ? 256 : 128;  // some rounds mostly literal
        for (char& b : bytes) b = static_cast<char>(std::uniform_int_distribution<int>(0, alphabet - 1)(random));
        if (round == 0) {
            bytes.clear();
            for (int b = 0; b < 256; ++b) bytes += static_cast<char>(b);
        }
        const std::u16string output = Encode(FromAnsi(bytes));
        const std::string ascii = ToAnsi(output);
        for (std::size_t start = 0, end;; start = end + 3) {
            end = ascii.find("=\r\n", start);
            const std::string line = ascii.substr(start, end == std::string::npos ? end : end - start);
            ASSERT_LE(line.size(), 75u);
            ASSERT_EQ(line.find_first_of(".\r\n \t"), std::string::npos) << line;
            ASSERT_TRUE(end == std::string::npos || line.size() >= 73) << line;
            if (end == std::string::npos) break;
        }
        for (char16_t c : output) ASSERT_LT(c, 128);
        inputs.push_back(bytes);
        encoded.push_back(ascii);
    }
    EXPECT_EQ(test::DecodeWithPython("binascii.a2b_qp", encoded), inputs);
}

}  // namespace
}  // namespace larkpost::detail
