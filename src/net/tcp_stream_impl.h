// TcpStreamImpl: the state and the work behind a TcpStream: the socket control and ticker of the
// current connection, the send and receive buffers, the one state value and the waits on it.
#ifndef LARKPOST_NET_TCP_STREAM_IMPL_H
#define LARKPOST_NET_TCP_STREAM_IMPL_H

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <memory>
#include <string>
#include <string_view>
#include <thread>

#include "larkpost/tcp_stream.h"
#include "net/byte_queue.h"
#include "net/send_buffer.h"
#include "platform/socket_control.h"
#include "platform/ticker.h"

namespace larkpost::detail {

class TcpStreamImpl {
public:
    // owner's ResponseTimeout is the time limit of every read.
    explicit TcpStreamImpl(TcpStream& owner);
    ~TcpStreamImpl();
    TcpStreamImpl(const TcpStreamImpl&) = delete;
    TcpStreamImpl& operator=(const TcpStreamImpl&) = delete;

    // The public members, one for one.
    void Connect(const std::u16string& HostnameOrIP, int32_t Port);
    void Disconnect();
    void Send(std::u16string_view Data);
    void SendLine(std::u16string_view Data);
    void Flush();
    bool AtEndOfStream();
    std::u16string Peek(int32_t NumChars);
    std::u16string Read(int32_t NumChars);
    std::u16string ReadLine();
    std::u16string ReadToEnd();
    bool Connected();
    std::u16string LocalHostName();
    void StartTls(bool VerifyCertificate, const std::u16string& CaFile);

    // For the client: the address of the local end, empty when there is no control.
    std::u16string LocalIP() const { return m_socket ? m_socket->LocalIP() : std::u16string(); }
    // Send for text already in the code page that holder keeps alive: it goes out from where
    // it is, without a copy.
    void SendShared(std::string_view bytes, std::shared_ptr<const void> holder);
    // ReadLine for the client: the line and its CR LF go to the end of out, in the code page.
    void ReadLineTo(ByteQueue& out);

    // What strict delivery asks of the stream; all off by default (the client sets them).
    struct Limits {
        int32_t connectTicks = 0;      // > 0: a Connect wait fails with 10060 after so many
        std::size_t lineLength = 0;    // > 0: ReadLine refuses a longer line
        bool failOnPeerClose = false;  // a read that finds the peer closed fails at once
    };
    void SetLimits(const Limits& limits) { m_limits = limits; }
    // Hears (written, total) of each flush as the control reports progress, and at its end.
    void WatchWrites(std::function<void(int64_t, int64_t)> watcher) {
        m_writeWatcher = std::move(watcher);
    }

private:
    friend struct TcpStreamAccess;  // the tests' view of the state machine
    struct SocketSink;
    struct TickerSink;

    void ResetSocket();
    // The control, the ticker and their events belong to the loop of the thread that made them:
    // raises ERROR_WRONG_THREAD on any other thread once a control has been made.
    void RequireOwnThread() const;
    void m_socket_Close();
    void m_socket_Connect();
    void m_socket_DataArrival(int32_t bytesTotal);
    void m_socket_Error(int16_t Number, std::u16string& Description);
    void m_socket_SendComplete();
    void m_socket_SendProgress(int32_t bytesRemaining);
    void m_socket_TlsStarted() { ++m_tlsStartedEvents; }
    void m_socket_TlsFailed(int32_t Number, const std::u16string& Description);
    void m_ticker_Elapsed();
    // What a wait with the ticker waits for; a flush's wait starts again at each bit of progress.
    enum class Waiting { Read, Flush, Connect };
    // Runs a wait that fails at tick `ticks` + 1 (ResponseTimeout for reads and flushes).
    template <class Wait>
    bool WithTicker(Waiting kind, int32_t ticks, Wait wait);
    void SetState(int32_t state) { m_state = state; }
    void RecordError(int32_t number, std::u16string description);
    // The waits sleep between pumps and end when nothing on the thread can deliver an event.
    // Peek's wait, until the state or STATE_ERROR; false when it could never end.
    bool WaitForState(int32_t state);
    // Connect's wait, until a state of the list or STATE_ERROR; false when the connection did
    // not come up (closed first, or no outcome).
    bool WaitForAnyState(std::initializer_list<int32_t> states);
    // Flush's wait; false when the connection closed before the text was reported gone.
    bool WaitForSendComplete();
    void RaiseRecordedError();
    void ReleaseSocket() noexcept;
    // What the last connection left behind: unsent text, unread characters, a pending error.
    void DiscardLeftovers();
    // Peek's first steps: flush, wait while no more than `seen` characters are unread, raise a
    // pending error.
    void AwaitUnread(std::size_t seen);
    // ReadLine's wait: the length of the first unread line with its CR LF, once it has come.
    std::size_t AwaitLine();
    // Strict only: the peer has closed its side, so no more characters can come.
    bool PeerClosed() const;
    void RaiseClosedByServer();

    TcpStream& m_owner;
    int32_t m_state = 0;
    int32_t m_errorNumber = 0;
    std::u16string m_errorDescription;
    bool m_errorPending = false;
    // Unread characters, kept in the code page until a read takes them.
    ByteQueue m_receiveBuffer;
    // Where GetBytes puts an arrival: a large one becomes a piece of the buffer as it is, a
    // small one is copied and the string keeps its capacity for the next.
    std::string m_arrival;
    SendBuffer m_sendBuffer;
    int32_t m_lastArrivalBytes = 0;
    int32_t m_ticksLeft = 0;
    Waiting m_waiting = Waiting::Read;
    Limits m_limits;
    std::function<void(int64_t, int64_t)> m_writeWatcher;
    std::size_t m_flushSize = 0;
    // Counts of Connect, SendComplete and Close events, so a wait notices an outcome that a
    // later event of the same pump has overwritten in m_state.
    uint64_t m_connectEvents = 0;
    uint64_t m_sendCompleteEvents = 0;
    uint64_t m_closeEvents = 0;
    uint64_t m_tlsStartedEvents = 0;
    std::unique_ptr<SocketSink> m_socketSink;
    std::unique_ptr<TickerSink> m_tickerSink;
    std::shared_ptr<Ticker> m_ticker;
    std::shared_ptr<SocketControl> m_socket;
    // The thread whose Connect made the control; no thread before the first Connect.
    std::atomic<std::thread::id> m_ownThread{};
};

}  // namespace larkpost::detail

#endif
