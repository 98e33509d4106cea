// The one state value of a TcpStream. Every event of the socket control overwrites it, and the
// waits of the stream look at it between pumps.
#ifndef LARKPOST_NET_STREAM_STATE_H
#define LARKPOST_NET_STREAM_STATE_H

#include <cstdint>

namespace larkpost::detail {

enum StreamState : int32_t {
    STATE_DISCONNECTED = 0,      // no connection, or the peer has closed it
    STATE_CONNECTED = 1,         // connected; also the resting state AtEndOfStream leaves
    STATE_ERROR = 2,             // an error was recorded; stays after it has been raised
    STATE_SEND_COMPLETE = 3,     // the last SendData has gone
    STATE_WAITING_FOR_DATA = 4,  // a read has begun to wait
    STATE_DATA_ARRIVED = 5,      // data came in and is in the receive buffer
};

}  // namespace larkpost::detail

#endif
