// TcpStreamAccess: the component's own way into a TcpStream's private state. MailClient uses
// LocalIP for its EHLO fallback; tests use the rest to check the state machine exactly.
#ifndef LARKPOST_NET_TCP_STREAM_ACCESS_H
#define LARKPOST_NET_TCP_STREAM_ACCESS_H

#include <cstddef>
#include <cstdint>
#include <string>

#include "larkpost/tcp_stream.h"
#include "platform/memory.h"
#include "platform/socket_control.h"

namespace larkpost::detail {

struct TcpStreamAccess {
    // The address of the local end of the connection, empty when there is no control.
    static std::u16string LocalIP(TcpStream& s) {
        return s.m_socket ? s.m_socket->LocalIP() : std::u16string();
    }

    // Makes room for count more bytes of unsent text at once, so a whole message handed over
    // in slices is copied into the buffer once and never moved while it grows.
    static void ReserveSend(TcpStream& s, std::size_t count) {
        s.m_sendBuffer.reserve(s.m_sendBuffer.size() + count);
        AdviseHugePages(s.m_sendBuffer.data(), s.m_sendBuffer.capacity());
    }

    static int32_t State(const TcpStream& s) { return s.m_state; }
    static bool ErrorPending(const TcpStream& s) { return s.m_errorPending; }
    static int32_t ErrorNumber(const TcpStream& s) { return s.m_errorNumber; }
    static const std::u16string& ErrorDescription(const TcpStream& s) {
        return s.m_errorDescription;
    }
    static int32_t LastArrivalBytes(const TcpStream& s) { return s.m_lastArrivalBytes; }
    static int32_t TicksLeft(const TcpStream& s) { return s.m_ticksLeft; }
    static void SetTicksLeft(TcpStream& s, int32_t ticks) { s.m_ticksLeft = ticks; }
    static const std::string& SendBuffer(const TcpStream& s) { return s.m_sendBuffer; }
    static std::u16string Unread(const TcpStream& s) { return std::u16string(s.Unread()); }
    static bool HasControl(const TcpStream& s) { return s.m_socket != nullptr; }
    // One Elapsed of the ticker, as the pump would deliver it.
    static void Tick(TcpStream& s) { s.m_ticker_Elapsed(); }
};

}  // namespace larkpost::detail

#endif
