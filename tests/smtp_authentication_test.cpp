// Logging in at the end of Connect against a scripted peer: which credentials lead to an
// exchange, which scheme is chosen, the exact lines, and both forms of refusal.
#include <gtest/gtest.h>

#include "larkpost/error.h"
#include "larkpost/mail_client.h"
#include "platform/errors.h"
#include "support/mail_client_access.h"
#include "support/python_codec.h"
#include "support/smtp_servers.h"

namespace larkpost {
namespace {

using detail::MailClientAccess;
using test::ScriptedPeer;

constexpr const char* kBothSchemes = "250-peer\r\n250-AUTH PLAIN LOGIN\r\n250 8BITMIME\r\n";
constexpr const char* kLoginOnly = "250-peer\r\n250 AUTH LOGIN\r\n";
constexpr const char* kPlainOnly = "250-peer\r\n250 AUTH PLAIN\r\n";

// Connects with the credentials; gives the error, if any. The client stays connected.
std::optional<RaisedError> ConnectWith(MailClient& client, ScriptedPeer& peer, const std::u16string& user,
                                       const std::u16string& password) {
    peer.Start();
    test::PointAt(client, peer.Port());
    try {
        client.Connect(user, password);
    } catch (const RaisedError& error) {
        return error;
    }
    return std::nullopt;
}

// The lines the peer read after EHLO.
std::vector<std::string> LinesAfterEhlo(ScriptedPeer& peer) {
    std::vector<std::string> lines = peer.Lines();
    EXPECT_FALSE(lines.empty());
    if (!lines.empty()) lines.erase(lines.begin());
    return lines;
}

std::string Base64Decode(const std::string& text) {
    return test::DecodeWithPython("base64.b64decode", {text}).at(0);
}

TEST(SmtpAuthenticationTest, NoCredentialsSendNoAuthLineEvenToAServerThatOffersIt) {
    ScriptedPeer peer;
    test::Greet(peer, kBothSchemes).WaitForClose();
    MailClient client;
    EXPECT_FALSE(ConnectWith(client, peer, u"", u""));
    client.Disconnect(true);
    ASSERT_TRUE(peer.Join());
    EXPECT_EQ(peer.ReceivedOn(0), test::EhloLine(client) + "\r\n");
}

TEST(SmtpAuthenticationTest, AuthLoginIsPreferredAndSendsBothTokens) {
    ScriptedPeer peer;
    test::Greet(peer, kBothSchemes)
        .Reply("334 VXNlcm5hbWU6\r\n")
        .Reply("334 UGFzc3dvcmQ6\r\n")
        .Reply("235 2.7.0 Authentication successful\r\n")
        .WaitForClose();
    MailClient client;
    EXPECT_FALSE(ConnectWith(client, peer, u"ann@example.test", u"s3cret"));
    client.Disconnect(true);
    ASSERT_TRUE(peer.Join());

    const std::vector<std::string> lines = LinesAfterEhlo(peer);
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[0], "AUTH LOGIN");
    EXPECT_EQ(Base64Decode(lines[1]), "ann@example.test");
    EXPECT_EQ(Base64Decode(lines[2]), "s3cret");
}

TEST(SmtpAuthenticationTest, AuthLoginGoesOnAfterARefusedFirstLineAndOnlyTheLastReplyCounts) {
    ScriptedPeer peer;
    test::Greet(peer, kLoginOnly)
        .Reply("504 5.5.4 not now\r\n")
        .Reply("501 what\r\n")
        .Reply("235 fine after all\r\n")
        .WaitForClose();
    MailClient client;
    EXPECT_FALSE(ConnectWith(client, peer, u"u", u"p"));
    client.Disconnect(true);
    ASSERT_TRUE(peer.Join());
    EXPECT_EQ(LinesAfterEhlo(peer).size(), 3u);
}

TEST(SmtpAuthenticationTest, AuthLoginRefusalRaisesTheReplyTextAlone) {
    ScriptedPeer peer;
    test::Greet(peer, kLoginOnly)
        .Reply("334 VXNlcm5hbWU6\r\n")
        .Reply("334 UGFzc3dvcmQ6\r\n")
        .Reply("535-5.7.8 Authentication\r\n535 5.7.8 credentials invalid\r\n")
        .WaitForClose();
    MailClient client;
    const auto error = ConnectWith(client, peer, u"u", u"wrong");
    ASSERT_TRUE(error);
    EXPECT_EQ(error->Number(), ERROR_AUTH_FAILED);
    EXPECT_EQ(error->Description(), u"535-5.7.8 Authentication\r\n535 5.7.8 credentials invalid\r\n");
    EXPECT_EQ(error->Source(), detail::kSourceMailClient);
    EXPECT_TRUE(MailClientAccess::Stream(client).Connected());
    client.Disconnect(true);
    ASSERT_TRUE(peer.Join());
    EXPECT_EQ(LinesAfterEhlo(peer).size(), 3u);  // no retry with PLAIN
}

TEST(SmtpAuthenticationTest, AuthPlainSendsExactlyTwoLinesWithTheNulSeparatedToken) {
    ScriptedPeer peer;
    test::Greet(peer, kPlainOnly).Reply("334 \r\n").Reply("235 ok\r\n").WaitForClose();
    MailClient client;
    EXPECT_FALSE(ConnectWith(client, peer, u"a", u"b"));
    client.Disconnect(true);
    ASSERT_TRUE(peer.Join());

    const std::vector<std::string> lines = LinesAfterEhlo(peer);
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0], "AUTH PLAIN");
    EXPECT_EQ(Base64Decode(lines[1]), std::string("\0a\0b", 4));
}

