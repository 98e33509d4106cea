// The real socket control against loopback sockets: connection outcomes, data both ways, the
// Windows Sockets numbers of failures, and the rule that events come only inside a pump.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "larkpost/error.h"
#include "platform/clock.h"
#include "platform/host_kit.h"
#include "platform/posix_socket_control.h"
#include "platform/socket_control.h"
#include "platform/socket_errors.h"
#include "platform/ticker.h"

namespace larkpost::detail {
namespace {

using namespace std::chrono_literals;

// Records every event of one control as a short word ("connect", "data:5", "error:10061", ...).
class Recorder : public SocketControlEvents {
public:
    std::vector<std::string> events;
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
        int n = 0;
        for (auto& e : events) n += e == word ? 1 : 0;
        return n;
    }

private:
    void Note(std::string word) {
        events.push_back(word);
        if (onEvent) onEvent(word);
    }
};

class Heartbeat : public TickerEvents {
public:
    void Elapsed() override {}
};

// Pumps, sleeping in WaitAndPumpEvents, until done() or the limit. A 5 ms ticker keeps the wait
// from sleeping past the limit when no socket event comes.
bool PumpUntil(const std::function<bool()>& done, std::chrono::milliseconds limit = 5s) {
    Heartbeat beat;
    Ticker ticker;
    ticker.SetEvents(&beat);
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

std::shared_ptr<SocketControl> NewControl(Recorder& recorder) {
    auto control = HostKitGlobal().Services().CreateSocketControl();
    control->SetEvents(&recorder);
    control->Protocol(0);
    control->LocalPort(0);
    return control;
}

// A listening socket on a loopback address, with blocking accept and I/O for the peer side.
class Listener {
public:
    explicit Listener(int family = AF_INET) {
        m_fd = socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (m_fd < 0) return;
        sockaddr_storage address{};
        socklen_t length = 0;
        if (family == AF_INET6) {
            auto* v6 = reinterpret_cast<sockaddr_in6*>(&address);
            v6->sin6_family = AF_INET6;
            v6->sin6_addr = in6addr_loopback;
            length = sizeof *v6;
        } else {
            auto* v4 = reinterpret_cast<sockaddr_in*>(&address);
            v4->sin_family = AF_INET;
            v4->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
            length = sizeof *v4;
        }
        if (bind(m_fd, reinterpret_cast<sockaddr*>(&address), length) != 0 || listen(m_fd, 8) != 0) {
            close(m_fd);
            m_fd = -1;
            return;
        }
        getsockname(m_fd, reinterpret_cast<sockaddr*>(&address), &length);
        m_port = ntohs(family == AF_INET6 ? reinterpret_cast<sockaddr_in6*>(&address)->sin6_port
                                          : reinterpret_cast<sockaddr_in*>(&address)->sin_port);
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

    // Closes the listening socket: its port then refuses.
    void StopListening() {
        close(m_fd);
        m_fd = -1;
    }

private:
    int m_fd = -1;
    int32_t m_port = 0;
    std::vector<int> m_accepted;
};

void WriteAll(int fd, const std::string& bytes) {
    ASSERT_EQ(send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL), static_cast<ssize_t>(bytes.size()));
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
    std::string bytes;
    for (char16_t c : text) bytes.push_back(static_cast<char>(c));
    return bytes;
}

// A connected control and the peer's end of it.
struct Connection {
    Recorder recorder;
    Listener listener;
    std::shared_ptr<SocketControl> control;
    int peer = -1;

    explicit Connection(int family = AF_INET, const char16_t* host = u"127.0.0.1") : listener(family) {
        if (!listener.Ok()) return;
        control = NewControl(recorder);
        control->Connect(host, listener.Port());
        peer = listener.Accept();
        PumpUntil([&] { return !recorder.events.empty(); });
    }
    bool Connected() const { return recorder.events == std::vector<std::string>{"connect"}; }
};

// --- Connecting ------------------------------------------------------------------------------

TEST(SocketControlConnect, ExchangesBytesOverIpv4) {
    Connection c;
    ASSERT_TRUE(c.Connected());
    EXPECT_EQ(c.control->State(), sckConnected);
    EXPECT_EQ(c.control->LocalIP(), u"127.0.0.1");

    c.control->SendData("EHLO here\r\n");
    EXPECT_EQ(ReadExactly(c.peer, 11), "EHLO here\r\n");
    WriteAll(c.peer, "250 hello\r\n");
    ASSERT_TRUE(PumpUntil([&] { return c.recorder.events.size() >= 3; }));
    EXPECT_EQ(c.recorder.events, (std::vector<std::string>{"connect", "sent", "data:11"}));
    EXPECT_EQ(TakeAll(*c.control), "250 hello\r\n");
}

TEST(SocketControlConnect, ExchangesBytesOverIpv6) {
    Listener probe(AF_INET6);
    if (!probe.Ok()) GTEST_SKIP() << "no IPv6 loopback on this machine";
    Connection c(AF_INET6, u"::1");
    ASSERT_TRUE(c.Connected());
    EXPECT_EQ(c.control->LocalIP(), u"::1");
    WriteAll(c.peer, "220 v6\r\n");
    ASSERT_TRUE(PumpUntil([&] { return c.recorder.events.size() >= 2; }));
    EXPECT_EQ(TakeAll(*c.control), "220 v6\r\n");
}

TEST(SocketControlConnect, ResolvesLocalhostByName) {
    Connection c(AF_INET, u"localhost");
    ASSERT_TRUE(c.Connected());
    c.control->SendData("x");
    EXPECT_EQ(ReadExactly(c.peer, 1), "x");
}

TEST(SocketControlConnect, RefusedPortGives10061) {
    Listener listener;
    const int32_t port = listener.Port();
    listener.StopListening();
    Recorder recorder;
    auto control = NewControl(recorder);
    control->Connect(u"127.0.0.1", port);
    EXPECT_TRUE(recorder.events.empty()) << "the outcome must wait for the pump";
    ASSERT_TRUE(PumpUntil([&] { return !recorder.events.empty(); }));
    EXPECT_EQ(recorder.events, std::vector<std::string>{"error:10061"});
    EXPECT_EQ(recorder.lastErrorDescription, u"The connection was refused by the remote host.");
    EXPECT_EQ(control->State(), sckError);
}

TEST(SocketControlConnect, UnknownHostGives11001) {
    // A label longer than 63 characters: the resolver rejects it locally, without asking a
    // name server, so the failure is fast and the same on every machine.
    const std::u16string host = std::u16string(64, u'x') + u".invalid";
    Recorder recorder;
    auto control = NewControl(recorder);
    control->Connect(host, 25);
    EXPECT_TRUE(recorder.events.empty());
    Pump();
    EXPECT_EQ(recorder.events, std::vector<std::string>{"error:11001"});
    EXPECT_EQ(recorder.lastErrorDescription,
              u"Host not found: the name could not be resolved to an address.");
    EXPECT_EQ(control->State(), sckError);
    EXPECT_EQ(control->LocalIP(), u"");
}

TEST(SocketControlConnect, EmptyOrBrokenHostNameIsNotFound) {
    for (const std::u16string& host : {std::u16string(), std::u16string(u"127.0.0.1\0x", 11)}) {
        Recorder recorder;
        auto control = NewControl(recorder);
        control->Connect(host, 25);
        Pump();
        EXPECT_EQ(recorder.events, std::vector<std::string>{"error:11001"});
    }
}

// Stands in for the name service while it lives.
class FakeNames {
public:
    explicit FakeNames(std::vector<std::string> addresses) {
        PosixSocketControl::SetResolverForTesting(
            [addresses](const std::string&) { return addresses; });
    }
    ~FakeNames() { PosixSocketControl::SetResolverForTesting(nullptr); }
};

TEST(SocketControlConnect, TriesTheNextAddressWhenOneFails) {
    Listener listener;  // on 127.0.0.1 only: 127.0.0.2 refuses
    FakeNames names({"127.0.0.2", "127.0.0.1"});
    Recorder recorder;
    auto control = NewControl(recorder);
    control->Connect(u"mail.test", listener.Port());
    // The refusal may come only in a pump; the kernel completes the second attempt unaccepted.
    ASSERT_TRUE(PumpUntil([&] { return !recorder.events.empty(); }));
    for (int i = 0; i < 3; ++i) Pump();
    EXPECT_EQ(recorder.events, std::vector<std::string>{"connect"});
    EXPECT_GE(listener.Accept(), 0);
    EXPECT_EQ(control->LocalIP(), u"127.0.0.1");
}

TEST(SocketControlConnect, WhenEveryAddressFailsOneErrorFollows) {
    Listener listener;
    FakeNames names({"127.0.0.2", "127.0.0.3"});
    Recorder recorder;
    auto control = NewControl(recorder);
    control->Connect(u"mail.test", listener.Port());
    ASSERT_TRUE(PumpUntil([&] { return !recorder.events.empty(); }));
    for (int i = 0; i < 3; ++i) Pump();
    EXPECT_EQ(recorder.events, std::vector<std::string>{"error:10061"});
}

TEST(SocketControlConnect, NameWithoutAddressesIsNotFound) {
    FakeNames names({});
    Recorder recorder;
    auto control = NewControl(recorder);
    control->Connect(u"mail.test", 25);
    Pump();
    EXPECT_EQ(recorder.events, std::vector<std::string>{"error:11001"});
}

TEST(SocketControlConnect, LocalPortChoosesTheSourcePort) {
    Listener listener;
    Listener spare;  // a port that is free now
    const int32_t localPort = spare.Port();
    spare.StopListening();
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

TEST(SocketControlConnect, PortOutOfRangeThrowsAtOnceAndNoEventFollows) {
    for (int32_t port : {-1, 65536, INT32_MIN}) {
        Recorder recorder;
        auto control = NewControl(recorder);
        try {
            control->Connect(u"127.0.0.1", port);
            ADD_FAILURE() << "port " << port << " was accepted";
        } catch (const RaisedError& e) {
            EXPECT_EQ(e.Number(), sckOutOfRange);
            EXPECT_EQ(e.Description(), u"The port number is out of range (0 to 65535).");
        }
        Pump();
        EXPECT_TRUE(recorder.events.empty());
        EXPECT_EQ(control->State(), sckClosed);
    }
}

TEST(SocketControlConnect, CallsInTheWrongStateThrowBadState) {
    Connection c;
    ASSERT_TRUE(c.Connected());
    auto expectBadState = [](const std::function<void()>& call) {
        try {
            call();
            ADD_FAILURE() << "accepted in the wrong state";
        } catch (const RaisedError& e) {
            EXPECT_EQ(e.Number(), sckBadState);
        }
    };
    expectBadState([&] { c.control->Connect(u"127.0.0.1", c.listener.Port()); });
    expectBadState([&] { c.control->LocalPort(0); });

    Recorder idle;
    auto fresh = NewControl(idle);
    expectBadState([&] { fresh->SendData("x"); });
    EXPECT_THROW(fresh->Protocol(1), RaisedError);
    EXPECT_THROW(fresh->LocalPort(65536), RaisedError);
}

TEST(SocketControlReceive, EventsComeOnlyInsideAPump) {
    Connection c;
    ASSERT_TRUE(c.Connected());
    WriteAll(c.peer, "hello");
    LetTheBytesLand();
    EXPECT_EQ(c.recorder.events.size(), 1u);
    Pump();
    EXPECT_EQ(c.recorder.events.back(), "data:5");
}

TEST(SocketControlReceive, GetDataTakesAtMostMaxLenAndCountsWhatIsQueued) {
    Connection c;
    ASSERT_TRUE(c.Connected());
    WriteAll(c.peer, "abcdef");
    ASSERT_TRUE(PumpUntil([&] { return c.recorder.events.size() == 2; }));
    std::u16string part;
    c.control->GetData(part, vbString, 4);
    EXPECT_EQ(part, u"abcd");

    // The next arrival counts the two bytes left behind as well.
    WriteAll(c.peer, "gh");
    ASSERT_TRUE(PumpUntil([&] { return c.recorder.events.size() == 3; }));
    EXPECT_EQ(c.recorder.events.back(), "data:4");
    c.control->GetData(part, vbString, 100);
    EXPECT_EQ(part, u"efgh");
    c.control->GetData(part, vbString, 10);
    EXPECT_EQ(part, u"");
}

TEST(SocketControlReceive, BytesBecomeWindows1252CharactersAndOnlyAsText) {
    Connection c;
    ASSERT_TRUE(c.Connected());
    WriteAll(c.peer, std::string("\x80\xE9\xFF\x00", 4));
    ASSERT_TRUE(PumpUntil([&] { return c.recorder.events.size() == 2; }));
    std::u16string text;
    try {
        c.control->GetData(text, 17, 4);  // a byte array
        ADD_FAILURE() << "only the string type is supported";
    } catch (const RaisedError& e) {
        EXPECT_EQ(e.Number(), sckInvalidArg);
    }
    c.control->GetData(text, vbString, 4);
    EXPECT_EQ(text, std::u16string(u"\u20AC\u00E9\u00FF\0", 4)) << "a refused GetData loses nothing";
}

TEST(SocketControlReceive, PeerCloseGivesCloseAndClosingStateNeverWithDataInOnePump) {
    Connection c;
    ASSERT_TRUE(c.Connected());
    WriteAll(c.peer, "221 bye\r\n");
    shutdown(c.peer, SHUT_WR);
    LetTheBytesLand();

    Pump();
    EXPECT_EQ(c.recorder.events, (std::vector<std::string>{"connect", "data:9"}));
    ASSERT_TRUE(PumpUntil([&] { return c.recorder.events.size() == 3; }));
    EXPECT_EQ(c.recorder.events.back(), "close");
    EXPECT_EQ(c.control->State(), sckClosing);
    EXPECT_EQ(TakeAll(*c.control), "221 bye\r\n") << "data received before the close stays";

    // Half-closed: we may still send, and no further event comes from the read side.
    c.control->SendData("QUIT\r\n");
    EXPECT_EQ(ReadExactly(c.peer, 6), "QUIT\r\n");
    Pump();
    EXPECT_EQ(c.recorder.Count("close"), 1);
}

TEST(SocketControlReceive, ResetByPeerGives10054) {
    Connection c;
    ASSERT_TRUE(c.Connected());
    c.listener.Reset(c.peer);
    ASSERT_TRUE(PumpUntil([&] { return c.recorder.events.size() == 2; }));
    EXPECT_EQ(c.recorder.events.back(), "error:10054");
    EXPECT_EQ(c.recorder.lastErrorDescription, u"The connection was reset by the remote host.");
    EXPECT_EQ(c.control->State(), sckError);
}

// --- Sending ---------------------------------------------------------------------------------

TEST(SocketControlSend, TwentyMegabytesGoOutWholeWithOneSendComplete) {
    Connection c;
    ASSERT_TRUE(c.Connected());
    std::string payload(20 * 1024 * 1024, '\0');
    for (std::size_t i = 0; i < payload.size(); ++i) payload[i] = static_cast<char>('a' + i % 23);

    std::string received;
    std::thread reader([&] { received = ReadExactly(c.peer, payload.size() + 1); });
    c.control->SendData(payload);
    const bool completed = PumpUntil([&] { return c.recorder.Count("sent") > 0; }, 10s);
    // Give a second SendComplete the chance to show up, then let the reader see the end.
    for (int i = 0; i < 5; ++i) Pump();
    c.control->Close();
    reader.join();

    EXPECT_TRUE(completed);
    EXPECT_EQ(c.recorder.Count("sent"), 1);
    EXPECT_EQ(received.size(), payload.size());
    EXPECT_TRUE(received == payload) << "bytes were lost or reordered";
}

TEST(SocketControlSend, EachSendDataCompletesOnceInOrder) {
    Connection c;
    ASSERT_TRUE(c.Connected());
    c.control->SendData("one ");
    c.control->SendData("");
    c.control->SendData("two");
    EXPECT_EQ(c.recorder.Count("sent"), 0) << "completion waits for the pump";
    Pump();
    EXPECT_EQ(c.recorder.Count("sent"), 3);
    EXPECT_EQ(ReadExactly(c.peer, 7), "one two");
}

TEST(SocketControlSend, WritingToAResetConnectionGivesAnError) {
    Connection c;
    ASSERT_TRUE(c.Connected());
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

TEST(SocketControlRelease, UnhookedOrReleasedControlDeliversNothing) {
    Connection c;
    ASSERT_TRUE(c.Connected());
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

TEST(SocketControlRelease, CloseDropsEventsAlreadyQueued) {
    Connection first;
    Connection second;
    ASSERT_TRUE(first.Connected());
    ASSERT_TRUE(second.Connected());
    // Both arrivals are queued in one pump; the first handler closes the second control.
    first.recorder.onEvent = [&](const std::string&) { second.control->Close(); };
    WriteAll(first.peer, "1");
    WriteAll(second.peer, "2");
    LetTheBytesLand();
    Pump();
    EXPECT_EQ(first.recorder.events.back(), "data:1");
    EXPECT_EQ(second.recorder.events, std::vector<std::string>{"connect"});
    EXPECT_EQ(second.control->State(), sckClosed);
}

TEST(SocketControlRelease, HandlerMayReleaseItsOwnAndAnotherControl) {
    Connection first;
    Connection second;
    ASSERT_TRUE(first.Connected());
    ASSERT_TRUE(second.Connected());
    first.recorder.onEvent = [&](const std::string&) {
        first.control.reset();
        second.control.reset();
    };
    WriteAll(first.peer, "1");
    WriteAll(second.peer, "2");
    LetTheBytesLand();
    Pump();
    Pump();
    EXPECT_EQ(first.recorder.events.back(), "data:1");
    EXPECT_EQ(second.recorder.events.size(), 1u);
}

// --- Waiting ---------------------------------------------------------------------------------

TEST(SocketControlWait, WaitWakesForAnArrivalAndCountsAsWork) {
    Connection c;
    ASSERT_TRUE(c.Connected());
    std::thread writer([&] {
        std::this_thread::sleep_for(50ms);
        WriteAll(c.peer, "220 late\r\n");
    });
    // No ticker here: only the arrival can end this wait.
    EXPECT_TRUE(HostKitGlobal().Services().WaitAndPumpEvents());
    writer.join();
    EXPECT_EQ(c.recorder.events.back(), "data:10");
}

TEST(SocketControlWait, NothingToWaitForOnceEveryConnectionIsOver) {
    Connection c;
    ASSERT_TRUE(c.Connected());
    shutdown(c.peer, SHUT_WR);
    ASSERT_TRUE(PumpUntil([&] { return c.recorder.Count("close") == 1; }));
    // Half-closed with nothing to send: this socket can produce no event any more.
    EXPECT_FALSE(HostKitGlobal().Services().WaitAndPumpEvents());
    c.control->Close();
    EXPECT_FALSE(HostKitGlobal().Services().WaitAndPumpEvents());
}

TEST(SocketControlWait, EachThreadPumpsOnlyItsOwnControls) {
    Connection here;
    ASSERT_TRUE(here.Connected());
    WriteAll(here.peer, "for main");
    LetTheBytesLand();
    std::vector<std::string> thereEvents;
    std::thread other([&] {
        Connection there;
        ASSERT_TRUE(there.Connected());
        WriteAll(there.peer, "for other");
        ASSERT_TRUE(PumpUntil([&] { return there.recorder.events.size() == 2; }));
        thereEvents = there.recorder.events;
    });
    other.join();
    EXPECT_EQ(thereEvents, (std::vector<std::string>{"connect", "data:9"}));
    EXPECT_EQ(here.recorder.events.size(), 1u) << "the other thread's pumps deliver nothing here";
    Pump();
    EXPECT_EQ(here.recorder.events.back(), "data:8");
}

TEST(SocketErrors, ErrnoWithoutANumberOfItsOwnKeepsTheSystemsReason) {
    EXPECT_EQ(SocketFailureFromErrno(ENETUNREACH).number, sckNetworkUnreachable);
    SocketFailure other = SocketFailureFromErrno(EACCES);
    EXPECT_EQ(other.number, sckConnectAborted);
    EXPECT_EQ(other.description, u"The connection failed: Permission denied.");
}

TEST(SocketControlHost, LocalHostNameIsTheMachineName) {
    Recorder recorder;
    auto control = NewControl(recorder);
    char name[256] = {};
    gethostname(name, sizeof name - 1);
    std::u16string expected(name, name + std::strlen(name));
    EXPECT_EQ(control->LocalHostName(), expected);
    EXPECT_FALSE(expected.empty());
}

}  // namespace
}  // namespace larkpost::detail
