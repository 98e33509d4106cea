// The command and reply layer against a scripted peer: reply parsing, lock-step writes, and
// failures of the connection while a reply is read.
#include <gtest/gtest.h>

#include "larkpost/error.h"
#include "larkpost/mail_client.h"
#include "net/tcp_stream_access.h"
#include "platform/errors.h"
#include "support/mail_client_access.h"
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

    MailClient client;
};

TEST_F(CommandLayerTest, OneLineReply) {
    ScriptedPeer peer;
    test::Greet(peer).Send("250 2.0.0 fine\r\n");
    ConnectTo(peer);

    const SmtpResponse reply = MailClientAccess::ReadResponse(client);
    EXPECT_EQ(reply.Code, 250);
    EXPECT_EQ(reply.LineCount, 1);
    ASSERT_EQ(reply.Lines.size(), 1u);
    EXPECT_EQ(reply.Lines[0], u"250 2.0.0 fine");
    EXPECT_EQ(reply.Text, u"250 2.0.0 fine\r\n");
    EXPECT_FALSE(reply.IsError);
}

TEST_F(CommandLayerTest, MultiLineReplyTakesItsCodeFromTheLastLine) {
    ScriptedPeer peer;
    test::Greet(peer).Send("220-first\r\n999-second\r\n354 third\r\n");
    ConnectTo(peer);

    const SmtpResponse reply = MailClientAccess::ReadResponse(client);
    EXPECT_EQ(reply.Code, 354);
    EXPECT_FALSE(reply.IsError);
    EXPECT_EQ(reply.LineCount, 3);
    EXPECT_EQ(reply.Lines, (std::vector<std::u16string>{u"220-first", u"999-second", u"354 third"}));
    EXPECT_EQ(reply.Text, u"220-first\r\n999-second\r\n354 third\r\n");
}

TEST_F(CommandLayerTest, FourthCharacterDecidesWhereAReplyEnds) {
    ScriptedPeer peer;
    // A dash continues whatever comes before it; a letter or a short line ends the reply.
    test::Greet(peer).Send("xyz-not a code\r\n250Zend\r\n250\r\n7\r\n42\r\n399 last\r\n400 first error\r\n");
    ConnectTo(peer);

    const SmtpResponse first = MailClientAccess::ReadResponse(client);
    EXPECT_EQ(first.LineCount, 2);
    EXPECT_EQ(first.Code, 250);
    const SmtpResponse bare = MailClientAccess::ReadResponse(client);
    EXPECT_EQ(bare.LineCount, 1);
    EXPECT_EQ(bare.Code, 250);
    EXPECT_EQ(bare.Text, u"250\r\n");
    EXPECT_EQ(MailClientAccess::ReadResponse(client).Code, 7);
    EXPECT_EQ(MailClientAccess::ReadResponse(client).Code, 42);
    const SmtpResponse r399 = MailClientAccess::ReadResponse(client);
    EXPECT_EQ(r399.Code, 399);
    EXPECT_FALSE(r399.IsError);
    const SmtpResponse r400 = MailClientAccess::ReadResponse(client);
    EXPECT_EQ(r400.Code, 400);
    EXPECT_TRUE(r400.IsError);
}

TEST_F(CommandLayerTest, ReplyCodesThatAreNoNumberRaiseTypeMismatch) {
    ScriptedPeer peer;
    test::Greet(peer).Send("250-continued\r\n\r\nabc done\r\n250 after\r\n");
    ConnectTo(peer);

    // An empty last line, then a last line with letters for its code: both are read, then fail.
    for (int i = 0; i < 2; ++i) {
        try {
            MailClientAccess::ReadResponse(client);
            ADD_FAILURE() << "reply " << i << " was accepted";
        } catch (const RaisedError& error) {
            EXPECT_EQ(error.Number(), ERROR_TYPE_MISMATCH);
            EXPECT_EQ(error.Source(), detail::kSourceMailClient);
        }
    }
    // The bad replies were consumed whole; the session reads on from the next one.
    EXPECT_EQ(MailClientAccess::ReadResponse(client).Text, u"250 after\r\n");
}

TEST_F(CommandLayerTest, CommandsGoOutOneWriteEachInLockStep) {
    test::WireRecorder wire;
    ScriptedPeer peer;
    test::Greet(peer).Reply("250 noop one\r\n").Reply("500 what\r\n").WaitForClose();
    ConnectTo(peer);
    const std::string ehlo = test::EhloLine(client);

    const SmtpResponse ok = MailClientAccess::SendCommand(client, u"NOOP");
    EXPECT_EQ(ok.Text, u"250 noop one\r\n");
    // SendCommand does not judge: an error reply comes back as a record.
    const SmtpResponse refused = MailClientAccess::SendCommand(client, u"BOGUS");
    EXPECT_TRUE(refused.IsError);
    EXPECT_EQ(refused.Code, 500);

    client.Disconnect(true);
    ASSERT_TRUE(peer.Join());
    EXPECT_EQ(wire.Writes(), (std::vector<std::string>{ehlo + "\r\n", "NOOP\r\n", "BOGUS\r\n"}));
}

