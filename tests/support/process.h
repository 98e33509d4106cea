// Child processes for tests: run a command to its end, or keep a server running for a test.
#ifndef LARKPOST_TESTS_PROCESS_H
#define LARKPOST_TESTS_PROCESS_H

#include <chrono>
#include <string>
#include <sys/types.h>
#include <vector>

namespace larkpost::test {

struct ProcessResult {
    int exitCode = -1;  // -1 when it was killed or timed out
    std::string out;
    std::string err;
};

// Runs argv[0] with the arguments, feeding input on stdin; kills it after the limit.
ProcessResult RunProcess(const std::vector<std::string>& argv, const std::string& input = {},
                         std::chrono::milliseconds limit = std::chrono::seconds(60));

// Debian's Python (aiosmtpd lives there, not in other interpreters on PATH).
inline constexpr const char* kSystemPython = "/usr/bin/python3";

// A background process whose stdout is read line by line; killed when this object goes.
class BackgroundProcess {
public:
    explicit BackgroundProcess(const std::vector<std::string>& argv);
    ~BackgroundProcess();
    BackgroundProcess(const BackgroundProcess&) = delete;
    BackgroundProcess& operator=(const BackgroundProcess&) = delete;

    // The next line of its stdout, or empty after the limit or at its end.
    std::string ReadLine(std::chrono::milliseconds limit = std::chrono::seconds(20));
    void Stop();
    pid_t Pid() const { return m_pid; }

private:
    pid_t m_pid = -1;
    int m_out = -1;
    std::string m_buffer;
};

// A fresh empty directory under the system's temporary directory, removed with this object.
class TempDir {
public:
    TempDir();
    ~TempDir();
    const std::string& Path() const { return m_path; }
    std::string File(const std::string& name) const { return m_path + "/" + name; }

private:
    std::string m_path;
};

std::string ReadFileBytes(const std::string& path);
void WriteFileBytes(const std::string& path, const std::string& bytes);

}  // namespace larkpost::test

#endif
