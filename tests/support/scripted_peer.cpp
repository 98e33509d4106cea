#include "support/scripted_peer.h"

#include <arpa/inet.h>
#include <netinet/tcp.h>
#include <openssl/ssl.h>
#include <unistd.h>

#include <csignal>

#include <stdexcept>
#include <utility>
#include <vector>

namespace larkpost::test {
namespace {

// A TCP socket on the loopback address, bound or connected to port (0: any free one), and its
// port; -1 when that failed. Its reads and accepts wait 10 s at most.
int LoopbackSocket(int32_t& port, bool bind) {
    sockaddr_in address{AF_INET, htons(static_cast<uint16_t>(port)), {htonl(INADDR_LOOPBACK)}, {}};
    socklen_t length = sizeof address;
    auto* any = reinterpret_cast<sockaddr*>(&address);
    const timeval limit{10, 0};
    int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    if (bind ? ::bind(fd, any, length) || ::getsockname(fd, any, &length)
             : ::connect(fd, any, length) != 0)
        ::close(std::exchange(fd, -1));
    return port = ntohs(address.sin_port), fd;
}

}  // namespace

int32_t FreeLoopbackPort() {
    int32_t port = 0;
    return ::close(LoopbackSocket(port, true)), port;
}

bool LoopbackListening(int32_t port) { return ::close(LoopbackSocket(port, false)) == 0; }

int32_t FullLoopbackPort() {
    static int32_t port = 0;
    static const int listener = LoopbackSocket(port, true);  // a queue of one, filled at once
    static const int filler = ::listen(listener, 0) == 0 ? LoopbackSocket(port, false) : -1;
    return filler >= 0 ? port : 0;
}

ScriptedPeer::ScriptedPeer(std::string_view transcript, const std::string& text)
    : m_listen(LoopbackSocket(m_port, true)) {
    std::vector<std::string> steps = {"!accept"};  // a kind ('<' send, '>' await, '!'), its bytes
    char host[256] = {};
    ::gethostname(host, sizeof host - 1);
    for (std::size_t at = 0, end = 0; end != std::string_view::npos; at = end + 1) {
        end = transcript.find('|', at);
        const std::string item(transcript.substr(at, end - at));
        std::string line = item.substr(std::min<std::size_t>(2, item.size()));
        if (const auto h = line.find("<host>"); h != line.npos) line.replace(h, 6, host);
        if (item.starts_with("> ")) {
            if (line.starts_with("<slice>")) m_expected += text.substr(0, 512), line.erase(0, 7);
            steps.push_back(line == "<text>" ? ">\r\n.\r\n" : ">" + line + "\r\n");
            m_expected += (line == "<text>" ? text + "\r\n." : line) + "\r\n";
        } else if (item.starts_with("< ") || item.starts_with("~ ")) {
            steps.push_back("<" + line + (item[0] == '<' ? "\r\n" : ""));
        } else if (item == "!accept" || item == "!close" || item == "!reset" || item == "!wait" ||
                   item == "!hello" || item.starts_with("!tls")) {
            steps.push_back(item);
        } else if (!item.empty()) {
            throw std::invalid_argument("transcript item '" + item + "'");
        }
    }
    std::signal(SIGPIPE, SIG_IGN);  // TLS writes to a client that has gone
    if (::listen(m_listen, 8) != 0) throw std::runtime_error("no loopback port to listen on");
    m_run = std::async(std::launch::async, [this, steps] {
        for (const std::string& step : steps)
            if (!Run(step[0], step.substr(1))) break;
    });
}

ScriptedPeer::~ScriptedPeer() {
    m_run.wait();  // every step is bounded
    EndTls(), ::close(m_fd), ::close(m_listen);
}

std::string ScriptedPeer::Result() {
    const bool ended = m_run.wait_for(std::chrono::seconds(20)) == std::future_status::ready;
    std::lock_guard lock(m_mutex);
    return m_received + m_problems + (ended ? "" : "[the script did not end]");
}

// One read into the records: the count of bytes, 0 at the close, -1 at an error or a time-out.
long ScriptedPeer::Receive() {
    char buffer[65536];
    const long count = m_tls ? SSL_read(m_tls, buffer, sizeof buffer) : ::recv(m_fd, buffer, sizeof buffer, 0);
    std::lock_guard lock(m_mutex);
    if (count > 0) m_pending.append(buffer, count);
    if (count > 0 && !m_unreadable) m_received.append(buffer, count);
    return count;
}

long ScriptedPeer::Transmit(const std::string& data, std::size_t from) {
    const char* start = data.data() + from;
    const auto size = data.size() - from;
    return m_tls ? SSL_write(m_tls, start, static_cast<int>(size)) : ::send(m_fd, start, size, MSG_NOSIGNAL);
}

void ScriptedPeer::EndTls() {
    SSL_free(std::exchange(m_tls, nullptr));
}

bool ScriptedPeer::Run(char kind, const std::string& data) {
    long count = 1;
    std::string problem;
    if (kind == '<') {
        for (std::size_t done = 0; done < data.size() && count > 0; done += count)
            count = Transmit(data, done);
        if (count <= 0) problem = "[could not send " + data + "]";
    } else if (kind == '>') {
        for (; count > 0; count = Receive()) {
            std::lock_guard lock(m_mutex);
            if (const auto found = m_pending.find(data); found != std::string::npos)
                return m_pending.erase(0, found + data.size()), true;
        }
        problem = "[no " + data + " came]";
    } else if (data == "accept") {  // the listening socket's time limit bounds the wait
        const int one = 1;
        ::close(m_fd);
        m_fd = ::accept4(m_listen, nullptr, nullptr, SOCK_CLOEXEC);
        ::setsockopt(m_fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
        if (m_fd < 0) problem = "[no connection came]";
        std::lock_guard lock(m_mutex);
        m_pending.clear();
    } else if (data == "hello") {
        m_unreadable = true;
        if (Receive() <= 0) problem = "[no hello came]";
        std::lock_guard lock(m_mutex);
        m_pending.clear();
    } else if (data.starts_with("tls")) {
        const bool refused = data.starts_with("tls-refused ");
        m_unreadable = false;
        const std::string base = data.substr(data.find(' ') + 1);
        SSL_CTX* context = SSL_CTX_new(TLS_server_method());
        SSL_CTX_use_certificate_chain_file(context, (base + ".pem").c_str());
        SSL_CTX_use_PrivateKey_file(context, (base + ".key").c_str(), SSL_FILETYPE_PEM);
        m_tls = SSL_new(context);
        SSL_CTX_free(context);  // the session holds it
        SSL_set_fd(m_tls, m_fd);
        if ((SSL_accept(m_tls) == 1) == refused) problem = refused ? "[TLS came up]" : "[no TLS]";
        if (refused) EndTls();
    } else if (data == "wait") {
        while ((count = Receive()) > 0) {}
        if (count < 0 && m_fd >= 0 && errno != ECONNRESET) problem = "[the client did not close]";
    } else {  // "close" takes what the client still sends first, so that no RST goes; "reset" does
        const linger reset{1, 0};
        const timeval brief{0, 100000};
        if (data == "reset") ::setsockopt(m_fd, SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
        if (data == "close") ::setsockopt(m_fd, SOL_SOCKET, SO_RCVTIMEO, &brief, sizeof brief);
        if (m_tls) SSL_shutdown(m_tls), EndTls();
        while (data == "close" && (::shutdown(m_fd, SHUT_WR), Receive()) > 0) {}
        ::close(std::exchange(m_fd, -1));
    }
    std::lock_guard lock(m_mutex);
    return m_problems += problem, problem.empty();
}

}  // namespace larkpost::test
