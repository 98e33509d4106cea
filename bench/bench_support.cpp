#include "bench_support.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <stdexcept>

namespace bench {

double SecondsSince(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

double CpuSeconds() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    auto seconds = [](const timeval& t) { return static_cast<double>(t.tv_sec) + t.tv_usec / 1e6; };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

static long StatusFieldKb(const char* field) {
    std::ifstream status("/proc/self/status");
    std::string line;
    const std::size_t length = std::strlen(field);
    while (std::getline(status, line)) {
        if (line.compare(0, length, field) == 0) return std::atol(line.c_str() + length);
    }
    return -1;
}

long PeakRssKb() { return StatusFieldKb("VmHWM:"); }
long CurrentRssKb() { return StatusFieldKb("VmRSS:"); }

std::string ReadFileBytes(const std::string& path) {
    // Sized once from fstat and read straight in: the limits read their input this way, so the
    // read must cost no more than the one copy the kernel makes.
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) throw std::runtime_error("cannot read " + path);
    struct stat info {};
    if (fstat(fd, &info) != 0) {
        close(fd);
        throw std::runtime_error("cannot stat " + path);
    }
    std::string bytes(static_cast<std::size_t>(info.st_size), '\0');
    std::size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t got = read(fd, bytes.data() + done, bytes.size() - done);
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) break;
        done += static_cast<std::size_t>(got);
    }
    close(fd);
    bytes.resize(done);
    return bytes;
}

void WriteFileBytes(const std::string& path, const std::string& bytes) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    if (!out) throw std::runtime_error("cannot write " + path);
}

std::size_t FileSize(const std::string& path) {
    struct stat info {};
    if (stat(path.c_str(), &info) != 0) throw std::runtime_error("cannot stat " + path);
    return static_cast<std::size_t>(info.st_size);
}

int ConnectLoopback(int port) {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) throw std::runtime_error("socket failed");
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        close(fd);
        throw std::runtime_error("connect to 127.0.0.1:" + std::to_string(port) + " failed");
    }
    const int on = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    return fd;
}

void WriteAll(int fd, const char* data, std::size_t size) {
    while (size > 0) {
        const ssize_t written = write(fd, data, size);
        if (written < 0) {
            if (errno == EINTR) continue;
            throw std::runtime_error(std::string("write failed: ") + std::strerror(errno));
        }
        data += written;
        size -= static_cast<std::size_t>(written);
    }
}

int ReadSmtpReply(int fd, std::string& pending) {
    // Bounded: a reply longer than 64 KB or a peer that closes ends the read with an error.
    for (;;) {
        std::size_t lineEnd;
        while ((lineEnd = pending.find("\r\n")) != std::string::npos) {
            const std::string line = pending.substr(0, lineEnd);
            pending.erase(0, lineEnd + 2);
            if (line.size() < 4 || line[3] == ' ') return std::atoi(line.substr(0, 3).c_str());
        }
        if (pending.size() > 65536) throw std::runtime_error("reply too long");
        char chunk[4096];
        const ssize_t got = read(fd, chunk, sizeof chunk);
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) throw std::runtime_error("server closed the connection");
        pending.append(chunk, static_cast<std::size_t>(got));
    }
}

Args::Args(int argc, char** argv, int first) {
    for (int i = first; i < argc; ++i) {
        const std::string argument = argv[i];
        const auto equals = argument.find('=');
        if (equals == std::string::npos) throw std::runtime_error("expected key=value: " + argument);
        m_values[argument.substr(0, equals)] = argument.substr(equals + 1);
    }
}

std::string Args::Text(const std::string& key) const {
    const auto found = m_values.find(key);
    if (found == m_values.end()) throw std::runtime_error("missing argument " + key);
    return found->second;
}

long Args::Number(const std::string& key) const { return std::stol(Text(key)); }

Result& Result::Set(const std::string& key, double value) {
    char text[64];
    std::snprintf(text, sizeof text, "%.9g", value);
    m_fields.emplace_back(key, text);
    return *this;
}

Result& Result::Set(const std::string& key, const std::string& value) {
    std::string quoted = "\"";
    for (const char c : value) {
        if (c == '"' || c == '\\') quoted += '\\';
        if (static_cast<unsigned char>(c) >= 0x20) quoted += c;
    }
    m_fields.emplace_back(key, quoted + "\"");
    return *this;
}

void Result::Print() const {
    // The process's own high-water mark: after exec it covers this program alone, where the
    // parent's ru_maxrss would also count the image of the process that forked it.
    // A driver that reads its peak before some later step sets peak_kb itself.
    Result withPeak = *this;
    const bool set = std::any_of(m_fields.begin(), m_fields.end(),
                                 [](const auto& field) { return field.first == "peak_kb"; });
    if (!set) withPeak.Set("peak_kb", static_cast<double>(PeakRssKb()));
    withPeak.PrintFields();
}

void Result::PrintFields() const {
    std::string line = "{";
    for (std::size_t i = 0; i < m_fields.size(); ++i) {
        if (i) line += ", ";
        line += "\"" + m_fields[i].first + "\": " + m_fields[i].second;
    }
    line += "}\n";
    std::fputs(line.c_str(), stdout);
    std::fflush(stdout);
}

}  // namespace bench
