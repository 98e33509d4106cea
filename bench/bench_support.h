// Shared pieces of the benchmark drivers: clocks, process memory, file input, loopback sockets and
// the one-line JSON result that bench/run.py collects from every driver.
//
// A driver runs one repetition of one workload per process, so the peak memory the parent reads
// from wait4() belongs to that workload alone.
#ifndef LARKPOST_BENCH_SUPPORT_H
#define LARKPOST_BENCH_SUPPORT_H

#include <chrono>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace bench {

using Clock = std::chrono::steady_clock;

double SecondsSince(Clock::time_point start);

// User plus system CPU time of this process so far.
double CpuSeconds();

// Kilobytes from /proc/self/status: the high-water mark (VmHWM) and the current resident size.
long PeakRssKb();
long CurrentRssKb();

std::string ReadFileBytes(const std::string& path);
void WriteFileBytes(const std::string& path, const std::string& bytes);
std::size_t FileSize(const std::string& path);

// A connected blocking TCP socket to 127.0.0.1:port; throws std::runtime_error on failure.
int ConnectLoopback(int port);
void WriteAll(int fd, const char* data, std::size_t size);
// Reads one SMTP reply (up to the line whose fourth character is a space) and returns its code.
int ReadSmtpReply(int fd, std::string& pending);

// Arguments of the form key=value, after the workload name.
class Args {
public:
    Args(int argc, char** argv, int first);
    std::string Text(const std::string& key) const;
    long Number(const std::string& key) const;
    bool Has(const std::string& key) const { return m_values.count(key) != 0; }

private:
    std::map<std::string, std::string> m_values;
};

// The result of one repetition, printed as one JSON object on one line of stdout.
class Result {
public:
    Result& Set(const std::string& key, double value);
    Result& Set(const std::string& key, const std::string& value);
    // Prints the fields and, unless set, the process's peak resident size so far (peak_kb).
    void Print() const;

private:
    void PrintFields() const;

    std::vector<std::pair<std::string, std::string>> m_fields;
};

}  // namespace bench

#endif
