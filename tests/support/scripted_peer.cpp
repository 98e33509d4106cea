#include "support/scripted_peer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <stdexcept>

namespace larkpost::test {

ScriptedPeer::ScriptedPeer() {
    m_listenFd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (m_listenFd < 0) throw std::runtime_error("socket failed");
    int one = 1;
    ::setsockopt(m_listenFd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addr.sin_port = 0;
    if (::bind(m_listenFd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
        ::listen(m_listenFd, 8) != 0)
        throw std::runtime_error("bind/listen failed");
    socklen_t len = sizeof addr;
    ::getsockname(m_listenFd, reinterpret_cast<sockaddr*>(&addr), &len);
    m_port = ntohs(addr.sin_port);
}

ScriptedPeer::~ScriptedPeer() {
    Join(std::chrono::seconds(20));
    if (m_thread.joinable()) {
        // The script is stuck on a step; closing the sockets ends it.
        ::shutdown(m_listenFd, SHUT_RDWR);
        m_thread.join();
    }
    if (m_fd >= 0) ::close(m_fd);
    if (m_listenFd >= 0) ::close(m_listenFd);
}

void ScriptedPeer::Note(std::string problem) {
    std::lock_guard lock(m_mutex);
    m_problems.push_back(std::move(problem));
}

bool ScriptedPeer::ReadSome(std::chrono::milliseconds limit) {
    pollfd p{m_fd, POLLIN, 0};
    int ready = ::poll(&p, 1, static_cast<int>(limit.count()));
    if (ready <= 0) {
        Note("timed out waiting for data");
        return false;
    }
    char buffer[65536];
    ssize_t n = ::recv(m_fd, buffer, sizeof buffer, 0);
    if (n <= 0) {
        Note(n == 0 ? "client closed the connection" : std::string("recv: ") + std::strerror(errno));
        return false;
    }
    std::lock_guard lock(m_mutex);
    m_pending.append(buffer, static_cast<std::size_t>(n));
    m_received.append(buffer, static_cast<std::size_t>(n));
    m_perConnection.back().append(buffer, static_cast<std::size_t>(n));
    return true;
}

ScriptedPeer& ScriptedPeer::Accept() {
    m_steps.push_back([this] {
        if (m_fd >= 0) ::close(m_fd);
        m_fd = -1;
        pollfd p{m_listenFd, POLLIN, 0};
        if (::poll(&p, 1, static_cast<int>(m_stepLimit.count())) <= 0) {
            Note("no connection came");
            return false;
        }
        m_fd = ::accept4(m_listenFd, nullptr, nullptr, SOCK_CLOEXEC);
        if (m_fd < 0) {
            Note("accept failed");
            return false;
        }
        int one = 1;
        ::setsockopt(m_fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
        std::lock_guard lock(m_mutex);
        m_pending.clear();
        m_perConnection.emplace_back();
        return true;
    });
    return *this;
}

ScriptedPeer& ScriptedPeer::Send(std::string bytes) {
    m_steps.push_back([this, bytes = std::move(bytes)] {
        std::size_t done = 0;
        while (done < bytes.size()) {
            ssize_t n = ::send(m_fd, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
            if (n <= 0) {
                Note(std::string("send: ") + std::strerror(errno));
                return false;
            }
            done += static_cast<std::size_t>(n);
        }
        return true;
    });
    return *this;
}

ScriptedPeer& ScriptedPeer::SendSlowly(std::string bytes, std::chrono::milliseconds gap) {
    for (char c : bytes) {
        Send(std::string(1, c));
        Pause(gap);
    }
    return *this;
}

ScriptedPeer& ScriptedPeer::ExpectLine() {
    m_steps.push_back([this] {
        for (;;) {
            {
                std::lock_guard lock(m_mutex);
                auto end = m_pending.find("\r\n");
                if (end != std::string::npos) {
                    m_lines.push_back(m_pending.substr(0, end));
                    m_pending.erase(0, end + 2);
                    return true;
                }
            }
            if (!ReadSome(m_stepLimit)) return false;
        }
    });
    return *this;
}

ScriptedPeer& ScriptedPeer::ExpectLines(int count) {
    for (int i = 0; i < count; ++i) ExpectLine();
    return *this;
}

ScriptedPeer& ScriptedPeer::ReadUntil(std::string terminator) {
    m_steps.push_back([this, terminator = std::move(terminator)] {
        for (;;) {
            {
                std::lock_guard lock(m_mutex);
                auto end = m_pending.find(terminator);
                if (end != std::string::npos) {
                    m_pending.erase(0, end + terminator.size());
                    return true;
                }
            }
            if (!ReadSome(m_stepLimit)) return false;
        }
    });
    return *this;
}

ScriptedPeer& ScriptedPeer::Pause(std::chrono::milliseconds duration) {
    m_steps.push_back([duration] {
        std::this_thread::sleep_for(duration);
        return true;
    });
    return *this;
}

ScriptedPeer& ScriptedPeer::Close() {
    m_steps.push_back([this] {
        ::shutdown(m_fd, SHUT_WR);
        // Drain what the client still sends so the close stays orderly (no RST).
        pollfd p{m_fd, POLLIN, 0};
        char buffer[4096];
        while (::poll(&p, 1, 200) > 0) {
            ssize_t n = ::recv(m_fd, buffer, sizeof buffer, 0);
            if (n <= 0) break;
            std::lock_guard lock(m_mutex);
            m_received.append(buffer, static_cast<std::size_t>(n));
            m_perConnection.back().append(buffer, static_cast<std::size_t>(n));
        }
        ::close(m_fd);
        m_fd = -1;
        return true;
    });
    return *this;
}

ScriptedPeer& ScriptedPeer::Reset() {
    m_steps.push_back([this] {
        linger hard{1, 0};
        ::setsockopt(m_fd, SOL_SOCKET, SO_LINGER, &hard, sizeof hard);
        ::close(m_fd);
        m_fd = -1;
        return true;
    });
    return *this;
}

ScriptedPeer& ScriptedPeer::WaitForClose() {
    m_steps.push_back([this] {
        for (;;) {
            pollfd p{m_fd, POLLIN, 0};
            if (::poll(&p, 1, static_cast<int>(m_stepLimit.count())) <= 0) {
                Note("client did not close");
                return false;
            }
            char buffer[65536];
            ssize_t n = ::recv(m_fd, buffer, sizeof buffer, 0);
            if (n <= 0) return true;
            std::lock_guard lock(m_mutex);
            m_pending.append(buffer, static_cast<std::size_t>(n));
            m_received.append(buffer, static_cast<std::size_t>(n));
            m_perConnection.back().append(buffer, static_cast<std::size_t>(n));
        }
    });
    return *this;
}

void ScriptedPeer::Start() {
    // The script begins by waiting for the first connection.
    std::vector<Step> steps = std::move(m_steps);
    m_steps.clear();
    Accept();
    m_steps.insert(m_steps.end(), steps.begin(), steps.end());
    m_thread = std::thread([this] { Run(); });
}

void ScriptedPeer::Run() {
    for (auto& step : m_steps) {
        if (!step()) break;
    }
    std::lock_guard lock(m_mutex);
    m_finished = true;
    m_done.notify_all();
}

bool ScriptedPeer::Join(std::chrono::milliseconds limit) {
    if (!m_thread.joinable()) return true;
    {
        std::unique_lock lock(m_mutex);
        if (!m_done.wait_for(lock, limit, [this] { return m_finished; })) return false;
    }
    m_thread.join();
    return true;
}

std::string ScriptedPeer::Received() const {
    std::lock_guard lock(m_mutex);
    return m_received;
}

std::vector<std::string> ScriptedPeer::Lines() const {
    std::lock_guard lock(m_mutex);
    return m_lines;
}

std::string ScriptedPeer::ReceivedOn(std::size_t connection) const {
    std::lock_guard lock(m_mutex);
    return connection < m_perConnection.size() ? m_perConnection[connection] : std::string();
}

int ScriptedPeer::Connections() const {
    std::lock_guard lock(m_mutex);
    return static_cast<int>(m_perConnection.size());
}

std::vector<std::string> ScriptedPeer::Problems() const {
    std::lock_guard lock(m_mutex);
    return m_problems;
}

}  // namespace larkpost::test
