// Host code inside MailClient events: a listener that throws, and a listener that calls back
// into the client (Disconnect, CancelSend, another Send, Connect) from inside an event. None may
// crash the client, terminate a half-sent message (a server must never receive the end of data
// behind a partial text), or leave anything that reaches the next connection.
#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <stdexcept>
#include <string>

#include "larkpost/error.h"
#include "larkpost/mail_client.h"
#include "larkpost/mail_message.h"
#include "larkpost/text.h"
#include "platform/clock.h"
#include "platform/codepage.h"
#include "support/mail_client_access.h"
#include "support/mail_message_access.h"
#include "support/message_testing.h"
#include "support/scripted_peer.h"
#include "support/under_valgrind.h"

namespace larkpost::test {
namespace {

using detail::MailClientAccess;

class ShortTicks {
public:
    ShortTicks() { detail::SetTickScaleForTesting(UnderValgrind() ? 1.0 : 0.1); }
    ~ShortTicks() { detail::SetTickScaleForTesting(1); }
    ShortTicks(const ShortTicks&) = delete;
    ShortTicks& operator=(const ShortTicks&) = delete;
};

std::shared_ptr<MailMessage> MakeMessage() {
    auto message = std::make_shared<MailMessage>();
    message->FromAddress("sender@listener.test");
    message->AddRecipient("rcpt@listener.test");
    message->SubjectLine("listener faults");
    message->Body(std::string(1800, 'b'));  // several slices, so several progress events
    return message;
}

// The peer: a session without login up to the reply to DATA, then whatever the client does
// until it closes; then a second, clean session with one message.
void PlayInterruptedThenClean(ScriptedPeer& peer) {
    peer.Send("220 ready\r\n").Reply("250 ok\r\n").Reply("250 ok\r\n").Reply("250 ok\r\n").Reply("354 go\r\n");
    peer.WaitForClose();
    peer.Accept()
        .Send("220 clean\r\n")
        .Reply("250 clean\r\n")
        .Reply("250 ok\r\n")
        .Reply("250 ok\r\n")
        .Reply("354 go\r\n")
        .ReadUntil("\r\n.\r\n")
        .Send("250 queued\r\n")
        .ExpectLine()
        .Close();
}

class ListenerFault : public ::testing::Test {
protected:
    void SetUp() override {
        PlayInterruptedThenClean(peer);
        peer.Start();
        PointAt(client, peer.Port());
        client.Timeout = 1;
        client.AddListener(listener);
    }

    // The first connection never saw the end of the data, and the second one saw exactly a
    // fresh session with the whole message.
    void ExpectNothingTerminatedAndACleanSecondSession() {
        client.RemoveListener(listener);
        ASSERT_NO_THROW(client.Connect());
        const std::string ehlo = EhloLine(client);
        ASSERT_NO_THROW(client.Send(message));
        ASSERT_NO_THROW(client.Disconnect());
        ASSERT_TRUE(peer.Join());
        EXPECT_EQ(peer.ReceivedOn(0).find("\r\n.\r\n"), std::string::npos)
            << "a partial message was terminated";
        const std::string text = detail::ToAnsi(detail::MailMessageAccess::BuildMessage(*message));
        EXPECT_EQ(peer.ReceivedOn(1), ehlo + "\r\nMAIL FROM: <sender@listener.test>\r\n"
                                             "RCPT TO: <rcpt@listener.test>\r\nDATA\r\n" +
                                          text + "\r\n.\r\nQUIT\r\n");
    }

