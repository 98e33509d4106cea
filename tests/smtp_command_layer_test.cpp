// The command and reply layer against a scripted peer: reply parsing, lock-step writes, and
// failures of the connection while a reply is read.
#include <gtest/gtest.h>

#include "larkpost/error.h"
#include "larkpost/mail_client.h"
#include "larkpost/text.h"
#include "net/tcp_stream_access.h"
#include "platform/errors.h"
#include "support/mail_client_access.h"
#include "support/message_testing.h"
#include "support/smtp_servers.h"

namespace larkpost {
namespace {

using detail::MailClientAccess;
using detail::SmtpResponse;
using test::ScriptedPeer;

// A client connected to the peer, whose script continues after the EHLO exchange.
class CommandLayerTest : public ::testing::Test {
protected:
    void ConnectTo(ScriptedPeer& peer) {
        peer.Start();
        test::PointAt(client, peer.Port());
        client.Connect();
    }
    SmtpResponse Read() { return MailClientAccess::ReadResponse(client); }

    MailClient client;
};

// A dash in the fourth place continues a reply whatever comes before it; a letter, a blank or a
// short line ends it. The code comes from the last line, and from 400 on the reply is an error.
TEST_F(CommandLayerTest, RepliesEndAtALineWithoutADashInTheFourthPlace) {
    const std::pair<std::u16string, int32_t> replies[] = {
        {u"250 2.0.0 fine\r\n", 250}, {u"220-first\r\n999-second\r\n354 third\r\n", 354},
        {u"xyz-not a code\r\n250Zend\r\n", 250}, {u"250\r\n", 250}, {u"7\r\n", 7}, {u"42\r\n", 42},
        {u"399 last\r\n", 399}, {u"400 first error\r\n", 400}};
    std::string script;
    for (const auto& reply : replies) script += ToUtf8(reply.first);
    ScriptedPeer peer;
    test::Greet(peer).Send(script + "250-continued\r\n\r\nabc done\r\n250 after\r\n");
    ConnectTo(peer);
    for (const auto& [text, code] : replies) {
        SCOPED_TRACE(ToUtf8(text));
        std::vector<std::u16string> lines;
        for (std::size_t at = 0, end; (end = text.find(u"\r\n", at)) != text.npos; at = end + 2)
            lines.push_back(text.substr(at, end - at));
        const SmtpResponse reply = Read();
        EXPECT_EQ(reply.Text, text);
        EXPECT_EQ(reply.Lines, lines);
        EXPECT_EQ(reply.LineCount, static_cast<int32_t>(lines.size()));
        EXPECT_EQ(reply.Code, code);
        EXPECT_EQ(reply.IsError, code >= 400);
    }
    // An empty last line, then a last line with letters for its code: each is read whole, then
    // fails, and the session reads on from the next reply.
    for (int i = 0; i < 2; ++i) {
        auto error = test::CaptureError([&] { Read(); });
        ASSERT_TRUE(error) << "reply " << i;
        EXPECT_EQ(error->Number(), ERROR_TYPE_MISMATCH);
        EXPECT_EQ(error->Source(), detail::kSourceMailClient);
    }
    EXPECT_EQ(Read().Text, u"250 after\r\n");
}

// Each command is one write after the raw text waiting in the buffer; SendCommand does not judge
// the reply, SendCommandChecked raises its text and keeps the session.
TEST_F(CommandLayerTest, CommandsGoOutOneWriteEachInLockStep) {
    test::WireRecorder wire;
    ScriptedPeer peer;
    test::Greet(peer, "250-peer\r\n250-8BITMIME\r\n250 SIZE 100\r\n")
        .Reply("250 noop one\r\n")
        .Reply("500 what\r\n")
        .Reply("550-5.1.1 no such user\r\n550 5.1.1 really\r\n")
        .ExpectLines(2)
        .Send("250 still here\r\n")
        .WaitForClose();
    ConnectTo(peer);
    const std::string ehlo = test::EhloLine(client);
    EXPECT_EQ(MailClientAccess::HasCapability(client, CAP_SIZE), CAP_SIZE);
    EXPECT_EQ(MailClientAccess::HasCapability(client, CAP_8BITMIME), CAP_8BITMIME);
    EXPECT_EQ(MailClientAccess::HasCapability(client, CAP_PIPELINING), 0);
    EXPECT_EQ(MailClientAccess::HasCapability(client, CAP_SIZE | CAP_PIPELINING | CAP_AUTH_LOGIN),
              CAP_SIZE);

    EXPECT_EQ(MailClientAccess::SendCommand(client, u"NOOP").Text, u"250 noop one\r\n");
    const SmtpResponse refused = MailClientAccess::SendCommand(client, u"BOGUS");
    EXPECT_TRUE(refused.IsError);
    EXPECT_EQ(refused.Code, 500);
    auto error = test::CaptureError(
        [&] { MailClientAccess::SendCommandChecked(client, u"RCPT TO: <nobody>"); });
    ASSERT_TRUE(error);
    EXPECT_EQ(error->Number(), ERROR_COMMAND_REFUSED);
    EXPECT_EQ(error->Description(), u"550-5.1.1 no such user\r\n550 5.1.1 really\r\n");
    EXPECT_EQ(error->Source(), detail::kSourceMailClient);

    const std::size_t writes = wire.Writes().size();
    MailClientAccess::SendRaw(client, u"RAW ");
    MailClientAccess::SendRawLine(client, u"LINE");
    EXPECT_EQ(detail::TcpStreamAccess::SendBuffer(MailClientAccess::Stream(client)),
              "RAW LINE\r\n");
    EXPECT_EQ(wire.Writes().size(), writes);
    EXPECT_EQ(MailClientAccess::SendCommandChecked(client, u"NOOP").Code, 250);
    client.Disconnect(true);
    ASSERT_TRUE(peer.Join());
    EXPECT_EQ(wire.Writes(), (std::vector<std::string>{ehlo + "\r\n", "NOOP\r\n", "BOGUS\r\n",
                                                        "RCPT TO: <nobody>\r\n",
                                                        "RAW LINE\r\nNOOP\r\n"}));
    EXPECT_EQ(peer.Lines().back(), "NOOP");
}

TEST_F(CommandLayerTest, SilenceEndsInTheTimeOutErrorAndTheSessionStaysUp) {
    test::FastTicks fast;
    ScriptedPeer peer;
    test::Greet(peer).ExpectLine().Pause(std::chrono::milliseconds(300)).Send("250 late\r\n");
    client.Timeout = 0;
    ConnectTo(peer);
    EXPECT_RAISES(MailClientAccess::SendCommand(client, u"NOOP"), ERROR_RESPONSE_TIMEOUT,
                  "The server did not respond in time.");
    EXPECT_TRUE(MailClientAccess::Stream(client).Connected());
    // The next read starts a new count and gets the late reply.
    client.Timeout = 1;
    MailClientAccess::Stream(client).ResponseTimeout = 100;
    EXPECT_EQ(Read().Text, u"250 late\r\n");
}

TEST_F(CommandLayerTest, CloseInTheMiddleOfAReplyEndsInTheTimeOutError) {
    test::FastTicks fast;
    ScriptedPeer peer;
    test::Greet(peer).ExpectLine().Send("250-first line\r\n250-half a li").Close();
    client.Timeout = 0;
    ConnectTo(peer);
    EXPECT_RAISES(MailClientAccess::SendCommand(client, u"NOOP"), ERROR_RESPONSE_TIMEOUT,
                  "The server did not respond in time.");
    EXPECT_FALSE(MailClientAccess::Stream(client).Connected());
}

}  // namespace
}  // namespace larkpost
