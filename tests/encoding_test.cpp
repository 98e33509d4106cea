// The encoders' exact text at every edge and in every kernel; boundaries; extensions.
#include <gtest/gtest.h>

#include <random>

#include "encoding/base64.h"
#include "encoding/boundary.h"
#include "encoding/file_extension.h"
#include "encoding/quoted_printable.h"
#include "platform/clock.h"
#include "platform/codepage.h"

namespace larkpost::detail {
namespace {

std::u16string A(std::size_t n) { return std::u16string(n, u'a'); }

// Quoted-printable: only ! to < and > to ~ stay literal; a soft break "=\r\n" follows at most
// 75 characters and never splits "=XX". Base64: lines of 76 joined by CR LF, none after the
// last. Both take each character through the code page, and append behind existing text.
TEST(Encoders, WriteExactly) {
    const std::pair<std::u16string, std::u16string> quotedPrintable[] = {
        {u"", u""}, {u"Hi there.\r\n", u"Hi=20there=2E=0D=0A"}, {u"\u20AC" + A(15), u"=80" + A(15)},
        {u"-./<=>~\x7F!\t\n", u"-=2E/<=3D>~=7F!=09=0A"}, {std::u16string(u"\0x", 2), u"=00x"},
        {u"\u00E9\u00FF\u4E2D\U0001F600", u"=E9=FF???"}, {A(75), A(75)},
        {A(76), A(75) + u"=\r\na"}, {A(200), A(75) + u"=\r\n" + A(75) + u"=\r\n" + A(50)},
        {A(72) + u" b", A(72) + u"=20=\r\nb"}, {A(73) + u".", A(73) + u"=\r\n=2E"},
        {A(70) + u"\r\nb", A(70) + u"=0D=\r\n=0Ab"}};
    for (const auto& [text, encoded] : quotedPrintable)
        EXPECT_EQ(QuotedPrintableEncode(text), ToAnsi(encoded));
    const std::u16string line(76, u'A'), zeros(114, u'\0');
    const std::pair<std::u16string, std::u16string> base64[] = {
        {u"", u""}, {u"a", u"YQ=="}, {u"ab", u"YWI="}, {u"abc", u"YWJj"},
        {u"\u20AC\u4E2D\u00FF", u"gD//"}, {std::u16string(u"\0u\0p", 4), u"AHUAcA=="},
        {zeros.substr(57), line}, {zeros.substr(56), line + u"\r\nAA=="}, {zeros, line + u"\r\n" + line}};
    for (const auto& [text, encoded] : base64) EXPECT_EQ(Base64Encode(text), encoded);
    std::string out = "head:";
    QuotedPrintableEncodeTo(u".", out), Base64EncodeBytesTo("abc", out);
    EXPECT_EQ(out, "head:=2EYWJj");
}

// Random bytes of every length to 200 and around the encoder's buffer of whole lines: every Base64
// kernel this machine has writes what the scalar one writes, of the length announced.
TEST(Encoders, EveryKernelWritesWhatTheScalarOneWrites) {
    std::mt19937 random(7);
    std::vector<std::string> inputs(1);
    for (int b = 0; b < 256; ++b) inputs[0] += char(b);
    for (std::size_t n : {1000u, 3647u, 3648u, 3649u, 20000u}) inputs.emplace_back(n, '\0');
    for (std::size_t n = 0; n <= 200; ++n) inputs.emplace_back(n, '\0');
    for (std::size_t i = 1; i < inputs.size(); ++i)
        for (char& b : inputs[i]) b = char(random() % (i % 3 ? 256 : 128));
    std::vector<std::u16string> scalar;
    for (const char* kernel : {"scalar", "ssse3", "avx2", ""}) {
        if (!SelectBase64KernelForTesting(kernel)) continue;
        for (std::size_t i = 0; i < inputs.size(); ++i) {
            std::u16string out;
            Base64EncodeBytesTo(inputs[i], out);
            if (scalar.size() < inputs.size()) scalar.push_back(out);
            ASSERT_EQ(out.size(), Base64EncodedLength(inputs[i].size())) << kernel << i;
            ASSERT_EQ(out, scalar[i]) << kernel << i;
        }
    }
}

// The counter runs from 1 to 32766 and wraps to 1; the timer text keeps seven significant
// digits, without the point or an exponent. An extension follows the name's last dot.
TEST(Common, BoundariesAndFileExtensions) {
    SetSystemTimerForTesting([] { return 36000.5f; });
    SetBoundaryCounterForTesting(32766);
    EXPECT_EQ(MakeBoundary(), u"--=-MessageBoundary_32766_360005");
    EXPECT_EQ(MakeBoundary(), u"--=-MessageBoundary_1_360005");
    SetSystemTimerForTesting({});
    const std::pair<float, std::u16string> timer[] = {
        {36000.0f, u"36000"}, {43200.55f, u"4320055"}, {12345.678f, u"1234568"}, {0.0f, u"0"},
        {1.9999996f, u"2"}, {0.000123456789f, u"00001234568"}, {12345678.0f, u"12345680"}};
    for (const auto& [seconds, text] : timer) EXPECT_EQ(TimerText(seconds), text) << seconds;
    const std::pair<std::u16string, std::optional<std::u16string>> names[] = {
        {u"archive.tar.GZ", u"GZ"}, {u".profile", u"profile"}, {u"name.", u""},
        {u"/a.b/readme", u"b/readme"}, {u"Makefile", std::nullopt}, {u"", std::nullopt}};
    for (const auto& [name, extension] : names) EXPECT_EQ(GetFileExtension(name), extension);
}

}  // namespace
}  // namespace larkpost::detail
