#include "platform/files.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <memory>

#include "larkpost/text.h"
#include "platform/file_errors.h"

namespace larkpost::detail {
namespace {

thread_local std::function<int(FileStep)> t_fault;

// The errno a test wants for this step, or 0 to let the system do it.
int Injected(FileStep step) { return t_fault ? t_fault(step) : 0; }

// Runs call, retrying on EINTR; a step failed by the test seam returns -1 with its errno.
template <class Call>
auto Retrying(FileStep step, Call call) -> decltype(call()) {
    if (int err = Injected(step)) {
        errno = err;
        return -1;
    }
    decltype(call()) result;
    do {
        result = call();
    } while (result < 0 && errno == EINTR);
    return result;
}

struct DirCloser {
    void operator()(DIR* dir) const { ::closedir(dir); }
};

}  // namespace

std::optional<std::string> NativePath(std::u16string_view path) {
    if (path.empty() || path.find(u'\0') != std::u16string_view::npos) return std::nullopt;
    std::string native = ToUtf8(path);
    std::u16string back;
    // ToUtf8 turns a lone surrogate into U+FFFD, which would name another file.
    if (!TryFromUtf8(native, back) || back != path) return std::nullopt;
    return native;
}

bool IsPlainFile(const std::string& nativePath) {
    if (Injected(FileStep::Search)) return false;
    struct stat info;  // stat, not lstat: a link to a regular file counts
    return ::stat(nativePath.c_str(), &info) == 0 && S_ISREG(info.st_mode);
}

bool AnyDirectoryEntry(const std::string& directory,
                       const std::function<bool(std::string_view name)>& visit) {
    if (Injected(FileStep::Search)) return false;
    std::unique_ptr<DIR, DirCloser> dir(::opendir(directory.c_str()));
    if (!dir) return false;
    while (const dirent* entry = ::readdir(dir.get()))
        if (visit(entry->d_name)) return true;
    return false;
}

PlatformFile::PlatformFile(int fd, std::string nativePath, std::u16string source)
    : m_fd(fd), m_path(std::move(nativePath)), m_source(std::move(source)) {}

PlatformFile::PlatformFile(PlatformFile&& other) noexcept
    : m_fd(other.m_fd),
      m_size(other.m_size),
      m_path(std::move(other.m_path)),
      m_source(std::move(other.m_source)) {
    other.m_fd = -1;
}

PlatformFile::~PlatformFile() {
    // Linux releases the descriptor even when close reports an error; never retry it.
    if (m_fd >= 0) ::close(m_fd);
}

void PlatformFile::RaiseErrno(int err, bool creating) const {
    RaiseFileError(err, creating ? FileUse::Create : FileUse::Read, m_path, m_source);
}

PlatformFile PlatformFile::OpenForReading(std::string nativePath, std::u16string source) {
    const int fd = Retrying(FileStep::Open, [&] {
        return ::open(nativePath.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK);
    });
    const int err = errno;
    PlatformFile file(fd, std::move(nativePath), std::move(source));
    if (fd < 0) file.RaiseErrno(err, false);
    struct stat info;
    if (::fstat(fd, &info) != 0) file.RaiseErrno(errno, false);
    if (!S_ISREG(info.st_mode)) RaiseFileError(ERROR_PATH_FILE_ACCESS, file.m_source);
    file.m_size = static_cast<std::uint64_t>(info.st_size);
    return file;
}

PlatformFile PlatformFile::OpenForWriting(std::string nativePath, std::u16string source) {
    // Write-only and non-blocking: a FIFO that nobody reads then fails at once (ENXIO, 75)
    // instead of blocking the write for ever; one with a reader (a pipe to a pager) works.
    const int fd = Retrying(FileStep::Open, [&] {
        return ::open(nativePath.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC | O_NOCTTY | O_NONBLOCK,
                      0666);
    });
    const int err = errno;
    PlatformFile file(fd, std::move(nativePath), std::move(source));
    if (fd < 0) file.RaiseErrno(err, true);
    ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) & ~O_NONBLOCK);
    return file;
}

std::size_t PlatformFile::Read(char* buffer, std::size_t count) {
    std::size_t done = 0;
    while (done < count) {
        const ssize_t n =
            Retrying(FileStep::Read, [&] { return ::read(m_fd, buffer + done, count - done); });
        if (n < 0) RaiseErrno(errno, false);
        if (n == 0) break;
        done += static_cast<std::size_t>(n);
    }
    return done;
}

void PlatformFile::WriteAll(std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t n =
            Retrying(FileStep::Write, [&] { return ::write(m_fd, bytes.data(), bytes.size()); });
        if (n < 0) RaiseErrno(errno, true);
        bytes.remove_prefix(static_cast<std::size_t>(n));
    }
}

void PlatformFile::TruncateIfRegular(std::uint64_t length) {
    struct stat info;
    if (::fstat(m_fd, &info) != 0) RaiseErrno(errno, true);
    if (!S_ISREG(info.st_mode)) return;
    if (Retrying(FileStep::Truncate,
                 [&] { return ::ftruncate(m_fd, static_cast<off_t>(length)); }) != 0)
        RaiseErrno(errno, true);
}

void PlatformFile::Close() {
    if (m_fd < 0) return;
    int err = Injected(FileStep::Close);
    const int result = ::close(m_fd);
    m_fd = -1;
    if (result != 0 && !err) err = errno;
    if (err) RaiseErrno(err, true);
}

void SetFileFaultForTesting(std::function<int(FileStep)> fault) { t_fault = std::move(fault); }

}  // namespace larkpost::detail
