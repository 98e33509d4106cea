#include <gtest/gtest.h>

#include <random>

#include "encoding/common.h"
#include "platform/codepage.h"
#include "support/python_codec.h"

namespace larkpost::detail {
namespace {

std::u16string EncodeBytes(const std::string& bytes) {
    std::u16string out;
    Base64EncodeBytesTo(bytes, out);
    return out;
}

// Lines of exactly 76 characters joined by CR LF, a last line of 4 to 76, and no other CR or LF.
void ExpectLineShape(const std::string& text) {
    std::size_t start = 0;
    for (std::size_t end; (end = text.find("\r\n", start)) != std::string::npos; start = end + 2)
        ASSERT_EQ(end - start, 76u) << text;
    const std::string last = text.substr(start);
    ASSERT_EQ(last.find_first_of("\r\n"), std::string::npos);
    if (!text.empty()) {
        ASSERT_TRUE(last.size() >= 4 && last.size() <= 76 && last.size() % 4 == 0) << text;
    }
}

// Text goes through the code page, one byte a character.
TEST(Base64, EncodesTextThroughTheCodePageWithPadding) {
    const std::pair<std::u16string, std::u16string> cases[] = {
        {u"", u""},         {u"a", u"YQ=="},    {u"ab", u"YWI="},
        {u"abc", u"YWJj"},  {u"abcd", u"YWJjZA=="},
        {std::u16string(u"\0user\0pass", 10), u"AHVzZXIAcGFzcw=="},  // the AUTH PLAIN token
        {u"\u20AC", u"gA=="},  // one byte, 0x80, not two
        {u"\u4E2D", u"Pw=="},  // not on the page: "?"
        {u"\u00FF\u00FE", u"//4="},
    };
    for (const auto& [text, encoded] : cases)
        EXPECT_EQ(Base64Encode(text), encoded) << testing::PrintToString(text);
}

TEST(Base64, LinesBreakAfter76CharactersAndBytesAppendBehindExistingText) {
    const std::u16string line(76, u'A');
    EXPECT_EQ(EncodeBytes(std::string(57, '\0')), line);
    EXPECT_EQ(EncodeBytes(std::string(58, '\0')), line + u"\r\nAA==");
    EXPECT_EQ(EncodeBytes(std::string(114, '\0')), line + u"\r\n" + line);
    std::u16string out = u"head:";
    Base64EncodeBytesTo("abc", out);
    Base64EncodeBytesTo("", out);
    EXPECT_EQ(out, u"head:YWJj");
    EXPECT_FALSE(SelectBase64KernelForTesting("neon-on-x86"));
}

// All 256 byte values, and random bytes of every length from 0 to 200 (across the 57-byte line
// and both paddings) and around the buffer of whole lines, decode back with Python's decoder,
// whichever of the encoding kernels this machine has runs them. Their lengths are exactly
// Base64EncodedLength.
class Base64Kernels : public ::testing::TestWithParam<const char*> {
protected:
    void SetUp() override {
        if (!SelectBase64KernelForTesting(GetParam()))
            GTEST_SKIP() << GetParam() << " not on this machine";
    }
    void TearDown() override { SelectBase64KernelForTesting(""); }
};

TEST_P(Base64Kernels, EveryByteAndLengthRoundTripsThroughAnIndependentDecoder) {
    std::string all;
    for (int b = 0; b < 256; ++b) all += static_cast<char>(b);
    std::vector<std::string> inputs{all};
    EXPECT_EQ(Base64Encode(FromAnsi(all)), EncodeBytes(all));

    std::mt19937 random(7);
    auto randomBytes = [&](std::size_t n) {
        std::string bytes(n, '\0');
        for (char& b : bytes) b = static_cast<char>(random());
        return bytes;
    };
    for (std::size_t n = 0; n <= 200; ++n) inputs.push_back(randomBytes(n));
    for (std::size_t n : {1000u, 3647u, 3648u, 3649u, 7298u, 20000u})
        inputs.push_back(randomBytes(n));
    std::vector<std::string> encoded;
    for (const auto& bytes : inputs) {
        const std::u16string out = EncodeBytes(bytes);
        ASSERT_EQ(out.size(), Base64EncodedLength(bytes.size())) << bytes.size();
        encoded.push_back(ToAnsi(out));
        ExpectLineShape(encoded.back());
    }
    const auto decoded = test::DecodeWithPython("base64.b64decode", encoded);
    ASSERT_EQ(decoded.size(), inputs.size());
    for (std::size_t i = 0; i < inputs.size(); ++i)
        EXPECT_EQ(decoded[i], inputs[i]) << "length " << inputs[i].size();
}

INSTANTIATE_TEST_SUITE_P(Kernels, Base64Kernels, ::testing::Values("scalar", "ssse3", "avx2"));

}  // namespace
}  // namespace larkpost::detail
