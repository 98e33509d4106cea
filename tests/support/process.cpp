#include "support/process.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <future>
#include <sstream>
#include <stdexcept>

namespace larkpost::test {

pid_t Spawn(const std::vector<std::string>& argv, const std::vector<std::string>& files) {
    std::vector<char*> args;
    for (const std::string& arg : argv) args.push_back(const_cast<char*>(arg.c_str()));
    args.push_back(nullptr);
    const pid_t pid = ::fork();
    if (pid == 0) {
        ::setpgid(0, 0);
        for (int fd = 0; fd < static_cast<int>(files.size()); ++fd)
            ::dup2(::open(files[fd].c_str(), fd ? O_WRONLY | O_CREAT : O_RDONLY, 0600), fd);
        ::execvp(args[0], args.data());
        ::_exit(127);
    }
    return pid;
}

int WaitFor(pid_t pid, std::chrono::milliseconds limit, int signal) {
    auto ended =
        std::async(std::launch::async, [pid, s = 0]() mutable { return ::waitpid(pid, &s, 0), s; });
    for (int next : {signal, SIGKILL}) {
        if (ended.wait_for(limit) == std::future_status::ready) break;
        ::kill(-pid, next);
        limit = std::chrono::seconds(5);
    }
    const int status = ended.get();
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TempDir::TempDir() : m_path(std::filesystem::temp_directory_path() / "larkpost-XXXXXX") {
    if (!::mkdtemp(m_path.data())) throw std::runtime_error("mkdtemp failed");
}

TempDir::~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(m_path, ignored);
}

const std::string& Certificates() {
    static const TempDir dir;
    static const std::string path =
        WaitFor(Spawn({"/bin/sh", LARKPOST_TESTS_DIR "/support/make_certificates.sh", dir.Path()}),
                std::chrono::seconds(60), SIGKILL) == 0
            ? dir.Path() + "/"
            : "[no certificates]/";
    return path;
}

std::string ReadFileBytes(const std::string& path) {
    std::ostringstream bytes;
    bytes << std::ifstream(path, std::ios::binary).rdbuf();
    return bytes.str();
}

void WriteFileBytes(const std::string& path, const std::string& bytes) {
    std::ofstream(path, std::ios::binary) << bytes;
}

}  // namespace larkpost::test
