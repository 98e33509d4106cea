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
#include "support/message_testing.h"
#include "support/process.h"
#include "support/smtp_servers.h"

namespace larkpost {
namespace {

using detail::MailClientAccess;
using detail::MailMessageAccess;
using test::RecordingListener;
using test::ScriptedPeer;
using Strings = std::vector<std::string>;

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

// Script: accept MAIL FROM, one RCPT TO and DATA.
ScriptedPeer& UpToData(ScriptedPeer& peer) {
    return test::Greet(peer).Reply("250 ok\r\n").Reply("250 ok\r\n").Reply("354 go\r\n");
}
// Script: accept MAIL FROM, the given number of RCPT TO and DATA, read the text to its end,
// answer it with finalReply.
ScriptedPeer& AcceptTransaction(ScriptedPeer& peer, int recipients,
                                std::string finalReply = "250 queued\r\n") {
    peer.Reply("250 sender ok\r\n");
    for (int i = 0; i < recipients; ++i) peer.Reply("250 recipient ok\r\n");
    return peer.Reply("354 go ahead\r\n").ReadUntil("\r\n.\r\n").Send(std::move(finalReply));
}

const std::string kNotConnected = "Not connected.";
const std::string kFromAnnToBob = "MAIL FROM: <ann@example.test>\r\nRCPT TO: <bob@example.test>\r\n";

class TransactionTest : public ::testing::Test {
protected:
    void ConnectTo(ScriptedPeer& peer) {
        peer.Start();
        test::PointAt(client, peer.Port());
        client.Connect();
        ehlo = test::EhloLine(client) + "\r\n";
    }
    RaisedError SendFailure(std::shared_ptr<MailMessage> message) {
        auto error = test::CaptureError([&] { client.Send(std::move(message)); });
        return error.value_or(RaisedError(0, u""));
    }
    bool Connected() { return MailClientAccess::Stream(client).Connected(); }
    void Listen() { client.AddListener(listener); }

