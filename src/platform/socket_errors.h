// The Windows Sockets numbers that socket controls report, and the mapping from POSIX errors.
#ifndef LARKPOST_PLATFORM_SOCKET_ERRORS_H
#define LARKPOST_PLATFORM_SOCKET_ERRORS_H

#include <cstdint>
#include <string>

namespace larkpost::detail {

// Reported by Error events.
inline constexpr int16_t sckAddressInUse = 10048;
inline constexpr int16_t sckAddressNotAvailable = 10049;
inline constexpr int16_t sckNetworkUnreachable = 10051;
inline constexpr int16_t sckConnectAborted = 10053;
inline constexpr int16_t sckConnectionReset = 10054;
inline constexpr int16_t sckTimedout = 10060;
inline constexpr int16_t sckConnectionRefused = 10061;
inline constexpr int16_t sckHostUnreachable = 10065;
inline constexpr int16_t sckHostNotFound = 11001;

// Raised at once by a call that cannot start.
inline constexpr int32_t sckBadState = 40006;    // the call does not fit the control's State
inline constexpr int32_t sckInvalidArg = 40014;  // an argument of the wrong kind
inline constexpr int32_t sckOutOfRange = 40021;  // a number outside its range (a port)

// The English description of one of the numbers above.
std::u16string SocketErrorDescription(int32_t number);

// What an Error event carries.
struct SocketFailure {
    int16_t number;
    std::u16string description;
};

// The failure for a POSIX errno. An errno without a number of its own becomes
// sckConnectAborted, its description naming the system's reason.
SocketFailure SocketFailureFromErrno(int error);

}  // namespace larkpost::detail

#endif
