// The event-driven TCP socket control that TcpStream is built on.
//
// Calls return at once; outcomes come later as events, delivered to the hooked sink only inside
// HostServices::PumpEvents on the thread that owns the control. A control that has been released
// or unhooked delivers nothing more. Failures carry Windows Sockets numbers (10061 refused,
// 11001 host not found, 10054 reset, 10060 timed out, ...) with English descriptions.
#ifndef LARKPOST_PLATFORM_SOCKET_CONTROL_H
#define LARKPOST_PLATFORM_SOCKET_CONTROL_H

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>

#include "platform/codepage.h"
#include "platform/tls_session.h"

namespace larkpost::detail {

// Values of SocketControl::State.
inline constexpr int16_t sckClosed = 0;
inline constexpr int16_t sckOpen = 1;
inline constexpr int16_t sckListening = 2;
inline constexpr int16_t sckConnectionPending = 3;
inline constexpr int16_t sckResolvingHost = 4;
inline constexpr int16_t sckHostResolved = 5;
inline constexpr int16_t sckConnecting = 6;
inline constexpr int16_t sckConnected = 7;
inline constexpr int16_t sckClosing = 8;
inline constexpr int16_t sckError = 9;

// GetData type for text.
inline constexpr int32_t vbString = 8;

// A run of bytes for SendSlices. With a holder, the bytes stay alive and unchanged for as long
// as the holder is kept, so a control may keep a view of them instead of a copy.
struct SendSlice {
    std::string_view bytes;
    std::shared_ptr<const void> holder;
};

class SocketControlEvents {
public:
    virtual void Close() = 0;
    virtual void Connect() = 0;
    virtual void DataArrival(int32_t bytesTotal) = 0;
    virtual void Error(int16_t Number, std::u16string& Description, int32_t Scode,
                       const std::u16string& Source, const std::u16string& HelpFile,
                       int32_t HelpContext, bool& CancelDisplay) = 0;
    virtual void SendComplete() = 0;
    // Some of a SendData has gone and some still waits for the peer to read.
    virtual void SendProgress(int32_t /*bytesSent*/, int32_t /*bytesRemaining*/) {}
    // The outcomes of StartTls. A failure carries a number of its own (an extension error, or
    // the socket's number when the connection broke) and the connection is closed.
    virtual void TlsStarted() {}
    virtual void TlsFailed(int32_t /*Number*/, const std::u16string& /*Description*/) {}

protected:
    ~SocketControlEvents() = default;
};

class SocketControl {
public:
    virtual ~SocketControl() = default;

    // Hooks the sink that receives this control's events; nullptr unhooks.
    virtual void SetEvents(SocketControlEvents* sink) = 0;

    virtual void Protocol(int32_t value) = 0;   // 0 selects TCP
    virtual void LocalPort(int32_t value) = 0;  // 0 lets the system choose
    // Starts a connection and returns; exactly one outcome follows: Connect or Error.
    virtual void Connect(const std::u16string& RemoteHost, int32_t RemotePort) = 0;
    virtual int16_t State() = 0;
    // Closes the connection; no event follows, and queued ones are dropped.
    virtual void Close() = 0;
    // Takes the bytes (text already in the code page) and returns; SendComplete follows when
    // they have gone, Error if they cannot. Each call is one write to the socket where the
    // kernel takes it all.
    virtual void SendData(std::string_view bytes) = 0;
    // SendData of the slices' bytes, in order, as one text: one write, one SendComplete. This
    // one joins them; a control that can write them as they are keeps views of those with a
    // holder and copies only the rest.
    virtual void SendSlices(std::span<const SendSlice> slices);
    // Up to MaxLen received bytes as text (each byte one character), removed from the queue.
    virtual void GetData(std::u16string& Data, int32_t Type, int32_t MaxLen) = 0;
    // Starts TLS as the client on the open connection; exactly one outcome follows, TlsStarted
    // or TlsFailed. From then on every byte in and out goes through TLS. An empty host name in
    // options stands for the host given to Connect. Controls without TLS raise sckBadState.
    virtual void StartTls(const TlsOptions& options);
    // The same bytes as they came, for a reader that keeps them in the code page.
    virtual void GetBytes(std::string& Data, int32_t MaxLen) {
        std::u16string text;
        GetData(text, vbString, MaxLen);
        Data = ToAnsi(text);
    }
    virtual std::u16string LocalHostName() = 0;
    // The address of the local end of the connection, empty when there is none.
    virtual std::u16string LocalIP() = 0;
};

}  // namespace larkpost::detail

#endif
