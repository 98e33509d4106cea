// TcpStream against the scripted fake control: every order of events, and every wait that must
// end. Real sockets and servers reach the stream through MailClient in the smtp_ tests.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <thread>

#include "larkpost/tcp_stream.h"
#include "net/stream_state.h"
#include "platform/clock.h"
#include "platform/errors.h"
#include "platform/codepage.h"
#include "platform/posix_socket_control.h"
#include "support/fake_socket_control.h"
#include "support/process.h"
#include "support/scripted_peer.h"
#include "support/raised.h"
#include "support/tcp_stream_access.h"
#include "support/under_valgrind.h"

namespace larkpost {
namespace {

using enum detail::StreamState;
using Access = detail::TcpStreamAccess;
using test::FakeEvent;
using test::Raised;
const std::u16string kNotConnected = u"Not connected.", kNoReply = u"The server did not respond in time.";

// The call raises this number and description, with the stream as the source.
void ExpectRaised(const std::function<void()>& call, int32_t number, std::u16string_view text) {
    const RaisedError error = Raised(call);
    EXPECT_EQ(error.Number(), number);
    EXPECT_EQ(error.Description(), text) << error.what();
    EXPECT_EQ(error.Source(), detail::kSourceTcpStream);
}

class StreamTest : public ::testing::Test {
protected:
    void SetUp() override { detail::SetTickScaleForTesting(0.01); }  // a tick lasts 10 ms
    void TearDown() override { detail::SetTickScaleForTesting(1); }
    auto Connect(test::FakeScript events = {FakeEvent::Connected()}) {
        sockets.NextConnect(std::move(events));
        stream.Connect(u"mail.test", 25);
        return sockets.Last();
    }
    std::u16string Unread() const { return Access::Unread(stream); }

