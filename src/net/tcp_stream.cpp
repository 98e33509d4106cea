#include <algorithm>
#include <exception>
#include <string>
#include <utility>

#include "larkpost/error.h"
#include "larkpost/text.h"
#include "net/stream_state.h"
#include "net/tcp_stream_impl.h"
#include "platform/codepage.h"
#include "platform/errors.h"
#include "platform/files.h"
#include "platform/host_kit.h"
#include "platform/impl_access.h"
#include "platform/memory.h"
#include "platform/socket_errors.h"

namespace larkpost::detail {

namespace {

constexpr char16_t kNotConnected[] = u"Not connected.";
constexpr char16_t kNoResponse[] = u"The server did not respond in time.";
constexpr char16_t kTextNotTaken[] = u"The server did not take the text in time.";
constexpr char16_t kWrongThread[] =
    u"This object is in use by another thread; use it only from the thread that connected it.";
constexpr char16_t kDataBeforeTls[] =
    u"The server sent data before the TLS handshake; the connection was closed.";
constexpr char16_t kClosedBeforeConnected[] =
    u"The connection was closed before it was established.";
constexpr char16_t kClosedByServer[] = u"The server closed the connection.";
constexpr int32_t kTickMilliseconds = 1000;
constexpr int32_t kTimeoutAfterConnect = 60;
// Pumps until done() holds, sleeping in poll while nothing is pending. False when nothing on
// this thread can ever deliver an event again, so waiting longer would never end.
template <typename Done>
bool PumpUntil(Done done) {
    while (!done()) {
        if (!HostKitGlobal().Services().WaitAndPumpEvents()) return false;
    }
    return true;
}

std::u16string DescriptionOf(const std::exception& error) {
    if (auto raised = dynamic_cast<const RaisedError*>(&error)) return raised->Description();
    std::u16string text;
    if (!TryFromUtf8(error.what(), text)) text = u"Unknown error";
    return text;
}

std::u16string Decimal(int32_t value) {
    std::string digits = std::to_string(value);
    return std::u16string(digits.begin(), digits.end());
}

std::u16string ConnectionFailure(const std::u16string& host, int32_t port,
                                 std::u16string_view reason) {
    std::u16string text = u"Connection could not be established to host ";
    text += host;
    text += u" on port ";
    text += Decimal(port);
    text += u"\r\nReason: ";
    text += reason;
    return text;
}

}  // namespace

struct TcpStreamImpl::SocketSink final : SocketControlEvents {
    explicit SocketSink(TcpStreamImpl& owner) : stream(owner) {}
    void Close() override { stream.m_socket_Close(); }
    void Connect() override { stream.m_socket_Connect(); }
    void DataArrival(int32_t bytesTotal) override { stream.m_socket_DataArrival(bytesTotal); }
    void Error(int16_t Number, std::u16string& Description, int32_t /*Scode*/,
               const std::u16string& /*Source*/, const std::u16string& /*HelpFile*/,
               int32_t /*HelpContext*/, bool& /*CancelDisplay*/) override {
        stream.m_socket_Error(Number, Description);
    }
    void SendComplete() override { stream.m_socket_SendComplete(); }
    void SendProgress(int32_t, int32_t remaining) override {
        stream.m_socket_SendProgress(remaining);
    }
    void TlsStarted() override { stream.m_socket_TlsStarted(); }
    void TlsFailed(int32_t Number, const std::u16string& Description) override {
        stream.m_socket_TlsFailed(Number, Description);
    }

    TcpStreamImpl& stream;
};

struct TcpStreamImpl::TickerSink final : TickerEvents {
    explicit TickerSink(TcpStreamImpl& owner) : stream(owner) {}
    void Elapsed() override { stream.m_ticker_Elapsed(); }

