// The limits the workloads are compared with: what the bare work costs on this machine.
//
//   bench_limits assemble mode=base64|memcpy attach=FILE [out=FILE]
//       read the attachment, then a table Base64 of its bytes (CR LF every 76) or a memcpy of
//       them into a buffer allocated once; "seconds" covers read and work, "work_seconds" the
//       work alone.
//   bench_limits send port=N message=FILE
//   bench_limits session port=N count=N message=FILE
//       a minimal lock-step SMTP client on a raw socket: MAIL FROM, RCPT TO, DATA, then the text
//       and the terminating line in one write; four round trips a message.
//   bench_limits pagefaults mib=N
//   bench_limits wakeup count=N
//       one-byte round trips between two processes over a socket pair, both on one core, then
//       on two: what the lock-step dialogue pays when client and server wake each other across
//       cores.
#include <sched.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <string>

#include "bench_support.h"
#include "reference_base64.h"

namespace {

int Assemble(const bench::Args& args) {
    const std::string mode = args.Text("mode");
    const long baselineKb = bench::PeakRssKb();
    const auto start = bench::Clock::now();
    const std::string input = bench::ReadFileBytes(args.Text("attach"));
    const auto workStart = bench::Clock::now();
    const std::size_t size = mode == "base64" ? bench::ReferenceBase64Length(input.size()) : input.size();
    // Not value-initialised: the work itself touches every page, as an encoder's output does.
    std::unique_ptr<char[]> output(new char[size]);
    if (mode == "base64") {
        bench::ReferenceBase64(input, output.get());
    } else {
        std::memcpy(output.get(), input.data(), size);
    }
    const double workSeconds = bench::SecondsSince(workStart);
    const double seconds = bench::SecondsSince(start);
    // Keeps the output alive and observed, so the work cannot be dropped; out= writes it for
    // bench/test_run.py, which checks it against Python's encoder.
    volatile char last = size ? output[size - 1] : 0;
    (void)last;
    if (args.Has("out")) bench::WriteFileBytes(args.Text("out"), std::string(output.get(), size));
    bench::Result()
        .Set("seconds", seconds)
        .Set("work_seconds", workSeconds)
        .Set("bytes", static_cast<double>(size))
        .Set("baseline_kb", static_cast<double>(baselineKb))
        .Print();
    return 0;
}

// What a first touch of fresh memory costs here: anonymous pages, touched once, then again.
// On a virtual machine whose host backs guest memory lazily this dominates every workload that
// allocates large buffers, so the report shows it next to the machine.
int PageFaults(const bench::Args& args) {
    const std::size_t size = static_cast<std::size_t>(args.Number("mib")) << 20;
    const long pageSize = sysconf(_SC_PAGESIZE);
    auto* memory = static_cast<char*>(mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    if (memory == MAP_FAILED) throw std::runtime_error("mmap failed");
    auto start = bench::Clock::now();
    std::memset(memory, 1, size);
    const double first = bench::SecondsSince(start);
    start = bench::Clock::now();
    std::memset(memory, 2, size);
    const double second = bench::SecondsSince(start);
    munmap(memory, size);
    const double pages = static_cast<double>(size) / static_cast<double>(pageSize);
    bench::Result()
        .Set("seconds", first)
        .Set("first_touch_us_per_page", first / pages * 1e6)
        .Set("second_touch_us_per_page", second / pages * 1e6)
        .Print();
    return 0;
}

void PinToCore(int core) {
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(core, &set);
    if (sched_setaffinity(0, sizeof set, &set) != 0) throw std::runtime_error("cannot pin to a core");
}

// Seconds per round trip between this process on core 0 and a child on `otherCore`.
double RoundTripSeconds(int otherCore, long count) {
    int pair[2];
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, pair) != 0) throw std::runtime_error("socketpair failed");
    char byte = 'x';
    const pid_t child = fork();
    if (child == 0) {
        close(pair[0]);
        PinToCore(otherCore);
        for (long i = 0; i < count; ++i) {
            if (read(pair[1], &byte, 1) != 1 || write(pair[1], &byte, 1) != 1) _exit(1);
        }
        _exit(0);
    }
    close(pair[1]);
    PinToCore(0);
    const auto start = bench::Clock::now();
    for (long i = 0; i < count; ++i) {
        if (write(pair[0], &byte, 1) != 1 || read(pair[0], &byte, 1) != 1) break;
    }
    const double seconds = bench::SecondsSince(start);
    close(pair[0]);
    int status = 0;
    waitpid(child, &status, 0);
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) throw std::runtime_error("round-trip child failed");
    return seconds / static_cast<double>(count);
}

