// Opening and closing sessions against a scripted peer: greeting, EHLO and the capabilities read
// from its reply, QUIT, reconnecting, and what a new connection inherits from the last one.
#include <gtest/gtest.h>

#include "larkpost/error.h"
#include "larkpost/mail_client.h"
#include "net/tcp_stream_access.h"
#include "platform/errors.h"
#include "platform/socket_control.h"
#include "support/fake_socket_control.h"
#include "support/mail_client_access.h"
#include "support/smtp_servers.h"

namespace larkpost {
namespace {

using detail::MailClientAccess;
using test::ScriptedPeer;

RaisedError ConnectFailure(MailClient& client, const std::u16string& user = u"", const std::u16string& password = u"") {
    try {
        client.Connect(user, password);
    } catch (const RaisedError& error) {
        return error;
    }
    ADD_FAILURE() << "Connect succeeded";
    return RaisedError(0, u"");
}

bool IsConnected(MailClient& client) { return MailClientAccess::Stream(client).Connected(); }

TEST(SmtpSessionTest, ConnectSaysEhloAndDisconnectSaysQuitWithoutWaiting) {
    test::WireRecorder wire;
    ScriptedPeer peer;
    test::Greet(peer).WaitForClose();
    peer.Start();
    MailClient client;
    test::PointAt(client, peer.Port());

    EXPECT_FALSE(client.Connect().has_value());
    const std::string ehlo = test::EhloLine(client);
    EXPECT_FALSE(client.Disconnect().has_value());
    EXPECT_FALSE(IsConnected(client));

    ASSERT_TRUE(peer.Join());
    EXPECT_EQ(peer.ReceivedOn(0), ehlo + "\r\nQUIT\r\n");
    EXPECT_EQ(wire.Writes(), (std::vector<std::string>{ehlo + "\r\n", "QUIT\r\n"}));
    EXPECT_TRUE(peer.Problems().empty());
}

TEST(SmtpSessionTest, TimeoutBecomesTheStreamsLimitAtEachConnect) {
    ScriptedPeer peer;
    test::Greet(peer).WaitForClose().Accept();
    test::Greet(peer).WaitForClose();
    peer.Start();
    MailClient client;
    test::PointAt(client, peer.Port());
    TcpStream& stream = MailClientAccess::Stream(client);

    client.Connect();
    EXPECT_EQ(stream.ResponseTimeout, 30);
    client.Timeout = 7;
    client.Port(1);  // a closed port: the next Connect would fail if this took effect now
    EXPECT_EQ(stream.ResponseTimeout, 30);
    EXPECT_TRUE(IsConnected(client));

    client.Port(peer.Port());
    client.Connect();
    EXPECT_EQ(stream.ResponseTimeout, 7);
    client.Disconnect(true);
    ASSERT_TRUE(peer.Join());
}

TEST(SmtpSessionTest, GreetingIsReadWithTheClientsTimeout) {
    test::FastTicks fast;
    ScriptedPeer peer;
    peer.WaitForClose();  // accepts and says nothing
    peer.Start();
    MailClient client;
    test::PointAt(client, peer.Port());
    client.Timeout = 0;

    EXPECT_EQ(ConnectFailure(client).Number(), ERROR_RESPONSE_TIMEOUT);
    // Set before the greeting was read, not left at the stream's own value of 60.
    EXPECT_EQ(MailClientAccess::Stream(client).ResponseTimeout, 0);
    EXPECT_TRUE(IsConnected(client));
}

TEST(SmtpSessionTest, ErrorGreetingRaisesItsTextAndKeepsTheConnection) {
    ScriptedPeer peer;
    peer.Send("554-go away\r\n554 5.3.2 busy\r\n").WaitForClose();
    peer.Start();
    MailClient client;
    test::PointAt(client, peer.Port());

    const RaisedError error = ConnectFailure(client);
    EXPECT_EQ(error.Number(), ERROR_GREETING_REFUSED);
    EXPECT_EQ(error.Description(), u"554-go away\r\n554 5.3.2 busy\r\n");
    EXPECT_EQ(error.Source(), detail::kSourceMailClient);
    EXPECT_TRUE(IsConnected(client));
    client.Disconnect(true);
    ASSERT_TRUE(peer.Join());
    EXPECT_EQ(peer.ReceivedOn(0), "");  // no EHLO after a refusal
}

TEST(SmtpSessionTest, AnyGreetingBelow400IsAccepted) {
    ScriptedPeer peer;
    peer.Send("399-odd\r\n399 but fine\r\n").Reply("250 ok\r\n");
    peer.Start();
    MailClient client;
    test::PointAt(client, peer.Port());
    client.Connect();
    EXPECT_EQ(peer.Lines().size(), 1u);
}

TEST(SmtpSessionTest, RefusedEhloRaisesItsText) {
    ScriptedPeer peer;
    test::Greet(peer, "502 5.5.1 say HELO\r\n").WaitForClose();
    peer.Start();
    MailClient client;
    test::PointAt(client, peer.Port());

    const RaisedError error = ConnectFailure(client, u"user", u"pass");
    EXPECT_EQ(error.Number(), ERROR_COMMAND_REFUSED);
    EXPECT_EQ(error.Description(), u"502 5.5.1 say HELO\r\n");
    EXPECT_TRUE(IsConnected(client));
    EXPECT_EQ(MailClientAccess::Capabilities(client), 0);
    client.Disconnect(true);
    ASSERT_TRUE(peer.Join());
    EXPECT_EQ(peer.ReceivedOn(0), test::EhloLine(client) + "\r\n");  // no HELO, no AUTH
}

// Capabilities read from one EHLO reply by a new client.
struct CapabilityCase {
    const char* name;
    std::string ehloReply;
    int32_t capabilities;
    int32_t maxMessageSize;
};

// Named in test listings (the default would print the bytes of the struct).
void PrintTo(const CapabilityCase& c, std::ostream* os) { *os << c.name; }

class SmtpCapabilityTest : public ::testing::TestWithParam<CapabilityCase> {};

TEST_P(SmtpCapabilityTest, ReadFromTheEhloReply) {
    ScriptedPeer peer;
    test::Greet(peer, GetParam().ehloReply);
    peer.Start();
    MailClient client;
    test::PointAt(client, peer.Port());
    client.Connect();
    EXPECT_EQ(MailClientAccess::Capabilities(client), GetParam().capabilities);
    EXPECT_EQ(MailClientAccess::MaxMessageSize(client), GetParam().maxMessageSize);
}

INSTANTIATE_TEST_SUITE_P(
    Replies, SmtpCapabilityTest,
    ::testing::Values(
        CapabilityCase{"AllKeywords", "250-peer\r\n250-8BITMIME\r\n250-PIPELINING\r\n250-AUTH LOGIN PLAIN\r\n250 SIZE 1000\r\n",
                       31, 1000},
        CapabilityCase{"LowerCase", "250-peer\r\n250-8bitmime\r\n250-pipelining\r\n250-auth plain\r\n250 size 77\r\n",
                       CAP_8BITMIME | CAP_PIPELINING | CAP_AUTH_PLAIN | CAP_SIZE, 77},
        CapabilityCase{"FirstLineIgnored", "250-SIZE 5\r\n250 AUTH LOGIN\r\n", CAP_AUTH_LOGIN, 0},
        CapabilityCase{"OneLineAnnouncesNothing", "250 AUTH LOGIN PLAIN\r\n", 0, 0},
        CapabilityCase{"AuthWithEqualsIsNotRecognised", "250-peer\r\n250 AUTH=LOGIN PLAIN\r\n", 0, 0},
        CapabilityCase{"AuthDoubleSpaceAndOtherSchemes", "250-peer\r\n250 AUTH  CRAM-MD5 LOGIN XOAUTH2\r\n",
                       CAP_AUTH_LOGIN, 0},
        CapabilityCase{"KeywordsMustMatchWholly", "250-peer\r\n250-8BITMIMEX\r\n250-XPIPELINING\r\n250 SIZES 9\r\n",
                       0, 0},
        CapabilityCase{"ShortLinesSkipped", "250-peer\r\n250-\r\n250\r\n", 0, 0},
        CapabilityCase{"SizeZero", "250-peer\r\n250 SIZE 0\r\n", CAP_SIZE, 0},
        CapabilityCase{"SizeLargest", "250-peer\r\n250 SIZE 2147483647\r\n", CAP_SIZE, 2147483647}),
    [](const auto& info) { return std::string(info.param.name); });

// A SIZE keyword whose value cannot be used ends Connect; what was read before it stays.
struct SizeFailureCase {
    const char* name;
    std::string sizeLine;
    int32_t number;
};

void PrintTo(const SizeFailureCase& c, std::ostream* os) { *os << c.name; }

class SmtpSizeFailureTest : public ::testing::TestWithParam<SizeFailureCase> {};

TEST_P(SmtpSizeFailureTest, StopsTheExchange) {
    ScriptedPeer peer;
    test::Greet(peer, "250-peer\r\n250-PIPELINING\r\n" + GetParam().sizeLine + "\r\n250 8BITMIME\r\n").WaitForClose();
    peer.Start();
    MailClient client;
    test::PointAt(client, peer.Port());

    const RaisedError error = ConnectFailure(client, u"user", u"pass");
    EXPECT_EQ(error.Number(), GetParam().number);
    EXPECT_EQ(error.Source(), detail::kSourceMailClient);
    if (GetParam().number == ERROR_INVALID_SIZE_VALUE) {
        EXPECT_EQ(error.Description(), u"Server sent back an invalid value for SIZE extension.");
    }
    // SIZE is recorded, the line behind it is not parsed, and no AUTH follows.
    EXPECT_EQ(MailClientAccess::Capabilities(client), CAP_PIPELINING | CAP_SIZE);
    EXPECT_EQ(MailClientAccess::MaxMessageSize(client), 0);
    EXPECT_TRUE(IsConnected(client));
    client.Disconnect(true);
    ASSERT_TRUE(peer.Join());
    EXPECT_EQ(peer.ReceivedOn(0), test::EhloLine(client) + "\r\n");
}

INSTANTIATE_TEST_SUITE_P(
    Values, SmtpSizeFailureTest,
    ::testing::Values(SizeFailureCase{"NoValue", "250-SIZE", ERROR_INVALID_SIZE_VALUE},
                      SizeFailureCase{"NotANumber", "250-SIZE lots", ERROR_TYPE_MISMATCH},
                      SizeFailureCase{"TwoSpaces", "250-SIZE  100", ERROR_TYPE_MISMATCH},
                      SizeFailureCase{"Negative", "250-SIZE -1", ERROR_TYPE_MISMATCH},
                      SizeFailureCase{"TooLarge", "250-SIZE 2147483648", ERROR_OVERFLOW}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(SmtpSessionTest, LaterEhloRepliesReplaceOrKeepWhatEarlierSessionsLearnt) {
    ScriptedPeer peer;
    test::Greet(peer, "250-peer\r\n250-8BITMIME\r\n250 SIZE 500\r\n").Accept();
    test::Greet(peer, "250 one line\r\n").Accept();
    test::Greet(peer, "250-peer\r\n250 PIPELINING\r\n").WaitForClose();
    peer.Start();
    MailClient client;
    test::PointAt(client, peer.Port());

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

TEST(SmtpSessionTest, ConnectWhileConnectedDropsTheOldConnectionWithoutQuit) {
    ScriptedPeer peer;
    test::Greet(peer).WaitForClose().Accept();
    test::Greet(peer).WaitForClose();
    peer.Start();
    MailClient client;
    test::PointAt(client, peer.Port());

    client.Connect();
    const std::string ehlo = test::EhloLine(client);
    client.Connect();
    EXPECT_TRUE(IsConnected(client));
    client.Disconnect(true);
    ASSERT_TRUE(peer.Join());
    EXPECT_EQ(peer.Connections(), 2);
    EXPECT_EQ(peer.ReceivedOn(0), ehlo + "\r\n");
    EXPECT_EQ(peer.ReceivedOn(1), ehlo + "\r\n");
}

TEST(SmtpSessionTest, ANewConnectionStartsCleanAfterUnsentAndUnreadLeftovers) {
    test::FastTicks fast;
    ScriptedPeer peer;
    // The first server leaves an unfinished reply; the client leaves an unsent line behind.
    test::Greet(peer).Send("250-left over\r\n250-half").Accept();
    test::Greet(peer, "250-second\r\n250 SIZE 42\r\n").WaitForClose();
    peer.Start();
    MailClient client;
    test::PointAt(client, peer.Port());
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

TEST(SmtpSessionTest, DisconnectIsHarmlessWhenThereIsNoConnection) {
    MailClient fresh;
    EXPECT_NO_THROW(fresh.Disconnect());
    EXPECT_NO_THROW(fresh.Disconnect(true));

    ScriptedPeer peer;
    test::Greet(peer).WaitForClose();
    peer.Start();
    MailClient client;
    test::PointAt(client, peer.Port());
    client.Connect();
    client.Disconnect();
    EXPECT_NO_THROW(client.Disconnect());
    ASSERT_TRUE(peer.Join());
    EXPECT_EQ(peer.ReceivedOn(0), test::EhloLine(client) + "\r\nQUIT\r\n");
}

TEST(SmtpSessionTest, ForcedDisconnectAndDestructionSendNoQuit) {
    ScriptedPeer peer;
    test::Greet(peer).WaitForClose().Accept();
    test::Greet(peer).WaitForClose();
    peer.Start();
    std::string ehlo;
    {
        MailClient client;
        test::PointAt(client, peer.Port());
        client.Connect();
        ehlo = test::EhloLine(client);
        client.Disconnect(true);
        EXPECT_FALSE(IsConnected(client));
        client.Connect();
    }  // destroyed while connected
    ASSERT_TRUE(peer.Join());
    EXPECT_EQ(peer.ReceivedOn(0), ehlo + "\r\n");
    EXPECT_EQ(peer.ReceivedOn(1), ehlo + "\r\n");
}

TEST(SmtpSessionTest, QuitThatCannotBeWrittenStillClosesTheConnection) {
    test::FakeSocketFactory sockets;
    // The reply to EHLO comes after its write, as on a real connection.
    sockets.NextConnect({test::FakeEvent::Connected(), test::FakeEvent::Arrival("220 hi\r\n"),
                         test::FakeEvent::Run([&sockets] {
                             sockets.Last()->OnSendData(
                                 {test::FakeEvent::SendDone(), test::FakeEvent::Arrival("250 fake\r\n")});
                         })});
    MailClient client;
    client.Server(u"mail.test");
    client.Connect();
    auto control = sockets.Last();
    ASSERT_TRUE(control);
    // The write fails, yet the control still says connected.
    control->OnSendData({test::FakeEvent::Failure(10054, u"Connection reset by peer"),
                         test::FakeEvent::Run([control] { control->SetState(detail::sckConnected); })});

    try {
        client.Disconnect();
        FAIL() << "the failed write went unreported";
    } catch (const RaisedError& error) {
        EXPECT_EQ(error.Number(), 10054);
    }
    EXPECT_EQ(control->Writes().back(), "QUIT\r\n");
    EXPECT_EQ(control->CloseCalls(), 1);
    EXPECT_FALSE(IsConnected(client));
    EXPECT_NO_THROW(client.Disconnect());
}

TEST(SmtpSessionTest, ConnectionFailureIsTheStreamsError) {
    MailClient client;
    test::PointAt(client, test::FreeLoopbackPort());
    const RaisedError error = ConnectFailure(client);
    EXPECT_NE(error.Number(), 0);
    EXPECT_NE(error.Source(), detail::kSourceMailClient);
    EXPECT_FALSE(IsConnected(client));
}

TEST(SmtpSessionTest, EmptyLocalHostNameGivesTheAddressLiteral) {
    test::WireRecorder nameless(u"");
    ScriptedPeer peer;
    test::Greet(peer).WaitForClose();
    peer.Start();
    MailClient client;
    test::PointAt(client, peer.Port());
    client.Connect();
    client.Disconnect(true);
    ASSERT_TRUE(peer.Join());
    EXPECT_EQ(peer.ReceivedOn(0), "EHLO [127.0.0.1]\r\n");
}

TEST(SmtpSessionTest, PropertiesStoreWhatTheyAreGiven) {
    MailClient client;
    EXPECT_EQ(client.Timeout, 30);
    EXPECT_EQ(client.Port(), 25);
    EXPECT_EQ(client.Server(), u"");
    client.Server(u" Mail.Example ");
    client.Port(-4);
    client.Timeout = -1;
    EXPECT_EQ(client.Server(), u" Mail.Example ");
    EXPECT_EQ(client.Port(), -4);
    client.Server(std::string_view("m\xC3\xA9l"));
    EXPECT_EQ(client.Server(), u"m\u00E9l");
}

}  // namespace
}  // namespace larkpost
