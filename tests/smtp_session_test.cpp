// Opening and closing sessions against a scripted peer: greeting, EHLO and the capabilities read
// from its reply, QUIT, reconnecting, and what a new connection inherits from the last one.
#include <gtest/gtest.h>

#include <optional>

#include "larkpost/error.h"
#include "larkpost/mail_client.h"
#include "platform/errors.h"
#include "platform/socket_control.h"
#include "support/fake_socket_control.h"
#include "support/mail_client_access.h"
#include "support/message_testing.h"
#include "support/smtp_servers.h"

namespace larkpost {
namespace {

using detail::MailClientAccess;
using test::ScriptedPeer;

RaisedError ConnectFailure(MailClient& client, const std::u16string& user = u"",
                           const std::u16string& password = u"") {
    auto error = test::CaptureError([&] { client.Connect(user, password); });
    return error.value_or(RaisedError(0, u""));
}
bool IsConnected(MailClient& client) { return MailClientAccess::Stream(client).Connected(); }

// A client pointed at a peer whose script is set and started.
class SmtpSessionTest : public ::testing::Test {
protected:
    void Start() {
        peer.Start();
        test::PointAt(client, peer.Port());
    }
    ScriptedPeer peer;
    std::optional<MailClient> owner{std::in_place};
    MailClient& client = *owner;
};

// Connect says EHLO; Disconnect says QUIT without waiting for a reply, and nothing without a
// connection; a forced Disconnect, a Connect while connected and destruction send no QUIT. The
// client's Timeout becomes the stream's limit at each Connect, not before.
TEST_F(SmtpSessionTest, SessionsOpenWithEhloAndCloseWithQuitOrWithout) {
    test::WireRecorder wire;
    for (int i = 0; i < 4; ++i) test::Greet(i == 0 ? peer : peer.Accept()).WaitForClose();
    Start();
    EXPECT_NO_THROW(client.Disconnect());
    EXPECT_NO_THROW(client.Disconnect(true));
    TcpStream& stream = MailClientAccess::Stream(client);

    EXPECT_FALSE(client.Connect().has_value());
    const std::string ehlo = test::EhloLine(client) + "\r\n";
    EXPECT_EQ(stream.ResponseTimeout, 30);
    client.Timeout = 7;
    client.Port(1);  // a closed port: the next Connect would fail if this took effect now
    EXPECT_EQ(stream.ResponseTimeout, 30);
    EXPECT_TRUE(IsConnected(client));
    client.Port(peer.Port());
    client.Connect();
    EXPECT_EQ(stream.ResponseTimeout, 7);
    EXPECT_FALSE(client.Disconnect().has_value());
    EXPECT_FALSE(IsConnected(client));
    EXPECT_NO_THROW(client.Disconnect());
    client.Connect();
    client.Disconnect(true);
    EXPECT_FALSE(IsConnected(client));
    client.Connect();
    owner.reset();  // destroyed while connected

    ASSERT_TRUE(peer.Join());
    EXPECT_EQ(peer.Connections(), 4);
    for (std::size_t i : {0u, 2u, 3u}) EXPECT_EQ(peer.ReceivedOn(i), ehlo);
    EXPECT_EQ(peer.ReceivedOn(1), ehlo + "QUIT\r\n");
    EXPECT_EQ(wire.Writes(), (std::vector<std::string>{ehlo, ehlo, "QUIT\r\n", ehlo, ehlo}));
    EXPECT_TRUE(peer.Problems().empty());
}

TEST_F(SmtpSessionTest, GreetingIsReadWithTheClientsTimeout) {
    test::FastTicks fast;
    peer.WaitForClose();  // accepts and says nothing
    Start();
    client.Timeout = 0;
    EXPECT_EQ(ConnectFailure(client).Number(), ERROR_RESPONSE_TIMEOUT);
    // Set before the greeting was read, not left at the stream's own value of 60.
    EXPECT_EQ(MailClientAccess::Stream(client).ResponseTimeout, 0);
    EXPECT_TRUE(IsConnected(client));
}

TEST_F(SmtpSessionTest, AGreetingFrom400OnRaisesItsTextAndKeepsTheConnection) {
    peer.Send("554-go away\r\n554 5.3.2 busy\r\n").WaitForClose().Accept();
    peer.Send("399-odd\r\n399 but fine\r\n").Reply("250 ok\r\n").WaitForClose();
    Start();
    const RaisedError error = ConnectFailure(client);
    EXPECT_EQ(error.Number(), ERROR_GREETING_REFUSED);
    EXPECT_EQ(error.Description(), u"554-go away\r\n554 5.3.2 busy\r\n");
    EXPECT_EQ(error.Source(), detail::kSourceMailClient);
    EXPECT_TRUE(IsConnected(client));
    EXPECT_NO_THROW(client.Connect());  // below 400 any greeting is accepted
    client.Disconnect(true);
    ASSERT_TRUE(peer.Join());
    EXPECT_EQ(peer.ReceivedOn(0), "");  // no EHLO after a refusal
    EXPECT_EQ(peer.ReceivedOn(1), test::EhloLine(client) + "\r\n");
}

// What a new client reads from one EHLO reply. A refused EHLO, or a SIZE keyword whose value
// cannot be used, ends Connect (which has credentials then): what was read before stays, the line
// behind it is not parsed, no AUTH follows, and the connection stays.
struct EhloCase {
    const char* name;
    std::string ehloReply;
    int32_t capabilities;
    int32_t maxMessageSize = 0;
    int32_t number = 0;
    std::optional<std::u16string> description = std::nullopt;
};
// Named in test listings (the default would print the bytes of the struct).
void PrintTo(const EhloCase& c, std::ostream* os) { *os << c.name; }

class SmtpEhloTest : public SmtpSessionTest, public ::testing::WithParamInterface<EhloCase> {};

TEST_P(SmtpEhloTest, CapabilitiesComeFromTheReply) {
    const EhloCase& c = GetParam();
    test::Greet(peer, c.ehloReply).WaitForClose();
    Start();
    if (c.number) {
        const RaisedError error = ConnectFailure(client, u"user", u"pass");
        EXPECT_EQ(error.Number(), c.number);
        EXPECT_EQ(error.Source(), detail::kSourceMailClient);
        EXPECT_EQ(error.Description(), c.description.value_or(error.Description()));
    } else {
        client.Connect();
    }
    EXPECT_EQ(MailClientAccess::Capabilities(client), c.capabilities);
    EXPECT_EQ(MailClientAccess::MaxMessageSize(client), c.maxMessageSize);
    EXPECT_TRUE(IsConnected(client));
    client.Disconnect(true);
    ASSERT_TRUE(peer.Join());
    EXPECT_EQ(peer.ReceivedOn(0), test::EhloLine(client) + "\r\n");
}

EhloCase SizeFailure(const char* name, const std::string& sizeLine, int32_t number,
                     std::optional<std::u16string> description = std::nullopt) {
    return {name, "250-peer\r\n250-PIPELINING\r\n" + sizeLine + "\r\n250 8BITMIME\r\n",
            CAP_PIPELINING | CAP_SIZE, 0, number, std::move(description)};
}

INSTANTIATE_TEST_SUITE_P(
    Replies, SmtpEhloTest,
    ::testing::Values(
        EhloCase{"AllKeywords",
                 "250-peer\r\n250-8BITMIME\r\n250-PIPELINING\r\n250-AUTH LOGIN PLAIN\r\n"
                 "250 SIZE 1000\r\n",
                 31, 1000},
        EhloCase{"LowerCase",
                 "250-peer\r\n250-8bitmime\r\n250-pipelining\r\n250-auth plain\r\n250 size 77\r\n",
                 CAP_8BITMIME | CAP_PIPELINING | CAP_AUTH_PLAIN | CAP_SIZE, 77},
        EhloCase{"FirstLineIgnored", "250-SIZE 5\r\n250 AUTH LOGIN\r\n", CAP_AUTH_LOGIN},
        EhloCase{"OneLineAnnouncesNothing", "250 AUTH LOGIN PLAIN\r\n", 0},
        EhloCase{"AuthWithEqualsIsNotRecognised", "250-peer\r\n250 AUTH=LOGIN PLAIN\r\n", 0},
        EhloCase{"AuthDoubleSpaceAndOtherSchemes", "250-peer\r\n250 AUTH  CRAM-MD5 LOGIN XOAUTH2\r\n",
                 CAP_AUTH_LOGIN},
        EhloCase{"KeywordsMustMatchWholly",
                 "250-peer\r\n250-8BITMIMEX\r\n250-XPIPELINING\r\n250 SIZES 9\r\n", 0},
        EhloCase{"ShortLinesSkipped", "250-peer\r\n250-\r\n250\r\n", 0},
        EhloCase{"SizeZero", "250-peer\r\n250 SIZE 0\r\n", CAP_SIZE},
        EhloCase{"SizeLargest", "250-peer\r\n250 SIZE 2147483647\r\n", CAP_SIZE, 2147483647},
        EhloCase{"Refused", "502 5.5.1 say HELO\r\n", 0, 0, ERROR_COMMAND_REFUSED,
                 u"502 5.5.1 say HELO\r\n"},
        SizeFailure("SizeWithoutValue", "250-SIZE", ERROR_INVALID_SIZE_VALUE,
                    u"Server sent back an invalid value for SIZE extension."),
        SizeFailure("SizeNotANumber", "250-SIZE lots", ERROR_TYPE_MISMATCH),
        SizeFailure("SizeAfterTwoSpaces", "250-SIZE  100", ERROR_TYPE_MISMATCH),
        SizeFailure("SizeNegative", "250-SIZE -1", ERROR_TYPE_MISMATCH),
        SizeFailure("SizeTooLarge", "250-SIZE 2147483648", ERROR_OVERFLOW)),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(SmtpSessionTest, LaterEhloRepliesReplaceOrKeepWhatEarlierSessionsLearnt) {
    test::Greet(peer, "250-peer\r\n250-8BITMIME\r\n250 SIZE 500\r\n").Accept();
    test::Greet(peer, "250 one line\r\n").Accept();
    test::Greet(peer, "250-peer\r\n250 PIPELINING\r\n").WaitForClose();
    Start();
    client.Connect();
    EXPECT_EQ(MailClientAccess::Capabilities(client), CAP_8BITMIME | CAP_SIZE);
    // A one-line reply keeps the flags and the limit of the last session.
    client.Connect();
    EXPECT_EQ(MailClientAccess::Capabilities(client), CAP_8BITMIME | CAP_SIZE);
    EXPECT_EQ(MailClientAccess::MaxMessageSize(client), 500);
    // A longer one replaces the flags; the limit stays, unused without CAP_SIZE.
    client.Connect();
    EXPECT_EQ(MailClientAccess::Capabilities(client), CAP_PIPELINING);
    EXPECT_EQ(MailClientAccess::MaxMessageSize(client), 500);
    client.Disconnect(true);
    ASSERT_TRUE(peer.Join());
}

TEST_F(SmtpSessionTest, ANewConnectionStartsCleanAfterUnsentAndUnreadLeftovers) {
    test::FastTicks fast;
    // The first server leaves an unfinished reply; the client leaves an unsent line behind.
    test::Greet(peer).Send("250-left over\r\n250-half").Accept();
    test::Greet(peer, "250-second\r\n250 SIZE 42\r\n").WaitForClose();
    Start();
    client.Connect();
    MailClientAccess::SendRawLine(client, u"UNSENT");
    client.Connect();
    EXPECT_EQ(MailClientAccess::MaxMessageSize(client), 42);
    client.Disconnect();
    ASSERT_TRUE(peer.Join());
    const std::string ehlo = test::EhloLine(client);
    EXPECT_EQ(peer.ReceivedOn(0), ehlo + "\r\n");
    EXPECT_EQ(peer.ReceivedOn(1), ehlo + "\r\nQUIT\r\n");
}

TEST_F(SmtpSessionTest, EmptyLocalHostNameGivesTheAddressLiteral) {
    test::WireRecorder nameless(u"");
    test::Greet(peer).WaitForClose();
    Start();
    client.Connect();
    client.Disconnect(true);
    ASSERT_TRUE(peer.Join());
    EXPECT_EQ(peer.ReceivedOn(0), "EHLO [127.0.0.1]\r\n");
}

TEST(SmtpSessionFailures, QuitThatCannotBeWrittenStillClosesTheConnection) {
    using test::FakeEvent;
    test::FakeSocketFactory sockets;
    // The reply to EHLO comes after its write, as on a real connection.
    sockets.NextConnect({FakeEvent::Connected(), FakeEvent::Arrival("220 hi\r\n"),
                         FakeEvent::Run([&sockets] {
                             sockets.Last()->OnSendData(
                                 {FakeEvent::SendDone(), FakeEvent::Arrival("250 fake\r\n")});
                         })});
    MailClient client;
    client.Server(u"mail.test");
    client.Connect();
    auto control = sockets.Last();
    ASSERT_TRUE(control);
    // The write fails, yet the control still says connected.
    control->OnSendData({FakeEvent::Failure(10054, u"Connection reset by peer"),
                         FakeEvent::Run([control] { control->SetState(detail::sckConnected); })});
    EXPECT_EQ(test::CaptureError([&] { client.Disconnect(); }).value().Number(), 10054);
    EXPECT_EQ(control->Writes().back(), "QUIT\r\n");
    EXPECT_EQ(control->CloseCalls(), 1);
    EXPECT_FALSE(IsConnected(client));
    EXPECT_NO_THROW(client.Disconnect());
}

}  // namespace
}  // namespace larkpost
