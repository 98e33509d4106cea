#include "larkpost/tcp_stream.h"

#include <algorithm>
#include <exception>
#include <string>
#include <utility>

#include "larkpost/error.h"
#include "larkpost/text.h"
#include "net/stream_state.h"
#include "platform/codepage.h"
#include "platform/errors.h"
#include "platform/host_kit.h"
#include "platform/memory.h"
#include "platform/socket_control.h"
#include "platform/ticker.h"

namespace larkpost {

using detail::HostKitGlobal;
using detail::kSourceTcpStream;
using detail::Raise;
using detail::STATE_CONNECTED;
using detail::STATE_DATA_ARRIVED;
using detail::STATE_DISCONNECTED;
using detail::STATE_ERROR;
using detail::STATE_SEND_COMPLETE;
using detail::STATE_WAITING_FOR_DATA;

namespace {

constexpr char16_t kNotConnected[] = u"Not connected.";
constexpr char16_t kNoResponse[] = u"The server did not respond in time.";
constexpr char16_t kClosedBeforeConnected[] =
    u"The connection was closed before it was established.";
constexpr int32_t kTickMilliseconds = 1000;
constexpr int32_t kTimeoutAfterConnect = 60;
// A send buffer that held more than this gives its memory back once it has gone out, so a
// stream that sent one large message does not keep its size for the rest of its life.
constexpr std::size_t kKeptSendCapacity = 64 * 1024;

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

struct TcpStream::SocketSink final : detail::SocketControlEvents {
    explicit SocketSink(TcpStream& owner) : stream(owner) {}
    void Close() override { stream.m_socket_Close(); }
    void Connect() override { stream.m_socket_Connect(); }
    void DataArrival(int32_t bytesTotal) override { stream.m_socket_DataArrival(bytesTotal); }
    void Error(int16_t Number, std::u16string& Description, int32_t Scode,
               const std::u16string& Source, const std::u16string& HelpFile, int32_t HelpContext,
               bool& CancelDisplay) override {
        stream.m_socket_Error(Number, Description, Scode, Source, HelpFile, HelpContext,
                              CancelDisplay);
    }
    void SendComplete() override { stream.m_socket_SendComplete(); }

    TcpStream& stream;
};

struct TcpStream::TickerSink final : detail::TickerEvents {
    explicit TickerSink(TcpStream& owner) : stream(owner) {}
    void Elapsed() override { stream.m_ticker_Elapsed(); }

