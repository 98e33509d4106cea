#include "platform/files.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <memory>
#include <type_traits>

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

// A control character (U+0000 to U+001F, U+007F) names no file here, as on the platform the library
// comes from: such a name written into a header could end a line, or the message data, early.
template <class Char>
bool HasControlCharacter(std::basic_string_view<Char> name) {
    return std::any_of(name.begin(), name.end(), [](Char c) {
        const auto code = static_cast<std::make_unsigned_t<Char>>(c);
        return code < 0x20 || code == 0x7F;
    });
}

struct DirCloser {
    void operator()(DIR* dir) const { ::closedir(dir); }
};

}  // namespace

std::optional<std::string> NativePath(std::u16string_view path) {
    if (path.empty() || HasControlCharacter(path)) return std::nullopt;
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
    while (const dirent* entry = ::readdir(dir.get())) {
        const std::string_view name = entry->d_name;
        if (!HasControlCharacter(name) && visit(name)) return true;
    }
    return false;
}

PlatformFile::PlatformFile(int fd, std::string nativePath, std::u16string source)
    : m_fd(fd), m_path(std::move(nativePath)), m_source(std::move(source)) {}

PlatformFile::PlatformFile(PlatformFile&& other) noexcept
    : m_fd(other.m_fd),
      m_size(other.m_size),
      m_path(std::move(other.m_path)),
      m_source(std::move(other.m_source)),
      m_replaces(std::move(other.m_replaces)) {
    other.m_fd = -1;
    other.m_replaces.clear();
}

PlatformFile::~PlatformFile() {
    // Linux releases the descriptor even when close reports an error; never retry it.
    if (m_fd >= 0) ::close(m_fd);
    if (!m_replaces.empty()) ::unlink(m_path.c_str());
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

std::optional<PlatformFile> PlatformFile::CreateReplacement() {
    struct stat info;
    if (::fstat(m_fd, &info) != 0 || !S_ISREG(info.st_mode)) return std::nullopt;
    std::unique_ptr<char, decltype(&std::free)> real(::realpath(m_path.c_str(), nullptr),
                                                     &std::free);
    if (!real) return std::nullopt;
    const std::string target = real.get();
    const auto slash = target.rfind('/');
    std::string temporary =
        target.substr(0, slash + 1) + "." + target.substr(slash + 1) + ".XXXXXX";
    const int fd =
        Retrying(FileStep::Open, [&] { return ::mkostemp(temporary.data(), O_CLOEXEC); });
    if (fd < 0) return std::nullopt;
    PlatformFile replacement(fd, std::move(temporary), m_source);
    replacement.m_replaces = target;
    // The new file keeps what the old one had: its permissions and, for root, its owner.
    ::fchmod(fd, info.st_mode & 07777);
    if (::geteuid() == 0 && ::fchown(fd, info.st_uid, info.st_gid) != 0) {
        // An owner that cannot be kept leaves the file to whoever saves it.
    }
    return replacement;
}

void PlatformFile::ReplaceWith(PlatformFile replacement) {
    replacement.Close();
    if (Retrying(FileStep::Replace, [&] {
            return ::rename(replacement.m_path.c_str(), replacement.m_replaces.c_str());
        }) != 0)
        RaiseErrno(errno, true);
    replacement.m_replaces.clear();
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
