// Child processes and files for tests.
#ifndef LARKPOST_TESTS_PROCESS_H
#define LARKPOST_TESTS_PROCESS_H

#include <sys/types.h>

#include <chrono>
#include <string>
#include <vector>

namespace larkpost::test {

inline constexpr const char* kSystemPython = "/usr/bin/python3";  // Debian's, with aiosmtpd

// Starts argv in a process group of its own, with stdin, stdout and stderr from these files.
pid_t Spawn(const std::vector<std::string>& argv, const std::vector<std::string>& files = {});
// Waits for pid; at the limit signals its group, 5 s later kills it. The exit status or -1.
int WaitFor(pid_t pid, std::chrono::milliseconds limit, int signal);

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

// The directory, ending in "/", of this run's TLS material (support/make_certificates.sh), made
// at the first call: ca.pem; server, wrongname, expired, selfsigned (.pem and .key).
const std::string& Certificates();

std::string ReadFileBytes(const std::string& path);
void WriteFileBytes(const std::string& path, const std::string& bytes);

}  // namespace larkpost::test

#endif
