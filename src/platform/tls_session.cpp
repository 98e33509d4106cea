#include "platform/tls_session.h"

#include <arpa/inet.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509_vfy.h>
#include <sys/socket.h>

#include <cerrno>

#include "larkpost/error.h"
#include "platform/codepage.h"
#include "platform/socket_errors.h"

namespace larkpost::detail {

namespace {

// The socket under a session, and what its last call saw.
struct SocketEnd {
    int fd = -1;
    int failedErrno = 0;  // of the last call that failed for a reason other than "not now"
    bool endOfStream = false;
};

SocketEnd& EndOf(BIO* bio) { return *static_cast<SocketEnd*>(BIO_get_data(bio)); }

int SocketWrite(BIO* bio, const char* data, std::size_t size, std::size_t* written) {
    SocketEnd& end = EndOf(bio);
    BIO_clear_retry_flags(bio);
    for (;;) {
        const ssize_t sent = send(end.fd, data, size, MSG_NOSIGNAL);
        if (sent >= 0) {
            *written = static_cast<std::size_t>(sent);
            return 1;
        }
        if (errno == EINTR) continue;
        if (errno == EAGAIN || errno == EWOULDBLOCK)
            BIO_set_retry_write(bio);
        else
            end.failedErrno = errno;
        return 0;
    }
}

int SocketRead(BIO* bio, char* buffer, std::size_t size, std::size_t* read) {
    SocketEnd& end = EndOf(bio);
    BIO_clear_retry_flags(bio);
    for (;;) {
        const ssize_t count = recv(end.fd, buffer, size, 0);
        if (count > 0) {
            *read = static_cast<std::size_t>(count);
            return 1;
        }
        if (count == 0) {
            end.endOfStream = true;
        } else if (errno == EINTR) {
            continue;
        } else if (errno == EAGAIN || errno == EWOULDBLOCK) {
            BIO_set_retry_read(bio);
        } else {
            end.failedErrno = errno;
        }
        return 0;
    }
}

long SocketBioControl(BIO* bio, int command, long /*number*/, void* /*pointer*/) {
    if (command == BIO_CTRL_FLUSH) return 1;  // every write goes straight to the socket
    if (command == BIO_CTRL_EOF) return EndOf(bio).endOfStream ? 1 : 0;
    return 0;
}

// Like OpenSSL's socket BIO, but a write to a closed connection fails with EPIPE instead of
// killing the host with SIGPIPE.
BIO_METHOD* SocketMethod() {
    static BIO_METHOD* const method = [] {
        BIO_METHOD* made = BIO_meth_new(BIO_get_new_index() | BIO_TYPE_SOURCE_SINK, "larkpost");
        BIO_meth_set_write_ex(made, SocketWrite);
        BIO_meth_set_read_ex(made, SocketRead);
        BIO_meth_set_ctrl(made, SocketBioControl);
        return made;
    }();
    return method;
}

bool IsIpAddress(const std::string& host) {
    unsigned char address[sizeof(in6_addr)];
    return inet_pton(AF_INET, host.c_str(), address) == 1 ||
           inet_pton(AF_INET6, host.c_str(), address) == 1;
}

// OpenSSL's words for the newest error in its queue.
std::u16string LibraryReason() {
    const char* reason = ERR_reason_error_string(ERR_peek_last_error());
    return FromAnsi(reason ? reason : "unknown reason");
}

}  // namespace

struct TlsSession::Handles {
    SocketEnd end;
    SSL_CTX* context = nullptr;
    SSL* ssl = nullptr;

