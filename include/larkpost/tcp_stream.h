// TcpStream: blocking, buffered text input and output over one TCP connection.
//
// Writes only fill a send buffer; the text leaves in one write when Flush runs, and every read
// flushes first, so a command leaves the host when its reply is read. A read waits at most
// ResponseTimeout + 1 seconds of silence. Text is 16-bit; each character is one byte on the wire
// (Windows-1252, "?" for a character the page lacks).
#ifndef LARKPOST_TCP_STREAM_H
#define LARKPOST_TCP_STREAM_H

#include <cstdint>
#include <initializer_list>
#include <memory>
#include <string>
#include <string_view>

#include "larkpost/export.h"

namespace larkpost {

namespace detail {
class SocketControl;
class Ticker;
struct TcpStreamAccess;
}  // namespace detail

class LARKPOST_API TcpStream {
public:
    TcpStream();
    ~TcpStream();
    TcpStream(const TcpStream&) = delete;
    TcpStream& operator=(const TcpStream&) = delete;

    // Ticks (seconds) of silence a read allows: 3 on a new stream, 60 after each Connect. A read
    // fails at tick ResponseTimeout + 1; a negative value counts as 0.
    int32_t ResponseTimeout = 3;

    // Opens a connection, dropping any earlier one. Port is only read.
    void Connect(const std::u16string& HostnameOrIP, const int32_t& Port);
    void Connect(std::string_view HostnameOrIP, const int32_t& Port);
    // Closes the connection. Writes nothing out.
    void Disconnect();
    // Appends to the send buffer; nothing leaves the host.
    void Send(std::u16string_view Data);
    void Send(std::string_view Data);
    // Appends Data and CR LF to the send buffer.
    void SendLine(std::u16string_view Data);
    void SendLine(std::string_view Data);
    // Writes the whole send buffer in one write and waits until it has gone.
    void Flush();
    // True when an answer arrived since the last Flush that sent something, and all of it was read.
    bool AtEndOfStream();
    std::u16string Read(int32_t NumChars);
    std::u16string Peek(int32_t NumChars);
    // The next line, without its CR LF.
    std::u16string ReadLine();
    // The lines that have arrived so far, run together without line ends.
    std::u16string ReadToEnd();
    bool Connected();
    std::u16string LocalHostName();

private:
    friend struct detail::TcpStreamAccess;
    struct SocketSink;
    struct TickerSink;

    void ResetSocket();
    void m_socket_Close();
    void m_socket_Connect();
    void m_socket_DataArrival(int32_t bytesTotal);
    void m_socket_Error(int16_t Number, std::u16string& Description, int32_t Scode,
                        const std::u16string& Source, const std::u16string& HelpFile,
                        int32_t HelpContext, bool& CancelDisplay);
    void SetState(int32_t state);
    int32_t GetState() const;
    void RecordError(int32_t number, std::u16string description);
    // The waits sleep between pumps and end when nothing on the thread can deliver an event.
    // Peek's wait, until the state or STATE_ERROR; false when it could never end.
    bool WaitForState(int32_t state);
    // Connect's wait, until a state of the list or STATE_ERROR; false when the connection did
    // not come up (closed first, or no outcome).
    bool WaitForAnyState(std::initializer_list<int32_t> states);
    static bool IsInList(int32_t value, std::initializer_list<int32_t> list);
    // Flush's wait; false when the connection closed before the text was reported gone.
    bool WaitForSendComplete();
    void RaiseRecordedError();
    bool HasRecordedError() const;
    void m_socket_SendComplete();
    void m_ticker_Elapsed();
    void ReleaseSocket() noexcept;
    bool HasPendingSend() const;
    // What the last connection left behind: unsent text, unread characters, a pending error.
    void DiscardLeftovers();
    // Peek's first steps: flush, wait while no more than `seen` characters are unread, raise a
    // pending error.
    void AwaitUnread(std::size_t seen);
    std::u16string_view Unread() const;
    // The next `length` unread characters, which end in CR LF, as a line without them.
    std::u16string TakeLine(std::size_t length);
    void Consume(std::size_t count);

    int32_t m_state = 0;
    int32_t m_errorNumber = 0;
    std::u16string m_errorDescription;
    bool m_errorPending = false;
    // Unread characters live at m_receiveBuffer[m_receiveOffset...]; reads advance the offset.
    std::u16string m_receiveBuffer;
    std::size_t m_receiveOffset = 0;
    // Where GetData puts an arrival; it keeps its capacity from one arrival to the next.
    std::u16string m_arrival;
    // Unsent text, kept already in the code page it goes out in.
    std::string m_sendBuffer;
    int32_t m_lastArrivalBytes = 0;
    int32_t m_ticksLeft = 0;
    // Counts of Connect, SendComplete and Close events, so a wait notices an outcome that a
    // later event of the same pump has overwritten in m_state.
    uint64_t m_connectEvents = 0;
    uint64_t m_sendCompleteEvents = 0;
    uint64_t m_closeEvents = 0;
    std::unique_ptr<SocketSink> m_socketSink;
    std::unique_ptr<TickerSink> m_tickerSink;
    std::shared_ptr<detail::Ticker> m_ticker;
    std::shared_ptr<detail::SocketControl> m_socket;
};

}  // namespace larkpost

#endif
