// The real socket control against loopback sockets: connection outcomes, data both ways, the
// Windows Sockets numbers of failures, and the rule that events come only inside a pump.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "larkpost/error.h"
#include "larkpost/text.h"
#include "platform/host_kit.h"
#include "platform/posix_socket_control.h"
#include "platform/socket_control.h"
#include "platform/socket_errors.h"
#include "platform/ticker.h"
#include "support/raised.h"
#include "support/smtp_servers.h"
#include "support/under_valgrind.h"

namespace larkpost::detail {
namespace {

using namespace std::chrono_literals;
using Words = std::vector<std::string>;

// Records every event of one control as a short word ("connect", "data:5", "error:10061", ...).
class Recorder : public SocketControlEvents {
public:
    Words events;
    std::u16string lastErrorDescription;
    std::function<void(const std::string&)> onEvent;  // runs inside the handler

    void Close() override { Note("close"); }
    void Connect() override { Note("connect"); }
    void DataArrival(int32_t bytesTotal) override { Note("data:" + std::to_string(bytesTotal)); }
    void Error(int16_t Number, std::u16string& Description, int32_t, const std::u16string&,
               const std::u16string&, int32_t, bool&) override {
        lastErrorDescription = Description;
        Note("error:" + std::to_string(Number));
    }
    void SendComplete() override { Note("sent"); }

    int Count(const std::string& word) const {
        return static_cast<int>(std::count(events.begin(), events.end(), word));
    }

private:
    void Note(std::string word) {
        events.push_back(word);
        if (onEvent) onEvent(word);
    }
};

// Pumps, sleeping in WaitAndPumpEvents, until done() or the limit. A 5 ms ticker (ticking to
// nobody) keeps the wait from sleeping past the limit when no socket event comes.
bool PumpUntil(const std::function<bool()>& done, std::chrono::milliseconds limit = 5s) {
    Ticker ticker;
    ticker.Interval(5);
    ticker.Enabled(true);
    auto end = std::chrono::steady_clock::now() + limit;
    while (!done()) {
        if (std::chrono::steady_clock::now() > end) return false;
        HostKitGlobal().Services().WaitAndPumpEvents();
    }
    return true;
}

void Pump() { HostKitGlobal().Services().PumpEvents(); }
bool WaitAndPump() { return HostKitGlobal().Services().WaitAndPumpEvents(); }

std::shared_ptr<SocketControl> NewControl(Recorder& recorder) {
    auto control = HostKitGlobal().Services().CreateSocketControl();
    control->SetEvents(&recorder);
    control->Protocol(0);
    control->LocalPort(0);
    return control;
}

using test::Raised;

// A listening socket on a loopback address, with blocking accept for the peer side.
class Listener {
public:
    explicit Listener(int family = AF_INET) {
        sockaddr_storage address{};
        address.ss_family = static_cast<sa_family_t>(family);
        if (family == AF_INET6) {
            reinterpret_cast<sockaddr_in6*>(&address)->sin6_addr = in6addr_loopback;
        } else {
            reinterpret_cast<sockaddr_in*>(&address)->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        }
        socklen_t length = family == AF_INET6 ? sizeof(sockaddr_in6) : sizeof(sockaddr_in);
        m_fd = socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0);
        auto* name = reinterpret_cast<sockaddr*>(&address);
        if (m_fd >= 0 && bind(m_fd, name, length) == 0 && listen(m_fd, 8) == 0 &&
            getsockname(m_fd, name, &length) == 0) {
            m_port = ntohs(reinterpret_cast<sockaddr_in*>(&address)->sin_port);  // same place in v6
        } else if (m_fd >= 0) {
            close(m_fd);
            m_fd = -1;
        }
    }
    ~Listener() {
        for (int fd : m_accepted) close(fd);
        if (m_fd >= 0) close(m_fd);
    }
    bool Ok() const { return m_fd >= 0; }
    int32_t Port() const { return m_port; }

    // The next connection, or -1 after two seconds.
    int Accept() {
        pollfd p{m_fd, POLLIN, 0};
        if (poll(&p, 1, 2000) != 1) return -1;
        int fd = accept4(m_fd, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd >= 0) m_accepted.push_back(fd);
        return fd;
    }

