// TcpStream's state machine against the scripted fake control: every order of events that real
// sockets rarely produce, and every wait that has to end.
#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "larkpost/error.h"
#include "larkpost/tcp_stream.h"
#include "net/stream_state.h"
#include "net/tcp_stream_access.h"
#include "platform/clock.h"
#include "platform/errors.h"
#include "platform/host_kit.h"
#include "support/fake_socket_control.h"
#include "support/raised.h"

namespace larkpost {
namespace {

using enum detail::StreamState;
using detail::TcpStreamAccess;
using test::FakeEvent;
using test::FakeScript;
using test::FakeSocketControl;
using test::FakeSocketFactory;
using Writes = std::vector<std::string>;

constexpr char16_t kNotConnected[] = u"Not connected.";
constexpr char16_t kNoResponse[] = u"The server did not respond in time.";

using test::Raised;

void ExpectRaised(const RaisedError& error, int32_t number, std::u16string_view description) {
    EXPECT_EQ(error.Number(), number);
    EXPECT_EQ(error.Description(), description) << error.what();
    EXPECT_EQ(error.Source(), detail::kSourceTcpStream);
}

template <typename Call>
void ExpectNotConnected(Call&& call) {
    ExpectRaised(Raised(call), ERROR_NOT_CONNECTED, kNotConnected);
}

class StreamTest : public ::testing::Test {
protected:
    // A tick of 10 ms keeps time-outs fast.
    void SetUp() override { detail::SetTickScaleForTesting(0.01); }
    void TearDown() override { detail::SetTickScaleForTesting(1); }

    std::shared_ptr<FakeSocketControl> ConnectWith(FakeScript events = {FakeEvent::Connected()}) {
        sockets.NextConnect(std::move(events));
        stream.Connect(u"mail.test", 25);
        return sockets.Last();
    }
    int32_t State() const { return TcpStreamAccess::State(stream); }
    std::u16string Unread() const { return TcpStreamAccess::Unread(stream); }
    std::string SendBuffer() const { return TcpStreamAccess::SendBuffer(stream); }

