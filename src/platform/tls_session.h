// TlsSession: TLS (OpenSSL 3) over one connected non-blocking socket, as the client.
//
// The peer is verified by default: chain against the system's trust store or a CA file, and the
// host name (an IP address is checked as one); SNI names DNS hosts; TLS 1.2 at least, no
// renegotiation. Socket I/O goes through a BIO of our own that writes with MSG_NOSIGNAL, so a
// peer that hangs up can never raise SIGPIPE in the host.
#ifndef LARKPOST_PLATFORM_TLS_SESSION_H
#define LARKPOST_PLATFORM_TLS_SESSION_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

namespace larkpost::detail {

// What the host asks of a TLS connection.
struct TlsOptions {
    std::string hostName;  // the name or address the connection was made to
    bool verify = true;
    std::string caFile;  // empty: the system's trust store
};

// A failure of TLS itself (number from the extension range) or of the socket under it (a
// Windows Sockets number); the description says which check or step failed.
struct TlsFailure {
    int32_t number = 0;
    std::u16string description;
};

class TlsSession {
public:
    // The outcome of a step on the non-blocking socket.
    enum class Io {
        Done,        // the step finished, or moved bytes
        WantRead,    // try again when the socket is readable
        WantWrite,   // try again when the socket is writable
        PeerClosed,  // the peer ended the connection
        Failed       // Failure() says why; the session is over
    };

    // Prepares the client side on fd; a CA file that cannot be loaded is a failure here.
    static std::unique_ptr<TlsSession> Begin(int fd, const TlsOptions& options,
                                             TlsFailure& failure);
    ~TlsSession();
    TlsSession(const TlsSession&) = delete;
    TlsSession& operator=(const TlsSession&) = delete;

    Io Handshake();
    // Up to size bytes of the peer's data into buffer; count says how many.
    Io Read(char* buffer, std::size_t size, std::size_t& count);
    // Some or all of size bytes; count says how many were taken.
    Io Write(const char* data, std::size_t size, std::size_t& count);
    // Sends the close_notify if the socket takes it now; never waits.
    void Shutdown() noexcept;
    // Decrypted bytes that wait inside the session, which polling the socket cannot show.
    bool HasBufferedData() const;
    const TlsFailure& Failure() const { return m_failure; }

private:
    struct Handles;
    TlsSession(std::unique_ptr<Handles> handles, TlsOptions options);
    Io Outcome(int result, bool handshaking);

    std::unique_ptr<Handles> m_handles;
    TlsOptions m_options;
    TlsFailure m_failure;
};

}  // namespace larkpost::detail

#endif