    // Closes an accepted connection abortively: linger 0 makes close send RST instead of FIN.
    void Reset(int fd) {
        linger abortive{1, 0};
        setsockopt(fd, SOL_SOCKET, SO_LINGER, &abortive, sizeof abortive);
        close(fd);
        std::erase(m_accepted, fd);
    }

private:
    int m_fd = -1;
    int32_t m_port = 0;
    std::vector<int> m_accepted;
};

void WriteAll(int fd, const std::string& bytes) {
    ASSERT_EQ(send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL),
              static_cast<ssize_t>(bytes.size()));
}

// Reads until count bytes came, the peer closed, or two seconds passed.
std::string ReadExactly(int fd, std::size_t count) {
    std::string got;
    auto end = std::chrono::steady_clock::now() + 2s;
    while (got.size() < count && std::chrono::steady_clock::now() < end) {
        pollfd p{fd, POLLIN, 0};
        if (poll(&p, 1, 100) != 1) continue;
        char buffer[65536];
        ssize_t n = recv(fd, buffer, std::min(sizeof buffer, count - got.size()), 0);
        if (n <= 0) break;
        got.append(buffer, static_cast<std::size_t>(n));
    }
    return got;
}

// Waits (bounded) until the client's kernel has the peer's bytes, without pumping.
void LetTheBytesLand() { std::this_thread::sleep_for(30ms); }

std::string TakeAll(SocketControl& control) {
    std::u16string text;
    control.GetData(text, vbString, 0);
    return std::string(text.begin(), text.end());
}

// A connected control and the peer's end of it.
struct Connection {
    Recorder recorder;
    Listener listener;
    std::shared_ptr<SocketControl> control;
    int peer = -1;

    explicit Connection(int family = AF_INET, const std::u16string& host = u"127.0.0.1")
        : listener(family) {
        if (!listener.Ok()) return;
        control = NewControl(recorder);
        control->Connect(host, listener.Port());
        peer = listener.Accept();
        PumpUntil([&] { return !recorder.events.empty(); });
    }
    bool Connected() const { return recorder.events == Words{"connect"}; }
};

// Stands in for the name service while it lives.
class FakeNames {
public:
    explicit FakeNames(std::vector<std::string> addresses) {
        PosixSocketControl::SetResolverForTesting(
            [addresses](const std::string&) { return addresses; });
    }
    ~FakeNames() { PosixSocketControl::SetResolverForTesting(nullptr); }
};

// Tests that start from a connected control.
class ConnectedControl : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(c.Connected()); }
    Connection c;
};

// --- Connecting ------------------------------------------------------------------------------

struct Endpoint {
    int family;
    std::u16string host;
    std::u16string localIP;
    friend void PrintTo(const Endpoint& e, std::ostream* out) { *out << ToUtf8(e.host); }
};

class SocketControlExchange : public ::testing::TestWithParam<Endpoint> {};

TEST_P(SocketControlExchange, ConnectsAndExchangesBytes) {
    const Endpoint& endpoint = GetParam();
    if (!Listener(endpoint.family).Ok()) GTEST_SKIP() << "no loopback of this family here";
    Connection c(endpoint.family, endpoint.host);
    ASSERT_TRUE(c.Connected());
    EXPECT_EQ(c.control->State(), sckConnected);
    EXPECT_EQ(c.control->LocalIP(), endpoint.localIP);
    char name[256] = {};
    gethostname(name, sizeof name - 1);
    EXPECT_EQ(c.control->LocalHostName(), std::u16string(name, name + std::strlen(name)));

    // Each SendData completes once, in order, in the next pump; an empty one too.
    c.control->SendData("EHLO ");
    c.control->SendData("");
    c.control->SendData("here\r\n");
    EXPECT_EQ(ReadExactly(c.peer, 11), "EHLO here\r\n");
    EXPECT_EQ(c.recorder.Count("sent"), 0) << "completion waits for the pump";
    Pump();
    EXPECT_EQ(c.recorder.events, (Words{"connect", "sent", "sent", "sent"}));
    WriteAll(c.peer, "250 hello\r\n");
    ASSERT_TRUE(PumpUntil([&] { return c.recorder.events.size() >= 5; }));
    EXPECT_EQ(c.recorder.events, (Words{"connect", "sent", "sent", "sent", "data:11"}));
    EXPECT_EQ(TakeAll(*c.control), "250 hello\r\n");
}

INSTANTIATE_TEST_SUITE_P(Loopback, SocketControlExchange,
                         ::testing::Values(Endpoint{AF_INET, u"127.0.0.1", u"127.0.0.1"},
                                           Endpoint{AF_INET6, u"::1", u"::1"},
                                           Endpoint{AF_INET, u"localhost", u"127.0.0.1"}));

