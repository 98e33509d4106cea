// A TcpStream on the real PosixSocketControl over a socketpair whose far end the fuzzer plays in the
// stream's pumps: documented errors only; reads give the peer's bytes in order, a line exactly up
// to its CR LF (a failed ReadLine drops just its part-line); the peer reads the stream's text in
// order until a failed Flush; a new connection of the same stream reads only its own peer's line.
// Input: operations, one byte each (kind in the top 3 bits, a size in the rest) with their bytes.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include "fuzz_support.h"
#include "larkpost/error.h"
#include "larkpost/tcp_stream.h"
#include "platform/codepage.h"
#include "platform/event_loop.h"
#include "platform/host_kit.h"
#include "platform/posix_socket_control.h"
#include "support/tcp_stream_access.h"

using namespace larkpost;

namespace {

int g_listener = -1;
int g_port = 0;

// The far end: one queued operation a pump, run as a due timer so it needs no readiness.
class Peer final : public detail::TimerWatcher {
public:
    explicit Peer(int fd) : fd(fd) {}
    ~Peer() { Close(); }
    std::optional<detail::MonotonicClock::time_point> Deadline() const override {
        if (work.empty()) return std::nullopt;
        return detail::MonotonicClock::time_point{};
    }
    void OnDue(detail::MonotonicClock::time_point) override {
        auto [kind, bytes] = work.front();
        work.pop_front();
        if (fd < 0) return;
        if (kind == 'w') {
            const ssize_t n = send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
            if (n > 0) sent += bytes.substr(0, std::size_t(n));
            if (n >= 0 && std::size_t(n) < bytes.size()) work.push_front({'w', bytes.substr(n)});
        } else if (kind == 'r') {
            Read(bytes.size());
        } else if (kind == 'h') {
            shutdown(fd, SHUT_WR);
        } else if (kind == 'c') {
            Close();
        } else if (kind == 'b') {
            int size = int(bytes.size()) * 512;
            setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
        }
    }
    void Read(std::size_t most) {
        std::string buffer(most, '\0');
        const ssize_t n = recv(fd, buffer.data(), most, MSG_DONTWAIT);
        if (n > 0) received.append(buffer, 0, std::size_t(n));
    }
    void Close() {
        if (fd >= 0) close(fd), fd = -1;
    }

    int fd;
    std::deque<std::pair<char, std::string>> work;
    std::string sent, received;  // bytes that left and arrived at this end
};

bool Documented(int32_t number) {
    return number == ERROR_RESPONSE_TIMEOUT || number == ERROR_NOT_CONNECTED ||
           (number >= 10000 && number < 12000);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzz::UseFastTime();
    g_listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (bind(g_listener, reinterpret_cast<sockaddr*>(&address), length) != 0 ||
        listen(g_listener, 16) != 0 ||
        getsockname(g_listener, reinterpret_cast<sockaddr*>(&address), &length) != 0)
        std::abort();
    g_port = ntohs(address.sin_port);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    // Connected over loopback, the descriptor becomes one end of a socketpair before any poll.
    std::shared_ptr<detail::PosixSocketControl> control;
    auto services = detail::HostKitGlobal().Services();
    TcpStream stream;
    auto connect = [&] {
        services.SetSocketControlFactoryForTesting([&] {
            control = detail::PosixSocketControl::Create();
            return control;
        });
        stream.Connect("127.0.0.1", g_port);
        services.SetSocketControlFactoryForTesting(nullptr);
        int pair[2];
        if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, pair) != 0)
            std::abort();
        const int small = 4096 + (size ? data[0] : 0) * 64;
        setsockopt(pair[0], SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
        dup2(pair[0], control->PollFd());
        close(pair[0]);
        close(accept(g_listener, nullptr, nullptr));
        auto peer = std::make_shared<Peer>(pair[1]);
        services.Watch(std::weak_ptr<detail::TimerWatcher>(peer));
        return peer;
    };
    auto peer = connect();