    TcpStreamImpl& stream;
};

TcpStreamImpl::TcpStreamImpl(TcpStream& owner)
    : m_owner(owner),
      m_socketSink(std::make_unique<SocketSink>(*this)),
      m_tickerSink(std::make_unique<TickerSink>(*this)) {}

TcpStreamImpl::~TcpStreamImpl() {
    ReleaseSocket();
    if (m_ticker) {
        try {
            m_ticker->SetEvents(nullptr);
            m_ticker->Enabled(false);
        } catch (...) {
            // Destruction goes on whatever the ticker says.
        }
    }
}

// ---- Connection control ----

void TcpStreamImpl::Connect(const std::u16string& HostnameOrIP, int32_t Port) {
    RequireOwnThread();
    bool cameUp = false;
    try {
        ResetSocket();
        m_socket->LocalPort(0);
        m_socket->Connect(HostnameOrIP, Port);
        // Only the new control can deliver events from here on, so nothing of the old
        // connection can slip in after this.
        DiscardLeftovers();
        auto wait = [&] { return WaitForAnyState({STATE_CONNECTED, STATE_DATA_ARRIVED}); };
        cameUp = m_limits.connectTicks > 0
                     ? WithTicker(Waiting::Connect, m_limits.connectTicks - 1, wait)
                     : wait();
    } catch (const std::exception& error) {
        Raise(ERROR_CONNECTION_FAILED, ConnectionFailure(HostnameOrIP, Port, DescriptionOf(error)),
              kSourceTcpStream);
    }
    // A failure the control reported by event reaches the caller in the control's own words.
    if (m_errorPending) RaiseRecordedError();
    if (!cameUp) {
        Raise(ERROR_CONNECTION_FAILED,
              ConnectionFailure(HostnameOrIP, Port, kClosedBeforeConnected), kSourceTcpStream);
    }
}

void TcpStreamImpl::Disconnect() {
    RequireOwnThread();
    if (m_socket && m_socket->State() == sckConnected) m_socket->Close();
    SetState(STATE_DISCONNECTED);
}

bool TcpStreamImpl::Connected() {
    RequireOwnThread();
    if (m_socket && m_socket->State() != sckConnected) SetState(STATE_DISCONNECTED);
    return m_state != STATE_DISCONNECTED;
}

std::u16string TcpStreamImpl::LocalHostName() {
    RequireOwnThread();
    if (!m_socket) Raise(ERROR_NOT_CONNECTED, kNotConnected, kSourceTcpStream);
    return m_socket->LocalHostName();
}

void TcpStreamImpl::StartTls(bool VerifyCertificate, const std::u16string& CaFile) {
    RequireOwnThread();
    if (!m_sendBuffer.Empty()) Flush();
    if (!m_socket || m_socket->State() != sckConnected)
        Raise(ERROR_NOT_CONNECTED, kNotConnected, kSourceTcpStream);
    TlsOptions options;
    options.verify = VerifyCertificate;
    try {
        if (!CaFile.empty()) {
            std::optional<std::string> native = NativePath(CaFile);
            if (!native) {
                Raise(ERROR_CA_FILE_UNREADABLE,
                      u"The CA file " + CaFile + u" could not be read: its name is not valid.",
                      kSourceTcpStream);
            }
            options.caFile = std::move(*native);
        }
        // Plaintext read before the handshake must never pass for protected text after it.
        if (!m_receiveBuffer.Empty())
            Raise(ERROR_TLS_UNEXPECTED_DATA, kDataBeforeTls, kSourceTcpStream);
        const uint64_t started = m_tlsStartedEvents;
        m_socket->StartTls(options);
        const bool done = WithTicker(Waiting::Read, m_owner.ResponseTimeout, [&] {
            return PumpUntil([&] { return m_tlsStartedEvents != started || m_errorPending; });
        });
        if (m_errorPending) RaiseRecordedError();
        if (!done) Raise(ERROR_NOT_CONNECTED, kNotConnected, kSourceTcpStream);
    } catch (...) {
        Disconnect();
        throw;
    }
}

void TcpStreamImpl::m_socket_TlsFailed(int32_t Number, const std::u16string& Description) {
    RecordError(Number, Description);
}

void TcpStreamImpl::ResetSocket() {
    ReleaseSocket();
    m_owner.ResponseTimeout = kTimeoutAfterConnect;

    auto socket = HostKitGlobal().Services().CreateSocketControl();
    if (!socket)
        Raise(ERROR_CONNECTION_FAILED, u"No socket control could be made.", kSourceTcpStream);
    socket->SetEvents(m_socketSink.get());
    m_socket = std::move(socket);
    m_ownThread = std::this_thread::get_id();

    auto ticker = std::make_shared<Ticker>();
    ticker->SetEvents(m_tickerSink.get());
    if (m_ticker) m_ticker->SetEvents(nullptr);
    m_ticker = std::move(ticker);

    m_socket->Protocol(0);
}

void TcpStreamImpl::RequireOwnThread() const {
    const std::thread::id owner = m_ownThread;
    if (owner != std::thread::id() && owner != std::this_thread::get_id())
        Raise(ERROR_WRONG_THREAD, kWrongThread, kSourceTcpStream);
}

void TcpStreamImpl::ReleaseSocket() noexcept {
    if (m_state != STATE_DISCONNECTED) {
        try {
            Disconnect();
        } catch (...) {
            // The control could not be asked or closed; it is let go below all the same.
            SetState(STATE_DISCONNECTED);
        }
    }
    if (m_socket) {
        try {
            m_socket->SetEvents(nullptr);
        } catch (...) {
            // Released below; a released control delivers nothing more.
        }
        m_socket.reset();
    }
}

void TcpStreamImpl::DiscardLeftovers() {
    m_sendBuffer.Clear();
    m_receiveBuffer.Clear();
    m_lastArrivalBytes = 0;
    m_errorPending = false;
}

// ---- State, recorded error and waits ----

void TcpStreamImpl::RecordError(int32_t number, std::u16string description) {
    m_errorNumber = number;
    m_errorDescription = std::move(description);
    m_errorPending = true;
    SetState(STATE_ERROR);
}

void TcpStreamImpl::RaiseRecordedError() {
    m_errorPending = false;
    Raise(m_errorNumber, m_errorDescription, kSourceTcpStream);
}

bool TcpStreamImpl::WaitForState(int32_t state) {
    const uint64_t closes = m_closeEvents;
    return PumpUntil([&] {
        return m_state == state || m_state == STATE_ERROR ||
               (m_limits.failOnPeerClose && m_closeEvents != closes);
    });
}

bool TcpStreamImpl::WaitForAnyState(std::initializer_list<int32_t> states) {
    const uint64_t connects = m_connectEvents;
    const uint64_t closes = m_closeEvents;
    // A Connect event counts even when a Close of the same pump has overwritten it: the peer
    // accepted and hung up at once, and what it said before is still readable.
    auto settled = [&] {
        return std::find(states.begin(), states.end(), m_state) != states.end() ||
               m_state == STATE_ERROR || m_connectEvents != connects;
    };
    PumpUntil([&] { return settled() || m_closeEvents != closes; });
    return settled();
}

bool TcpStreamImpl::WaitForSendComplete() {
    const uint64_t completions = m_sendCompleteEvents;
    const uint64_t closes = m_closeEvents;
    // A SendComplete counts even when a DataArrival or Close of the same pump overwrote it.
    auto settled = [&] {
        return m_state == STATE_SEND_COMPLETE || m_state == STATE_ERROR ||
               m_sendCompleteEvents != completions;
    };
    PumpUntil([&] { return settled() || m_closeEvents != closes; });
    return settled();
}

// ---- Event handlers ----

void TcpStreamImpl::m_socket_Connect() {
    ++m_connectEvents;
    SetState(STATE_CONNECTED);
}

void TcpStreamImpl::m_socket_Close() {
    ++m_closeEvents;
    SetState(STATE_DISCONNECTED);
}

void TcpStreamImpl::m_socket_DataArrival(int32_t bytesTotal) {
    SetState(STATE_DATA_ARRIVED);
    // The bytes stay bytes until a read returns them: the code page maps each byte to one
    // character and back, so converting later gives the same text at half the memory.
    m_socket->GetBytes(m_arrival, bytesTotal);
    m_receiveBuffer.Append(std::move(m_arrival));
    m_arrival.clear();
    m_lastArrivalBytes = bytesTotal;
}

void TcpStreamImpl::m_socket_SendComplete() {
    ++m_sendCompleteEvents;
    SetState(STATE_SEND_COMPLETE);
}

void TcpStreamImpl::m_socket_Error(int16_t Number, std::u16string& Description) {
    RecordError(static_cast<int32_t>(Number), Description);
}

void TcpStreamImpl::m_ticker_Elapsed() {
    // Counts down to 0 and fails at the tick after; a negative count fails at once, like 0.
    if (m_ticksLeft > 0) {
        --m_ticksLeft;
        return;
    }
    m_ticker->Enabled(false);
    m_ticksLeft = m_owner.ResponseTimeout;
    if (m_waiting == Waiting::Connect) {
        // The attempt is given up: the control closes and reports nothing more.
        m_socket->Close();
        RecordError(sckTimedout, SocketErrorDescription(sckTimedout));
        return;
    }
    RecordError(ERROR_RESPONSE_TIMEOUT, m_waiting == Waiting::Flush ? kTextNotTaken : kNoResponse);
}

void TcpStreamImpl::m_socket_SendProgress(int32_t bytesRemaining) {
    if (m_waiting != Waiting::Flush) return;
    m_ticksLeft = m_owner.ResponseTimeout;
    const auto remaining =
        std::min<std::size_t>(static_cast<std::size_t>(bytesRemaining), m_flushSize);
    if (m_writeWatcher)
        m_writeWatcher(static_cast<int64_t>(m_flushSize - remaining),
                       static_cast<int64_t>(m_flushSize));
}

template <class Wait>
bool TcpStreamImpl::WithTicker(Waiting kind, int32_t ticks, Wait wait) {
    const std::shared_ptr<Ticker> ticker = m_ticker;
    m_ticksLeft = ticks;
    m_waiting = kind;
    ticker->Interval(kTickMilliseconds);
    ticker->Enabled(true);
    bool done;
    try {
        done = wait();
    } catch (...) {
        ticker->Enabled(false);
        m_waiting = Waiting::Read;
        throw;
    }
    ticker->Enabled(false);
    m_waiting = Waiting::Read;
    return done;
}

// ---- Writing ----

void TcpStreamImpl::Send(std::u16string_view Data) {
    RequireOwnThread();
    m_sendBuffer.Append(Data);
}

void TcpStreamImpl::SendLine(std::u16string_view Data) {
    Send(Data);
    m_sendBuffer.AppendBytes("\r\n");
}

void TcpStreamImpl::SendShared(std::string_view bytes, std::shared_ptr<const void> holder) {
    RequireOwnThread();
    m_sendBuffer.AppendShared(bytes, std::move(holder));
}

void TcpStreamImpl::Flush() {
    RequireOwnThread();
    if (m_sendBuffer.Empty()) return;
    m_lastArrivalBytes = 0;
    if (PeerClosed()) RaiseClosedByServer();
    if (!m_socket || m_socket->State() != sckConnected)
        Raise(ERROR_NOT_CONNECTED, kNotConnected, kSourceTcpStream);
    m_socket->SendSlices(m_sendBuffer.Slices());
    m_flushSize = m_sendBuffer.Size();
    // A server that stops reading would hold the write for ever: the ticker ends the wait once
    // the write has made no progress for the time limit and a tick, as it ends a silent read.
    const bool sent =
        WithTicker(Waiting::Flush, m_owner.ResponseTimeout, [&] { return WaitForSendComplete(); });
    if (m_errorPending) RaiseRecordedError();
    // The connection closed before the control said the text had gone: keep it for a retry.
    if (!sent) Raise(ERROR_NOT_CONNECTED, kNotConnected, kSourceTcpStream);
    if (m_writeWatcher)
        m_writeWatcher(static_cast<int64_t>(m_flushSize), static_cast<int64_t>(m_flushSize));
    m_sendBuffer.Clear();
}

// ---- Reading ----

void TcpStreamImpl::RaiseClosedByServer() {
    // Our side closes too: nothing more can be said on this connection.
    m_socket->Close();
    SetState(STATE_DISCONNECTED);
    Raise(ERROR_CONNECTION_CLOSED, kClosedByServer, kSourceTcpStream);
}

bool TcpStreamImpl::PeerClosed() const {
    return m_limits.failOnPeerClose && m_socket && m_socket->State() == sckClosing;
}

void TcpStreamImpl::AwaitUnread(std::size_t seen) {
    RequireOwnThread();
    if (!m_sendBuffer.Empty()) Flush();
    bool stuck = false;
    if (m_receiveBuffer.Size() <= seen) {
        // Before the first Connect there is no control that could ever deliver anything.
        if (!m_socket || !m_ticker) Raise(ERROR_NOT_CONNECTED, kNotConnected, kSourceTcpStream);
        SetState(STATE_WAITING_FOR_DATA);
        if (!PeerClosed()) {
            stuck = !WithTicker(Waiting::Read, m_owner.ResponseTimeout,
                                [&] { return WaitForState(STATE_DATA_ARRIVED); });
        }
    }
    if (m_errorPending) RaiseRecordedError();
    // Strict: what the server said before its close has been read; nothing more can come.
    if (m_receiveBuffer.Size() <= seen && PeerClosed()) RaiseClosedByServer();
    if (stuck) Raise(ERROR_NOT_CONNECTED, kNotConnected, kSourceTcpStream);
}

std::u16string TcpStreamImpl::Peek(int32_t NumChars) {
    AwaitUnread(0);
    if (NumChars < 0) RaiseRuntime(ERROR_INVALID_ARGUMENT, kSourceTcpStream);
    return m_receiveBuffer.Peek(0, static_cast<std::size_t>(NumChars));
}

std::u16string TcpStreamImpl::Read(int32_t NumChars) {
    std::u16string result = Peek(NumChars);
    m_receiveBuffer.Drop(result.size());
    return result;
}

std::size_t TcpStreamImpl::AwaitLine() {
    // The characters of the line stay in the receive buffer, counted by `taken`, until the CR LF
    // has come; then the line leaves the buffer in one piece. A failure on the way drops what
    // was taken, as a read character by character would have.
    std::size_t taken = 0;
    try {
        for (;;) {
            AwaitUnread(taken);
            const std::size_t unread = m_receiveBuffer.Size();
            if (unread <= taken) continue;  // an arrival that brought no characters
            // No CR LF lies before taken - 1; one may begin at a CR that came last so far.
            const std::size_t end = m_receiveBuffer.FindLineEnd(taken > 0 ? taken - 1 : 0);
            const bool complete = end != std::string_view::npos;
            taken = complete ? end + 2 : unread;
            // A CR that came last may begin the CR LF, so an open line is at least taken - 1 long.
            if (m_limits.lineLength > 0 && (complete ? end : taken - 1) > m_limits.lineLength)
                Raise(ERROR_REPLY_TOO_LONG,
                      u"A line from the server is longer than " +
                          Decimal(static_cast<int32_t>(m_limits.lineLength)) + u" characters.",
                      kSourceTcpStream);
            // Lets in the events that a pump after every character but the first would have.
            if (taken >= 2) HostKitGlobal().Services().PumpEvents();
            if (complete) return taken;
        }
    } catch (...) {
        m_receiveBuffer.Drop(taken);
        throw;
    }
}

std::u16string TcpStreamImpl::ReadLine() {
    const std::size_t length = AwaitLine();
    std::u16string line = m_receiveBuffer.Take(length - 2);
    m_receiveBuffer.Drop(2);
    return line;
}

void TcpStreamImpl::ReadLineTo(ByteQueue& out) { m_receiveBuffer.MoveTo(out, AwaitLine()); }

bool TcpStreamImpl::AtEndOfStream() {
    RequireOwnThread();
    if (!m_sendBuffer.Empty()) Flush();
    const bool atEnd = m_receiveBuffer.Empty() && m_lastArrivalBytes > 0;
    SetState(STATE_CONNECTED);
    return atEnd;
}

std::u16string TcpStreamImpl::ReadToEnd() {
    std::u16string result;
    while (!AtEndOfStream()) result += ReadLine();
    return result;
}

}  // namespace larkpost::detail