TEST(SocketControlConnect, EachFailureIsOneErrorEventInALaterPump) {
    const int32_t refusedPort = test::FreeLoopbackPort();
    struct Case {
        const char* what;
        std::u16string host;
        std::optional<Words> addresses;  // what the fake name service answers
        int16_t number;
    };
    const Case cases[] = {
        {"refused", u"127.0.0.1", std::nullopt, sckConnectionRefused},
        {"every address refuses", u"mail.test", Words{"127.0.0.2", "127.0.0.3"},
         sckConnectionRefused},
        // A label longer than 63 characters: the resolver rejects it locally, without asking a
        // name server, so the failure is fast and the same on every machine.
        {"unknown host", std::u16string(64, u'x') + u".invalid", std::nullopt, sckHostNotFound},
        {"empty name", u"", std::nullopt, sckHostNotFound},
        {"embedded NUL", std::u16string(u"127.0.0.1\0x", 11), std::nullopt, sckHostNotFound},
        {"name without addresses", u"mail.test", Words{}, sckHostNotFound},
    };
    for (const Case& failure : cases) {
        SCOPED_TRACE(failure.what);
        std::optional<FakeNames> names;
        if (failure.addresses) names.emplace(*failure.addresses);
        Recorder recorder;
        auto control = NewControl(recorder);
        control->Connect(failure.host, refusedPort);
        EXPECT_TRUE(recorder.events.empty()) << "the outcome must wait for the pump";
        Pump();
        if (failure.number == sckHostNotFound) {
            EXPECT_EQ(recorder.events.size(), 1u) << "a failed lookup is known at once";
        }
        ASSERT_TRUE(PumpUntil([&] { return !recorder.events.empty(); }));
        for (int i = 0; i < 3; ++i) Pump();
        EXPECT_EQ(recorder.events, Words{"error:" + std::to_string(failure.number)});
        EXPECT_EQ(recorder.lastErrorDescription,
                  failure.number == sckHostNotFound
                      ? u"Host not found: the name could not be resolved to an address."
                      : u"The connection was refused by the remote host.");
        EXPECT_EQ(control->State(), sckError);
        EXPECT_EQ(control->LocalIP(), u"");
    }
}

TEST(SocketControlConnect, TriesTheNextAddressWhenOneFails) {
    Listener listener;  // on 127.0.0.1 only: 127.0.0.2 refuses
    FakeNames names({"127.0.0.2", "127.0.0.1"});
    Recorder recorder;
    auto control = NewControl(recorder);
    control->Connect(u"mail.test", listener.Port());
    // The refusal may come only in a pump; the kernel completes the second attempt unaccepted.
    ASSERT_TRUE(PumpUntil([&] { return !recorder.events.empty(); }));
    for (int i = 0; i < 3; ++i) Pump();
    EXPECT_EQ(recorder.events, Words{"connect"});
    EXPECT_GE(listener.Accept(), 0);
    EXPECT_EQ(control->LocalIP(), u"127.0.0.1");
}

TEST(SocketControlConnect, LocalPortChoosesTheSourcePort) {
    Listener listener;
    const int32_t localPort = test::FreeLoopbackPort();
    Recorder recorder;
    auto control = NewControl(recorder);
    control->LocalPort(localPort);
    control->Connect(u"127.0.0.1", listener.Port());
    int peer = listener.Accept();
    ASSERT_GE(peer, 0);
    sockaddr_in remote{};
    socklen_t length = sizeof remote;
    getpeername(peer, reinterpret_cast<sockaddr*>(&remote), &length);
    EXPECT_EQ(ntohs(remote.sin_port), localPort);
}

TEST_F(ConnectedControl, MisuseThrowsAtOnceAndNoEventFollows) {
    for (int32_t port : {-1, 65536, INT32_MIN}) {
        Recorder recorder;
        auto control = NewControl(recorder);
        const RaisedError error = Raised([&] { control->Connect(u"127.0.0.1", port); });
        EXPECT_EQ(error.Number(), sckOutOfRange) << port;
        EXPECT_EQ(error.Description(), u"The port number is out of range (0 to 65535).");
        EXPECT_EQ(Raised([&] { control->SendData("x"); }).Number(), sckBadState);
        EXPECT_EQ(Raised([&] { control->Protocol(1); }).Number(), sckInvalidArg);
        EXPECT_EQ(Raised([&] { control->LocalPort(port); }).Number(), sckOutOfRange);
        Pump();
        EXPECT_TRUE(recorder.events.empty());
        EXPECT_EQ(control->State(), sckClosed);
    }
    EXPECT_EQ(Raised([&] { c.control->Connect(u"127.0.0.1", c.listener.Port()); }).Number(),
              sckBadState);
    EXPECT_EQ(Raised([&] { c.control->LocalPort(0); }).Number(), sckBadState);
}

