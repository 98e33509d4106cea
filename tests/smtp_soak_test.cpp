// Soak: 10,000 messages through one MailClient in 100 reconnecting sessions of 100, against a
// real server on loopback (Postfix's smtp-sink, or aiosmtpd where the sink cannot run). Every
// message must arrive, and the client's memory must stay flat once warmed up. Under Valgrind
// the run shrinks to a few sessions: there it looks for leaks, not for drift.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <set>
#include <stdexcept>
#include <thread>

#include <sys/stat.h>
#include <string>
#include <vector>

#include "larkpost/error.h"
#include "larkpost/mail_client.h"
#include "larkpost/mail_message.h"
#include "support/mail_client_access.h"
#include "support/process.h"
#include "support/smtp_servers.h"
#include "support/under_valgrind.h"

namespace larkpost::test {
namespace {

#if defined(__SANITIZE_ADDRESS__)
constexpr bool kAddressSanitizer = true;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
constexpr bool kAddressSanitizer = true;
#else
constexpr bool kAddressSanitizer = false;
#endif
#else
constexpr bool kAddressSanitizer = false;
#endif

// Resident memory of this process in KiB, from /proc.
long ResidentKiB() {
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.rfind("VmRSS:", 0) == 0) return std::stol(line.substr(6));
    }
    return -1;
}

std::shared_ptr<MailMessage> MakeMessage(int session, int index) {
    auto message = std::make_shared<MailMessage>();
    message->FromAddress("soak@larkpost.test");
    message->AddRecipient("sink@larkpost.test");
    message->SubjectLine("soak " + std::to_string(session) + "-" + std::to_string(index));
    message->Body("Message " + std::to_string(index) + " of session " + std::to_string(session) + ".\r\n");
    return message;
}

// Postfix's smtp-sink dumping each transaction to a file of its own. The subjects of the complete
// dumps are read once each, however often the directory is looked at.
class DumpingSink {
public:
    DumpingSink() {
        ::chmod(m_dir.Path().c_str(), 0777);  // the sink writes as nobody
        m_port = FreeLoopbackPort();
        m_process = std::make_unique<BackgroundProcess>(std::vector<std::string>{
            "/usr/sbin/smtp-sink", "-u", "nobody", "-d", m_dir.Path() + "/%M.",
            "127.0.0.1:" + std::to_string(m_port), "100"});
        if (!WaitUntilListening(m_port, std::chrono::seconds(10))) throw std::runtime_error("smtp-sink did not start");
    }
    ~DumpingSink() { m_process->Stop(); }
    int32_t Port() const { return m_port; }

    // The subject lines of the stored messages; waits (bounded) until there are count of them.
    std::multiset<std::string> Subjects(std::size_t count, std::chrono::seconds limit) {
        const auto deadline = std::chrono::steady_clock::now() + limit;
        for (;;) {
            for (const auto& entry : std::filesystem::directory_iterator(m_dir.Path())) {
                const std::string path = entry.path().string();
                if (m_complete.count(path)) continue;
                const std::string dump = ReadFileBytes(path);
                if (dump.size() < 2 || dump.compare(dump.size() - 2, 2, "\n\n") != 0) continue;  // still being written
                m_complete.insert(path);
                const auto at = dump.find("Subject: ");
                m_subjects.insert(at == std::string::npos ? "" : dump.substr(at, dump.find('\n', at) - at));
            }
            if (m_subjects.size() >= count || std::chrono::steady_clock::now() > deadline) return m_subjects;
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        }
    }

private:
    TempDir m_dir;
    int32_t m_port = 0;
    std::unique_ptr<BackgroundProcess> m_process;
    std::set<std::string> m_complete;
    std::multiset<std::string> m_subjects;
};