int Wakeup(const bench::Args& args) {
    const long count = args.Number("count");
    const double sameCore = RoundTripSeconds(0, count);
    const double acrossCores = sysconf(_SC_NPROCESSORS_ONLN) > 1 ? RoundTripSeconds(1, count) : sameCore;
    bench::Result()
        .Set("seconds", (sameCore + acrossCores) * static_cast<double>(count))
        .Set("same_core_us", sameCore * 1e6)
        .Set("across_cores_us", acrossCores * 1e6)
        .Print();
    return 0;
}

class RawSmtp {
public:
    explicit RawSmtp(int port) : m_fd(bench::ConnectLoopback(port)) {
        Expect(bench::ReadSmtpReply(m_fd, m_pending), 220);
        Command("EHLO localhost\r\n", 250);
    }
    ~RawSmtp() {
        try {
            Command("QUIT\r\n", 221);
        } catch (const std::exception&) {
            // Closing anyway.
        }
        close(m_fd);
    }
    RawSmtp(const RawSmtp&) = delete;
    RawSmtp& operator=(const RawSmtp&) = delete;

    void Transfer(const std::string& textWithTerminator) {
        Command("MAIL FROM:<sender@example.com>\r\n", 250);
        Command("RCPT TO:<rcpt@example.com>\r\n", 250);
        Command("DATA\r\n", 354);
        Command(textWithTerminator, 250);
    }

private:
    void Command(const std::string& line, int expected) {
        bench::WriteAll(m_fd, line.data(), line.size());
        Expect(bench::ReadSmtpReply(m_fd, m_pending), expected);
    }
    static void Expect(int code, int expected) {
        if (code != expected) {
            throw std::runtime_error("reply " + std::to_string(code) + ", expected " + std::to_string(expected));
        }
    }

    int m_fd;
    std::string m_pending;
};

int SendMessages(const bench::Args& args, long count) {
    std::string text = bench::ReadFileBytes(args.Text("message"));
    const std::size_t bytes = text.size();
    if (text.size() < 2 || text.compare(text.size() - 2, 2, "\r\n") != 0) text += "\r\n";
    text += ".\r\n";
    RawSmtp session(static_cast<int>(args.Number("port")));

    const double cpuBefore = bench::CpuSeconds();
    const auto start = bench::Clock::now();
    for (long i = 0; i < count; ++i) session.Transfer(text);
    const double seconds = bench::SecondsSince(start);
    const double cpu = bench::CpuSeconds() - cpuBefore;

    bench::Result()
        .Set("seconds", seconds)
        .Set("cpu_seconds", cpu)
        .Set("messages", static_cast<double>(count))
        .Set("bytes", static_cast<double>(bytes))
        .Print();
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        std::fprintf(stderr, "usage: %s assemble|send|session|pagefaults|wakeup key=value...\n", argv[0]);
        return 2;
    }
    try {
        const std::string workload = argv[1];
        const bench::Args args(argc, argv, 2);
        if (workload == "assemble") return Assemble(args);
        if (workload == "send") return SendMessages(args, 1);
        if (workload == "session") return SendMessages(args, args.Number("count"));
        if (workload == "pagefaults") return PageFaults(args);
        if (workload == "wakeup") return Wakeup(args);
        std::fprintf(stderr, "unknown workload %s\n", workload.c_str());
        return 2;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "bench_limits: %s\n", error.what());
        return 1;
    }
}