// --- Receiving -------------------------------------------------------------------------------

TEST_F(ConnectedControl, GetDataTakesAtMostMaxLenAsWindows1252TextOnlyAfterAPump) {
    WriteAll(c.peer, "abcdef");
    LetTheBytesLand();
    EXPECT_EQ(c.recorder.events.size(), 1u) << "events come only inside a pump";
    ASSERT_TRUE(PumpUntil([&] { return c.recorder.events.size() == 2; }));
    EXPECT_EQ(c.recorder.events.back(), "data:6");
    std::u16string part;
    c.control->GetData(part, vbString, 4);
    EXPECT_EQ(part, u"abcd");

    // The next arrival counts the two bytes left behind as well.
    WriteAll(c.peer, std::string("\x80\xE9\xFF\x00", 4));
    ASSERT_TRUE(PumpUntil([&] { return c.recorder.events.size() == 3; }));
    EXPECT_EQ(c.recorder.events.back(), "data:6");
    EXPECT_EQ(Raised([&] { c.control->GetData(part, 17, 4); }).Number(), sckInvalidArg);  // bytes
    c.control->GetData(part, vbString, 100);
    EXPECT_EQ(part, std::u16string(u"ef\u20AC\u00E9\u00FF\0", 6))
        << "a refused GetData loses nothing";
    c.control->GetData(part, vbString, 10);
    EXPECT_EQ(part, u"");
}

TEST_F(ConnectedControl, PeerCloseGivesCloseAndClosingStateNeverWithDataInOnePump) {
    WriteAll(c.peer, "221 bye\r\n");
    shutdown(c.peer, SHUT_WR);
    LetTheBytesLand();

    Pump();
    EXPECT_EQ(c.recorder.events, (Words{"connect", "data:9"}));
    ASSERT_TRUE(PumpUntil([&] { return c.recorder.events.size() == 3; }));
    EXPECT_EQ(c.recorder.events.back(), "close");
    EXPECT_EQ(c.control->State(), sckClosing);
    EXPECT_EQ(TakeAll(*c.control), "221 bye\r\n") << "data received before the close stays";

    // Half-closed: we may still send, and no further event comes from the read side.
    c.control->SendData("QUIT\r\n");
    EXPECT_EQ(ReadExactly(c.peer, 6), "QUIT\r\n");
    Pump();
    EXPECT_EQ(c.recorder.events.back(), "sent");
    EXPECT_EQ(c.recorder.Count("close"), 1);
    // With nothing left to send, this socket can produce no event any more.
    EXPECT_FALSE(WaitAndPump());
    c.control->Close();
    EXPECT_FALSE(WaitAndPump());
}

TEST_F(ConnectedControl, ResetByPeerGives10054) {
    c.listener.Reset(c.peer);
    ASSERT_TRUE(PumpUntil([&] { return c.recorder.events.size() == 2; }));
    EXPECT_EQ(c.recorder.events.back(), "error:10054");
    EXPECT_EQ(c.recorder.lastErrorDescription, u"The connection was reset by the remote host.");
    EXPECT_EQ(c.control->State(), sckError);
}

// --- Sending ---------------------------------------------------------------------------------

TEST_F(ConnectedControl, TwentyMegabytesGoOutWholeWithOneSendComplete) {
    // 20 MiB is far more than the kernel takes in one write; under Valgrind 4 MiB still is.
    std::string payload((test::UnderValgrind() ? 4 : 20) * 1024 * 1024, '\0');
    for (std::size_t i = 0; i < payload.size(); ++i) payload[i] = static_cast<char>('a' + i % 23);

    std::string received;
    std::thread reader([&] { received = ReadExactly(c.peer, payload.size() + 1); });
    c.control->SendData(payload);
    const bool completed =
        PumpUntil([&] { return c.recorder.Count("sent") > 0; }, test::UnderValgrind() ? 60s : 10s);
    // Give a second SendComplete the chance to show up, then let the reader see the end.
    for (int i = 0; i < 5; ++i) Pump();
    c.control->Close();
    reader.join();

    EXPECT_TRUE(completed);
    EXPECT_EQ(c.recorder.Count("sent"), 1);
    EXPECT_EQ(received.size(), payload.size());
    EXPECT_TRUE(received == payload) << "bytes were lost or reordered";
}

