// Send and CancelSend against a scripted peer: the checks before the transaction, the exact
// lines, the slices with their pauses and progress events, cancel, and failing event handlers.
#include <gtest/gtest.h>

#include <stdexcept>
#include <utility>

#include "larkpost/error.h"
#include "larkpost/mail_client.h"
#include "larkpost/mail_message.h"
#include "larkpost/text.h"
#include "platform/clock.h"
#include "platform/errors.h"
#include "support/mail_client_access.h"
#include "support/mail_message_access.h"
#include "support/process.h"
#include "support/smtp_servers.h"

namespace larkpost {
namespace {

using detail::MailClientAccess;
using detail::MailMessageAccess;
using test::RecordingListener;
using test::ScriptedPeer;

std::shared_ptr<MailMessage> SimpleMessage() {
    auto message = std::make_shared<MailMessage>();
    message->FromAddress(u"ann@example.test");
    message->AddRecipient(u"bob@example.test");
    message->SubjectLine(u"Hello");
    message->Body(u"Hi there.\r\n");
    return message;
}

// A built message whose text has exactly `length` characters (the smallest is about 330); the
// subject line pads it.
std::shared_ptr<MailMessage> MessageOfLength(std::size_t length) {
    detail::SetSystemTimerForTesting([] { return 43200.25f; });
    auto message = std::make_shared<MailMessage>();
    message->FromAddress(u"ann@example.test");
    message->AddRecipient(u"bob@example.test");
    std::size_t subject = 0;
    for (int attempt = 0; attempt < 5; ++attempt) {
        message->SubjectLine(std::u16string(subject, u'x'));
        const std::size_t built = MailMessageAccess::BuildMessage(*message).size();
        if (built == length) break;
        if (built > length + subject) break;  // cannot be made that short
        subject = subject + length - built;
    }
    detail::SetSystemTimerForTesting({});
    EXPECT_EQ(MailMessageAccess::BuildMessage(*message).size(), length);
    return message;
}

std::string TextOf(MailMessage& message) { return ToUtf8(MailMessageAccess::BuildMessage(message)); }

// Script: accept MAIL FROM, the given number of RCPT TO and DATA, read the text to its end,
// answer it with finalReply.
ScriptedPeer& AcceptTransaction(ScriptedPeer& peer, int recipients, std::string finalReply = "250 queued\r\n") {
    peer.Reply("250 sender ok\r\n");
    for (int i = 0; i < recipients; ++i) peer.Reply("250 recipient ok\r\n");
    return peer.Reply("354 go ahead\r\n").ReadUntil("\r\n.\r\n").Send(std::move(finalReply));
}

class TransactionTest : public ::testing::Test {
protected:
    void ConnectTo(ScriptedPeer& peer) {
        peer.Start();
        test::PointAt(client, peer.Port());
        client.Connect();
        ehlo = test::EhloLine(client) + "\r\n";
    }
    RaisedError SendFailure(std::shared_ptr<MailMessage> message) {
        try {
            client.Send(std::move(message));
        } catch (const RaisedError& error) {
            return error;
        }
        ADD_FAILURE() << "Send succeeded";
        return RaisedError(0, u"");
    }
    bool Connected() { return MailClientAccess::Stream(client).Connected(); }

