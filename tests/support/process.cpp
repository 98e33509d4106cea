#include "support/process.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace larkpost::test {
namespace {

std::vector<char*> Argv(const std::vector<std::string>& argv) {
    std::vector<char*> out;
    for (const auto& a : argv) out.push_back(const_cast<char*>(a.c_str()));
    out.push_back(nullptr);
    return out;
}

}  // namespace

ProcessResult RunProcess(const std::vector<std::string>& argv, const std::string& input,
                         std::chrono::milliseconds limit) {
    int in[2], out[2], err[2];
    if (::pipe2(in, O_CLOEXEC) || ::pipe2(out, O_CLOEXEC) || ::pipe2(err, O_CLOEXEC))
        throw std::runtime_error("pipe failed");
    auto args = Argv(argv);
    pid_t pid = ::fork();
    if (pid == 0) {
        ::dup2(in[0], 0);
        ::dup2(out[1], 1);
        ::dup2(err[1], 2);
        ::execvp(args[0], args.data());
        _exit(127);
    }
    ::close(in[0]);
    ::close(out[1]);
    ::close(err[1]);
    ProcessResult result;
    std::size_t written = 0;
    if (input.empty()) {
        ::close(in[1]);
        in[1] = -1;
    }
    auto deadline = std::chrono::steady_clock::now() + limit;
    bool outOpen = true, errOpen = true;
    while (outOpen || errOpen) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) {
            ::kill(pid, SIGKILL);
            break;
        }
        pollfd fds[3] = {{outOpen ? out[0] : -1, POLLIN, 0},
                         {errOpen ? err[0] : -1, POLLIN, 0},
                         {in[1], POLLOUT, 0}};
        if (::poll(fds, 3, static_cast<int>(left.count())) < 0) continue;
        char buffer[65536];
        if (fds[0].revents) {
            ssize_t n = ::read(out[0], buffer, sizeof buffer);
            if (n <= 0) outOpen = false; else result.out.append(buffer, n);
        }
        if (fds[1].revents) {
            ssize_t n = ::read(err[0], buffer, sizeof buffer);
            if (n <= 0) errOpen = false; else result.err.append(buffer, n);
        }
        if (in[1] >= 0 && fds[2].revents) {
            // No more than PIPE_BUF, which poll promises room for: a larger blocking write would
            // wait for the child, which may itself wait for us to read its output.
            ssize_t n = ::write(in[1], input.data() + written, std::min<std::size_t>(input.size() - written, PIPE_BUF));
            if (n > 0) written += n;
            if (n <= 0 || written == input.size()) {
                ::close(in[1]);
                in[1] = -1;
            }
        }
    }
    if (in[1] >= 0) ::close(in[1]);
    ::close(out[0]);
    ::close(err[0]);
    int status = 0;
    ::waitpid(pid, &status, 0);
    result.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return result;
}

BackgroundProcess::BackgroundProcess(const std::vector<std::string>& argv) {
    int out[2];
    if (::pipe2(out, O_CLOEXEC)) throw std::runtime_error("pipe failed");
    auto args = Argv(argv);
    m_pid = ::fork();
    if (m_pid == 0) {
        ::setpgid(0, 0);
        ::dup2(out[1], 1);
        ::execvp(args[0], args.data());
        _exit(127);
    }
    ::close(out[1]);
    m_out = out[0];
}

BackgroundProcess::~BackgroundProcess() { Stop(); }

void BackgroundProcess::Stop() {
    if (m_pid > 0) {
        ::kill(-m_pid, SIGTERM);
        ::kill(m_pid, SIGTERM);
        for (int i = 0; i < 100; ++i) {
            if (::waitpid(m_pid, nullptr, WNOHANG) == m_pid) {
                m_pid = -1;
                break;
            }
            ::usleep(20000);
        }
        if (m_pid > 0) {
            ::kill(-m_pid, SIGKILL);
            ::kill(m_pid, SIGKILL);
            ::waitpid(m_pid, nullptr, 0);
            m_pid = -1;
        }
    }
    if (m_out >= 0) ::close(m_out);
    m_out = -1;
}

std::string BackgroundProcess::ReadLine(std::chrono::milliseconds limit) {
    auto deadline = std::chrono::steady_clock::now() + limit;
    for (;;) {
        auto end = m_buffer.find('\n');
        if (end != std::string::npos) {
            std::string line = m_buffer.substr(0, end);
            m_buffer.erase(0, end + 1);
            return line;
        }
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0 || m_out < 0) return {};
        pollfd p{m_out, POLLIN, 0};
        if (::poll(&p, 1, static_cast<int>(left.count())) <= 0) return {};
        char buffer[4096];
        ssize_t n = ::read(m_out, buffer, sizeof buffer);
        if (n <= 0) return {};
        m_buffer.append(buffer, n);
    }
}

TempDir::TempDir() {
    std::string pattern = (std::filesystem::temp_directory_path() / "larkpost-XXXXXX").string();
    if (!::mkdtemp(pattern.data())) throw std::runtime_error("mkdtemp failed");
    m_path = pattern;
}

TempDir::~TempDir() {
    std::error_code ec;
    std::filesystem::remove_all(m_path, ec);
}

std::string ReadFileBytes(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

void WriteFileBytes(const std::string& path, const std::string& bytes) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

}  // namespace larkpost::test