    ~Handles() {
        SSL_free(ssl);
        SSL_CTX_free(context);
    }
};

TlsSession::TlsSession(std::unique_ptr<Handles> handles, TlsOptions options)
    : m_handles(std::move(handles)), m_options(std::move(options)) {}

TlsSession::~TlsSession() = default;

std::unique_ptr<TlsSession> TlsSession::Begin(int fd, const TlsOptions& options,
                                              TlsFailure& failure) {
    ERR_clear_error();
    auto handles = std::make_unique<Handles>();
    handles->end.fd = fd;
    SSL_CTX* context = handles->context = SSL_CTX_new(TLS_client_method());
    if (!context) {
        failure = {ERROR_TLS_HANDSHAKE_FAILED, u"TLS could not be set up: " + LibraryReason()};
        return nullptr;
    }
    SSL_CTX_set_min_proto_version(context, TLS1_2_VERSION);
    SSL_CTX_set_options(context, SSL_OP_NO_RENEGOTIATION);
    // Writes take whole records and may be retried from a buffer that has moved.
    SSL_CTX_set_mode(context, SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
    if (options.verify) {
        SSL_CTX_set_verify(context, SSL_VERIFY_PEER, nullptr);
        const bool loaded =
            options.caFile.empty()
                ? SSL_CTX_set_default_verify_paths(context) == 1
                : SSL_CTX_load_verify_locations(context, options.caFile.c_str(), nullptr) == 1;
        if (!loaded) {
            failure = {ERROR_CA_FILE_UNREADABLE, u"The CA file " + FromAnsi(options.caFile) +
                                                     u" could not be read: " + LibraryReason() +
                                                     u"."};
            return nullptr;
        }
    }
    SSL* ssl = handles->ssl = SSL_new(context);
    BIO* bio = ssl ? BIO_new(SocketMethod()) : nullptr;
    if (!bio) {
        failure = {ERROR_TLS_HANDSHAKE_FAILED, u"TLS could not be set up: " + LibraryReason()};
        return nullptr;
    }
    BIO_set_data(bio, &handles->end);
    BIO_set_init(bio, 1);
    SSL_set_bio(ssl, bio, bio);
    SSL_set_connect_state(ssl);

    const bool address = IsIpAddress(options.hostName);
    // Server Name Indication is for DNS names only.
    if (!address && !options.hostName.empty())
        SSL_set_tlsext_host_name(ssl, options.hostName.c_str());
    if (options.verify) {
        const bool named = address ? X509_VERIFY_PARAM_set1_ip_asc(SSL_get0_param(ssl),
                                                                   options.hostName.c_str()) == 1
                                   : SSL_set1_host(ssl, options.hostName.c_str()) == 1;
        if (!named) {
            failure = {ERROR_CERTIFICATE_REJECTED, u"No certificate can be checked for the name " +
                                                       FromAnsi(options.hostName) + u"."};
            return nullptr;
        }
    }
    return std::unique_ptr<TlsSession>(new TlsSession(std::move(handles), options));
}

TlsSession::Io TlsSession::Handshake() {
    ERR_clear_error();
    m_handles->end.failedErrno = 0;
    const int result = SSL_do_handshake(m_handles->ssl);
    return result == 1 ? Io::Done : Outcome(result, true);
}

TlsSession::Io TlsSession::Read(char* buffer, std::size_t size, std::size_t& count) {
    ERR_clear_error();
    m_handles->end.failedErrno = 0;
    count = 0;
    const int result = SSL_read_ex(m_handles->ssl, buffer, size, &count);
    return result == 1 ? Io::Done : Outcome(result, false);
}

TlsSession::Io TlsSession::Write(const char* data, std::size_t size, std::size_t& count) {
    ERR_clear_error();
    m_handles->end.failedErrno = 0;
    count = 0;
    const int result = SSL_write_ex(m_handles->ssl, data, size, &count);
    return result == 1 ? Io::Done : Outcome(result, false);
}

void TlsSession::Shutdown() noexcept {
    ERR_clear_error();
    SSL_shutdown(m_handles->ssl);  // one try: the close_notify goes if the socket takes it now
}

bool TlsSession::HasBufferedData() const { return SSL_pending(m_handles->ssl) > 0; }

TlsSession::Io TlsSession::Outcome(int result, bool handshaking) {
    const int error = SSL_get_error(m_handles->ssl, result);
    if (error == SSL_ERROR_WANT_READ) return Io::WantRead;
    if (error == SSL_ERROR_WANT_WRITE) return Io::WantWrite;
    const SocketEnd& end = m_handles->end;
    const std::u16string host = FromAnsi(m_options.hostName);
    if (end.failedErrno != 0) {
        const SocketFailure failure = SocketFailureFromErrno(end.failedErrno);
        m_failure = {failure.number, failure.description};
        return Io::Failed;
    }
    const bool closed = error == SSL_ERROR_ZERO_RETURN || end.endOfStream;
    if (!handshaking) {
        if (closed) return Io::PeerClosed;
        m_failure = {ERROR_TLS_FAILED,
                     u"TLS failed on the connection to " + host + u": " + LibraryReason() + u"."};
        return Io::Failed;
    }
    const long verified = SSL_get_verify_result(m_handles->ssl);
    if (m_options.verify && verified != X509_V_OK) {
        m_failure = {ERROR_CERTIFICATE_REJECTED,
                     u"The server's certificate failed the check for " + host + u": " +
                         FromAnsi(X509_verify_cert_error_string(verified)) + u"."};
    } else {
        const std::u16string reason =
            closed ? u"the server closed the connection" : LibraryReason();
        m_failure = {ERROR_TLS_HANDSHAKE_FAILED,
                     u"The TLS handshake with " + host + u" failed: " + reason + u"."};
    }
    return Io::Failed;
}

}  // namespace larkpost::detail
