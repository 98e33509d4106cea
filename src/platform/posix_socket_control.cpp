#include "platform/posix_socket_control.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstring>
#include <utility>

#include "larkpost/error.h"
#include "platform/clock.h"
#include "platform/codepage.h"
#include "platform/errors.h"
#include "platform/host_kit.h"

namespace larkpost::detail {

namespace {

constexpr char16_t kSourceSocket[] = u"Larkpost.Socket";
constexpr std::size_t kReadChunk = 256 * 1024;
thread_local std::size_t t_readChunk = kReadChunk;
// How long one connect attempt may take: the TCP connect time-out of the platform the library
// comes from. Ticks of the tests scale it.
constexpr double kConnectAttemptSeconds = 21;
// The Scode of a control error: an HRESULT of the control facility.
constexpr int32_t kControlFacilityScode = static_cast<int32_t>(0x800A0000u);

[[noreturn]] void RaiseSocket(int32_t number, std::u16string description = {}) {
    if (description.empty()) description = SocketErrorDescription(number);
    Raise(number, std::move(description), kSourceSocket);
}

char* ReadScratch() {
    thread_local std::unique_ptr<char[]> buffer(new char[kReadChunk]);
    return buffer.get();
}

thread_local PosixSocketControl::ResolverForTesting t_resolverForTesting;

int LookUp(const std::string& host, const std::string& service, int flags, addrinfo** result) {
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_protocol = IPPROTO_TCP;
    hints.ai_flags = flags | AI_NUMERICSERV;
    return getaddrinfo(host.c_str(), service.c_str(), &hints, result);
}

int BindLocalPort(int fd, int family, int32_t port) {
    sockaddr_storage local{};
    socklen_t length = 0;
    if (family == AF_INET6) {
        auto* v6 = reinterpret_cast<sockaddr_in6*>(&local);
        v6->sin6_family = AF_INET6;
        v6->sin6_addr = in6addr_any;
        v6->sin6_port = htons(static_cast<uint16_t>(port));
        length = sizeof(sockaddr_in6);
    } else {
        auto* v4 = reinterpret_cast<sockaddr_in*>(&local);
        v4->sin_family = AF_INET;
        v4->sin_addr.s_addr = htonl(INADDR_ANY);
        v4->sin_port = htons(static_cast<uint16_t>(port));
        length = sizeof(sockaddr_in);
    }
    return bind(fd, reinterpret_cast<sockaddr*>(&local), length);
}

}  // namespace

std::shared_ptr<PosixSocketControl> PosixSocketControl::Create() {
    return std::make_shared<PosixSocketControl>(Private{});
}

PosixSocketControl::~PosixSocketControl() { CloseFd(); }

void PosixSocketControl::SetEvents(SocketControlEvents* sink) { m_sink = sink; }

void PosixSocketControl::Protocol(int32_t value) {
    if (value != 0) RaiseSocket(sckInvalidArg, u"Only TCP (protocol 0) is supported.");
    if (m_state != sckClosed) RaiseSocket(sckBadState);
}

void PosixSocketControl::LocalPort(int32_t value) {
    if (value < 0 || value > 65535) {
        RaiseSocket(sckOutOfRange, u"The port number is out of range (0 to 65535).");
    }
    if (m_state != sckClosed) RaiseSocket(sckBadState);
    m_localPort = value;
}

void PosixSocketControl::Connect(const std::u16string& RemoteHost, int32_t RemotePort) {
    if (RemotePort < 0 || RemotePort > 65535) {
        RaiseSocket(sckOutOfRange, u"The port number is out of range (0 to 65535).");
    }
    if (m_state != sckClosed) RaiseSocket(sckBadState);

    HostKitGlobal().Services().Watch(std::weak_ptr<IoWatcher>(weak_from_this()));
    HostKitGlobal().Services().Watch(std::weak_ptr<TimerWatcher>(weak_from_this()));
    m_nextAddress = 0;
    m_lastConnectError = 0;
    const std::string host = ToAnsi(RemoteHost);
    m_hostName = host;
    m_addresses = Resolve(host, RemotePort);
    if (m_addresses.empty()) {
        Fail({sckHostNotFound, SocketErrorDescription(sckHostNotFound)});
        return;
    }
    m_state = sckConnecting;
    TryNextAddress();
}

void PosixSocketControl::SetReadChunkForTesting(std::size_t bytes) {
    t_readChunk = bytes ? std::min(bytes, kReadChunk) : kReadChunk;
}

void PosixSocketControl::SetResolverForTesting(ResolverForTesting resolver) {
    t_resolverForTesting = std::move(resolver);
}

// Numeric addresses first, so that "127.0.0.1" and "::1" never reach the name service. The
// name service runs here, in the call: Connect blocks for as long as the lookup takes.
std::vector<PosixSocketControl::Address> PosixSocketControl::Resolve(const std::string& host,
                                                                     int32_t port) {
    std::vector<Address> addresses;
    if (host.find('\0') != std::string::npos) return addresses;
    const std::string service = std::to_string(port);
    auto add = [&](const std::string& name, int flags) {
        addrinfo* found = nullptr;
        if (LookUp(name, service, flags, &found) != 0) return false;
        for (addrinfo* entry = found; entry; entry = entry->ai_next) {
            Address address{};
            std::memcpy(&address.storage, entry->ai_addr, entry->ai_addrlen);
            address.length = entry->ai_addrlen;
            addresses.push_back(address);
        }
        freeaddrinfo(found);
        return true;
    };
    if (add(host, AI_NUMERICHOST)) return addresses;
    if (t_resolverForTesting) {
        for (const std::string& numeric : t_resolverForTesting(host)) add(numeric, AI_NUMERICHOST);
    } else {
        add(host, 0);
    }
    return addresses;
}

// Starts a connection to the next address; an address that fails at once is skipped. When
// none is left the failure of the last one is reported.
void PosixSocketControl::TryNextAddress() {
    while (m_nextAddress < m_addresses.size()) {
        const Address& address = m_addresses[m_nextAddress++];
        const int family = address.storage.ss_family;
        int fd = socket(family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, IPPROTO_TCP);
        if (fd < 0) {
            m_lastConnectError = errno;
            continue;
        }
        // Commands are small and each waits for its reply: never hold them back for Nagle.
        int on = 1;
        setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        if (m_localPort != 0 && BindLocalPort(fd, family, m_localPort) != 0) {
            m_lastConnectError = errno;
            close(fd);
            continue;
        }
        int status =
            connect(fd, reinterpret_cast<const sockaddr*>(&address.storage), address.length);
        if (status == 0 || errno == EINPROGRESS) {
            m_fd = fd;
            const std::chrono::duration<double> limit(kConnectAttemptSeconds * TickScale());
            m_attemptDeadline =
                MonotonicClock::now() + std::chrono::duration_cast<MonotonicClock::duration>(limit);
            if (status == 0) Connected();
            return;  // else POLLOUT tells the outcome
        }
        m_lastConnectError = errno;
        close(fd);
    }
    Fail(SocketFailureFromErrno(m_lastConnectError != 0 ? m_lastConnectError : ECONNREFUSED));
}

void PosixSocketControl::FinishConnect() {
    int error = 0;
    socklen_t length = sizeof error;
    if (getsockopt(m_fd, SOL_SOCKET, SO_ERROR, &error, &length) != 0) error = errno;
    if (error == EINPROGRESS || error == EALREADY) return;  // not decided yet
    if (error == 0) {
        Connected();
        return;
    }
    m_lastConnectError = error;
    CloseFd();
    TryNextAddress();
}

std::optional<MonotonicClock::time_point> PosixSocketControl::Deadline() const {
    if (m_fd < 0) return std::nullopt;
    if (m_state == sckConnecting) return m_attemptDeadline;
    if (m_closeDue) return MonotonicClock::time_point{};  // due now
    return std::nullopt;
}

void PosixSocketControl::OnDue(MonotonicClock::time_point) {
    if (m_fd < 0) return;
    if (m_state == sckConnecting) {
        m_lastConnectError = ETIMEDOUT;
        CloseFd();
        TryNextAddress();
    } else if (m_closeDue) {
        m_closeDue = false;
        PeerClosed();
    }
}

void PosixSocketControl::Connected() {
    m_state = sckConnected;
    m_reading = true;
    m_addresses.clear();
    Post([](SocketControlEvents& sink) { sink.Connect(); });
}

int16_t PosixSocketControl::State() { return m_state; }

void PosixSocketControl::Close() {
    if (m_tls && !m_handshaking) m_tls->Shutdown();
    CloseFd();
    m_state = sckClosed;
    m_reading = false;
    m_addresses.clear();
    m_received.clear();
    m_receivedOffset = 0;
    m_outgoing.Clear();
    m_sendEnds.clear();
    m_eventToken = std::make_shared<char>();  // the events still queued expire with the old one
}

void PosixSocketControl::SendData(std::string_view bytes) {
    const SendSlice slice{bytes, nullptr};
    SendSlices({&slice, 1});
}

void PosixSocketControl::SendSlices(std::span<const SendSlice> slices) {
    if (m_state != sckConnected && m_state != sckClosing) RaiseSocket(sckBadState);

    std::size_t total = 0;
    for (const SendSlice& slice : slices) total += slice.bytes.size();
    m_bytesAccepted += total;
    m_sendEnds.push_back(m_bytesAccepted);
    // Behind what already waits, to keep the order; otherwise one write of everything first.
    std::size_t taken = 0;
    const bool writeNow = !m_handshaking && m_outgoing.Empty();
    if (writeNow) {
        m_vectors.clear();
        for (const SendSlice& slice : slices)
            m_vectors.push_back({const_cast<char*>(slice.bytes.data()), slice.bytes.size()});
        if (!WriteSome(m_vectors, taken)) return;
        m_bytesSent += taken;
    }
    for (const SendSlice& slice : slices) {
        m_outgoing.Push(slice, std::min(taken, slice.bytes.size()));
        taken -= std::min(taken, slice.bytes.size());
    }
    if (writeNow) CompleteSends();
}

void PosixSocketControl::GetData(std::u16string& Data, int32_t Type, int32_t MaxLen) {
    if (Type != vbString) RaiseSocket(sckInvalidArg, u"GetData supports only the string type (8).");
    std::string bytes;
    GetBytes(bytes, MaxLen);
    Data.clear();
    AppendFromAnsi(Data, bytes);
}

void PosixSocketControl::GetBytes(std::string& Data, int32_t MaxLen) {
    const std::size_t available = m_received.size() - m_receivedOffset;
    const std::size_t count =
        MaxLen <= 0 ? available : std::min(available, static_cast<std::size_t>(MaxLen));
    Data.assign(m_received, m_receivedOffset, count);
    m_receivedOffset += count;
    if (m_receivedOffset == m_received.size()) {
        m_received.clear();
        m_receivedOffset = 0;
        // A reader that fell behind let the queue grow: give that memory back once it is read.
        if (m_received.capacity() > 2 * kReadChunk) std::string().swap(m_received);
    } else if (m_receivedOffset > m_received.size() / 2) {
        m_received.erase(0, m_receivedOffset);
        m_receivedOffset = 0;
    }
}

void PosixSocketControl::StartTls(const TlsOptions& options) {
    if (m_state != sckConnected || m_tls || !m_outgoing.Empty()) RaiseSocket(sckBadState);
    TlsOptions settings = options;
    if (settings.hostName.empty()) settings.hostName = m_hostName;
    char byte = 0;
    if (m_receivedOffset < m_received.size() || recv(m_fd, &byte, 1, MSG_PEEK | MSG_DONTWAIT) > 0) {
        FailTls({ERROR_TLS_UNEXPECTED_DATA,
                 u"The server sent data before the TLS handshake; the connection was closed."});
        return;
    }
    TlsFailure failure;
    m_tls = TlsSession::Begin(m_fd, settings, failure);
    if (!m_tls) {
        FailTls(failure);
        return;
    }
    m_handshaking = true;
    ContinueHandshake();
}

void PosixSocketControl::ContinueHandshake() {
    switch (m_tls->Handshake()) {
        case TlsSession::Io::Done:
            m_handshaking = false;
            m_handshakeWaitsFor = 0;
            Post([](SocketControlEvents& sink) { sink.TlsStarted(); });
            break;
        case TlsSession::Io::WantRead: m_handshakeWaitsFor = POLLIN; break;
        case TlsSession::Io::WantWrite: m_handshakeWaitsFor = POLLOUT; break;
        default: FailTls(m_tls->Failure());
    }
}

std::u16string PosixSocketControl::LocalHostName() {
    char name[HOST_NAME_MAX + 1] = {};
    if (gethostname(name, sizeof name - 1) != 0) {
        SocketFailure failure = SocketFailureFromErrno(errno);
        RaiseSocket(failure.number, failure.description);
    }
    return FromAnsi(name);
}

std::u16string PosixSocketControl::LocalIP() {
    if (m_fd < 0 || (m_state != sckConnected && m_state != sckClosing)) return {};
    sockaddr_storage local{};
    socklen_t length = sizeof local;
    if (getsockname(m_fd, reinterpret_cast<sockaddr*>(&local), &length) != 0) return {};
    char text[INET6_ADDRSTRLEN] = {};
    const void* address =
        local.ss_family == AF_INET6
            ? static_cast<const void*>(&reinterpret_cast<sockaddr_in6*>(&local)->sin6_addr)
            : static_cast<const void*>(&reinterpret_cast<sockaddr_in*>(&local)->sin_addr);
    if (!inet_ntop(local.ss_family, address, text, sizeof text)) return {};
    return FromAnsi(text);
}

int PosixSocketControl::PollFd() const { return m_fd; }

short PosixSocketControl::PollEvents() const {
    if (m_fd < 0) return 0;
    if (m_state == sckConnecting) return POLLOUT;
    if (m_handshaking) return m_handshakeWaitsFor;
    short events = 0;
    if (m_reading || m_writeWantsRead) events |= POLLIN;
    const bool writing = !m_outgoing.Empty() && !m_writeWantsRead;
    if (writing || m_readWantsWrite) events |= POLLOUT;
    return events;
}

void PosixSocketControl::OnReady(short revents) {
    if (m_state == sckConnecting) {
        FinishConnect();
        return;
    }
    if (m_handshaking) {
        ContinueHandshake();
        return;
    }
    const short trouble = POLLERR | POLLHUP;
    const bool readable = (revents & (POLLIN | trouble)) != 0;
    const bool writable = (revents & (POLLOUT | trouble)) != 0;
    if (m_reading && (m_readWantsWrite ? writable : readable)) ReadOnce();
    if (m_fd >= 0 && !m_outgoing.Empty() && (m_writeWantsRead ? readable : writable)) {
        WriteQueued();
    }
}

// One recv per pump, so one pump never brings both DataArrival and Close of this socket.
void PosixSocketControl::ReadOnce() {
    if (m_tls) {
        ReadTls();
        return;
    }
    char* buffer = ReadScratch();
    ssize_t count = recv(m_fd, buffer, kReadChunk, 0);
    if (count > 0) {
        m_received.append(buffer, static_cast<std::size_t>(count));
        const std::size_t queued = m_received.size() - m_receivedOffset;
        const int32_t total = static_cast<int32_t>(std::min<std::size_t>(queued, INT32_MAX));
        Post([total](SocketControlEvents& sink) { sink.DataArrival(total); });
    } else if (count == 0) {
        PeerClosed();
    } else if (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR) {
        Fail(SocketFailureFromErrno(errno));
    }
}

// Records come one per call. Read on until the session needs the socket again, or a full chunk
// ends on a record's end: bytes the session has decrypted must never stay inside it, where
// polling the socket cannot see them.
void PosixSocketControl::ReadTls() {
    char* buffer = ReadScratch();
    std::size_t got = 0, total = 0;
    TlsSession::Io io = TlsSession::Io::Done;
    for (;;) {
        std::size_t count = 0;
        io = m_tls->Read(buffer + got, t_readChunk - got, count);
        if (io != TlsSession::Io::Done) break;
        got += count;
        if (got < t_readChunk) continue;
        m_received.append(buffer, got);
        total += std::exchange(got, 0);
        if (!m_tls->HasBufferedData()) break;
    }
    m_received.append(buffer, got);
    total += got;
    m_readWantsWrite = io == TlsSession::Io::WantWrite;
    if (total > 0) {
        const std::size_t queued = m_received.size() - m_receivedOffset;
        const int32_t total = static_cast<int32_t>(std::min<std::size_t>(queued, INT32_MAX));
        Post([total](SocketControlEvents& sink) { sink.DataArrival(total); });
    }
    if (io == TlsSession::Io::PeerClosed) {
        // The Close of a read that also brought data waits for the next pump.
        if (total > 0)
            m_closeDue = true;
        else
            PeerClosed();
    } else if (io == TlsSession::Io::Failed) {
        FailTls(m_tls->Failure());
    }
}

void PosixSocketControl::PeerClosed() {
    m_reading = false;
    m_state = sckClosing;
    Post([](SocketControlEvents& sink) { sink.Close(); });
}

bool PosixSocketControl::WriteSome(const std::vector<iovec>& vectors, std::size_t& taken) {
    taken = 0;
    if (m_tls) {
        m_writeWantsRead = false;
        // Each call takes whole records; go on until the socket is full.
        for (const iovec& vector : vectors) {
            const auto* data = static_cast<const char*>(vector.iov_base);
            for (std::size_t done = 0; done < vector.iov_len;) {
                std::size_t count = 0;
                const TlsSession::Io io = m_tls->Write(data + done, vector.iov_len - done, count);
                if (io == TlsSession::Io::Done) {
                    done += count;
                    taken += count;
                } else if (io == TlsSession::Io::WantRead || io == TlsSession::Io::WantWrite) {
                    m_writeWantsRead = io == TlsSession::Io::WantRead;
                    return true;
                } else {
                    FailTls(m_tls->Failure());
                    return false;
                }
            }
        }
        return true;
    }
    // As many vectors as one call takes; the next batch only when the kernel took them all.
    for (std::size_t first = 0;;) {
        const std::size_t count = std::min<std::size_t>(vectors.size() - first, IOV_MAX);
        msghdr message{};
        message.msg_iov = const_cast<iovec*>(vectors.data() + first);
        message.msg_iovlen = count;
        const ssize_t sent = sendmsg(m_fd, &message, MSG_NOSIGNAL);
        if (sent < 0) {
            if (errno == EINTR) continue;
            if (errno == EAGAIN || errno == EWOULDBLOCK) return true;
            Fail(SocketFailureFromErrno(errno));
            return false;
        }
        taken += static_cast<std::size_t>(sent);
        std::size_t offered = 0;
        for (std::size_t i = first; i < first + count; ++i) offered += vectors[i].iov_len;
        first += count;
        if (static_cast<std::size_t>(sent) < offered || first >= vectors.size()) return true;
    }
}

void PosixSocketControl::WriteQueued() {
    const uint64_t before = m_bytesSent;
    while (!m_outgoing.Empty()) {
        std::size_t taken = 0;
        m_outgoing.Gather(m_vectors);
        if (!WriteSome(m_vectors, taken)) return;
        if (taken == 0) break;
        m_outgoing.Consume(taken);
        m_bytesSent += taken;
    }
    if (!m_outgoing.Empty() && m_bytesSent != before) {
        const auto clamp = [](uint64_t n) {
            return static_cast<int32_t>(std::min<uint64_t>(n, INT32_MAX));
        };
        const int32_t sent = clamp(m_bytesSent), remaining = clamp(m_outgoing.Size());
        Post([sent, remaining](SocketControlEvents& sink) { sink.SendProgress(sent, remaining); });
    }
    CompleteSends();
}

// One SendComplete for each SendData whose last byte the kernel has taken.
void PosixSocketControl::CompleteSends() {
    while (!m_sendEnds.empty() && m_sendEnds.front() <= m_bytesSent) {
        m_sendEnds.pop_front();
        Post([](SocketControlEvents& sink) { sink.SendComplete(); });
    }
}

void PosixSocketControl::Abandon() {
    CloseFd();
    m_state = sckError;
    m_reading = false;
    m_addresses.clear();
    m_outgoing.Clear();
    m_sendEnds.clear();
}

// The connection is over: the descriptor goes, and the TlsFailed event tells why.
void PosixSocketControl::FailTls(const TlsFailure& failure) {
    TlsFailure kept = failure;  // it may live in the session that Abandon ends
    Abandon();
    Post([kept = std::move(kept)](SocketControlEvents& sink) {
        sink.TlsFailed(kept.number, kept.description);
    });
}

// The connection is over: the descriptor goes, and the Error event tells why.
void PosixSocketControl::Fail(const SocketFailure& failure) {
    Abandon();
    const int16_t number = failure.number;
    const std::u16string description = failure.description;
    Post([number, description](SocketControlEvents& sink) {
        std::u16string text = description;
        bool cancelDisplay = false;
        sink.Error(number, text, kControlFacilityScode | number, kSourceSocket, u"", 0,
                   cancelDisplay);
    });
}

void PosixSocketControl::CloseFd() noexcept {
    m_tls.reset();
    m_handshaking = false;
    m_readWantsWrite = m_writeWantsRead = m_closeDue = false;
    if (m_fd >= 0) {
        close(m_fd);
        m_fd = -1;
    }
}

void PosixSocketControl::Post(std::function<void(SocketControlEvents&)> deliver) {
    // The token keeps the event alive only while this control is open and alive; the raw this
    // is therefore valid whenever the event runs. Nothing touches this after the sink returns,
    // as the handler may release the control.
    HostKitGlobal().Services().PostEvent(m_eventToken, [this, deliver = std::move(deliver)] {
        if (m_sink) deliver(*m_sink);
    });
}

}  // namespace larkpost::detail