    test::SleepRecorder sleeps;
    test::WireRecorder wire;
    MailClient client;
    std::shared_ptr<RecordingListener> listener = std::make_shared<RecordingListener>();
    std::string ehlo;
};

// Every command is one write, the text leaves in one write with its end. A refusal stops the
// transaction at once, raises the reply's text, and the session goes on.
TEST_F(TransactionTest, EveryCommandIsOneWriteAndRefusalsStopAtTheFirst) {
    auto message = SimpleMessage();
    message->AddRecipient(u"carl@example.test");
    message->AddCCRecipient(u"dana@example.test");
    message->AddBCCRecipient(u"bob@example.test");  // on two lists: sent twice
    ScriptedPeer peer;
    test::Greet(peer).Reply("451 4.3.0 sender later\r\n");
    peer.Reply("250 ok\r\n").Reply("250 ok\r\n").Reply("550 5.1.1 carl unknown\r\n");
    for (int i = 0; i < 5; ++i) peer.Reply("250 ok\r\n");
    peer.Reply("503 5.5.1 no data\r\n");
    AcceptTransaction(peer, 4).WaitForClose();
    ConnectTo(peer);
    const RaisedError sender = SendFailure(message);
    EXPECT_EQ(sender.Number(), ERROR_COMMAND_REFUSED);
    EXPECT_EQ(sender.Description(), u"451 4.3.0 sender later\r\n");
    EXPECT_EQ(sender.Source(), detail::kSourceMailClient);
    EXPECT_EQ(SendFailure(message).Description(), u"550 5.1.1 carl unknown\r\n");
    EXPECT_EQ(SendFailure(message).Description(), u"503 5.5.1 no data\r\n");
    EXPECT_TRUE(Connected());
    client.Send(message);
    client.Disconnect();
    ASSERT_TRUE(peer.Join());
    const std::string from = "MAIL FROM: <ann@example.test>\r\n", data = "DATA\r\n",
                      bob = "RCPT TO: <bob@example.test>\r\n", carl = "RCPT TO: <carl@example.test>\r\n",
                      dana = "RCPT TO: <dana@example.test>\r\n";
    const Strings expected = {ehlo, from,                                // refused sender
                              from, bob, carl,                           // refused recipient
                              from, bob, carl, dana, bob, data,          // refused DATA
                              from, bob, carl, dana, bob, data, TextOf(*message) + "\r\n.\r\n",
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
    test::Greet(peer).Reply("251 odd\r\n").Reply("399 odd\r\n").Reply("300 odd\r\n");
    peer.ReadUntil("\r\n.\r\n").Send("554 5.6.0 rejected after all\r\n");
    ConnectTo(peer);
    EXPECT_NO_THROW(client.Send(message));  // the reply to the end of data is not judged
    ASSERT_TRUE(peer.Join());
    EXPECT_EQ(peer.Lines().at(1), "MAIL FROM: <>");
    EXPECT_TRUE(Connected());
}

TEST_F(TransactionTest, ChecksComeInOrderAndSendNothing) {
    EXPECT_RAISES(MailClient().Send(SimpleMessage()), ERROR_NOT_CONNECTED, kNotConnected);
    test::TempDir dir;
    const std::string vanishing = dir.File("gone.bin");
    test::WriteFileBytes(vanishing, "bytes");
    ScriptedPeer peer;
    test::Greet(peer, "250-peer\r\n250 SIZE 1\r\n").WaitForClose();
    ConnectTo(peer);
    EXPECT_RAISES(client.Send(nullptr), ERROR_NO_MESSAGE, "No MailMessage object provided to Send().");
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
    EXPECT_RAISES(client.Send(SimpleMessage()), ERROR_MESSAGE_TOO_LARGE,
                  "The message was too large to send.");
    EXPECT_TRUE(Connected());
    EXPECT_EQ(wire.Writes(), Strings{ehlo});
    client.Disconnect(true);
    ASSERT_TRUE(peer.Join());
}

// The announced SIZE is a limit the text may reach; SIZE 0 and no SIZE mean no limit at all.
TEST_F(TransactionTest, OnlyATextAboveTheAnnouncedSizeIsRefused) {
    ScriptedPeer peer;
    AcceptTransaction(test::Greet(peer, "250-peer\r\n250 SIZE 600\r\n"), 1).Accept();
    AcceptTransaction(test::Greet(peer, "250-peer\r\n250 SIZE 0\r\n"), 1).Accept();
    AcceptTransaction(test::Greet(peer, "250-peer\r\n250 8BITMIME\r\n"), 1);
    ConnectTo(peer);
    EXPECT_EQ(SendFailure(MessageOfLength(601)).Number(), ERROR_MESSAGE_TOO_LARGE);
    EXPECT_EQ(wire.Writes(), Strings{ehlo});
    auto expectSent = [&](std::size_t length) {
        auto message = MessageOfLength(length);
        EXPECT_NO_THROW(client.Send(message)) << length;
        EXPECT_EQ(wire.Writes().back(), TextOf(*message) + "\r\n.\r\n");
    };
    expectSent(600);
    client.Connect();
    expectSent(3000);
    client.Connect();
    expectSent(100000);
    ASSERT_TRUE(peer.Join());
    EXPECT_TRUE(peer.Problems().empty());
}

// Slices of 512 characters, a pause of 5 ms before every fourth one starting with the first,
// a progress event after each, and nothing on the wire until the reply to the end is read.
struct SliceCase {
    std::size_t length;
    std::vector<int32_t> progress;
    std::size_t pauses;
};
void PrintTo(const SliceCase& c, std::ostream* os) { *os << c.length; }

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
    Listen();
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

// A progress handler that cancels, throws or disconnects ends the session before any text
// leaves: the connection is closed, and the next Send fails at its first command.
struct EndCase {
    const char* name;
    std::size_t length;
    void (*onProgress)(MailClient& client, int32_t sent, int32_t total);
    Strings events;
    std::string outcome;  // what Send raises: "" for nothing, a RaisedError's text after "raised "
};
void PrintTo(const EndCase& c, std::ostream* os) { *os << c.name; }

class TransactionEndTest : public TransactionTest, public ::testing::WithParamInterface<EndCase> {};

TEST_P(TransactionEndTest, NothingOfTheTextLeaves) {
    ScriptedPeer peer;
    UpToData(peer).WaitForClose();
    ConnectTo(peer);
    listener->onProgress = [&](int32_t sent, int32_t total) {
        GetParam().onProgress(client, sent, total);
    };
    listener->onCanceled = [&] { EXPECT_FALSE(Connected()); };
    Listen();
    std::string outcome;
    try {
        client.Send(MessageOfLength(GetParam().length));
    } catch (const RaisedError& error) {
        outcome = "raised " + ToUtf8(error.Description());
        EXPECT_EQ(error.Number(), ERROR_NOT_CONNECTED);
        EXPECT_EQ(error.Source(), detail::kSourceMailClient);
    } catch (const std::exception& error) {
        outcome = error.what();
    }
    EXPECT_EQ(outcome, GetParam().outcome);
    EXPECT_EQ(listener->events, GetParam().events);
    EXPECT_FALSE(Connected());
    EXPECT_FALSE(MailClientAccess::CancelRequested(client));
    ASSERT_TRUE(peer.Join());
    EXPECT_EQ(peer.ReceivedOn(0), ehlo + kFromAnnToBob + "DATA\r\n");
    EXPECT_RAISES(client.Send(SimpleMessage()), ERROR_NOT_CONNECTED, kNotConnected);
    EXPECT_EQ(wire.Writes().size(), 4u);  // no terminating line, nothing of the next Send
}

INSTANTIATE_TEST_SUITE_P(
    Handlers, TransactionEndTest,
    ::testing::Values(
        EndCase{"CancelFromTheFirstProgressEvent", 2049,
                [](MailClient& client, int32_t, int32_t) { client.CancelSend(); },
                {"progress 512/2049", "pending", "canceled"}, ""},
        EndCase{"CancelFromTheLastProgressEvent", 1000,
                [](MailClient& client, int32_t sent, int32_t total) {
                    if (sent == total) client.CancelSend();
                },
                {"progress 512/1000", "progress 1000/1000", "pending", "canceled"}, ""},
        // The handler's own error goes on unchanged, and SendCanceled is not raised.
        EndCase{"AThrowingProgressHandler", 2049,
                [](MailClient&, int32_t, int32_t) { throw std::runtime_error("host handler failed"); },
                {"progress 512/2049"}, "host handler failed"},
        EndCase{"DisconnectFromAProgressHandler", 2049,
                [](MailClient& client, int32_t, int32_t) { client.Disconnect(true); },
                {"progress 512/2049"}, "raised Not connected."}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(TransactionTest, CancelWithoutARunningSendConcernsNoLaterSend) {
    ScriptedPeer peer;
    AcceptTransaction(test::Greet(peer), 1);
    ConnectTo(peer);
    Listen();
    client.CancelSend();
    EXPECT_EQ(listener->events, Strings{"pending"});
    EXPECT_TRUE(MailClientAccess::CancelRequested(client));
    client.Send(MessageOfLength(600));
    EXPECT_EQ(listener->events, (Strings{"pending", "progress 512/600", "progress 600/600"}));
    EXPECT_FALSE(MailClientAccess::CancelRequested(client));
    EXPECT_TRUE(Connected());
    ASSERT_TRUE(peer.Join());
    EXPECT_TRUE(peer.Problems().empty());
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
    Listen();
    client.Send(message);
    ASSERT_TRUE(peer.Join());
    EXPECT_EQ(listener->progress, (std::vector<int32_t>{512, 1024, 1500}));
    EXPECT_EQ(wire.Writes().back(), original + "\r\n.\r\n");
    EXPECT_NE(TextOf(*message), original);
}

// A handler that replaces the connection, or runs another Send on it, ends the transaction
// with "Not connected.": no further slice and no end of data go anywhere.
TEST_F(TransactionTest, ConnectFromAProgressHandlerSendsNothingOfTheOldTextToTheNewServer) {
    test::FastTicks fast;  // a regression would otherwise wait out the 30 s limit
    ScriptedPeer peer;
    UpToData(peer).WaitForClose().Accept();
    test::Greet(peer).WaitForClose();
    ConnectTo(peer);
    listener->onProgress = [&](int32_t, int32_t) { client.Connect(); };
    Listen();
    const RaisedError error = SendFailure(MessageOfLength(2049));
    EXPECT_EQ(error.Number(), ERROR_NOT_CONNECTED);
    EXPECT_EQ(ToUtf8(error.Description()), kNotConnected);
    EXPECT_EQ(error.Source(), detail::kSourceMailClient);
    EXPECT_EQ(listener->progress, std::vector<int32_t>{512});
    EXPECT_TRUE(Connected());  // the handler's new session stays
    client.Disconnect(true);
    ASSERT_TRUE(peer.Join());
    EXPECT_EQ(peer.ReceivedOn(1), ehlo);
}

TEST_F(TransactionTest, AnotherSendFromAProgressHandlerEndsTheOuterTransfer) {
    test::FastTicks fast;  // a regression would otherwise wait out the 30 s limit
    auto inner = SimpleMessage();
    ScriptedPeer peer;
    // A lenient server that takes the inner transaction behind the outer's first slice.
    UpToData(peer).ReadUntil("MAIL FROM: <ann@example.test>\r\n").Send("250 ok\r\n");
    peer.Reply("250 ok\r\n").Reply("354 go\r\n").ReadUntil("\r\n.\r\n").Send("250 queued\r\n");
    peer.WaitForClose();
    ConnectTo(peer);
    bool nested = false;
    listener->onProgress = [&](int32_t, int32_t) {
        if (!std::exchange(nested, true)) client.Send(inner);
    };
    Listen();
    EXPECT_RAISES(client.Send(MessageOfLength(2049)), ERROR_NOT_CONNECTED, kNotConnected);
    EXPECT_TRUE(Connected());
    client.Disconnect(true);
    ASSERT_TRUE(peer.Join());
    // After the inner message's end of data nothing more of the outer text went out.
    EXPECT_EQ(wire.Writes().back(), TextOf(*inner) + "\r\n.\r\n");
}

TEST(SmtpListenerTest, ListenersAreCalledInOrderOverACopyOfTheList) {
    MailClient client;
    Strings calls;
    auto first = std::make_shared<RecordingListener>(), second = std::make_shared<RecordingListener>(),
         late = std::make_shared<RecordingListener>();
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
    EXPECT_EQ(calls, (Strings{"first", "second"}));
    calls.clear();
    first->onCancelPending = [&] { calls.push_back("first"); };
    client.CancelSend();
    EXPECT_EQ(calls, (Strings{"first", "late"}));
}

// Each AddListener is a registration and RemoveListener takes one away; a listener that throws
// from CancelPending leaves the request standing.
TEST(SmtpListenerTest, RegistrationsCountOneByOne) {
    MailClient client;
    EXPECT_NO_THROW(client.CancelSend());  // without listeners events go nowhere
    EXPECT_TRUE(MailClientAccess::CancelRequested(client));
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
    EXPECT_EQ(test::CaptureError([&] { client.AddListener(nullptr); }).value().Number(),
              ERROR_INVALID_ARGUMENT);
    MailClient other;
    listener->onCancelPending = [] { throw std::logic_error("no"); };
    other.AddListener(listener);
    EXPECT_THROW(other.CancelSend(), std::logic_error);
    EXPECT_TRUE(MailClientAccess::CancelRequested(other));
}

}  // namespace
}  // namespace larkpost
