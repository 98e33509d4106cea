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
    EXPECT_TRUE(ContinuesReply(u"250-PIPELINING"));
    EXPECT_TRUE(ContinuesReply(u"abc-"));
    EXPECT_FALSE(ContinuesReply(u"250 OK"));
    EXPECT_FALSE(ContinuesReply(u"250x-"));
    EXPECT_FALSE(ContinuesReply(u"250"));
    EXPECT_FALSE(ContinuesReply(u"25-"));
    EXPECT_FALSE(ContinuesReply(u""));
}

TEST(SmtpReplyTest, CodeIsTheNumberInTheFirstThreeCharacters) {
    EXPECT_EQ(ReplyCode(u"250 OK"), 250);
    EXPECT_EQ(ReplyCode(u"354"), 354);
    EXPECT_EQ(ReplyCode(u"0421 late"), 42);
    EXPECT_EQ(ReplyCode(u"7"), 7);
    EXPECT_EQ(ReplyCode(u"42"), 42);
    EXPECT_EQ(ReplyCode(u"999-x"), 999);
}

TEST(SmtpReplyTest, CodesThatAreNotPlainDigitsAreTypeMismatches) {
    for (std::u16string_view line : {u"", u"ab", u" 25", u"+25", u"-25", u"2.5", u"25a", u"OK 250",
                                     u"\uFF12\uFF15\uFF10 fullwidth"}) {
        EXPECT_EQ(NumberRaisedBy([&] { ReplyCode(line); }), ERROR_TYPE_MISMATCH) << ToUtf8(line);
    }
}

TEST(SmtpReplyTest, WholeNumbersUpTo32BitsAndTheirFailures) {
    EXPECT_EQ(ParseWholeNumber(u"0"), 0);
    EXPECT_EQ(ParseWholeNumber(u"10240000"), 10240000);
    EXPECT_EQ(ParseWholeNumber(u"2147483647"), 2147483647);
    EXPECT_EQ(ParseWholeNumber(u"000000000000000017"), 17);
    EXPECT_EQ(NumberRaisedBy([] { ParseWholeNumber(u"2147483648"); }), ERROR_OVERFLOW);
    EXPECT_EQ(NumberRaisedBy([] { ParseWholeNumber(u"99999999999999999999999"); }), ERROR_OVERFLOW);
    EXPECT_EQ(NumberRaisedBy([] { ParseWholeNumber(u""); }), ERROR_TYPE_MISMATCH);
    EXPECT_EQ(NumberRaisedBy([] { ParseWholeNumber(u"-1"); }), ERROR_TYPE_MISMATCH);
    EXPECT_EQ(NumberRaisedBy([] { ParseWholeNumber(u"12 "); }), ERROR_TYPE_MISMATCH);
    EXPECT_EQ(NumberRaisedBy([] { ParseWholeNumber(u"1e6"); }), ERROR_TYPE_MISMATCH);
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