TEST(SmtpAuthenticationTest, AuthPlainRefusalIsWrappedInItsSentence) {
    ScriptedPeer peer;
    test::Greet(peer, kPlainOnly).Reply("334 \r\n").Reply("535 5.7.8 no\r\n").WaitForClose();
    MailClient client;
    const auto error = ConnectWith(client, peer, u"a", u"b");
    ASSERT_TRUE(error);
    EXPECT_EQ(error->Number(), ERROR_AUTH_FAILED);
    EXPECT_EQ(error->Description(), u"The mail server could not authenticate you. It replied with '535 5.7.8 no\r\n'");
    EXPECT_TRUE(MailClientAccess::Stream(client).Connected());
    client.Disconnect(true);
    ASSERT_TRUE(peer.Join());
}

TEST(SmtpAuthenticationTest, CredentialsOfOneSpaceArePresent) {
    ScriptedPeer peer;
    test::Greet(peer, kLoginOnly).Reply("334 a\r\n").Reply("334 b\r\n").Reply("235 ok\r\n").WaitForClose();
    MailClient client;
    EXPECT_FALSE(ConnectWith(client, peer, u" ", u" "));
    client.Disconnect(true);
    ASSERT_TRUE(peer.Join());
    const std::vector<std::string> lines = LinesAfterEhlo(peer);
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[1], "IA==");
    EXPECT_EQ(lines[2], "IA==");
}

struct IncompleteCase {
    const char* name;
    std::u16string user;
    std::u16string password;
    std::u16string description;
};

// Named in test listings (the default would print the bytes of the struct).
void PrintTo(const IncompleteCase& c, std::ostream* os) { *os << c.name; }

class SmtpIncompleteCredentialsTest : public ::testing::TestWithParam<IncompleteCase> {};

TEST_P(SmtpIncompleteCredentialsTest, RaiseAfterTheEhloExchangeAndKeepTheConnection) {
    ScriptedPeer peer;
    test::Greet(peer, kBothSchemes).WaitForClose();
    MailClient client;
    const auto error = ConnectWith(client, peer, GetParam().user, GetParam().password);
    ASSERT_TRUE(error);
    EXPECT_EQ(error->Number(), ERROR_CREDENTIALS_INCOMPLETE);
    EXPECT_EQ(error->Description(), GetParam().description);
    EXPECT_TRUE(MailClientAccess::Stream(client).Connected());
    client.Disconnect(true);
    ASSERT_TRUE(peer.Join());
    EXPECT_EQ(peer.ReceivedOn(0), test::EhloLine(client) + "\r\n");
}

