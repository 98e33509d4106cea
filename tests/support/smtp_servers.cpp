#include "support/smtp_servers.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "platform/host_kit.h"
#include "platform/posix_socket_control.h"

namespace larkpost::test {

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

std::vector<std::string> SortedFiles(const std::string& dir, const std::string& suffix) {
    std::vector<std::string> files;
    std::error_code ec;
    for (const auto& entry : fs::directory_iterator(dir, ec)) {
        const std::string name = entry.path().filename().string();
        if (name.size() >= suffix.size() && name.compare(name.size() - suffix.size(), suffix.size(), suffix) == 0)
            files.push_back(entry.path().string());
    }
    std::sort(files.begin(), files.end());
    return files;
}

// The sink names its dumps with a random part, so their order is that of their writing.
std::vector<std::string> FilesByWriteTime(const std::string& dir) {
    std::vector<std::pair<fs::file_time_type, std::string>> files;
    std::error_code ec;
    for (const auto& entry : fs::directory_iterator(dir, ec)) {
        if (entry.is_regular_file(ec)) files.emplace_back(entry.last_write_time(ec), entry.path().string());
    }
    std::sort(files.begin(), files.end());
    std::vector<std::string> paths;
    for (auto& file : files) paths.push_back(std::move(file.second));
    return paths;
}

// Polls `read` until it gives at least `count` messages or the limit passes.
template <typename Read>
std::vector<StoredMessage> PollMessages(Read read, std::size_t count, std::chrono::milliseconds limit) {
    const auto deadline = Clock::now() + limit;
    std::vector<StoredMessage> messages = read();
    while (messages.size() < count && Clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        messages = read();
    }
    return messages;
}

}  // namespace

namespace {

// A real control that also keeps a copy of every write.
class RecordingControl final : public detail::SocketControl {
public:
    RecordingControl(std::shared_ptr<std::vector<std::string>> writes, std::optional<std::u16string> hostName)
        : m_inner(detail::PosixSocketControl::Create()), m_writes(std::move(writes)), m_hostName(std::move(hostName)) {}

    void SetEvents(detail::SocketControlEvents* sink) override { m_inner->SetEvents(sink); }
    void Protocol(int32_t value) override { m_inner->Protocol(value); }
    void LocalPort(int32_t value) override { m_inner->LocalPort(value); }
    void Connect(const std::u16string& host, int32_t port) override { m_inner->Connect(host, port); }
    int16_t State() override { return m_inner->State(); }
    void Close() override { m_inner->Close(); }
    void SendData(std::string_view bytes) override {
        m_writes->emplace_back(bytes);
        m_inner->SendData(bytes);
    }
    void GetData(std::u16string& data, int32_t type, int32_t maxLen) override { m_inner->GetData(data, type, maxLen); }
    std::u16string LocalHostName() override { return m_hostName ? *m_hostName : m_inner->LocalHostName(); }
    std::u16string LocalIP() override { return m_inner->LocalIP(); }

private:
    std::shared_ptr<detail::PosixSocketControl> m_inner;
    std::shared_ptr<std::vector<std::string>> m_writes;
    std::optional<std::u16string> m_hostName;
};

}  // namespace

WireRecorder::WireRecorder(std::optional<std::u16string> localHostName) {
    detail::HostKitGlobal().Services().SetSocketControlFactoryForTesting(
        [writes = m_writes, name = std::move(localHostName)] {
            return std::make_shared<RecordingControl>(writes, name);
        });
}

WireRecorder::~WireRecorder() { detail::HostKitGlobal().Services().SetSocketControlFactoryForTesting({}); }

ScriptedPeer& Greet(ScriptedPeer& peer, std::string ehloReply) {
    return peer.Send("220 peer.test ESMTP ready\r\n").Reply(std::move(ehloReply));
}

int32_t FreeLoopbackPort() {
    int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof addr;
    if (fd < 0 || ::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
        ::getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len) != 0) {
        if (fd >= 0) ::close(fd);
        throw std::runtime_error("no free loopback port");
    }
    ::close(fd);
    return ntohs(addr.sin_port);
}