    test::FakeSocketFactory sockets;
    TcpStream stream;
};

// A Connect event counts even when a Close of its pump follows: the greeting stays readable.
// Each Connect drops the last control and what it left: unsent text, arrivals, a pending error.
TEST_F(StreamTest, ConnectEndsOnTheControlsOutcomeOrThatTheConnectionClosedFirst) {
    const std::u16string closedFirst = u"Connection could not be established to host mail.test on port 25\r\n"
                                       u"Reason: The connection was closed before it was established.";
    const struct {
        test::FakeScript events;
        int32_t number;       // 0: connected
        std::u16string text;  // the error's description, or the first line to read
        int32_t state;
    } cases[] = {
        {{FakeEvent::Connected(), FakeEvent::Arrival("220 hi\r\n")}, 0, u"220 hi", STATE_DATA_ARRIVED},
        {{FakeEvent::Failure(10061, u"Refused")}, 10061, u"Refused", STATE_ERROR},
        {{FakeEvent::Connected(), FakeEvent::Arrival("421 busy\r\n"), FakeEvent::Closed()}, 0, u"421 busy", STATE_DISCONNECTED},
        {{FakeEvent::Failure(10054, u"Reset"), FakeEvent::Closed()}, 10054, u"Reset", STATE_DISCONNECTED},
        {{FakeEvent::Closed()}, ERROR_CONNECTION_FAILED, closedFirst, STATE_DISCONNECTED},
        {{}, ERROR_CONNECTION_FAILED, closedFirst, STATE_DISCONNECTED},  // nothing can ever come
        {{FakeEvent::Connected()}, 0, u"", STATE_CONNECTED}};
    for (const auto& c : cases) {
        if (c.number) ExpectRaised([&] { Connect(c.events); }, c.number, c.text); else Connect(c.events);
        EXPECT_EQ(Access::State(stream), c.state);
        EXPECT_EQ(stream.ResponseTimeout, 60);
        EXPECT_TRUE(!Access::ErrorPending(stream) && Access::SendBuffer(stream).empty());
        EXPECT_EQ(c.number == 0 && !c.text.empty() ? stream.ReadLine() : c.text, c.text);  // a greeting
        EXPECT_EQ(stream.Connected(), c.state == STATE_CONNECTED || c.state == STATE_DATA_ARRIVED);
        stream.ResponseTimeout = 7, stream.SendLine(u"left over");
        sockets.Last()->Post({FakeEvent::Arrival("late\r\n")});
        Access::SetTicksLeft(stream, 0);
        Access::Tick(stream);  // a time-out, recorded and not yet raised
    }
}

// Without a control, reads raise "Not connected."; so do writes, keeping their text. A Connect
// that fails inside its call (here the real control's) names host, port and reason.
TEST(StreamWithoutAConnection, ReadsRaiseNotConnectedAndAFailedConnectNamesItsReason) {
    TcpStream stream;
    ExpectRaised([&] { stream.ReadLine(); }, ERROR_NOT_CONNECTED, kNotConnected);
    ExpectRaised([&] { stream.LocalHostName(); }, ERROR_NOT_CONNECTED, kNotConnected);
    stream.SendLine(u"MAIL");
    ExpectRaised([&] { stream.Flush(); }, ERROR_NOT_CONNECTED, kNotConnected);
    ExpectRaised([&] { stream.Connect("sm\xC3\xA9tp", 70000); }, ERROR_CONNECTION_FAILED,
                 u"Connection could not be established to host sm\u00E9tp on port 70000\r\n"
                 u"Reason: The port number is out of range (0 to 65535).");
    EXPECT_EQ(Access::SendBuffer(stream), "MAIL\r\n");
}

// One write for the whole buffer, in the code page. A write that failed leaves its text for the
// next; a stale SendComplete or error state lets a Flush pass at once.
TEST_F(StreamTest, FlushWritesTheBufferInOneWriteAndAfterAFailureTheSameTextAgain) {
    auto control = Connect({FakeEvent::Connected(), FakeEvent::Arrival("x")});
    control->SetState(detail::sckClosing);
    stream.Flush();  // nothing to send, nothing to fail
    stream.Send(u"caf\u00E9 \u20AC \u4E2D");
    stream.SendLine("\xC3\xA9");  // UTF-8; an overlong form is refused
    EXPECT_EQ(Raised([&] { stream.Send("\xC0\xAF"); }).Number(), ERROR_INVALID_ARGUMENT);
    ExpectRaised([&] { stream.Read(1); }, ERROR_NOT_CONNECTED, kNotConnected);  // at its flush
    EXPECT_EQ(Unread(), u"x");
    control->SetState(detail::sckConnected);
    control->OnSendData({FakeEvent::Failure(10055, u"No buffer space")});
    ExpectRaised([&] { stream.Flush(); }, 10055, u"No buffer space");
    control->SetState(detail::sckConnected);  // the control got over it
    stream.SendLine(u"B");
    stream.Flush();
    control->OnSendData({});  // no report
    stream.Send(u"c");
    stream.Flush();
    const std::string line = "caf\xE9 \x80 ?\xE9\r\n";
    EXPECT_EQ(control->Writes(), (std::vector<std::string>{line, line + "B\r\n", "c"}));
}

TEST_F(StreamTest, ReadLineEndsOnlyAtCrLfEvenOneSplitAcrossArrivals) {
    auto control = Connect({FakeEvent::Connected(), FakeEvent::Arrival("250 ok\r")});
    // Lands after ReadLine has taken "250 ok\r", pumped once and begun a new wait; the error
    // lands in ReadLine's own pump after that, and the next read raises it.
    control->Post({FakeEvent::Arrival("\n250 a\r\na\nb\rc\r\n\r\nrest")}, 3);
    control->Post({FakeEvent::Failure(10053, u"Aborted")}, 4);
    EXPECT_EQ(stream.ReadLine(), u"250 ok");
    ExpectRaised([&] { stream.ReadLine(); }, 10053, u"Aborted");
    for (auto line : {u"250 a", u"a\nb\rc", u""}) EXPECT_EQ(stream.ReadLine(), line);
    EXPECT_EQ(Unread(), u"rest");
    // A CR LF split between two stored pieces of unread text (past 256 KiB an arrival starts one).
    const std::string big(300000, '\xe9');
    control->Post({FakeEvent::Arrival(big + "\r")});
    control->Post({FakeEvent::Arrival("\nz\r\n")}, 2);
    EXPECT_EQ(stream.ReadLine(), u"rest" + detail::FromAnsi(big));
    EXPECT_EQ(stream.ReadLine(), u"z");
}

// A read fails at tick ResponseTimeout + 1 of its silence (a negative count is 0), losing its partial
// line but not the connection. Its wait looks at the state alone: an overwritten arrival ends none.
TEST_F(StreamTest, TimeOutFailsAtTickNPlusOneAndCountsNegativeAsZero) {
    auto control = Connect({FakeEvent::Connected(), FakeEvent::Arrival("250 partial")});
    stream.ResponseTimeout = 0;
    ExpectRaised([&] { stream.ReadLine(); }, ERROR_RESPONSE_TIMEOUT, kNoReply);
    EXPECT_EQ(Unread(), u"");
    EXPECT_TRUE(stream.Connected());
    Access::SetTicksLeft(stream, 1);  // as a wait starts
    stream.ResponseTimeout = 9;       // a change during the wait does not reach its count
    Access::Tick(stream);
    EXPECT_FALSE(Access::ErrorPending(stream));
    Access::Tick(stream);
    EXPECT_TRUE(Access::ErrorPending(stream));
    stream.ResponseTimeout = INT32_MIN;
    control->Post({FakeEvent::Arrival("250 late\r\n"), FakeEvent::Closed()});
    ExpectRaised([&] { stream.ReadLine(); }, ERROR_RESPONSE_TIMEOUT, kNoReply);
    EXPECT_EQ(stream.ReadLine(), u"250 late");
}

// AtEndOfStream: an answer came since the last Flush that sent something, and was read whole.
// Peek and Read wait only for an empty buffer; Disconnect keeps both buffers.
TEST_F(StreamTest, ReadsAndDisconnectTakeWhatIsThereAndKeepWhatIsNot) {
    auto control = Connect();
    control->OnSendData({FakeEvent::SendDone(), FakeEvent::Arrival("250-one\r\n250 two\r\n")});
    stream.SendLine(u"EHLO me");
    EXPECT_EQ(stream.ReadToEnd(), u"250-one250 two");
    EXPECT_TRUE(stream.AtEndOfStream());
    stream.SendLine(u"NOOP");
    EXPECT_FALSE(stream.AtEndOfStream());  // flushed; nothing has come since
    control->failGetData = RaisedError(10040, u"Message too long");
    control->Post({FakeEvent::Arrival("x")});
    EXPECT_EQ(Raised([&] { stream.Read(1); }).Number(), 10040);  // passed on, nothing appended
    control->Post({FakeEvent::Arrival("yz")});
    ExpectRaised([&] { stream.Read(-1); }, ERROR_INVALID_ARGUMENT, u"Invalid procedure call or argument");
    EXPECT_EQ(stream.Peek(0) + stream.Peek(3), u"xyz");
    EXPECT_EQ(stream.Read(1), u"x");
    stream.Send(u"unsent");
    stream.Disconnect(), stream.Disconnect();
    EXPECT_EQ(control->CloseCalls(), 1);
    EXPECT_EQ(Access::SendBuffer(stream) + "|" + detail::ToAnsi(Unread()), "unsent|yz");
}

// A server that stops reading (a listener that never even accepts) cannot hold a flush for ever:
// with no progress for the time limit and a tick it fails, and the text stays to be sent again.
TEST(StreamOverARealSocket, FlushThatMakesNoProgressEndsInTheTimeOut) {
    const int listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
    socklen_t length = sizeof address;
    ASSERT_EQ(::bind(listener, reinterpret_cast<sockaddr*>(&address), length) | ::listen(listener, 1) |
                  ::getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length), 0);
    detail::SetTickScaleForTesting(0.02);
    TcpStream stream;
    stream.Connect(u"127.0.0.1", ntohs(address.sin_port));
    stream.ResponseTimeout = 1;
    stream.Send(std::string(64 << 20, 'x'));
    ExpectRaised([&] { stream.Flush(); }, ERROR_RESPONSE_TIMEOUT, u"The server did not take the text in time.");
    EXPECT_EQ(Access::SendBuffer(stream).size(), std::size_t{64} << 20);
    detail::SetTickScaleForTesting(1);
    ::close(listener);
}

// A TLS read whose chunk fills inside a record reads on, so no decrypted byte is left where
// polling the socket cannot see it (a chunk of 100 bytes here, the line 250).
TEST(StreamOverTls, NoDecryptedByteWaitsInsideTls) {
    const std::string line(250, 'y');
    test::ScriptedPeer peer("!tls " + test::Certificates() + "server|< " + line + "|!wait");
    detail::SetTickScaleForTesting(test::UnderValgrind() ? 0.5 : 0.05);
    detail::PosixSocketControl::SetReadChunkForTesting(100);
    TcpStream stream;
    stream.Connect(u"127.0.0.1", peer.Port());
    stream.ResponseTimeout = 10;  // a handshake under Valgrind takes seconds
    stream.StartTls(true, detail::FromAnsi(test::Certificates() + "ca.pem"));
    EXPECT_EQ(detail::ToAnsi(stream.ReadLine()), line);
    detail::PosixSocketControl::SetReadChunkForTesting(0), detail::SetTickScaleForTesting(1);
}

// The stream belongs to the thread that connected it: every call from another thread raises 4000
// at once (not a time-out later) and leaves the connection to its own thread.
TEST_F(StreamTest, AnotherThreadIsRefusedAtOnce) {
    auto control = Connect();
    stream.ResponseTimeout = 0;
    const std::function<void()> calls[] = {
        [&] { stream.ReadLine(); }, [&] { stream.Read(1); }, [&] { stream.Peek(1); },
        [&] { stream.ReadToEnd(); }, [&] { stream.AtEndOfStream(); }, [&] { stream.Send(u"x"); },
        [&] { stream.SendLine(u"x"); }, [&] { stream.Flush(); }, [&] { stream.Connected(); },
        [&] { stream.LocalHostName(); }, [&] { stream.Disconnect(); },
        [&] { stream.Connect(u"127.0.0.1", 1); }};
    const auto start = std::chrono::steady_clock::now();
    std::thread([&] {
        for (const auto& call : calls)
            ExpectRaised(call, ERROR_WRONG_THREAD,
                         u"This object is in use by another thread; use it only from the thread "
                         u"that connected it.");
    }).join();
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(500));
    control->Post({FakeEvent::Arrival("220 hi\r\n")});
    EXPECT_EQ(stream.ReadLine(), u"220 hi");
    EXPECT_TRUE(stream.Connected() && Access::SendBuffer(stream).empty());
}

}  // namespace
}  // namespace larkpost