namespace larkpost {

TcpStream::TcpStream() : m_impl(std::make_unique<detail::TcpStreamImpl>(*this)) {}
TcpStream::~TcpStream() = default;

void TcpStream::Connect(const std::u16string& HostnameOrIP, const int32_t& Port) {
    m_impl->Connect(HostnameOrIP, Port);
}
void TcpStream::Connect(std::string_view HostnameOrIP, const int32_t& Port) {
    m_impl->Connect(FromUtf8(HostnameOrIP), Port);
}
void TcpStream::Disconnect() { m_impl->Disconnect(); }
void TcpStream::Send(std::u16string_view Data) { m_impl->Send(Data); }
void TcpStream::Send(std::string_view Data) { m_impl->Send(FromUtf8(Data)); }
void TcpStream::SendLine(std::u16string_view Data) { m_impl->SendLine(Data); }
void TcpStream::SendLine(std::string_view Data) { m_impl->SendLine(FromUtf8(Data)); }
void TcpStream::Flush() { m_impl->Flush(); }
bool TcpStream::AtEndOfStream() { return m_impl->AtEndOfStream(); }
std::u16string TcpStream::Read(int32_t NumChars) { return m_impl->Read(NumChars); }
std::u16string TcpStream::Peek(int32_t NumChars) { return m_impl->Peek(NumChars); }
std::u16string TcpStream::ReadLine() { return m_impl->ReadLine(); }
std::u16string TcpStream::ReadToEnd() { return m_impl->ReadToEnd(); }
bool TcpStream::Connected() { return m_impl->Connected(); }
std::u16string TcpStream::LocalHostName() { return m_impl->LocalHostName(); }
void TcpStream::StartTls(bool VerifyCertificate, const std::u16string& CaFile) {
    m_impl->StartTls(VerifyCertificate, CaFile);
}

}  // namespace larkpost