    TcpStream& stream;
};

TcpStream::TcpStream()
    : m_socketSink(std::make_unique<SocketSink>(*this)),
      m_tickerSink(std::make_unique<TickerSink>(*this)) {}

TcpStream::~TcpStream() {
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

void TcpStream::Connect(std::string_view HostnameOrIP, const int32_t& Port) {
    Connect(FromUtf8(HostnameOrIP), Port);
}

void TcpStream::Connect(const std::u16string& HostnameOrIP, const int32_t& Port) {
    bool cameUp = false;
    try {
        ResetSocket();
        m_socket->LocalPort(0);
        m_socket->Connect(HostnameOrIP, Port);
        // Only the new control can deliver events from here on, so nothing of the old
        // connection can slip in after this.
        DiscardLeftovers();
        cameUp = WaitForAnyState({STATE_CONNECTED, STATE_DATA_ARRIVED});
    } catch (const std::exception& error) {
        Raise(ERROR_CONNECTION_FAILED, ConnectionFailure(HostnameOrIP, Port, DescriptionOf(error)),
              kSourceTcpStream);
    }
    // A failure the control reported by event reaches the caller in the control's own words.
    if (HasRecordedError()) RaiseRecordedError();
    if (!cameUp) {
        Raise(ERROR_CONNECTION_FAILED,
              ConnectionFailure(HostnameOrIP, Port, kClosedBeforeConnected), kSourceTcpStream);
    }
}

void TcpStream::Disconnect() {
    if (m_socket && m_socket->State() == detail::sckConnected) m_socket->Close();
    SetState(STATE_DISCONNECTED);
}

bool TcpStream::Connected() {
    if (m_socket && m_socket->State() != detail::sckConnected) SetState(STATE_DISCONNECTED);
    return GetState() != STATE_DISCONNECTED;
}

std::u16string TcpStream::LocalHostName() {
    if (!m_socket) Raise(ERROR_NOT_CONNECTED, kNotConnected, kSourceTcpStream);
    return m_socket->LocalHostName();
}

void TcpStream::ResetSocket() {
    ReleaseSocket();
    ResponseTimeout = kTimeoutAfterConnect;

    auto socket = HostKitGlobal().Services().CreateSocketControl();
    if (!socket)
        Raise(ERROR_CONNECTION_FAILED, u"No socket control could be made.", kSourceTcpStream);
    socket->SetEvents(m_socketSink.get());
    m_socket = std::move(socket);

    auto ticker = std::make_shared<detail::Ticker>();
    ticker->SetEvents(m_tickerSink.get());
    if (m_ticker) m_ticker->SetEvents(nullptr);
    m_ticker = std::move(ticker);

    m_socket->Protocol(0);
}

void TcpStream::ReleaseSocket() noexcept {
    if (GetState() != STATE_DISCONNECTED) {
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

void TcpStream::DiscardLeftovers() {
    m_sendBuffer.clear();
    if (m_sendBuffer.capacity() > kKeptSendCapacity) std::string().swap(m_sendBuffer);
    m_receiveBuffer.clear();
    m_receiveOffset = 0;
    m_lastArrivalBytes = 0;
    m_errorPending = false;
}

// ---- State, recorded error and waits ----

void TcpStream::SetState(int32_t state) {
    m_state = state;
}

int32_t TcpStream::GetState() const {
    return m_state;
}

void TcpStream::RecordError(int32_t number, std::u16string description) {
    m_errorNumber = number;
    m_errorDescription = std::move(description);
    m_errorPending = true;
    SetState(STATE_ERROR);
}

bool TcpStream::HasRecordedError() const {
    return m_errorPending;
}

void TcpStream::RaiseRecordedError() {
    m_errorPending = false;
    Raise(m_errorNumber, m_errorDescription, kSourceTcpStream);
}

bool TcpStream::WaitForState(int32_t state) {
    return PumpUntil([&] { return m_state == state || m_state == STATE_ERROR; });
}

bool TcpStream::IsInList(int32_t value, std::initializer_list<int32_t> list) {
    for (int32_t element : list)
        if (element == value) return true;
    return false;
}

bool TcpStream::WaitForAnyState(std::initializer_list<int32_t> states) {
    const uint64_t connects = m_connectEvents;
    const uint64_t closes = m_closeEvents;
    // A Connect event counts even when a Close of the same pump has overwritten it: the peer
    // accepted and hung up at once, and what it said before is still readable.
    auto settled = [&] {
        return IsInList(m_state, states) || m_state == STATE_ERROR || m_connectEvents != connects;
    };
    PumpUntil([&] { return settled() || m_closeEvents != closes; });
    return settled();
}

bool TcpStream::WaitForSendComplete() {
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

void TcpStream::m_socket_Connect() {
    ++m_connectEvents;
    SetState(STATE_CONNECTED);
}

void TcpStream::m_socket_Close() {
    ++m_closeEvents;
    SetState(STATE_DISCONNECTED);
}

void TcpStream::m_socket_DataArrival(int32_t bytesTotal) {
    SetState(STATE_DATA_ARRIVED);
    m_socket->GetData(m_arrival, detail::vbString, bytesTotal);
    // Drop the read front once it is at least half of the buffer: each character is then
    // moved a bounded number of times.
    if (m_receiveOffset > 0 && m_receiveOffset * 2 >= m_receiveBuffer.size()) {
        m_receiveBuffer.erase(0, m_receiveOffset);
        m_receiveOffset = 0;
    }
    m_receiveBuffer += m_arrival;
    m_arrival.clear();
    m_lastArrivalBytes = bytesTotal;
}

void TcpStream::m_socket_SendComplete() {
    ++m_sendCompleteEvents;
    SetState(STATE_SEND_COMPLETE);
}

void TcpStream::m_socket_Error(int16_t Number, std::u16string& Description, int32_t /*Scode*/,
                               const std::u16string& /*Source*/, const std::u16string& /*HelpFile*/,
                               int32_t /*HelpContext*/, bool& /*CancelDisplay*/) {
    RecordError(static_cast<int32_t>(Number), Description);
}

void TcpStream::m_ticker_Elapsed() {
    // Counts down to 0 and fails at the tick after; a negative count fails at once, like 0.
    if (m_ticksLeft > 0) {
        --m_ticksLeft;
        return;
    }
    m_ticker->Enabled(false);
    m_ticksLeft = ResponseTimeout;
    RecordError(ERROR_RESPONSE_TIMEOUT, kNoResponse);
}

// ---- Writing ----

void TcpStream::Send(std::u16string_view Data) {
    const std::size_t needed = m_sendBuffer.size() + Data.size();
    if (needed > m_sendBuffer.capacity()) {
        // Geometric growth keeps appends amortised O(1); a large buffer asks for huge pages so
        // that filling fresh memory does not cost a page fault every 4 KiB.
        m_sendBuffer.reserve(std::max(needed, 2 * m_sendBuffer.capacity()));
        detail::AdviseHugePages(m_sendBuffer.data(), m_sendBuffer.capacity());
    }
    detail::AppendAnsi(m_sendBuffer, Data);
}

void TcpStream::Send(std::string_view Data) {
    Send(FromUtf8(Data));
}

void TcpStream::SendLine(std::u16string_view Data) {
    Send(Data);
    m_sendBuffer += "\r\n";
}

void TcpStream::SendLine(std::string_view Data) {
    SendLine(FromUtf8(Data));
}

bool TcpStream::HasPendingSend() const {
    return !m_sendBuffer.empty();
}

void TcpStream::Flush() {
    if (!HasPendingSend()) return;
    m_lastArrivalBytes = 0;
    if (!m_socket || m_socket->State() != detail::sckConnected)
        Raise(ERROR_NOT_CONNECTED, kNotConnected, kSourceTcpStream);
    m_socket->SendData(m_sendBuffer);
    const bool sent = WaitForSendComplete();
    if (HasRecordedError()) RaiseRecordedError();
    // The connection closed before the control said the text had gone: keep it for a retry.
    if (!sent) Raise(ERROR_NOT_CONNECTED, kNotConnected, kSourceTcpStream);
    m_sendBuffer.clear();
    if (m_sendBuffer.capacity() > kKeptSendCapacity) std::string().swap(m_sendBuffer);
}

// ---- Reading ----

std::u16string_view TcpStream::Unread() const {
    return std::u16string_view(m_receiveBuffer).substr(m_receiveOffset);
}

void TcpStream::Consume(std::size_t count) {
    m_receiveOffset += count;
    if (m_receiveOffset >= m_receiveBuffer.size()) {
        m_receiveBuffer.clear();
        m_receiveOffset = 0;
    }
}

void TcpStream::AwaitUnread(std::size_t seen) {
    if (HasPendingSend()) Flush();
    bool stuck = false;
    if (Unread().size() <= seen) {
        // Before the first Connect there is no control that could ever deliver anything.
        if (!m_socket || !m_ticker) Raise(ERROR_NOT_CONNECTED, kNotConnected, kSourceTcpStream);
        std::shared_ptr<detail::Ticker> ticker = m_ticker;
        m_ticksLeft = ResponseTimeout;
        ticker->Interval(kTickMilliseconds);
        ticker->Enabled(true);
        SetState(STATE_WAITING_FOR_DATA);
        try {
            stuck = !WaitForState(STATE_DATA_ARRIVED);
        } catch (...) {
            ticker->Enabled(false);
            throw;
        }
        ticker->Enabled(false);
    }
    if (HasRecordedError()) RaiseRecordedError();
    if (stuck) Raise(ERROR_NOT_CONNECTED, kNotConnected, kSourceTcpStream);
}

std::u16string TcpStream::Peek(int32_t NumChars) {
    AwaitUnread(0);
    if (NumChars < 0) detail::RaiseRuntime(ERROR_INVALID_ARGUMENT, kSourceTcpStream);
    return std::u16string(Unread().substr(0, static_cast<std::size_t>(NumChars)));
}

std::u16string TcpStream::Read(int32_t NumChars) {
    std::u16string result = Peek(NumChars);
    Consume(result.size());
    return result;
}

std::u16string TcpStream::ReadLine() {
    // The characters of the line stay in the receive buffer, counted by `taken`, until the CR LF
    // has come; then the line leaves the buffer in one piece. A failure on the way drops what
    // was taken, as a read character by character would have.
    std::size_t taken = 0;
    try {
        for (;;) {
            AwaitUnread(taken);
            const std::u16string_view unread = Unread();
            if (unread.size() <= taken) continue;  // an arrival that brought no characters
            // No CR LF lies before taken - 1; one may begin at a CR that came last so far.
            const std::size_t end = unread.find(u"\r\n", taken > 0 ? taken - 1 : 0);
            const bool complete = end != std::u16string_view::npos;
            taken = complete ? end + 2 : unread.size();
            // Lets in the events that a pump after every character but the first would have.
            if (taken >= 2) HostKitGlobal().Services().PumpEvents();
            if (complete) return TakeLine(taken);
        }
    } catch (...) {
        Consume(taken);
        throw;
    }
}

std::u16string TcpStream::TakeLine(std::size_t length) {
    std::u16string line;
    if (m_receiveOffset == 0 && length == m_receiveBuffer.size()) {
        // The line is all the buffer holds (a long line usually is): hand the buffer over.
        line = std::move(m_receiveBuffer);
        m_receiveBuffer.clear();
        line.resize(length - 2);
        return line;
    }
    line.assign(Unread().substr(0, length - 2));
    Consume(length);
    return line;
}

bool TcpStream::AtEndOfStream() {
    if (HasPendingSend()) Flush();
    const bool atEnd = Unread().empty() && m_lastArrivalBytes > 0;
    SetState(STATE_CONNECTED);
    return atEnd;
}

std::u16string TcpStream::ReadToEnd() {
    std::u16string result;
    while (!AtEndOfStream()) result += ReadLine();
    return result;
}

}  // namespace larkpost