// The real server of the run: the sink where it can run (as root), aiosmtpd elsewhere.
class SoakServer {
public:
    SoakServer() {
        if (SmtpSink::Available()) {
            m_sink = std::make_unique<DumpingSink>();
        } else {
            m_aiosmtpd = std::make_unique<AiosmtpdServer>();
        }
    }
    int32_t Port() const { return m_sink ? m_sink->Port() : m_aiosmtpd->Port(); }
    const char* Name() const { return m_sink ? "smtp-sink" : "aiosmtpd"; }
    std::multiset<std::string> Subjects(std::size_t count) {
        const auto limit = std::chrono::seconds(60);
        if (m_sink) return m_sink->Subjects(count, limit);
        std::multiset<std::string> subjects;
        for (const StoredMessage& message : m_aiosmtpd->Messages(count, limit)) {
            const auto at = message.content.find("Subject: ");
            subjects.insert(at == std::string::npos ? "" : message.content.substr(at, message.content.find('\r', at) - at));
        }
        return subjects;
    }

private:
    std::unique_ptr<DumpingSink> m_sink;
    std::unique_ptr<AiosmtpdServer> m_aiosmtpd;
};

TEST(Soak, TenThousandMessagesInReconnectingSessionsAllArriveWithFlatMemory) {
    // LARKPOST_SOAK_SESSIONS makes a longer (or shorter) run by hand.
    const char* requested = std::getenv("LARKPOST_SOAK_SESSIONS");
    const int sessions = UnderValgrind() ? 3 : (requested ? std::max(1, std::atoi(requested)) : 100);
    const int perSession = UnderValgrind() ? 10 : 100;
    const int warmUpSessions = std::min(10, sessions);
    const long allowedGrowthKiB = 2048;

    SoakServer server;
    MailClient client;
    PointAt(client, server.Port());
    client.Timeout = 10;

    long warmedUp = -1;
    long highest = -1;
    const auto start = std::chrono::steady_clock::now();
    for (int session = 0; session < sessions; ++session) {
        ASSERT_NO_THROW(client.Connect()) << "session " << session;
        for (int index = 0; index < perSession; ++index) {
            ASSERT_NO_THROW(client.Send(MakeMessage(session, index))) << "message " << session << "-" << index;
        }
        ASSERT_NO_THROW(client.Disconnect());
        if (session + 1 == warmUpSessions) warmedUp = ResidentKiB();
        if (session + 1 > warmUpSessions) highest = std::max(highest, ResidentKiB());
    }
    const auto elapsed = std::chrono::steady_clock::now() - start;

    const std::size_t total = static_cast<std::size_t>(sessions) * perSession;
    const auto collecting = std::chrono::steady_clock::now();
    const std::multiset<std::string> subjects = server.Subjects(total);
    std::printf("soak: collected %zu subjects in %.1f s\n", subjects.size(),
                std::chrono::duration<double>(std::chrono::steady_clock::now() - collecting).count());
    ASSERT_EQ(subjects.size(), total) << server.Name() << " stored fewer messages than were sent";
    // Each message once: every subject of the run is there exactly one time.
    for (int session = 0; session < sessions; ++session) {
        for (int index = 0; index < perSession; index += 37) {
            const std::string subject = "Subject: soak " + std::to_string(session) + "-" + std::to_string(index);
            EXPECT_EQ(subjects.count(subject), 1u) << subject;
        }
    }
    EXPECT_EQ(std::set<std::string>(subjects.begin(), subjects.end()).size(), total) << "a message arrived twice";

    RecordProperty("messages", static_cast<int>(total));
    RecordProperty("seconds", static_cast<int>(std::chrono::duration_cast<std::chrono::seconds>(elapsed).count()));
    std::printf("soak: %zu messages through %s in %.1f s; VmRSS %ld KiB after warm-up, at most %ld KiB later\n",
                total, server.Name(), std::chrono::duration<double>(elapsed).count(), warmedUp, highest);
    // Allocator shadows (ASan's quarantine) and Valgrind's own bookkeeping make RSS meaningless.
    if (!kAddressSanitizer && !UnderValgrind() && highest >= 0) {
        EXPECT_LE(highest - warmedUp, allowedGrowthKiB) << "memory grew while the client ran";
    }
}

}  // namespace
}  // namespace larkpost::test