TEST_F(ConnectedControl, WritingToAResetConnectionGivesAnError) {
    c.listener.Reset(c.peer);
    LetTheBytesLand();
    // Whether the read side or the write side notices first, exactly one error follows and the
    // connection is over.
    try {
        c.control->SendData("MAIL FROM:<a@b>\r\n");
    } catch (const RaisedError&) {
        // already in the error state: the read side noticed first
    }
    ASSERT_TRUE(PumpUntil([&] { return c.recorder.events.size() >= 2; }));
    for (int i = 0; i < 3; ++i) Pump();
    ASSERT_EQ(c.recorder.events.size(), 2u);
    const std::string& error = c.recorder.events[1];
    EXPECT_TRUE(error == "error:10054" || error == "error:10053") << error;
    EXPECT_EQ(c.control->State(), sckError);
}

// --- Releasing and unhooking ----------------------------------------------------------------

TEST_F(ConnectedControl, UnhookedOrReleasedControlDeliversNothing) {
    c.control->SetEvents(nullptr);
    WriteAll(c.peer, "late");
    LetTheBytesLand();
    Pump();
    c.control->SetEvents(&c.recorder);
    WriteAll(c.peer, "later");
    LetTheBytesLand();
    c.control.reset();
    Pump();
    EXPECT_EQ(c.recorder.events.size(), 1u);
    // Its connection is gone: the peer sees the end of the stream.
    EXPECT_EQ(ReadExactly(c.peer, 1), "");
}

// Three arrivals are queued in one pump; the first handler closes the second control and
// releases the third and its own.
TEST(SocketControlRelease, HandlerMayCloseOrReleaseControlsWhoseEventsAreQueued) {
    Connection first, second, third;
    ASSERT_TRUE(first.Connected() && second.Connected() && third.Connected());
    first.recorder.onEvent = [&](const std::string&) {
        second.control->Close();
        third.control.reset();
        first.control.reset();
    };
    for (Connection* c : {&first, &second, &third}) WriteAll(c->peer, "1");
    LetTheBytesLand();
    Pump();
    Pump();
    EXPECT_EQ(first.recorder.events, (Words{"connect", "data:1"}));
    EXPECT_EQ(second.recorder.events, Words{"connect"});
    EXPECT_EQ(second.control->State(), sckClosed);
    EXPECT_EQ(third.recorder.events, Words{"connect"});
}

// --- Waiting ---------------------------------------------------------------------------------

TEST_F(ConnectedControl, WaitWakesForAnArrivalAndCountsAsWork) {
    std::thread writer([&] {
        std::this_thread::sleep_for(50ms);
        WriteAll(c.peer, "220 late\r\n");
    });
    // No ticker here: only the arrival can end this wait.
    EXPECT_TRUE(WaitAndPump());
    writer.join();
    EXPECT_EQ(c.recorder.events.back(), "data:10");
}

TEST_F(ConnectedControl, EachThreadPumpsOnlyItsOwnControls) {
    WriteAll(c.peer, "for main");
    LetTheBytesLand();
    Words thereEvents;
    std::thread other([&] {
        Connection there;
        ASSERT_TRUE(there.Connected());
        WriteAll(there.peer, "for other");
        ASSERT_TRUE(PumpUntil([&] { return there.recorder.events.size() == 2; }));
        thereEvents = there.recorder.events;
    });
    other.join();
    EXPECT_EQ(thereEvents, (Words{"connect", "data:9"}));
    EXPECT_EQ(c.recorder.events.size(), 1u) << "the other thread's pumps deliver nothing here";
    Pump();
    EXPECT_EQ(c.recorder.events.back(), "data:8");
}

TEST(SocketErrors, ErrnoWithoutANumberOfItsOwnKeepsTheSystemsReason) {
    EXPECT_EQ(SocketFailureFromErrno(ENETUNREACH).number, sckNetworkUnreachable);
    SocketFailure other = SocketFailureFromErrno(EACCES);
    EXPECT_EQ(other.number, sckConnectAborted);
    EXPECT_EQ(other.description, u"The connection failed: Permission denied.");
}

}  // namespace
}  // namespace larkpost::detail
