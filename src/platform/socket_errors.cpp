#include "platform/socket_errors.h"

#include <string.h>

#include <cerrno>

#include "platform/codepage.h"

namespace larkpost::detail {

std::u16string SocketErrorDescription(int32_t number) {
    switch (number) {
        case sckAddressInUse: return u"The local address is already in use.";
        case sckAddressNotAvailable: return u"The requested address is not available.";
        case sckNetworkUnreachable: return u"The network is unreachable.";
        case sckConnectAborted: return u"The connection was aborted.";
        case sckConnectionReset: return u"The connection was reset by the remote host.";
        case sckTimedout: return u"The connection timed out.";
        case sckConnectionRefused: return u"The connection was refused by the remote host.";
        case sckHostUnreachable: return u"The remote host is unreachable.";
        case sckHostNotFound:
            return u"Host not found: the name could not be resolved to an address.";
        case sckBadState:
            return u"The operation is not allowed in the current state of the socket.";
        case sckInvalidArg: return u"The argument is not of the expected kind.";
        case sckOutOfRange: return u"The argument is out of range.";
        default: return u"Unknown socket error.";
    }
}

SocketFailure SocketFailureFromErrno(int error) {
    int16_t number = 0;
    switch (error) {
        case ECONNREFUSED: number = sckConnectionRefused; break;
        case ECONNRESET: number = sckConnectionReset; break;
        case ETIMEDOUT: number = sckTimedout; break;
        case ECONNABORTED:
        case EPIPE: number = sckConnectAborted; break;
        case ENETUNREACH:
        case ENETDOWN: number = sckNetworkUnreachable; break;
        case EHOSTUNREACH:
        case EHOSTDOWN: number = sckHostUnreachable; break;
        case EADDRNOTAVAIL: number = sckAddressNotAvailable; break;
        case EADDRINUSE: number = sckAddressInUse; break;
        default: {
            char buffer[256];
            const char* reason = strerror_r(error, buffer, sizeof buffer);
            return {sckConnectAborted, u"The connection failed: " + FromAnsi(reason) + u"."};
        }
    }
    return {number, SocketErrorDescription(number)};
}

}  // namespace larkpost::detail
