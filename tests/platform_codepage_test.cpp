#include <gtest/gtest.h>

#include "larkpost/error.h"
#include "larkpost/text.h"
#include "platform/codepage.h"

namespace larkpost::detail {
namespace {

TEST(CodePage, EveryByteRoundTrips) {
    std::string all;
    for (int b = 0; b < 256; ++b) all += static_cast<char>(b);
    std::u16string text = FromAnsi(all);
    ASSERT_EQ(text.size(), 256u);
    EXPECT_EQ(ToAnsi(text), all);
}

TEST(CodePage, MapsTheWindows1252Specials) {
    EXPECT_EQ(AnsiChar(0x80), u'\u20AC');
    EXPECT_EQ(AnsiChar(0x9F), u'\u0178');
    EXPECT_EQ(AnsiByte(u'\u20AC'), 0x80);
    // The five bytes the page leaves undefined map to the control character of the same value.
    for (unsigned char b : {0x81, 0x8D, 0x8F, 0x90, 0x9D}) {
        EXPECT_EQ(AnsiChar(b), static_cast<char16_t>(b));
        EXPECT_EQ(AnsiByte(static_cast<char16_t>(b)), b);
    }
}

TEST(CodePage, CharactersThePageLacksBecomeQuestionMarks) {
    EXPECT_EQ(ToAnsi(u"a\u0100\u4E2D\u0080z"), "a???z");  // U+0080 is not on the page either
    EXPECT_EQ(ToAnsi(u"\xD83D\xDE00"), "??");
}

TEST(Utf8, RoundTripsAllPlanes) {
    std::u16string text = u"a\u00E9\u20AC\U0001F600";
    EXPECT_EQ(ToUtf8(text), "a\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80");
    EXPECT_EQ(FromUtf8(ToUtf8(text)), text);
}

TEST(Utf8, MalformedInputIsRefused) {
    std::u16string out;
    for (std::string bad : {"\xC3", "\x80", "\xC0\xAF", "\xED\xA0\x80", "\xF4\x90\x80\x80", "ab\xE2\x82"})
        EXPECT_FALSE(TryFromUtf8(bad, out)) << bad.size();
    try {
        FromUtf8("\xFF");
        FAIL();
    } catch (const RaisedError& e) {
        EXPECT_EQ(e.Number(), ERROR_INVALID_ARGUMENT);
    }
}

TEST(RaisedError, CarriesNumberDescriptionSourceAndUtf8What) {
    RaisedError e(ERROR_BASE + 1002, u"caf\u00E9", u"Larkpost.TcpStream");
    EXPECT_EQ(e.Number(), -1550909440 + 1002);
    EXPECT_EQ(e.Description(), u"caf\u00E9");
    EXPECT_EQ(e.Source(), u"Larkpost.TcpStream");
    EXPECT_STREQ(e.what(), "caf\xC3\xA9");
}

}  // namespace
}  // namespace larkpost::detail