INSTANTIATE_TEST_SUITE_P(
    Rows, SmtpIncompleteCredentialsTest,
    ::testing::Values(
        IncompleteCase{"UserWithoutPassword", u"ann", u"", u"You supplied a username, but you need a password as well."},
        IncompleteCase{"PasswordWithoutUser", u"", u"pw", u"You supplied a password, but you need a username as well."}),
    [](const auto& info) { return std::string(info.param.name); });

struct UnsupportedCase {
    const char* name;
    std::string ehloReply;
};

void PrintTo(const UnsupportedCase& c, std::ostream* os) { *os << c.name; }

class SmtpAuthUnsupportedTest : public ::testing::TestWithParam<UnsupportedCase> {};

TEST_P(SmtpAuthUnsupportedTest, RaisesWithoutSendingAnAuthLine) {
    ScriptedPeer peer;
    test::Greet(peer, GetParam().ehloReply).WaitForClose();
    MailClient client;
    const auto error = ConnectWith(client, peer, u"u", u"p");
    ASSERT_TRUE(error);
    EXPECT_EQ(error->Number(), ERROR_AUTH_UNSUPPORTED);
    EXPECT_EQ(error->Description(),
              u"The mail server does not support the AUTH LOGIN or AUTH PLAIN authenication schemes.");
    client.Disconnect(true);
    ASSERT_TRUE(peer.Join());
    EXPECT_EQ(peer.ReceivedOn(0), test::EhloLine(client) + "\r\n");
}

INSTANTIATE_TEST_SUITE_P(Replies, SmtpAuthUnsupportedTest,
                         ::testing::Values(UnsupportedCase{"OtherSchemes", "250-peer\r\n250 AUTH CRAM-MD5 XOAUTH2\r\n"},
                                           UnsupportedCase{"NoAuthLine", "250-peer\r\n250 8BITMIME\r\n"},
                                           UnsupportedCase{"OneLineEhlo", "250 AUTH LOGIN\r\n"}),
                         [](const auto& info) { return std::string(info.param.name); });

TEST(SmtpAuthenticationTest, LongTokensGoOutWithTheEncodersLineBreaks) {
    const std::string user(100, 'u');  // 136 Base64 characters: a line of 76 and one of 60
    ScriptedPeer peer;
    test::Greet(peer, kLoginOnly)
        .Reply("334 VXNlcm5hbWU6\r\n")
        .ExpectLines(2)
        .Send("334 UGFzc3dvcmQ6\r\n")
        .Reply("235 ok\r\n")
        .WaitForClose();
    MailClient client;
    EXPECT_FALSE(ConnectWith(client, peer, std::u16string(user.begin(), user.end()), u"p"));
    client.Disconnect(true);
    ASSERT_TRUE(peer.Join());

    const std::vector<std::string> lines = LinesAfterEhlo(peer);
    ASSERT_EQ(lines.size(), 4u);
    EXPECT_EQ(lines[1].size(), 76u);
    EXPECT_EQ(lines[2].size(), 60u);
    EXPECT_EQ(Base64Decode(lines[1] + lines[2]), user);
}

TEST(SmtpAuthenticationTest, CredentialsGoOutInTheCodePage) {
    ScriptedPeer peer;
    test::Greet(peer, kPlainOnly).Reply("334 \r\n").Reply("235 ok\r\n").WaitForClose();
    MailClient client;
    EXPECT_FALSE(ConnectWith(client, peer, u"J\u00F6rg", u"\u20AC5\u4E00"));
    client.Disconnect(true);
    ASSERT_TRUE(peer.Join());
    // Windows-1252: o-umlaut is 0xF6, the euro sign 0x80, and a character it lacks is "?".
    EXPECT_EQ(Base64Decode(LinesAfterEhlo(peer).at(1)), std::string("\0J\xF6rg\0\x80" "5?", 9));
}

}  // namespace
}  // namespace larkpost