    ShortTicks ticks;
    SleepRecorder noPauses;
    ScriptedPeer peer;
    MailClient client;
    std::shared_ptr<MailMessage> message = MakeMessage();
    std::shared_ptr<RecordingListener> listener = std::make_shared<RecordingListener>();
};

// --- Listeners that throw.

TEST_F(ListenerFault, ExceptionFromProgressReachesTheCallerAndEndsTheSession) {
    listener->onProgress = [](int32_t, int32_t) { throw std::runtime_error("host failure"); };
    ASSERT_NO_THROW(client.Connect());
    try {
        client.Send(message);
        ADD_FAILURE() << "Send returned normally";
    } catch (const std::runtime_error& error) {
        EXPECT_STREQ(error.what(), "host failure");
    }
    EXPECT_EQ(listener->progress.size(), 1u);  // the first event ended the transfer
    EXPECT_FALSE(MailClientAccess::Stream(client).Connected());
    ExpectNothingTerminatedAndACleanSecondSession();
}

TEST_F(ListenerFault, RaisedErrorFromProgressReachesTheCallerUnchanged) {
    listener->onProgress = [](int32_t bytesSent, int32_t) {
        if (bytesSent > 1024) throw RaisedError(12345, u"host says no", u"Host");
    };
    ASSERT_NO_THROW(client.Connect());
    const auto error = CaptureError([&] { client.Send(message); });
    ASSERT_TRUE(error.has_value());
    EXPECT_EQ(error->Number(), 12345);
    EXPECT_EQ(error->Description(), u"host says no");
    EXPECT_EQ(error->Source(), u"Host");
    ExpectNothingTerminatedAndACleanSecondSession();
}

TEST_F(ListenerFault, ExceptionFromSendCanceledLeavesTheClientUsable) {
    listener->onProgress = [&](int32_t, int32_t) { client.CancelSend(); };
    listener->onCanceled = [] { throw std::runtime_error("host failure after cancel"); };
    ASSERT_NO_THROW(client.Connect());
    EXPECT_THROW(client.Send(message), std::runtime_error);
    EXPECT_FALSE(MailClientAccess::Stream(client).Connected());
    ExpectNothingTerminatedAndACleanSecondSession();
}

TEST(ListenerThrows, ExceptionFromCancelPendingStillLeavesTheRequestToTheNextSend) {
    MailClient client;
    auto listener = std::make_shared<RecordingListener>();
    listener->onCancelPending = [] { throw std::runtime_error("host failure in CancelPending"); };
    client.AddListener(listener);
    EXPECT_THROW(client.CancelSend(), std::runtime_error);
    // Outside a Send the request only waits to be wiped by the next Send.
    EXPECT_TRUE(MailClientAccess::CancelRequested(client));
}

// --- Listeners that call back into the client.

TEST_F(ListenerFault, DisconnectInsideProgressEndsSendWithNotConnected) {
    listener->onProgress = [&](int32_t, int32_t) {
        if (listener->progress.size() == 2) client.Disconnect();
    };
    ASSERT_NO_THROW(client.Connect());
    const auto error = CaptureError([&] { client.Send(message); });
    ASSERT_TRUE(error.has_value());
    EXPECT_EQ(error->Number(), ERROR_NOT_CONNECTED);
    EXPECT_EQ(ToUtf8(error->Description()), "Not connected.");
    ExpectNothingTerminatedAndACleanSecondSession();
}

TEST_F(ListenerFault, ForcedDisconnectInsideProgressEndsSendWithNotConnected) {
    listener->onProgress = [&](int32_t, int32_t) { client.Disconnect(true); };
    ASSERT_NO_THROW(client.Connect());
    const auto error = CaptureError([&] { client.Send(message); });
    ASSERT_TRUE(error.has_value());
    EXPECT_EQ(error->Number(), ERROR_NOT_CONNECTED);
    ExpectNothingTerminatedAndACleanSecondSession();
    // Nothing of the text went out: the forced close writes nothing.
    EXPECT_TRUE(peer.ReceivedOn(0).ends_with("DATA\r\n")) << peer.ReceivedOn(0);
}

TEST_F(ListenerFault, CancelFromEveryEventKindIsHarmless) {
    // CancelSend from SendCanceled sets a request that the next Send wipes; the second session
    // below must then send its message whole.
    listener->onProgress = [&](int32_t, int32_t) { client.CancelSend(); };
    listener->onCanceled = [&] { client.CancelSend(); };
    ASSERT_NO_THROW(client.Connect());
    ASSERT_NO_THROW(client.Send(message));
    EXPECT_EQ(listener->events.back(), "pending");  // the CancelSend inside SendCanceled
    EXPECT_TRUE(MailClientAccess::CancelRequested(client));
    ExpectNothingTerminatedAndACleanSecondSession();
}

TEST_F(ListenerFault, AnotherSendInsideProgressFailsWithoutTerminatingEither) {
    bool nested = false;
    std::optional<RaisedError> nestedError;
    listener->onProgress = [&](int32_t, int32_t) {
        if (nested) return;
        nested = true;
        try {
            client.Send(MakeMessage());
        } catch (const RaisedError& error) {
            nestedError = error;
            throw;
        }
    };
    ASSERT_NO_THROW(client.Connect());
    const auto error = CaptureError([&] { client.Send(message); });
    ASSERT_TRUE(error.has_value());
    ASSERT_TRUE(nestedError.has_value());
    EXPECT_EQ(error->Number(), nestedError->Number());
    ExpectNothingTerminatedAndACleanSecondSession();
}

TEST(ListenerReconnects, ConnectInsideProgressSendsNothingOfTheOldTextToTheNewServer) {
    ShortTicks ticks;
    SleepRecorder noPauses;
    ScriptedPeer first;
    first.Send("220 ready\r\n").Reply("250 ok\r\n").Reply("250 ok\r\n").Reply("250 ok\r\n").Reply("354 go\r\n");
    first.WaitForClose();
    first.Start();
    ScriptedPeer second;
    // The new server answers every line it gets until the client goes.
    second.Send("220 second\r\n").Reply("250 second\r\n");
    for (int i = 0; i < 8; ++i) second.Reply("500 unexpected\r\n");
    second.Start();

    MailClient client;
    PointAt(client, first.Port());
    client.Timeout = 1;
    auto listener = std::make_shared<RecordingListener>();
    listener->onProgress = [&](int32_t, int32_t) {
        if (listener->progress.size() != 1) return;
        PointAt(client, second.Port());
        client.Connect();
    };
    client.AddListener(listener);
    ASSERT_NO_THROW(client.Connect());
    try {
        client.Send(MakeMessage());
    } catch (const RaisedError&) {
        // Failing is acceptable; sending the old text to the new server is not.
    }
    client.Disconnect(true);
    EXPECT_TRUE(first.Join());
    second.Join(std::chrono::seconds(5));
    const std::string received = second.ReceivedOn(0);
    EXPECT_EQ(received.find("MessageBoundary"), std::string::npos) << "the old message reached the new server";
    EXPECT_EQ(received.find("bbbbbbbb"), std::string::npos) << "the old message reached the new server";
    EXPECT_EQ(received.find("\r\n.\r\n"), std::string::npos);
}

}  // namespace
}  // namespace larkpost::test