    test::SleepRecorder sleeps;
    test::WireRecorder wire;
    MailClient client;
    std::shared_ptr<RecordingListener> listener = std::make_shared<RecordingListener>();
    std::string ehlo;
};

TEST_F(TransactionTest, EveryCommandIsOneWriteAndTheTextLeavesInOneWriteWithItsEnd) {
    auto message = SimpleMessage();
    message->AddRecipient(u"carl@example.test");
    message->AddCCRecipient(u"dana@example.test");
    message->AddBCCRecipient(u"bob@example.test");  // on two lists: sent twice
    ScriptedPeer peer;
    AcceptTransaction(test::Greet(peer), 4).WaitForClose();
    ConnectTo(peer);

    client.Send(message);
    client.Disconnect();
    ASSERT_TRUE(peer.Join());

    const std::string text = TextOf(*message);
    const std::vector<std::string> expected = {
        ehlo,
        "MAIL FROM: <ann@example.test>\r\n",
        "RCPT TO: <bob@example.test>\r\n",
        "RCPT TO: <carl@example.test>\r\n",
        "RCPT TO: <dana@example.test>\r\n",
        "RCPT TO: <bob@example.test>\r\n",
        "DATA\r\n",
        text + "\r\n.\r\n",
        "QUIT\r\n"};
    EXPECT_EQ(wire.Writes(), expected);
    std::string all;
    for (const auto& write : expected) all += write;
    EXPECT_EQ(peer.ReceivedOn(0), all);
    EXPECT_TRUE(peer.Problems().empty());
}

TEST_F(TransactionTest, EmptySenderAndAnyRepliesBelow400AreAccepted) {
    auto message = SimpleMessage();
    message->FromAddress(u"");
    ScriptedPeer peer;
    test::Greet(peer).Reply("251 odd\r\n").Reply("399 odd\r\n").Reply("300 odd\r\n").ReadUntil("\r\n.\r\n").Send(
        "554 5.6.0 rejected after all\r\n");
    ConnectTo(peer);

    EXPECT_NO_THROW(client.Send(message));  // the reply to the end of data is not judged
    ASSERT_TRUE(peer.Join());
    EXPECT_EQ(peer.Lines().at(1), "MAIL FROM: <>");
    EXPECT_TRUE(Connected());
}

TEST_F(TransactionTest, ChecksComeInOrderAndSendNothing) {
    test::TempDir dir;
    const std::string vanishing = dir.File("gone.bin");
    test::WriteFileBytes(vanishing, "bytes");
    ScriptedPeer peer;
    test::Greet(peer, "250-peer\r\n250 SIZE 1\r\n").WaitForClose();
    ConnectTo(peer);

    EXPECT_EQ(SendFailure(nullptr).Number(), ERROR_NO_MESSAGE);
    EXPECT_EQ(SendFailure(nullptr).Description(), u"No MailMessage object provided to Send().");

    // Cc and Bcc alone are not enough, and the To list is tested before the text is built.
    auto noTo = std::make_shared<MailMessage>();
    noTo->AddCCRecipient(u"cc@example.test");
    noTo->AddBCCRecipient(u"bcc@example.test");
    noTo->AttachFile(vanishing);
    const RaisedError noRecipients = SendFailure(noTo);
    EXPECT_EQ(noRecipients.Number(), ERROR_NO_RECIPIENTS);
    EXPECT_EQ(noRecipients.Description(), u"No recipient(s) specified in message.");
    EXPECT_EQ(noRecipients.Source(), detail::kSourceMailClient);

    // The build fails before the size is tested, and its error passes unchanged.
    auto broken = SimpleMessage();
    broken->AttachFile(vanishing);
    std::remove(vanishing.c_str());
    EXPECT_EQ(SendFailure(broken).Number(), ERROR_ATTACHMENT_FAILED);

    const RaisedError tooLarge = SendFailure(SimpleMessage());
    EXPECT_EQ(tooLarge.Number(), ERROR_MESSAGE_TOO_LARGE);
    EXPECT_EQ(tooLarge.Description(), u"The message was too large to send.");

    EXPECT_TRUE(Connected());
    EXPECT_EQ(wire.Writes(), std::vector<std::string>{ehlo});
    client.Disconnect(true);
    ASSERT_TRUE(peer.Join());
}

TEST_F(TransactionTest, TextOfExactlyTheAnnouncedSizePasses) {
    ScriptedPeer peer;
    AcceptTransaction(test::Greet(peer, "250-peer\r\n250 SIZE 600\r\n"), 1);
    ConnectTo(peer);

    EXPECT_EQ(SendFailure(MessageOfLength(601)).Number(), ERROR_MESSAGE_TOO_LARGE);
    EXPECT_EQ(wire.Writes().size(), 1u);
    EXPECT_NO_THROW(client.Send(MessageOfLength(600)));
    ASSERT_TRUE(peer.Join());
}

TEST_F(TransactionTest, SizeZeroMeansNoLimit) {
    ScriptedPeer peer;
    AcceptTransaction(test::Greet(peer, "250-peer\r\n250 SIZE 0\r\n"), 1);
    ConnectTo(peer);
    EXPECT_NO_THROW(client.Send(MessageOfLength(3000)));
    ASSERT_TRUE(peer.Join());
    EXPECT_TRUE(peer.Problems().empty());
}

TEST_F(TransactionTest, WithoutSizeAnyLengthIsSent) {
    ScriptedPeer peer;
    AcceptTransaction(test::Greet(peer, "250-peer\r\n250 8BITMIME\r\n"), 1);
    ConnectTo(peer);
    EXPECT_NO_THROW(client.Send(MessageOfLength(100000)));
    ASSERT_TRUE(peer.Join());
    EXPECT_EQ(wire.Writes().back().size(), 100000u + 5);
}

TEST_F(TransactionTest, RefusalsStopAtTheFirstAndTheSessionGoesOn) {
    auto message = SimpleMessage();
    message->AddRecipient(u"carl@example.test");
    message->AddRecipient(u"dana@example.test");
    ScriptedPeer peer;
    test::Greet(peer)
        .Reply("451 4.3.0 sender later\r\n")
        .Reply("250 ok\r\n").Reply("250 ok\r\n").Reply("550 5.1.1 carl unknown\r\n")
        .Reply("250 ok\r\n").Reply("250 ok\r\n").Reply("250 ok\r\n").Reply("250 ok\r\n").Reply("503 5.5.1 no data\r\n");
    AcceptTransaction(peer, 3).WaitForClose();
    ConnectTo(peer);

    const RaisedError sender = SendFailure(message);
    EXPECT_EQ(sender.Number(), ERROR_COMMAND_REFUSED);
    EXPECT_EQ(sender.Description(), u"451 4.3.0 sender later\r\n");
    const RaisedError recipient = SendFailure(message);
    EXPECT_EQ(recipient.Description(), u"550 5.1.1 carl unknown\r\n");
    const RaisedError data = SendFailure(message);
    EXPECT_EQ(data.Description(), u"503 5.5.1 no data\r\n");
    EXPECT_TRUE(Connected());
    client.Send(message);
    client.Disconnect(true);
    ASSERT_TRUE(peer.Join());

    const std::string text = TextOf(*message);
    const std::string from = "MAIL FROM: <ann@example.test>\r\n";
    const std::string bob = "RCPT TO: <bob@example.test>\r\n";
    const std::string carl = "RCPT TO: <carl@example.test>\r\n";
    const std::string dana = "RCPT TO: <dana@example.test>\r\n";
    EXPECT_EQ(peer.ReceivedOn(0), ehlo + from +                       // refused sender
                                      from + bob + carl +             // refused second recipient
                                      from + bob + carl + dana + "DATA\r\n" +  // refused DATA
                                      from + bob + carl + dana + "DATA\r\n" + text + "\r\n.\r\n");
}

TEST_F(TransactionTest, SendWithoutAConnectionFailsAtTheFirstCommand) {
    MailClient fresh;
    try {
        fresh.Send(SimpleMessage());
        FAIL() << "sent without a connection";
    } catch (const RaisedError& error) {
        EXPECT_EQ(error.Number(), ERROR_NOT_CONNECTED);
        EXPECT_EQ(error.Description(), u"Not connected.");
    }
}

TEST_F(TransactionTest, SilenceAfterTheTextIsTheTimeOutError) {
    test::FastTicks fast;
    ScriptedPeer peer;
    test::Greet(peer).Reply("250 ok\r\n").Reply("250 ok\r\n").Reply("354 go\r\n").ReadUntil("\r\n.\r\n").WaitForClose();
    client.Timeout = 0;
    ConnectTo(peer);
    EXPECT_EQ(SendFailure(SimpleMessage()).Number(), ERROR_RESPONSE_TIMEOUT);
    client.Disconnect(true);
    ASSERT_TRUE(peer.Join());
}

// Slices of 512 characters, a pause of 5 ms before every fourth one starting with the first,
// a progress event after each, and nothing on the wire until the reply to the end is read.
struct SliceCase {
    std::size_t length;
    std::vector<int32_t> progress;
    std::size_t pauses;
};

// Named in test listings (the default would print the bytes of the struct).
void PrintTo(const SliceCase& c, std::ostream* os) { *os << std::to_string(c.length); }

class TransactionSliceTest : public TransactionTest, public ::testing::WithParamInterface<SliceCase> {};

TEST_P(TransactionSliceTest, ProgressPausesAndOneWrite) {
    const SliceCase& expected = GetParam();
    auto message = MessageOfLength(expected.length);
    ScriptedPeer peer;
    AcceptTransaction(test::Greet(peer), 1);
    ConnectTo(peer);
    const std::size_t writesBeforeText = 4;  // EHLO, MAIL FROM, RCPT TO, DATA
    std::vector<std::size_t> writesSeen;
    listener->onProgress = [&](int32_t, int32_t totalBytes) {
        EXPECT_EQ(totalBytes, static_cast<int32_t>(expected.length));
        writesSeen.push_back(wire.Writes().size());
    };
    client.AddListener(listener);

    client.Send(message);
    ASSERT_TRUE(peer.Join());

    EXPECT_EQ(listener->progress, expected.progress);
    EXPECT_EQ(listener->lastMessage, message);
    EXPECT_EQ(sleeps.Calls(), std::vector<int32_t>(expected.pauses, 5));
    EXPECT_EQ(writesSeen, std::vector<std::size_t>(expected.progress.size(), writesBeforeText));
    ASSERT_EQ(wire.Writes().size(), writesBeforeText + 1);
    EXPECT_EQ(wire.Writes().back(), TextOf(*message) + "\r\n.\r\n");
}

INSTANTIATE_TEST_SUITE_P(
    Lengths, TransactionSliceTest,
    ::testing::Values(SliceCase{400, {400}, 1}, SliceCase{512, {512}, 1}, SliceCase{513, {512, 513}, 1},
                      SliceCase{2048, {512, 1024, 1536, 2048}, 1},
                      SliceCase{2049, {512, 1024, 1536, 2048, 2049}, 2},
                      SliceCase{4097, {512, 1024, 1536, 2048, 2560, 3072, 3584, 4096, 4097}, 3}),
    [](const auto& info) { return std::to_string(info.param.length); });

TEST_F(TransactionTest, CancelFromTheFirstProgressEventClosesBeforeAnyTextLeaves) {
    ScriptedPeer peer;
    test::Greet(peer).Reply("250 ok\r\n").Reply("250 ok\r\n").Reply("354 go\r\n").WaitForClose();
    ConnectTo(peer);
    listener->onProgress = [&](int32_t, int32_t) { client.CancelSend(); };
    bool connectedAtCanceled = true;
    listener->onCanceled = [&] { connectedAtCanceled = Connected(); };
    client.AddListener(listener);

    EXPECT_NO_THROW(client.Send(MessageOfLength(2049)));
    EXPECT_EQ(listener->events, (std::vector<std::string>{"progress 512/2049", "pending", "canceled"}));
    EXPECT_FALSE(connectedAtCanceled);
    EXPECT_FALSE(Connected());
    EXPECT_FALSE(MailClientAccess::CancelRequested(client));
    ASSERT_TRUE(peer.Join());
    EXPECT_EQ(peer.ReceivedOn(0), ehlo + "MAIL FROM: <ann@example.test>\r\nRCPT TO: <bob@example.test>\r\nDATA\r\n");

    // The session is over: the next Send fails at its first command and sends nothing.
    try {
        client.Send(SimpleMessage());
        FAIL() << "sent after a cancel";
    } catch (const RaisedError& error) {
        EXPECT_EQ(error.Number(), ERROR_NOT_CONNECTED);
        EXPECT_EQ(error.Description(), u"Not connected.");
    }
    EXPECT_EQ(wire.Writes().size(), 4u);
}

TEST_F(TransactionTest, CancelFromTheLastProgressEventStillCancels) {
    ScriptedPeer peer;
    test::Greet(peer).Reply("250 ok\r\n").Reply("250 ok\r\n").Reply("354 go\r\n").WaitForClose();
    ConnectTo(peer);
    listener->onProgress = [&](int32_t sent, int32_t total) {
        if (sent == total) client.CancelSend();
    };
    client.AddListener(listener);

    client.Send(MessageOfLength(1000));
    EXPECT_EQ(listener->events,
              (std::vector<std::string>{"progress 512/1000", "progress 1000/1000", "pending", "canceled"}));
    ASSERT_TRUE(peer.Join());
    EXPECT_EQ(wire.Writes().size(), 4u);  // no terminating line
    EXPECT_FALSE(Connected());
}

TEST_F(TransactionTest, CancelWithoutARunningSendConcernsNoLaterSend) {
    ScriptedPeer peer;
    AcceptTransaction(test::Greet(peer), 1);
    ConnectTo(peer);
    client.AddListener(listener);

    client.CancelSend();
    EXPECT_EQ(listener->events, std::vector<std::string>{"pending"});
    EXPECT_TRUE(MailClientAccess::CancelRequested(client));

    client.Send(MessageOfLength(600));
    EXPECT_EQ(listener->events, (std::vector<std::string>{"pending", "progress 512/600", "progress 600/600"}));
    EXPECT_FALSE(MailClientAccess::CancelRequested(client));
    EXPECT_TRUE(Connected());
    ASSERT_TRUE(peer.Join());
    EXPECT_TRUE(peer.Problems().empty());
}

TEST_F(TransactionTest, AThrowingProgressHandlerEndsTheSessionAndItsErrorGoesOn) {
    ScriptedPeer peer;
    test::Greet(peer).Reply("250 ok\r\n").Reply("250 ok\r\n").Reply("354 go\r\n").WaitForClose();
    ConnectTo(peer);
    listener->onProgress = [](int32_t, int32_t) { throw std::runtime_error("host handler failed"); };
    client.AddListener(listener);

    try {
        client.Send(MessageOfLength(2049));
        FAIL() << "the handler's error was swallowed";
    } catch (const std::runtime_error& error) {
        EXPECT_STREQ(error.what(), "host handler failed");
    }
    EXPECT_EQ(listener->events, std::vector<std::string>{"progress 512/2049"});  // no SendCanceled
    EXPECT_FALSE(Connected());
    ASSERT_TRUE(peer.Join());
    EXPECT_EQ(wire.Writes().size(), 4u);
    EXPECT_THROW(client.Send(SimpleMessage()), RaisedError);
}

TEST_F(TransactionTest, AHandlerThatRebuildsTheMessageDoesNotChangeTheTextBeingSent) {
    auto message = MessageOfLength(1500);
    const std::string original = TextOf(*message);
    ScriptedPeer peer;
    AcceptTransaction(test::Greet(peer), 1);
    ConnectTo(peer);
    listener->onProgress = [&](int32_t sent, int32_t) {
        if (sent != 512) return;
        message->Body(u"A body that makes the text quite different from before.");
        MailMessageAccess::BuildMessage(*message);
    };
    client.AddListener(listener);

    client.Send(message);
    ASSERT_TRUE(peer.Join());
    EXPECT_EQ(listener->progress, (std::vector<int32_t>{512, 1024, 1500}));
    EXPECT_EQ(wire.Writes().back(), original + "\r\n.\r\n");
    EXPECT_NE(TextOf(*message), original);
}

// A handler that closes or replaces the connection, or runs another Send on it, ends the
// transaction: no further slice and no end of data go anywhere.
void ExpectNotConnectedFromTheClient(const RaisedError& error) {
    EXPECT_EQ(error.Number(), ERROR_NOT_CONNECTED);
    EXPECT_EQ(error.Description(), u"Not connected.");
    EXPECT_EQ(error.Source(), detail::kSourceMailClient);
}

TEST_F(TransactionTest, ConnectFromAProgressHandlerSendsNothingOfTheOldTextToTheNewServer) {
    test::FastTicks fast;  // a regression would otherwise wait out the 30 s limit
    ScriptedPeer peer;
    test::Greet(peer).Reply("250 ok\r\n").Reply("250 ok\r\n").Reply("354 go\r\n").WaitForClose().Accept();
    test::Greet(peer).WaitForClose();
    ConnectTo(peer);
    listener->onProgress = [&](int32_t, int32_t) { client.Connect(); };
    client.AddListener(listener);

    ExpectNotConnectedFromTheClient(SendFailure(MessageOfLength(2049)));
    EXPECT_EQ(listener->progress, std::vector<int32_t>{512});
    EXPECT_TRUE(Connected());  // the handler's new session stays
    client.Disconnect(true);
    ASSERT_TRUE(peer.Join());
    EXPECT_EQ(peer.ReceivedOn(1), ehlo);
}

TEST_F(TransactionTest, DisconnectFromAProgressHandlerEndsTheTransferAtOnce) {
    ScriptedPeer peer;
    test::Greet(peer).Reply("250 ok\r\n").Reply("250 ok\r\n").Reply("354 go\r\n").WaitForClose();
    ConnectTo(peer);
    listener->onProgress = [&](int32_t, int32_t) { client.Disconnect(true); };
    client.AddListener(listener);

    ExpectNotConnectedFromTheClient(SendFailure(MessageOfLength(2049)));
    EXPECT_EQ(listener->progress, std::vector<int32_t>{512});
    ASSERT_TRUE(peer.Join());
    EXPECT_EQ(wire.Writes().size(), 4u);
}

TEST_F(TransactionTest, AnotherSendFromAProgressHandlerEndsTheOuterTransfer) {
    test::FastTicks fast;  // a regression would otherwise wait out the 30 s limit
    auto outer = MessageOfLength(2049);
    auto inner = SimpleMessage();
    const std::string innerText = TextOf(*inner);
    ScriptedPeer peer;
    // A lenient server that takes the inner transaction behind the outer's first slice.
    test::Greet(peer).Reply("250 ok\r\n").Reply("250 ok\r\n").Reply("354 go\r\n")
        .ReadUntil("MAIL FROM: <ann@example.test>\r\n").Send("250 ok\r\n")
        .Reply("250 ok\r\n").Reply("354 go\r\n").ReadUntil("\r\n.\r\n").Send("250 queued\r\n")
        .WaitForClose();
    ConnectTo(peer);
    bool nested = false;
    listener->onProgress = [&](int32_t, int32_t) {
        if (std::exchange(nested, true)) return;
        client.Send(inner);
    };
    client.AddListener(listener);

    ExpectNotConnectedFromTheClient(SendFailure(outer));
    EXPECT_TRUE(Connected());
    client.Disconnect(true);
    ASSERT_TRUE(peer.Join());
    // After the inner message's end of data nothing more of the outer text went out.
    EXPECT_EQ(wire.Writes().back(), innerText + "\r\n.\r\n");
}

TEST(SmtpListenerTest, ListenersAreCalledInOrderOverACopyOfTheList) {
    MailClient client;
    std::vector<std::string> calls;
    auto second = std::make_shared<RecordingListener>();
    auto late = std::make_shared<RecordingListener>();
    auto first = std::make_shared<RecordingListener>();
    first->onCancelPending = [&] {
        calls.push_back("first");
        client.RemoveListener(second);  // still called for this event
        client.AddListener(late);       // called from the next event on
    };
    second->onCancelPending = [&] { calls.push_back("second"); };
    late->onCancelPending = [&] { calls.push_back("late"); };
    client.AddListener(first);
    client.AddListener(second);

    client.CancelSend();
    EXPECT_EQ(calls, (std::vector<std::string>{"first", "second"}));
    calls.clear();
    first->onCancelPending = [&] { calls.push_back("first"); };
    client.CancelSend();
    EXPECT_EQ(calls, (std::vector<std::string>{"first", "late"}));
}

TEST(SmtpListenerTest, RegistrationsCountOneByOne) {
    MailClient client;
    auto listener = std::make_shared<RecordingListener>();
    client.AddListener(listener);
    client.AddListener(listener);
    client.CancelSend();
    EXPECT_EQ(listener->events.size(), 2u);

    client.RemoveListener(listener);
    client.RemoveListener(std::make_shared<RecordingListener>());  // unknown: nothing happens
    client.CancelSend();
    EXPECT_EQ(listener->events.size(), 3u);

    client.RemoveListener(listener);
    client.CancelSend();
    EXPECT_EQ(listener->events.size(), 3u);

    try {
        client.AddListener(nullptr);
        FAIL() << "a null listener was taken";
    } catch (const RaisedError& error) {
        EXPECT_EQ(error.Number(), ERROR_INVALID_ARGUMENT);
    }
}

TEST(SmtpListenerTest, AThrowingCancelPendingHandlerLeavesTheRequestStanding) {
    MailClient client;
    auto listener = std::make_shared<RecordingListener>();
    listener->onCancelPending = [] { throw std::logic_error("no"); };
    client.AddListener(listener);
    EXPECT_THROW(client.CancelSend(), std::logic_error);
    EXPECT_TRUE(MailClientAccess::CancelRequested(client));
}

TEST(SmtpListenerTest, WithoutListenersEventsGoNowhere) {
    MailClient client;
    EXPECT_NO_THROW(client.CancelSend());
    EXPECT_TRUE(MailClientAccess::CancelRequested(client));
}

}  // namespace
}  // namespace larkpost