TEST_F(CommandLayerTest, SendCommandCheckedRaisesTheReplyTextAndKeepsTheSession) {
    ScriptedPeer peer;
    test::Greet(peer).Reply("550-5.1.1 no such user\r\n550 5.1.1 really\r\n").Reply("250 still here\r\n");
    ConnectTo(peer);

    try {
        MailClientAccess::SendCommandChecked(client, u"RCPT TO: <nobody>");
        FAIL() << "refusal accepted";
    } catch (const RaisedError& error) {
        EXPECT_EQ(error.Number(), ERROR_COMMAND_REFUSED);
        EXPECT_EQ(error.Description(), u"550-5.1.1 no such user\r\n550 5.1.1 really\r\n");
        EXPECT_EQ(error.Source(), detail::kSourceMailClient);
    }
    EXPECT_EQ(MailClientAccess::SendCommandChecked(client, u"NOOP").Code, 250);
}

TEST_F(CommandLayerTest, RawTextWaitsInTheBufferAndLeavesWithTheNextCommand) {
    test::WireRecorder wire;
    ScriptedPeer peer;
    test::Greet(peer).ExpectLines(2).Send("250 ok\r\n").WaitForClose();
    ConnectTo(peer);
    const std::size_t writesAfterEhlo = wire.Writes().size();

    MailClientAccess::SendRaw(client, u"RAW ");
    MailClientAccess::SendRawLine(client, u"LINE");
    EXPECT_EQ(detail::TcpStreamAccess::SendBuffer(MailClientAccess::Stream(client)), "RAW LINE\r\n");
    EXPECT_EQ(wire.Writes().size(), writesAfterEhlo);

    MailClientAccess::SendCommand(client, u"NOOP");
    client.Disconnect(true);
    ASSERT_TRUE(peer.Join());
    ASSERT_EQ(wire.Writes().size(), writesAfterEhlo + 1);
    EXPECT_EQ(wire.Writes().back(), "RAW LINE\r\nNOOP\r\n");
    EXPECT_EQ(peer.Lines().back(), "NOOP");
}

TEST_F(CommandLayerTest, HasCapabilityGivesTheBitsThatAreSet) {
    ScriptedPeer peer;
    test::Greet(peer, "250-peer\r\n250-8BITMIME\r\n250 SIZE 100\r\n");
    ConnectTo(peer);

    EXPECT_EQ(MailClientAccess::HasCapability(client, CAP_SIZE), CAP_SIZE);
    EXPECT_EQ(MailClientAccess::HasCapability(client, CAP_8BITMIME), CAP_8BITMIME);
    EXPECT_EQ(MailClientAccess::HasCapability(client, CAP_PIPELINING), 0);
    EXPECT_EQ(MailClientAccess::HasCapability(client, CAP_SIZE | CAP_PIPELINING | CAP_AUTH_LOGIN), CAP_SIZE);
}

TEST_F(CommandLayerTest, SilenceEndsInTheTimeOutErrorAndTheSessionStaysUp) {
    test::FastTicks fast;
    ScriptedPeer peer;
    test::Greet(peer).ExpectLine().Pause(std::chrono::milliseconds(300)).Send("250 late\r\n");
    client.Timeout = 0;
    ConnectTo(peer);

    try {
        MailClientAccess::SendCommand(client, u"NOOP");
        FAIL() << "no time-out";
    } catch (const RaisedError& error) {
        EXPECT_EQ(error.Number(), ERROR_RESPONSE_TIMEOUT);
        EXPECT_EQ(error.Description(), u"The server did not respond in time.");
    }
    EXPECT_TRUE(MailClientAccess::Stream(client).Connected());
    // The next read starts a new count and gets the late reply.
    client.Timeout = 1;
    MailClientAccess::Stream(client).ResponseTimeout = 100;
    EXPECT_EQ(MailClientAccess::ReadResponse(client).Text, u"250 late\r\n");
}

TEST_F(CommandLayerTest, CloseInTheMiddleOfAReplyEndsInTheTimeOutError) {
    test::FastTicks fast;
    ScriptedPeer peer;
    test::Greet(peer).ExpectLine().Send("250-first line\r\n250-half a li").Close();
    client.Timeout = 0;
    ConnectTo(peer);

    try {
        MailClientAccess::SendCommand(client, u"NOOP");
        FAIL() << "a half reply was accepted";
    } catch (const RaisedError& error) {
        EXPECT_EQ(error.Number(), ERROR_RESPONSE_TIMEOUT);
    }
    EXPECT_FALSE(MailClientAccess::Stream(client).Connected());
}

}  // namespace
}  // namespace larkpost
