#include <gtest/gtest.h>

#include <random>

#include "encoding/common.h"
#include "platform/codepage.h"
#include "support/python_codec.h"

namespace larkpost::detail {
namespace {

std::u16string Repeat(std::u16string_view piece, int n) {
    std::u16string text;
    for (int i = 0; i < n; ++i) text += piece;
    return text;
}

// Only ! to < and > to ~ stay literal; a soft break "=\r\n" follows at most 75 characters; a
// three-character piece is never split; line ends of the input are encoded and counted.
TEST(QuotedPrintable, EncodesExactly) {
    const std::u16string a75 = Repeat(u"a", 75), spaces25 = Repeat(u"=20", 25);
    const std::pair<std::u16string, std::u16string> cases[] = {
        {u"", u""},
        {u"a.b=c d", u"a=2Eb=3Dc=20d"},
        {u"Hi there.\r\n", u"Hi=20there=2E=0D=0A"},
        {u"-./<=>~\x7F!", u"-=2E/<=3D>~=7F!"},
        {u"\t \n", u"=09=20=0A"},
        {std::u16string(1, u'\0') + u"x", u"=00x"},   // counted, not ended by NUL
        {u"\u00E9\u00FF\u20AC\u4E2D", u"=E9=FF=80?"},  // through the code page, "?" off it
        {a75, a75},
        {a75 + u"a", a75 + u"=\r\na"},
        {Repeat(u"a", 200), a75 + u"=\r\n" + a75 + u"=\r\n" + Repeat(u"a", 50)},
        {Repeat(u" ", 60), spaces25 + u"=\r\n" + spaces25 + u"=\r\n" + Repeat(u"=20", 10)},
        {Repeat(u"a", 72) + u" b", Repeat(u"a", 72) + u"=20=\r\nb"},
        {Repeat(u"a", 73) + u" b", Repeat(u"a", 73) + u"=\r\n=20b"},
        {Repeat(u"a", 72) + u".", Repeat(u"a", 72) + u"=2E"},
        {Repeat(u"a", 73) + u".", Repeat(u"a", 73) + u"=\r\n=2E"},
        {a75 + u".", a75 + u"=\r\n=2E"},
        {u"a" + Repeat(u" ", 25), u"a" + Repeat(u"=20", 24) + u"=\r\n=20"},
        {Repeat(u"a", 70) + u"\r\nb", Repeat(u"a", 70) + u"=0D=\r\n=0Ab"},
        {u"x \r\ny\t", u"x=20=0D=0Ay=09"},
    };
    for (const auto& [text, encoded] : cases)
        EXPECT_EQ(QuotedPrintableEncode(text), encoded) << testing::PrintToString(text);

    std::u16string out = u"head:";
    QuotedPrintableEncodeTo(a75 + u"a", out);
    EXPECT_EQ(out, u"head:" + a75 + u"=\r\na");
}

// Random texts over all 256 codes decode back with Python's decoder, and every output line
// keeps the shape the message assembly depends on.
TEST(QuotedPrintable, RandomTextsRoundTripThroughAnIndependentDecoder) {
    std::mt19937 random(20240611);
    std::vector<std::string> inputs, encoded;
    for (int round = 0; round < 60; ++round) {
        std::string bytes(std::uniform_int_distribution<int>(0, 400)(random), '\0');
        const int alphabet = round % 3 == 0 ? 256 : 128;  // some rounds mostly literal
        for (char& b : bytes)
            b = static_cast<char>(std::uniform_int_distribution<int>(0, alphabet - 1)(random));
        if (round == 0) {
            bytes.clear();
            for (int b = 0; b < 256; ++b) bytes += static_cast<char>(b);
        }
        const std::u16string output = QuotedPrintableEncode(FromAnsi(bytes));
        const std::string ascii = ToAnsi(output);
        for (std::size_t start = 0, end;; start = end + 3) {
            end = ascii.find("=\r\n", start);
            const std::string line =
                ascii.substr(start, end == std::string::npos ? end : end - start);
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
