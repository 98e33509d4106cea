// Reply-line parsing and the numbers a server sends: what counts as a number and what fails.
#include <gtest/gtest.h>

#include "larkpost/error.h"
#include "larkpost/text.h"
#include "platform/errors.h"
#include "smtp/ehlo_domain.h"
#include "smtp/smtp_reply.h"

namespace larkpost::detail {
namespace {

int32_t NumberRaisedBy(auto&& call) {
    try {
        call();
    } catch (const RaisedError& error) {
        EXPECT_EQ(error.Source(), kSourceMailClient);
        return error.Number();
    }
    ADD_FAILURE() << "nothing was raised";
    return 0;
}

TEST(SmtpReplyTest, OnlyADashInTheFourthPlaceContinuesAReply) {
    for (std::u16string_view line : {u"250-PIPELINING", u"abc-"}) EXPECT_TRUE(ContinuesReply(line));
    for (std::u16string_view line : {u"250 OK", u"250x-", u"250", u"25-", u""})
        EXPECT_FALSE(ContinuesReply(line)) << ToUtf8(line);
}

// The code is the number in the first three characters (fewer on a shorter line), which must all
// be ASCII digits; anything else is a type mismatch.
TEST(SmtpReplyTest, CodeIsTheNumberInTheFirstThreeCharacters) {
    const std::pair<std::u16string_view, int32_t> codes[] = {
        {u"250 OK", 250}, {u"354", 354}, {u"0421 late", 42}, {u"7", 7}, {u"42", 42}, {u"999-x", 999}};
    for (auto [line, code] : codes) EXPECT_EQ(ReplyCode(line), code) << ToUtf8(line);
    for (std::u16string_view line : {u"", u"ab", u" 25", u"+25", u"-25", u"2.5", u"25a", u"OK 250",
                                     u"\uFF12\uFF15\uFF10 fullwidth"})
        EXPECT_EQ(NumberRaisedBy([&] { ReplyCode(line); }), ERROR_TYPE_MISMATCH) << ToUtf8(line);
}

TEST(SmtpReplyTest, WholeNumbersUpTo32BitsAndTheirFailures) {
    const std::pair<std::u16string_view, int32_t> numbers[] = {
        {u"0", 0}, {u"10240000", 10240000}, {u"2147483647", 2147483647}, {u"000000000000000017", 17}};
    for (auto [text, number] : numbers) EXPECT_EQ(ParseWholeNumber(text), number);
    const std::pair<std::u16string_view, int32_t> failures[] = {
        {u"2147483648", ERROR_OVERFLOW}, {u"99999999999999999999999", ERROR_OVERFLOW},
        {u"", ERROR_TYPE_MISMATCH},      {u"-1", ERROR_TYPE_MISMATCH},
        {u"12 ", ERROR_TYPE_MISMATCH},   {u"1e6", ERROR_TYPE_MISMATCH}};
    for (auto [text, number] : failures)
        EXPECT_EQ(NumberRaisedBy([&] { ParseWholeNumber(text); }), number) << ToUtf8(text);
}

TEST(EhloDomainTest, HostNameFirstThenAddressLiteral) {
    EXPECT_EQ(EhloDomain(u"mailhost", u"10.0.0.5"), u"mailhost");
    EXPECT_EQ(EhloDomain(u"", u"127.0.0.1"), u"[127.0.0.1]");
    EXPECT_EQ(EhloDomain(u"", u"::1"), u"[IPv6:::1]");
    EXPECT_EQ(EhloDomain(u"", u"2001:db8::7"), u"[IPv6:2001:db8::7]");
    EXPECT_EQ(EhloDomain(u"", u""), u"localhost");
}

}  // namespace
}  // namespace larkpost::detail
