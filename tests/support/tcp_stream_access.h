// TcpStreamAccess: the tests' view of a TcpStream's state, buffers and tick count.
#ifndef LARKPOST_TESTS_TCP_STREAM_ACCESS_H
#define LARKPOST_TESTS_TCP_STREAM_ACCESS_H

#include "net/tcp_stream_impl.h"
#include "platform/impl_access.h"

namespace larkpost::detail {

struct TcpStreamAccess {  // the implementation names it a friend
    static TcpStreamImpl& Of(const TcpStream& s) { return ImplAccess::Of(s); }
    static int32_t State(const TcpStream& s) { return Of(s).m_state; }
    static bool ErrorPending(const TcpStream& s) { return Of(s).m_errorPending; }
    static void SetTicksLeft(TcpStream& s, int32_t ticks) { Of(s).m_ticksLeft = ticks; }
    static std::string SendBuffer(const TcpStream& s) {
        std::string joined;
        for (const SendSlice& slice : Of(s).m_sendBuffer.Slices()) joined += slice.bytes;
        return joined;
    }
    static std::u16string Unread(const TcpStream& s) {
        return Of(s).m_receiveBuffer.Peek(0, Of(s).m_receiveBuffer.Size());
    }
    static void Tick(TcpStream& s) { Of(s).m_ticker_Elapsed(); }  // as the pump delivers it
};

}  // namespace larkpost::detail

#endif
