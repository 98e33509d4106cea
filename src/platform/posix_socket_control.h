// PosixSocketControl: the socket control on POSIX sockets, driven by the thread's EventLoop.
//
// Connect resolves the name at once (getaddrinfo; numeric addresses without a lookup), then
// connects without blocking, trying the next address when one fails. All I/O happens inside the
// pump: one recv of up to 256 KiB per readable pump (DataArrival, or Close on end of stream),
// queued output written on POLLOUT. Events are posted with a token as their owner; Close and
// destruction drop the token and with it every event still queued. After StartTls the same
// I/O runs through a TlsSession, whose reads leave no decrypted byte behind inside it.
#ifndef LARKPOST_PLATFORM_POSIX_SOCKET_CONTROL_H
#define LARKPOST_PLATFORM_POSIX_SOCKET_CONTROL_H

#include <sys/socket.h>

#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/event_loop.h"
#include "platform/outgoing_queue.h"
#include "platform/socket_control.h"
#include "platform/socket_errors.h"
#include "platform/tls_session.h"

namespace larkpost::detail {

class PosixSocketControl final : public SocketControl,
                                 public IoWatcher,
                                 public TimerWatcher,
                                 public std::enable_shared_from_this<PosixSocketControl> {
    struct Private {};

public:
    // Controls are always shared: the loop watches them through weak references.
    static std::shared_ptr<PosixSocketControl> Create();
    explicit PosixSocketControl(Private) {}
    ~PosixSocketControl() override;
    PosixSocketControl(const PosixSocketControl&) = delete;
    PosixSocketControl& operator=(const PosixSocketControl&) = delete;

    void SetEvents(SocketControlEvents* sink) override;
    void Protocol(int32_t value) override;
    void LocalPort(int32_t value) override;
    // Throws sckOutOfRange for a port outside 0..65535 and sckBadState unless State is closed.
    void Connect(const std::u16string& RemoteHost, int32_t RemotePort) override;
    int16_t State() override;
    void Close() override;
    // Throws sckBadState unless connected (or the peer has closed and we may still send).
    void SendData(std::string_view bytes) override;
    // One gathered write of all the slices; only what the kernel does not take at once is
    // queued, the slices with a holder as views.
    void SendSlices(std::span<const SendSlice> slices) override;
    // MaxLen <= 0 takes everything queued. Throws sckInvalidArg for a Type other than vbString.
    void GetData(std::u16string& Data, int32_t Type, int32_t MaxLen) override;
    // Throws sckBadState unless connected with nothing waiting to be sent and TLS not started.
    // Bytes from the server that wait unread at this point fail it: TLS has the client speak
    // first, so they can only be plaintext slipped in before the handshake.
    void StartTls(const TlsOptions& options) override;
    void GetBytes(std::string& Data, int32_t MaxLen) override;
    std::u16string LocalHostName() override;
    std::u16string LocalIP() override;

    // Test seam, per thread: the numeric addresses (in order) a host name stands for, in place
    // of the name service; an empty list means not found. Empty restores the name service.
    using ResolverForTesting = std::function<std::vector<std::string>(const std::string& host)>;
    static void SetResolverForTesting(ResolverForTesting resolver);
    // Test seam, per thread: the most one TLS read takes before it looks whether to go on
    // (0: the normal 256 KiB).
    static void SetReadChunkForTesting(std::size_t bytes);

    int PollFd() const override;
    short PollEvents() const override;
    void OnReady(short revents) override;
    // A connect attempt that has not completed in time fails as timed out (10060), so a
    // listener whose queue is full, or a host that never answers, cannot hold it for minutes.
    // A TLS close that came behind data is delivered as soon as the data has been.
    std::optional<MonotonicClock::time_point> Deadline() const override;
    void OnDue(MonotonicClock::time_point now) override;

private:
    struct Address {
        sockaddr_storage storage;
        socklen_t length;
    };

    static std::vector<Address> Resolve(const std::string& host, int32_t port);
    void TryNextAddress();
    void FinishConnect();
    void Connected();
    void ReadOnce();
    void ReadTls();
    void PeerClosed();
    void ContinueHandshake();
    // Writes what the connection takes now of the vectors, in order, into taken; false when it
    // failed (Fail has run).
    bool WriteSome(const std::vector<iovec>& vectors, std::size_t& taken);
    void WriteQueued();
    void CompleteSends();
    void Fail(const SocketFailure& failure);
    void FailTls(const TlsFailure& failure);
    // Closes the descriptor and forgets the connection's queues: the common part of a failure.
    void Abandon();
    void CloseFd() noexcept;
    void Post(std::function<void(SocketControlEvents&)> deliver);

    SocketControlEvents* m_sink = nullptr;
    // Owner of the events queued in the loop; replaced by Close to drop them.
    std::shared_ptr<char> m_eventToken = std::make_shared<char>();
    int m_fd = -1;
    int16_t m_state = sckClosed;
    int32_t m_localPort = 0;
    bool m_reading = false;

    std::vector<Address> m_addresses;  // still to try while connecting
    std::size_t m_nextAddress = 0;
    int m_lastConnectError = 0;
    MonotonicClock::time_point m_attemptDeadline;  // of the attempt under way while connecting
    std::string m_hostName;                        // as given to Connect, for TLS checks

    std::unique_ptr<TlsSession> m_tls;
    bool m_handshaking = false;
    short m_handshakeWaitsFor = 0;  // POLLIN or POLLOUT
    bool m_readWantsWrite = false;  // a TLS read goes on when the socket is writable
    bool m_writeWantsRead = false;  // a TLS write goes on when the socket is readable
    bool m_closeDue = false;        // the peer closed after data delivered in the same read

    std::string m_received;  // bytes from m_receivedOffset on wait for GetData
    std::size_t m_receivedOffset = 0;

    OutgoingQueue m_outgoing;         // waits for POLLOUT
    std::vector<iovec> m_vectors;     // reused for every write
    uint64_t m_bytesAccepted = 0;     // by SendData, over the connection's life
    uint64_t m_bytesSent = 0;         // taken by the kernel
    std::deque<uint64_t> m_sendEnds;  // m_bytesAccepted after each SendData not yet complete
};

}  // namespace larkpost::detail

#endif
