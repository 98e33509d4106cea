// Larkpost's side of the workloads in bench/run.py. One repetition per process; the result is one
// JSON line on stdout.
//
//   bench_larkpost assemble mode=build|save|send attach=FILE body=FILE [html=FILE] [out=FILE: save]
//                  [format=standard] [port=N pause_ms=0: send, over a session opened first]
//   bench_larkpost send port=N attach=FILE body=FILE [pauses=skip] [pause_ms=N] [ca=FILE: implicit
//   TLS] bench_larkpost session port=N count=N body=FILE [size=N: trim the body to a text of N]
//   [pauses=skip]
//                  [pause_ms=N]
// pause_ms sets MailClient::PauseMilliseconds (0: the client takes no pauses at all).
//   bench_larkpost threads ports=N[,N...] threads=N count=N body=FILE [size=N] [pause_ms=N]
//                  (thread i: count messages over its own MailClient to ports[i % number of ports])
//   bench_larkpost idle port=N
//
// The mandated pause of MailClient::Send (5 ms before every fourth slice of 512 characters) is
// measured apart: the driver puts a timing wrapper around the same real sleep through the
// per-thread Sleep seam, and reports the pauses' count and their measured duration.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <exception>
#include <latch>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "bench_support.h"
#include "larkpost/larkpost.h"
#include "platform/clock.h"
#include "support/mail_message_access.h"

namespace {

using larkpost::MailClient;
using larkpost::MailMessage;
using larkpost::detail::MailMessageAccess;

const char* const kSender = "sender@example.com";
const char* const kRecipient = "rcpt@example.com";

// Sums the pauses that MailClient::Send takes on this thread. With skip set it only counts them:
// a diagnostic run that shows what the pauses cost beyond their own length (a sleeping thread
// and server come back to cold caches and idle cores).
class PauseMeter {
public:
    explicit PauseMeter(bool skip = false) {
        larkpost::detail::SetSleepForTesting([this, skip](int32_t milliseconds) {
            const auto start = bench::Clock::now();
            if (!skip) std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
            m_seconds += bench::SecondsSince(start);
            m_nominalSeconds += milliseconds / 1000.0;
            ++m_count;
        });
    }
    ~PauseMeter() { larkpost::detail::SetSleepForTesting({}); }
    PauseMeter(const PauseMeter&) = delete;
    PauseMeter& operator=(const PauseMeter&) = delete;