bool WaitUntilListening(int32_t port, std::chrono::milliseconds limit) {
    const auto deadline = Clock::now() + limit;
    for (;;) {
        int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in addr{};
        addr.sin_family = AF_INET;
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        addr.sin_port = htons(static_cast<uint16_t>(port));
        const bool up = ::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0;
        ::close(fd);
        if (up) return true;
        if (Clock::now() >= deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
}

AiosmtpdServer::AiosmtpdServer() : AiosmtpdServer(Options{}) {}

AiosmtpdServer::AiosmtpdServer(Options options) {
    std::vector<std::string> argv = {kSystemPython, std::string(LARKPOST_TESTS_DIR) + "/servers/smtp_server.py",
                                     "--dir", m_dir.Path(), "--port", "0", "--auth", options.mechanisms};
    if (options.user) {
        argv.insert(argv.end(), {"--auth-user", *options.user, "--auth-password", options.password});
    }
    if (options.sizeLimit) argv.insert(argv.end(), {"--size", std::to_string(*options.sizeLimit)});
    m_process = std::make_unique<BackgroundProcess>(argv);
    const std::string line = m_process->ReadLine(std::chrono::seconds(20));
    m_port = line.empty() ? 0 : std::stoi(line);
    if (m_port <= 0) throw std::runtime_error("aiosmtpd did not start (no port on stdout)");
}

AiosmtpdServer::~AiosmtpdServer() { m_process->Stop(); }

std::vector<StoredMessage> AiosmtpdServer::MessagesNow() const {
    std::vector<StoredMessage> messages;
    // The envelope file is written last, so its presence means the message is complete.
    for (const std::string& envelopePath : SortedFiles(m_dir.Path(), ".envelope")) {
        StoredMessage message;
        std::istringstream envelope(ReadFileBytes(envelopePath));
        std::string line;
        while (std::getline(envelope, line)) {
            const auto space = line.find(' ');
            const std::string key = line.substr(0, space);
            const std::string value = space == std::string::npos ? std::string() : line.substr(space + 1);
            if (key == "mail_from") message.mailFrom = value;
            else if (key == "rcpt_to") message.rcptTos.push_back(value);
            else if (key == "auth_mechanism") message.authMechanism = value;
            else if (key == "auth_login") message.authLogin = value;
        }
        const std::string base = envelopePath.substr(0, envelopePath.size() - std::string(".envelope").size());
        message.content = ReadFileBytes(base + ".eml");
        messages.push_back(std::move(message));
    }
    return messages;
}

std::vector<StoredMessage> AiosmtpdServer::Messages(std::size_t count, std::chrono::milliseconds limit) const {
    return PollMessages([this] { return MessagesNow(); }, count, limit);
}

bool SmtpSink::Available() { return ::access("/usr/sbin/smtp-sink", X_OK) == 0 && ::geteuid() == 0; }

SmtpSink::SmtpSink() {
    // The sink drops its privileges to nobody before it writes the dumps.
    ::chmod(m_dir.Path().c_str(), 0777);
    m_port = FreeLoopbackPort();
    m_process = std::make_unique<BackgroundProcess>(std::vector<std::string>{
        "/usr/sbin/smtp-sink", "-u", "nobody", "-d", m_dir.Path() + "/%M.", "127.0.0.1:" + std::to_string(m_port),
        "100"});
    if (!WaitUntilListening(m_port, std::chrono::seconds(10))) throw std::runtime_error("smtp-sink did not start");
}

SmtpSink::~SmtpSink() { m_process->Stop(); }

std::vector<StoredMessage> SmtpSink::Messages(std::size_t count, std::chrono::milliseconds limit) const {
    auto read = [this] {
        std::vector<StoredMessage> messages;
        for (const std::string& path : FilesByWriteTime(m_dir.Path())) {
            const std::string dump = ReadFileBytes(path);
            // The sink's own header ends with the three lines of its Received field.
            const auto received = dump.find("\nReceived: ");
            if (received == std::string::npos) continue;
            auto end = dump.find('\n', received + 1);
            for (int continuation = 0; continuation < 2 && end != std::string::npos; ++continuation)
                end = dump.find('\n', end + 1);
            // A dump is complete once the message and the sink's closing empty line are in it.
            if (end == std::string::npos || dump.size() < 2 || dump.compare(dump.size() - 2, 2, "\n\n") != 0)
                continue;
            StoredMessage message;
            std::istringstream head(dump.substr(0, received + 1));
            std::string line;
            while (std::getline(head, line)) {
                if (line.rfind("X-Mail-Args: ", 0) == 0) message.mailFrom = line.substr(13);
                else if (line.rfind("X-Rcpt-Args: ", 0) == 0) message.rcptTos.push_back(line.substr(13));
            }
            // The sink writes each line with LF alone; the text on the wire had CR LF throughout.
            const std::string body = dump.substr(end + 1, dump.size() - (end + 1) - 1);
            for (char c : body) {
                if (c == '\n') message.content += '\r';
                message.content += c;
            }
            messages.push_back(std::move(message));
        }
        return messages;
    };
    PollMessages(read, count, limit);
    // The sink may still be writing the last dump; one more look after it has settled.
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    return read();
}

}  // namespace larkpost::test
