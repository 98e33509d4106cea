// Logging in at the end of Connect against a scripted peer: which credentials lead to an
// exchange, which scheme is chosen, the exact lines, and both forms of refusal.
#include <gtest/gtest.h>

#include "larkpost/error.h"
#include "larkpost/mail_client.h"
#include "platform/errors.h"
#include "support/mail_client_access.h"
#include "support/message_testing.h"
#include "support/smtp_servers.h"

namespace larkpost {
namespace {

using detail::MailClientAccess;
using Lines = std::vector<std::string>;

const std::string kBothSchemes = "250-peer\r\n250-AUTH PLAIN LOGIN\r\n250 8BITMIME\r\n";
const std::string kLoginOnly = "250-peer\r\n250 AUTH LOGIN\r\n";
const std::string kPlainOnly = "250-peer\r\n250 AUTH PLAIN\r\n";
const std::string kUsername = "334 VXNlcm5hbWU6\r\n", kPassword = "334 UGFzc3dvcmQ6\r\n";

// One login: the server's EHLO reply and its replies to each line after EHLO, the credentials,
// then the lines the client sent after EHLO and, when it fails, its error.
struct LoginCase {
    const char* name;
    std::string ehloReply;
    Lines replies;
    std::u16string user, password;
    Lines sent;
    int32_t number = 0;
    std::u16string description = u"";
};
void PrintTo(const LoginCase& c, std::ostream* os) { *os << c.name; }

class SmtpLoginTest : public ::testing::TestWithParam<LoginCase> {};

TEST_P(SmtpLoginTest, SendsExactlyTheseLinesAndKeepsTheConnection) {
    const LoginCase& c = GetParam();
    test::ScriptedPeer peer;
    test::Greet(peer, c.ehloReply);
    for (const std::string& reply : c.replies) peer.Reply(reply);
    peer.WaitForClose().Start();
    MailClient client;
    test::PointAt(client, peer.Port());
    std::optional<RaisedError> error;
    try {
        client.Connect(c.user, c.password);
    } catch (const RaisedError& raised) {
        error = raised;
    }
    EXPECT_EQ(error ? error->Number() : 0, c.number);
    if (error) {
        EXPECT_EQ(error->Description(), c.description);
        EXPECT_EQ(error->Source(), detail::kSourceMailClient);
    }
    EXPECT_TRUE(MailClientAccess::Stream(client).Connected());
    client.Disconnect(true);
    ASSERT_TRUE(peer.Join());
    Lines lines = peer.Lines();
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines.front(), test::EhloLine(client));
    EXPECT_EQ(Lines(lines.begin() + 1, lines.end()), c.sent);
    EXPECT_TRUE(peer.Problems().empty());
}

const std::u16string kUnsupported =
    u"The mail server does not support the AUTH LOGIN or AUTH PLAIN authenication schemes.";

INSTANTIATE_TEST_SUITE_P(
    Exchanges, SmtpLoginTest,
    ::testing::Values(
        LoginCase{"NoCredentialsNoAuthEvenWhenOffered", kBothSchemes, {}, u"", u"", {}},
        LoginCase{"LoginIsPreferred", kBothSchemes,
                  {kUsername, kPassword, "235 2.7.0 Authentication successful\r\n"},
                  u"ann@example.test", u"s3cret",
                  {"AUTH LOGIN", "YW5uQGV4YW1wbGUudGVzdA==", "czNjcmV0"}},
        // Only the reply to the last line counts.
        LoginCase{"LoginGoesOnAfterARefusedFirstLine", kLoginOnly,
                  {"504 5.5.4 not now\r\n", "501 what\r\n", "235 fine after all\r\n"}, u"u", u"p",
                  {"AUTH LOGIN", "dQ==", "cA=="}},
        LoginCase{"CredentialsOfOneSpaceArePresent", kLoginOnly,
                  {"334 a\r\n", "334 b\r\n", "235 ok\r\n"}, u" ", u" ", {"AUTH LOGIN", "IA==", "IA=="}},
        LoginCase{"PlainSendsOneNulSeparatedToken", kPlainOnly, {"334 \r\n", "235 ok\r\n"}, u"a",
                  u"b", {"AUTH PLAIN", "AGEAYg=="}},
        // Windows-1252: o-umlaut is 0xF6, the euro sign 0x80, and a character it lacks is "?".
        LoginCase{"CredentialsGoOutInTheCodePage", kPlainOnly, {"334 \r\n", "235 ok\r\n"},
                  u"J\u00F6rg", u"\u20AC5\u4E00", {"AUTH PLAIN", "AEr2cmcAgDU/"}},
        // A refused LOGIN raises the reply alone and is not retried with PLAIN.
        LoginCase{"LoginRefused", kLoginOnly,
                  {kUsername, kPassword,
                   "535-5.7.8 Authentication\r\n535 5.7.8 credentials invalid\r\n"},
                  u"u", u"wrong", {"AUTH LOGIN", "dQ==", "d3Jvbmc="}, ERROR_AUTH_FAILED,
                  u"535-5.7.8 Authentication\r\n535 5.7.8 credentials invalid\r\n"},
        LoginCase{"PlainRefusedInItsSentence", kPlainOnly, {"334 \r\n", "535 5.7.8 no\r\n"}, u"a",
                  u"b", {"AUTH PLAIN", "AGEAYg=="}, ERROR_AUTH_FAILED,
                  u"The mail server could not authenticate you. It replied with '535 5.7.8 no\r\n'"},
        LoginCase{"UserWithoutPassword", kBothSchemes, {}, u"ann", u"", {},
                  ERROR_CREDENTIALS_INCOMPLETE,
                  u"You supplied a username, but you need a password as well."},
        LoginCase{"PasswordWithoutUser", kBothSchemes, {}, u"", u"pw", {},
                  ERROR_CREDENTIALS_INCOMPLETE,
                  u"You supplied a password, but you need a username as well."},
        LoginCase{"OnlyOtherSchemes", "250-peer\r\n250 AUTH CRAM-MD5 XOAUTH2\r\n", {}, u"u", u"p",
                  {}, ERROR_AUTH_UNSUPPORTED, kUnsupported},
        LoginCase{"NoAuthLine", "250-peer\r\n250 8BITMIME\r\n", {}, u"u", u"p", {},
                  ERROR_AUTH_UNSUPPORTED, kUnsupported},
        LoginCase{"OneLineEhlo", "250 AUTH LOGIN\r\n", {}, u"u", u"p", {}, ERROR_AUTH_UNSUPPORTED,
                  kUnsupported}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(SmtpAuthenticationTest, LongTokensGoOutWithTheEncodersLineBreaks) {
    std::u16string user(100, u'u');  // 136 Base64 characters: a line of 76 and one of 60
    test::ScriptedPeer peer;
    test::Greet(peer, kLoginOnly).Reply(kUsername).ExpectLines(2).Send(kPassword).Reply("235 ok\r\n");
    peer.WaitForClose().Start();
    MailClient client;
    test::PointAt(client, peer.Port());
    client.Connect(user, u"p");
    client.Disconnect(true);
    ASSERT_TRUE(peer.Join());
    std::string dXV1;
    for (int i = 0; i < 33; ++i) dXV1 += "dXV1";
    EXPECT_EQ(peer.Lines(), (Lines{test::EhloLine(client), "AUTH LOGIN", dXV1.substr(0, 76),
                                   dXV1.substr(76) + "dQ==", "cA=="}));
}

}  // namespace
}  // namespace larkpost