    FakeSocketFactory sockets;
    TcpStream stream;
};

// ---- A stream that never connected ----

TEST_F(StreamTest, WithoutAConnectionReadsRaiseNotConnectedAndWritesKeepTheirText) {
    EXPECT_EQ(stream.ResponseTimeout, 3);
    EXPECT_FALSE(stream.Connected());
    stream.Disconnect();
    stream.Disconnect();
    EXPECT_FALSE(stream.Connected());
    // AtEndOfStream leaves STATE_CONNECTED, and with no control to ask that is what counts.
    EXPECT_FALSE(stream.AtEndOfStream());
    EXPECT_TRUE(stream.Connected());
    ExpectNotConnected([&] { stream.Peek(1); });
    ExpectNotConnected([&] { stream.Read(0); });
    ExpectNotConnected([&] { stream.ReadLine(); });
    ExpectNotConnected([&] { stream.ReadToEnd(); });
    ExpectNotConnected([&] { stream.LocalHostName(); });
    stream.Flush();  // nothing to send: nothing happens
    stream.Send(u"MAIL");
    stream.SendLine(u"");
    ExpectNotConnected([&] { stream.Flush(); });
    ExpectNotConnected([&] { stream.Peek(1); });
    EXPECT_EQ(SendBuffer(), "MAIL\r\n");
    EXPECT_EQ(sockets.Made(), 0);
}

// ---- Connect ----

TEST_F(StreamTest, ConnectSetsTheTimeoutTo60AndLeavesTheGreetingReadable) {
    stream.ResponseTimeout = 5;
    auto control = ConnectWith();
    EXPECT_EQ(stream.ResponseTimeout, 60);
    EXPECT_EQ(State(), STATE_CONNECTED);
    EXPECT_TRUE(stream.Connected());
    EXPECT_EQ(control->RemoteHost(), u"mail.test");
    EXPECT_EQ(control->RemotePort(), 25);
    EXPECT_EQ(stream.LocalHostName(), u"fake-host.test");

    stream.ResponseTimeout = 7;
    ConnectWith({FakeEvent::Connected(), FakeEvent::Arrival("220 hi\r\n")});  // in one pump
    EXPECT_EQ(stream.ResponseTimeout, 60);
    EXPECT_EQ(State(), STATE_DATA_ARRIVED);
    EXPECT_EQ(stream.ReadLine(), u"220 hi");

    // A peer that greets and hangs up at once.
    ConnectWith({FakeEvent::Connected(), FakeEvent::Arrival("421 busy\r\n"), FakeEvent::Closed()});
    EXPECT_EQ(stream.ReadLine(), u"421 busy");
    EXPECT_FALSE(stream.Connected());
}

TEST_F(StreamTest, ConnectRaisesTheControlsErrorOrThatTheConnectionClosedFirst) {
    const std::u16string closedFirst =
        u"Connection could not be established to host mail.test on port 25\r\n"
        u"Reason: The connection was closed before it was established.";
    const struct {
        FakeScript events;
        int32_t number;
        std::u16string description;
        int32_t state;
    } cases[] = {
        {{FakeEvent::Failure(10061, u"Connection refused")}, 10061, u"Connection refused",
         STATE_ERROR},
        {{FakeEvent::Failure(10054, u"Reset"), FakeEvent::Closed()}, 10054, u"Reset",
         STATE_DISCONNECTED},
        {{FakeEvent::Closed()}, ERROR_CONNECTION_FAILED, closedFirst, STATE_DISCONNECTED},
        {{}, ERROR_CONNECTION_FAILED, closedFirst, STATE_DISCONNECTED},  // nothing can ever come
    };
    for (const auto& c : cases) {
        ExpectRaised(Raised([&] { ConnectWith(c.events); }), c.number, c.description);
        EXPECT_EQ(State(), c.state);
        EXPECT_FALSE(TcpStreamAccess::ErrorPending(stream));
        EXPECT_FALSE(stream.Connected());
        EXPECT_EQ(State(), STATE_DISCONNECTED);
    }
}

TEST_F(StreamTest, ImmediateFailuresComposeTheConnectionMessage) {
    sockets.FailNextConnectCall(RaisedError(40021, u"The argument is out of range"));
    ExpectRaised(Raised([&] { stream.Connect(u" Mail.Test ", -5); }), ERROR_CONNECTION_FAILED,
                 u"Connection could not be established to host  Mail.Test  on port -5\r\n"
                 u"Reason: The argument is out of range");
    EXPECT_EQ(State(), STATE_DISCONNECTED);

    sockets.FailNextCreate(RaisedError(7, u"Out of memory"));
    ExpectRaised(Raised([&] { stream.Connect("smtp.test", 587); }), ERROR_CONNECTION_FAILED,
                 u"Connection could not be established to host smtp.test on port 587\r\n"
                 u"Reason: Out of memory");
    EXPECT_FALSE(TcpStreamAccess::HasControl(stream));
    ExpectNotConnected([&] { stream.LocalHostName(); });
}

TEST_F(StreamTest, NewConnectClosesTheOldControlAndDiscardsWhatItLeft) {
    auto old = ConnectWith({FakeEvent::Connected(), FakeEvent::Arrival("220 old\r\nleft over")});
    EXPECT_EQ(stream.ReadLine(), u"220 old");
    TcpStreamAccess::SetTicksLeft(stream, 0);
    TcpStreamAccess::Tick(stream);  // a time-out, recorded
    ASSERT_TRUE(TcpStreamAccess::ErrorPending(stream));
    stream.SendLine(u"never sent");
    old->Post({FakeEvent::Arrival("stale\r\n")});

    auto fresh = ConnectWith();
    EXPECT_EQ(old->CloseCalls(), 1);
    EXPECT_FALSE(old->Hooked());
    EXPECT_EQ(SendBuffer(), "");
    EXPECT_EQ(Unread(), u"");
    EXPECT_FALSE(TcpStreamAccess::ErrorPending(stream));
    EXPECT_FALSE(stream.AtEndOfStream());  // the old arrival no longer counts
    fresh->Post({FakeEvent::Arrival("220 new\r\n")});
    EXPECT_EQ(stream.ReadLine(), u"220 new");
    stream.SendLine(u"EHLO me");
    stream.Flush();
    EXPECT_EQ(fresh->Writes(), Writes{"EHLO me\r\n"});
    EXPECT_TRUE(old->Writes().empty());
}

TEST_F(StreamTest, ControlThatCannotTellItsStateIsStillReplacedByTheNextConnect) {
    auto old = ConnectWith();
    old->FailState(RaisedError(10093, u"Not initialised"));
    EXPECT_EQ(Raised([&] { stream.Connected(); }).Number(), 10093);  // passed on unchanged
    old->FailState(RaisedError(10093, u"Not initialised"));
    ConnectWith({FakeEvent::Connected(), FakeEvent::Arrival("220 new\r\n")});
    EXPECT_EQ(State(), STATE_DATA_ARRIVED);
    EXPECT_EQ(stream.ReadLine(), u"220 new");
}

// ---- Flush ----

TEST_F(StreamTest, FlushHandsTheWholeBufferToOneWriteInTheCodePage) {
    auto control = ConnectWith();
    stream.Send(u"MAIL FROM:<a@b>");
    stream.SendLine(u"");
    stream.SendLine("RCPT TO:<c@d>");
    stream.Send(u"caf\u00E9 \u20AC \u4E2D");
    stream.Send("\xC3\xA9");  // UTF-8 for U+00E9
    // Malformed UTF-8 is refused and loses nothing.
    EXPECT_EQ(Raised([&] { stream.Send("\xFF"); }).Number(), ERROR_INVALID_ARGUMENT);
    EXPECT_EQ(Raised([&] { stream.SendLine("\xC3"); }).Number(), ERROR_INVALID_ARGUMENT);
    EXPECT_TRUE(control->Writes().empty());
    stream.Flush();
    EXPECT_EQ(control->Writes(), Writes{"MAIL FROM:<a@b>\r\nRCPT TO:<c@d>\r\ncaf\xE9 \x80 ?\xE9"});
    EXPECT_EQ(SendBuffer(), "");
    EXPECT_EQ(State(), STATE_SEND_COMPLETE);
}

TEST_F(StreamTest, FlushOnAClosedControlRaisesNotConnectedAndKeepsTheText) {
    auto control = ConnectWith({FakeEvent::Connected(), FakeEvent::Arrival("x")});
    control->SetState(detail::sckClosing);
    stream.Flush();  // nothing to send: no failure, the arrival count stays
    EXPECT_EQ(TcpStreamAccess::LastArrivalBytes(stream), 1);
    stream.Send(u"QUIT\r\n");
    ExpectNotConnected([&] { stream.Flush(); });
    EXPECT_EQ(SendBuffer(), "QUIT\r\n");
    EXPECT_EQ(TcpStreamAccess::LastArrivalBytes(stream), 0);
    EXPECT_EQ(State(), STATE_DATA_ARRIVED);
    // Even with characters waiting, a read with text to send fails at its flush.
    ExpectNotConnected([&] { stream.Read(1); });
    EXPECT_EQ(Unread(), u"x");
    EXPECT_TRUE(control->Writes().empty());
    EXPECT_FALSE(stream.Connected());  // Connected follows the control
    EXPECT_EQ(State(), STATE_DISCONNECTED);
}

TEST_F(StreamTest, FlushWaitEndsOnErrorOrCloseOrWhenNothingCanComeAndKeepsTheText) {
    const struct {
        FakeScript events;  // what the control posts for the write
        int32_t number;
        std::u16string description;
        std::optional<int32_t> state;
    } cases[] = {
        {{FakeEvent::Closed()}, ERROR_NOT_CONNECTED, kNotConnected, STATE_DISCONNECTED},
        {{}, ERROR_NOT_CONNECTED, kNotConnected, std::nullopt},
        {{FakeEvent::Failure(10054, u"Reset"), FakeEvent::Closed()}, 10054, u"Reset",
         STATE_DISCONNECTED},
    };
    for (const auto& c : cases) {
        ConnectWith()->OnSendData(c.events);
        stream.SendLine(u"RSET");
        ExpectRaised(Raised([&] { stream.Flush(); }), c.number, c.description);
        EXPECT_EQ(SendBuffer(), "RSET\r\n");
        if (c.state) {
            EXPECT_EQ(State(), *c.state);
        }
    }
}

TEST_F(StreamTest, FlushSucceedsWhenAnArrivalOverwritesSendCompleteInTheSamePump) {
    ConnectWith()->OnSendData(
        {FakeEvent::SendDone(), FakeEvent::Arrival("250 ok\r\n"), FakeEvent::Closed()});
    stream.SendLine(u"NOOP");
    stream.Flush();
    EXPECT_EQ(SendBuffer(), "");
    EXPECT_EQ(stream.ReadLine(), u"250 ok");
}

TEST_F(StreamTest, FlushAfterAFailureSendsTheSameTextAgainWithWhatCameSince) {
    auto control = ConnectWith();
    control->OnSendData({FakeEvent::Failure(10055, u"No buffer space")});
    stream.SendLine(u"A");
    ExpectRaised(Raised([&] { stream.Flush(); }), 10055, u"No buffer space");
    control->SetState(detail::sckConnected);  // the control got over it
    stream.SendLine(u"B");
    stream.Flush();
    EXPECT_EQ(control->Writes(), (Writes{"A\r\n", "A\r\nB\r\n"}));
    EXPECT_EQ(SendBuffer(), "");
}

TEST_F(StreamTest, FlushDoesNotWaitWhileSendCompleteOfTheLastFlushStands) {
    auto control = ConnectWith();
    stream.Send(u"a");
    stream.Flush();
    control->OnSendData({});  // this write never reports back
    stream.Send(u"b");
    stream.Flush();
    EXPECT_EQ(control->Writes(), (Writes{"a", "b"}));
    EXPECT_EQ(SendBuffer(), "");
}

// ---- Reading ----

TEST_F(StreamTest, PeekAndReadWaitOnlyForAnEmptyBufferAndTakeWhatIsThere) {
    auto control = ConnectWith();
    control->Post({FakeEvent::Arrival("xy")});
    // A negative count fails after the wait and removes nothing.
    ExpectRaised(Raised([&] { stream.Read(-1); }), ERROR_INVALID_ARGUMENT,
                 u"Invalid procedure call or argument");
    EXPECT_EQ(Raised([&] { stream.Peek(-3); }).Number(), ERROR_INVALID_ARGUMENT);
    EXPECT_EQ(Unread(), u"xy");
    EXPECT_EQ(stream.Peek(3), u"xy");
    EXPECT_EQ(stream.Peek(3), u"xy");
    EXPECT_EQ(stream.Read(1), u"x");
    EXPECT_EQ(stream.Read(10), u"y");
    EXPECT_EQ(Unread(), u"");
    control->Post({FakeEvent::Arrival("z")});
    EXPECT_EQ(stream.Read(0), u"");  // reading nothing still waits for an arrival
    EXPECT_EQ(Unread(), u"z");
    EXPECT_EQ(State(), STATE_DATA_ARRIVED);
}

TEST_F(StreamTest, ReadLineEndsOnlyAtCrLfEvenOneSplitAcrossArrivals) {
    auto control = ConnectWith();
    control->Post({FakeEvent::Arrival("250 ok\r")});
    // Lands after ReadLine has taken "250 ok\r", pumped once and begun a new wait.
    control->PostAfter(3, {FakeEvent::Arrival("\n250 next\r\n")});
    EXPECT_EQ(stream.ReadLine(), u"250 ok");
    EXPECT_EQ(stream.ReadLine(), u"250 next");
    control->Post({FakeEvent::Arrival("a\nb\rc\r\n\r\nrest")});
    EXPECT_EQ(stream.ReadLine(), u"a\nb\rc");
    EXPECT_EQ(stream.ReadLine(), u"");
    EXPECT_EQ(Unread(), u"rest");
}

TEST_F(StreamTest, ReadLineThatTimesOutLosesItsPartialLineButNotTheConnection) {
    ConnectWith({FakeEvent::Connected(), FakeEvent::Arrival("250 partial")});
    stream.ResponseTimeout = 0;
    ExpectRaised(Raised([&] { stream.ReadLine(); }), ERROR_RESPONSE_TIMEOUT, kNoResponse);
    EXPECT_EQ(Unread(), u"");
    EXPECT_EQ(State(), STATE_ERROR);
    EXPECT_TRUE(stream.Connected());
}

TEST_F(StreamTest, ErrorDeliveredInReadLinesPumpIsRaisedByTheNextRead) {
    auto control = ConnectWith({FakeEvent::Connected(), FakeEvent::Arrival("250 a\r\n250 b\r\n")});
    control->Post({FakeEvent::Failure(10053, u"Aborted")});
    EXPECT_EQ(stream.ReadLine(), u"250 a");
    ExpectRaised(Raised([&] { stream.ReadLine(); }), 10053, u"Aborted");
    EXPECT_EQ(stream.ReadLine(), u"250 b");
}

// Peek's wait looks at the state alone: an arrival, an error or a SendComplete overwritten in
// the same pump does not end it; its time-out does.
TEST_F(StreamTest, PeeksWaitEndsOnlyOnAStandingArrivalOrItsTimeOut) {
    auto control = ConnectWith();
    stream.ResponseTimeout = 0;
    control->Post({FakeEvent::Arrival("late\r\n"), FakeEvent::Closed()});
    ExpectRaised(Raised([&] { stream.Peek(1); }), ERROR_RESPONSE_TIMEOUT, kNoResponse);
    EXPECT_EQ(stream.ReadLine(), u"late");

    stream.ResponseTimeout = 1;
    control->Post({FakeEvent::Failure(10054, u"Reset"), FakeEvent::Closed()});
    ExpectRaised(Raised([&] { stream.Peek(1); }), ERROR_RESPONSE_TIMEOUT, kNoResponse);

    stream.ResponseTimeout = 60;
    control->Post({FakeEvent::SendDone()});
    control->PostAfter(2, {FakeEvent::Arrival("x")});
    EXPECT_EQ(stream.Peek(1), u"x");
}

TEST_F(StreamTest, FailingGetDataPassesItsErrorAndAppendsNothing) {
    auto control = ConnectWith();
    control->FailGetData(RaisedError(10040, u"Message too long"));
    control->Post({FakeEvent::Arrival("abc")});
    EXPECT_EQ(Raised([&] { stream.Read(1); }).Number(), 10040);
    EXPECT_EQ(State(), STATE_DATA_ARRIVED);
    EXPECT_EQ(TcpStreamAccess::LastArrivalBytes(stream), 0);
    EXPECT_EQ(Unread(), u"");
    control->Post({FakeEvent::Arrival("d")});
    EXPECT_EQ(stream.Read(9), u"abcd");
}

// ---- The response time-out ----

TEST_F(StreamTest, TimeOutFailsAtTickNPlusOneAndANegativeCountAtTheFirst) {
    ConnectWith();
    stream.ResponseTimeout = 2;
    TcpStreamAccess::SetTicksLeft(stream, 2);  // as a wait starts
    TcpStreamAccess::Tick(stream);
    TcpStreamAccess::Tick(stream);
    EXPECT_FALSE(TcpStreamAccess::ErrorPending(stream));
    stream.ResponseTimeout = 9;  // a change during the wait does not reach its count
    TcpStreamAccess::Tick(stream);
    EXPECT_TRUE(TcpStreamAccess::ErrorPending(stream));
    EXPECT_EQ(TcpStreamAccess::ErrorNumber(stream), ERROR_RESPONSE_TIMEOUT);
    EXPECT_EQ(TcpStreamAccess::TicksLeft(stream), 9);
    EXPECT_EQ(State(), STATE_ERROR);

    auto control = ConnectWith();
    stream.ResponseTimeout = -4;
    TcpStreamAccess::SetTicksLeft(stream, -4);
    TcpStreamAccess::Tick(stream);
    ASSERT_TRUE(TcpStreamAccess::ErrorPending(stream));
    stream.ResponseTimeout = INT32_MIN;
    ExpectRaised(Raised([&] { stream.ReadLine(); }), ERROR_RESPONSE_TIMEOUT, kNoResponse);
    // The stream goes on: the next read that waits starts a new count.
    control->Post({FakeEvent::Arrival("250 back\r\n")});
    EXPECT_EQ(stream.ReadLine(), u"250 back");
}

// ---- Disconnect, AtEndOfStream, ReadToEnd, release ----

TEST_F(StreamTest, DisconnectClosesAConnectedControlOnlyAndKeepsBothBuffers) {
    auto control = ConnectWith({FakeEvent::Connected(), FakeEvent::Arrival("abc")});
    stream.Send(u"unsent");
    stream.Disconnect();
    stream.Disconnect();
    EXPECT_EQ(control->CloseCalls(), 1);
    EXPECT_FALSE(stream.Connected());
    EXPECT_EQ(SendBuffer(), "unsent");
    EXPECT_EQ(Unread(), u"abc");
    EXPECT_EQ(stream.LocalHostName(), u"fake-host.test");
}

TEST_F(StreamTest, AtEndOfStreamTellsWhetherTheAnswerSinceTheLastFlushWasReadWhole) {
    auto control = ConnectWith();
    stream.SendLine(u"NOOP");
    EXPECT_FALSE(stream.AtEndOfStream());  // flushed; nothing has come since
    EXPECT_EQ(State(), STATE_CONNECTED);
    control->Post({FakeEvent::Arrival("250 ok\r\n")});
    EXPECT_EQ(stream.ReadLine(), u"250 ok");
    EXPECT_TRUE(stream.AtEndOfStream());
    EXPECT_EQ(State(), STATE_CONNECTED);

    // A flush that fails leaves the state alone.
    control->Post({FakeEvent::Arrival("more")});
    EXPECT_EQ(stream.Read(0), u"");
    control->SetState(detail::sckClosed);
    stream.Send(u"x");
    EXPECT_EQ(Raised([&] { stream.AtEndOfStream(); }).Number(), ERROR_NOT_CONNECTED);
    EXPECT_EQ(State(), STATE_DATA_ARRIVED);
}

TEST_F(StreamTest, ReadToEndSendsWhatWasWrittenInOneWriteAndJoinsTheReplyLines) {
    auto control = ConnectWith();
    control->OnSendData({FakeEvent::SendDone(), FakeEvent::Arrival("250-one\r\n250 two\r\n")});
    stream.Send(u"EHLO ");
    stream.SendLine(u"me");
    stream.SendLine(u"NOOP");
    EXPECT_TRUE(control->Writes().empty());
    EXPECT_EQ(stream.ReadToEnd(), u"250-one250 two");
    EXPECT_EQ(control->Writes(), Writes{"EHLO me\r\nNOOP\r\n"});
}

TEST_F(StreamTest, ReleasedStreamHearsNothingFromItsControl) {
    {
        TcpStream other;
        sockets.NextConnect({FakeEvent::Connected()});
        other.Connect(u"mail.test", 25);
        sockets.Last()->Post({FakeEvent::Arrival("after the end")});
    }
    EXPECT_EQ(sockets.Last(), nullptr);
    detail::HostKitGlobal().Services().PumpEvents();  // would reach a dead stream if not dropped
    EXPECT_FALSE(detail::HostKitGlobal().Services().WaitAndPumpEvents());
}

}  // namespace
}  // namespace larkpost