    std::string written, rest;  // the stream's text; once the control is gone, all it has to read
    std::size_t flushed = 0, readAt = 0;  // the text handed over; where reads match the peer's bytes
    bool resent = false, gone = false;    // a failed flush's text is sent again by the next one
    auto reference = [&]() -> const std::string& { return gone ? rest : peer->sent; };
    auto matchRead = [&](const std::u16string& got) {
        const std::string bytes = detail::ToAnsi(got);
        assert(reference().compare(readAt, bytes.size(), bytes) == 0);
        readAt += bytes.size();
    };
    // A failed ReadLine dropped a part-line (no CR LF); reading goes on where the unread begins,
    // which is all the peer sent but what still waits in the socket.
    auto dropped = [&] {
        const std::string unread = detail::ToAnsi(detail::TcpStreamAccess::Unread(stream));
        int queued = 0;
        if (!gone && (control->PollFd() < 0 || ioctl(control->PollFd(), FIONREAD, &queued) != 0)) {
            assert(peer->sent.find(unread, readAt) != std::string::npos);
            rest = unread, readAt = 0, gone = true;  // what the socket held is lost with it
            return;
        }
        const std::size_t at = reference().size() - std::size_t(queued) - unread.size();
        assert(at >= readAt && reference().compare(at, unread.size(), unread) == 0);
        assert(reference().substr(readAt, at - readAt).find("\r\n") == std::string::npos);
        readAt = at;
    };
    // Reads flush first: success hands over all the text; a failure may leave it for a resend.
    auto attempt = [&](auto call) {
        try {
            call();
            flushed = written.size();
            return true;
        } catch (const RaisedError& error) {
            assert(Documented(error.Number()));
            resent |= flushed != written.size();
            return false;
        }
    };

    stream.ResponseTimeout = 3;  // 0.3 ms of scaled ticks: a silent peer ends a wait quickly
    for (std::size_t i = 1; i < size; ++i) {
        const int kind = data[i] >> 5, n = data[i] & 31;
        const std::size_t take = std::min<std::size_t>(n, size - i - 1);
        const std::string bytes(reinterpret_cast<const char*>(data) + i + 1, take);
        switch (kind) {
            case 0:  // the peer writes these bytes, or many copies of them
                peer->work.push_back({'w', n & 16 ? std::string(20000, bytes.empty() ? 'x' : bytes[0]) + "\r\n" : bytes});
                i += take;
                break;
            case 1:  // the peer reads, a little or much
                peer->work.push_back({'r', std::string(n < 16 ? n + 1 : 65536, '\0')});
                break;
            case 2:  // the peer hangs up half (n even) or whole, or shrinks its buffer
                peer->work.push_back({n < 4 ? 'b' : n % 2 ? 'c' : 'h', std::string(n + 1, '\0')});
                break;
            case 3: {  // the stream sends a line or much text, and flushes when n is odd
                const std::string text = n & 16 ? std::string(100000, 'y') : bytes;
                if (!(n & 16)) i += take;
                stream.SendLine(detail::FromAnsi(text));
                written += text + "\r\n";
                if (n % 2) attempt([&] { stream.Flush(); });
                break;
            }
            case 4: {  // ReadLine
                std::u16string line;
                if (attempt([&] { line = stream.ReadLine(); })) {
                    assert(line.find(u"\r\n") == line.npos);
                    matchRead(line + u"\r\n");
                } else {
                    dropped();
                }
                break;
            }
            case 5: {  // Read or Peek n characters
                std::u16string got;
                const bool peek = n & 1;
                if (attempt([&] { got = peek ? stream.Peek(n) : stream.Read(n); })) {
                    assert(got.size() <= std::size_t(n));
                    if (!peek) matchRead(got);
                    if (peek) assert(reference().compare(readAt, got.size(), detail::ToAnsi(got)) == 0);
                }
                break;
            }
            case 6:
                attempt([&] { stream.AtEndOfStream(); });
                break;
            case 7:
                stream.ResponseTimeout = n;
                break;
        }
    }
    // The peer reads what is left: the stream's text in order.
    stream.Disconnect();
    if (peer->fd >= 0) {
        for (std::size_t before = ~0u; before != peer->received.size();) {
            before = peer->received.size();
            peer->Read(1 << 20);
        }
    }
    if (!resent) assert(written.compare(0, peer->received.size(), peer->received) == 0);

    // A new connection reads only its own peer's line; a part-line left at its close ends in the
    // time-out error.
    peer = connect();
    peer->work.insert(peer->work.end(), {{'w', "fresh\r\npart"}, {'c', ""}});
    stream.ResponseTimeout = 50000;  // five seconds of scaled ticks: a stalled pump is no silence
    assert(stream.ReadLine() == u"fresh");
    stream.ResponseTimeout = 0;
    try {
        stream.ReadLine();
        assert(false);
    } catch (const RaisedError& error) {
        assert(error.Number() == ERROR_RESPONSE_TIMEOUT);
    }
    return 0;
}