    double Seconds() const { return m_seconds; }
    double NominalSeconds() const { return m_nominalSeconds; }
    long Count() const { return m_count; }

private:
    double m_seconds = 0;
    double m_nominalSeconds = 0;
    long m_count = 0;
};

std::shared_ptr<MailMessage> NewMessage(const std::string& body) {
    auto message = std::make_shared<MailMessage>();
    message->FromAddress(kSender);
    message->AddRecipient(kRecipient);
    message->SubjectLine("Larkpost benchmark");
    message->Body(body);
    return message;
}

// Connects a client to the sink on loopback (port, else port=N); EHLO is part of Connect.
// With ca=FILE, implicit TLS verified against it.
std::unique_ptr<MailClient> OpenSession(const bench::Args& args, int port = 0) {
    if (port == 0) port = static_cast<int>(args.Number("port"));
    auto client = std::make_unique<MailClient>();
    if (args.Has("pause_ms"))
        client->PauseMilliseconds(static_cast<int32_t>(args.Number("pause_ms")));
    client->Server("127.0.0.1");
    client->Port(port);
    if (args.Has("ca")) client->Security(larkpost::SECURITY_TLS), client->CaFile(args.Text("ca"));
    client->Timeout = 60;
    client->Connect();
    return client;
}

// Creates the message and builds its text (build), also writes it (save), or sends it over a
// session opened beforehand (send: build included, as a host's first Send of a message pays it).
// Memory growth is VmHWM at the end of the work minus VmHWM before it. With warm=1 a message with
// the body as its attachment goes the same way first, so that the growth is the message's own,
// not the first use of the library's code pages and the allocator's arena.
int Assemble(const bench::Args& args) {
    const std::string mode = args.Text("mode");
    const std::string body = bench::ReadFileBytes(args.Text("body"));
    const std::string html = args.Has("html") ? bench::ReadFileBytes(args.Text("html")) : "";
    std::unique_ptr<MailClient> client;
    if (mode == "send") client = OpenSession(args);  // pause_ms=0 from the runner
    if (args.Has("warm")) {
        auto warm = NewMessage(body);
        warm->AttachFile(args.Text("body"));
        if (client) client->Send(warm);
        MailMessageAccess::BuildBytes(*warm);
    }
    const long baselineKb = bench::PeakRssKb();

    const auto start = bench::Clock::now();
    auto message = NewMessage(body);
    message->StandardFormat(args.Has("format") && args.Text("format") == "standard");
    if (!html.empty()) message->BodyHTML(html);
    message->AttachFile(args.Text("attach"));
    std::size_t encodedBytes = 0;
    if (mode == "build") {
        encodedBytes = MailMessageAccess::BuildBytes(*message).size();
    } else if (mode == "send") {
        client->Send(message);
    } else {
        message->SaveToFile(args.Text("out"));
    }
    const double seconds = bench::SecondsSince(start);
    const long peakKb = bench::PeakRssKb();
    // Asked after the peak is read: the size of the cached text, whatever its form.
    if (mode == "send") encodedBytes = MailMessageAccess::BuildBytes(*message).size();
    if (mode == "save") encodedBytes = bench::FileSize(args.Text("out"));
    if (client) client->Disconnect();

    bench::Result()
        .Set("seconds", seconds)
        .Set("bytes", static_cast<double>(encodedBytes))
        .Set("baseline_kb", static_cast<double>(baselineKb))
        .Set("peak_kb", static_cast<double>(peakKb))
        .Print();
    return 0;
}

int SendOne(const bench::Args& args) {
    auto message = NewMessage(bench::ReadFileBytes(args.Text("body")));
    message->AttachFile(args.Text("attach"));
    const std::size_t bytes = MailMessageAccess::BuildBytes(*message).size();  // warms the cache
    auto client = OpenSession(args);

    PauseMeter pauses(args.Has("pauses") && args.Text("pauses") == "skip");
    const double cpuBefore = bench::CpuSeconds();
    const auto start = bench::Clock::now();
    client->Send(message);
    const double seconds = bench::SecondsSince(start);
    const double cpu = bench::CpuSeconds() - cpuBefore;
    client->Disconnect();

    bench::Result()
        .Set("seconds", seconds)
        .Set("cpu_seconds", cpu)
        .Set("bytes", static_cast<double>(bytes))
        .Set("pauses", static_cast<double>(pauses.Count()))
        .Set("pause_seconds", pauses.Seconds())
        .Set("pause_nominal_seconds", pauses.NominalSeconds())
        .Print();
    return 0;
}

// The longest beginning of body whose message text has at most size characters, so Larkpost's
// small messages match the peers' in size although its quoted-printable encodes more characters.
std::string BodyForMessageSize(const std::string& body, std::size_t size) {
    std::size_t low = 0;
    std::size_t high = body.size();
    while (low < high) {
        const std::size_t middle = (low + high + 1) / 2;
        auto probe = NewMessage(body.substr(0, middle));
        if (MailMessageAccess::BuildBytes(*probe).size() <= size) {
            low = middle;
        } else {
            high = middle - 1;
        }
    }
    return body.substr(0, low);
}

int Session(const bench::Args& args) {
    std::string body = bench::ReadFileBytes(args.Text("body"));
    if (args.Has("size"))
        body = BodyForMessageSize(body, static_cast<std::size_t>(args.Number("size")));
    auto message = NewMessage(body);
    const std::size_t bytes = MailMessageAccess::BuildBytes(*message).size();
    const long count = args.Number("count");
    auto client = OpenSession(args);

    PauseMeter pauses(args.Has("pauses") && args.Text("pauses") == "skip");
    const double cpuBefore = bench::CpuSeconds();
    const auto start = bench::Clock::now();
    for (long i = 0; i < count; ++i) client->Send(message);
    const double seconds = bench::SecondsSince(start);
    const double cpu = bench::CpuSeconds() - cpuBefore;
    client->Disconnect();

    bench::Result()
        .Set("seconds", seconds)
        .Set("cpu_seconds", cpu)
        .Set("messages", static_cast<double>(count))
        .Set("bytes", static_cast<double>(bytes))
        .Set("pauses", static_cast<double>(pauses.Count()))
        .Set("pause_seconds", pauses.Seconds())
        .Set("pause_nominal_seconds", pauses.NominalSeconds())
        .Print();
    return 0;
}

std::vector<int> PortList(const std::string& text) {
    std::vector<int> ports;
    std::istringstream list(text);
    for (std::string port; std::getline(list, port, ',');) ports.push_back(std::stoi(port));
    if (ports.empty()) throw std::runtime_error("ports= names no port");
    return ports;
}

// Several hosts' threads at once: each thread its own message, MailClient and event loop. All
// connect first; the clock runs from releasing them together to the last one's final reply.
// CPU is the whole process's (every thread) over that span.
int Threads(const bench::Args& args) {
    std::string body = bench::ReadFileBytes(args.Text("body"));
    if (args.Has("size"))
        body = BodyForMessageSize(body, static_cast<std::size_t>(args.Number("size")));
    const std::vector<int> ports = PortList(args.Text("ports"));
    const long threadCount = args.Number("threads");
    const long count = args.Number("count");
    std::latch connected(threadCount);
    std::latch go(1);
    std::vector<double> threadSeconds(static_cast<std::size_t>(threadCount));
    std::vector<std::exception_ptr> failures(static_cast<std::size_t>(threadCount));
    std::vector<std::thread> threads;
    for (long t = 0; t < threadCount; ++t) {
        threads.emplace_back([&, t] {
            const auto i = static_cast<std::size_t>(t);
            std::unique_ptr<MailClient> client;
            auto message = NewMessage(body);
            try {
                MailMessageAccess::BuildBytes(*message);
                client = OpenSession(args, ports[i % ports.size()]);
            } catch (...) {
                failures[i] = std::current_exception();
            }
            connected.count_down();
            go.wait();
            if (!client) return;
            try {
                const auto start = bench::Clock::now();
                for (long m = 0; m < count; ++m) client->Send(message);
                threadSeconds[i] = bench::SecondsSince(start);
                client->Disconnect();
            } catch (...) {
                failures[i] = std::current_exception();
            }
        });
    }
    connected.wait();
    const double cpuBefore = bench::CpuSeconds();
    const auto start = bench::Clock::now();
    go.count_down();
    for (auto& thread : threads) thread.join();
    const double seconds = bench::SecondsSince(start);
    const double cpu = bench::CpuSeconds() - cpuBefore;
    for (const auto& failure : failures) {
        if (failure) std::rethrow_exception(failure);
    }
    const auto [fastest, slowest] = std::minmax_element(threadSeconds.begin(), threadSeconds.end());

    bench::Result()
        .Set("seconds", seconds)
        .Set("cpu_seconds", cpu)
        .Set("messages", static_cast<double>(count * threadCount))
        .Set("threads", static_cast<double>(threadCount))
        .Set("fastest_thread_seconds", *fastest)
        .Set("slowest_thread_seconds", *slowest)
        .Print();
    return 0;
}

// A read against a peer that accepts and never writes: the stream's ticker ends it after
// ResponseTimeout + 1 seconds. What matters is the CPU the wait burns meanwhile.
int Idle(const bench::Args& args) {
    larkpost::TcpStream stream;
    stream.Connect("127.0.0.1", static_cast<int32_t>(args.Number("port")));
    stream.ResponseTimeout = 9;
    const double cpuBefore = bench::CpuSeconds();
    const auto start = bench::Clock::now();
    std::string outcome = "no time-out";
    try {
        stream.ReadLine();
    } catch (const larkpost::RaisedError& error) {
        outcome = error.Number() == larkpost::ERROR_RESPONSE_TIMEOUT ? "timeout" : error.what();
    }
    const double seconds = bench::SecondsSince(start);
    const double cpu = bench::CpuSeconds() - cpuBefore;
    bench::Result().Set("seconds", seconds).Set("cpu_seconds", cpu).Set("outcome", outcome).Print();
    return outcome == "timeout" ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        std::fprintf(stderr, "usage: %s assemble|send|session|threads|idle key=value...\n",
                     argv[0]);
        return 2;
    }
    try {
        const std::string workload = argv[1];
        const bench::Args args(argc, argv, 2);
        if (workload == "assemble") return Assemble(args);
        if (workload == "send") return SendOne(args);
        if (workload == "session") return Session(args);
        if (workload == "threads") return Threads(args);
        if (workload == "idle") return Idle(args);
        std::fprintf(stderr, "unknown workload %s\n", workload.c_str());
        return 2;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "bench_larkpost: %s\n", error.what());
        return 1;
    }
}
