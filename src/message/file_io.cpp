#include "message/file_io.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "larkpost/text.h"
#include "platform/errors.h"
#include "platform/file_errors.h"

namespace larkpost::detail {
namespace {

[[noreturn]] void RaiseErrno(int err, FileUse use, const std::string& nativePath) {
    RaiseFileError(err, use, nativePath, kSourceMailMessage);
}

}  // namespace

std::optional<std::string> NativePath(std::u16string_view path) {
    if (path.empty() || path.find(u'\0') != std::u16string_view::npos) return std::nullopt;
    std::string native = ToUtf8(path);
    std::u16string back;
    // ToUtf8 turns a lone surrogate into U+FFFD, which would name another file.
    if (!TryFromUtf8(native, back) || back != path) return std::nullopt;
    return native;
}

FileHandle::~FileHandle() { Close(); }

FileHandle& FileHandle::operator=(FileHandle&& other) noexcept {
    if (this != &other) {
        Close();
        m_fd = other.m_fd;
        other.m_fd = -1;
    }
    return *this;
}

int FileHandle::Close() {
    if (m_fd < 0) return 0;
    // Linux releases the descriptor even when close reports an error; never retry it.
    int result = ::close(m_fd);
    m_fd = -1;
    return result == 0 ? 0 : errno;
}

OpenedFile OpenFileForReading(const std::string& nativePath) {
    OpenedFile file;
    int fd;
    do {
        fd = ::open(nativePath.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK);
    } while (fd < 0 && errno == EINTR);
    if (fd < 0) RaiseErrno(errno, FileUse::Read, nativePath);
    file.handle = FileHandle(fd);
    struct stat info;
    if (::fstat(fd, &info) != 0) RaiseErrno(errno, FileUse::Read, nativePath);
    if (!S_ISREG(info.st_mode)) RaiseFileError(ERROR_PATH_FILE_ACCESS, kSourceMailMessage);
    file.size = static_cast<std::uint64_t>(info.st_size);
    return file;
}

std::size_t ReadInto(const OpenedFile& file, char* buffer, std::size_t count,
                     const std::string& nativePath) {
    std::size_t done = 0;
    while (done < count) {
        ssize_t n = ::read(file.handle.Get(), buffer + done, count - done);
        if (n < 0) {
            if (errno == EINTR) continue;
            RaiseErrno(errno, FileUse::Read, nativePath);
        }
        if (n == 0) break;
        done += static_cast<std::size_t>(n);
    }
    return done;
}

FileHandle OpenFileForWriting(const std::string& nativePath) {
    int fd;
    do {
        // Write-only and non-blocking: a FIFO that nobody reads then fails at once (ENXIO, 75)
        // instead of blocking the write for ever; one with a reader (a pipe to a pager) works.
        fd = ::open(nativePath.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC | O_NOCTTY | O_NONBLOCK, 0666);
    } while (fd < 0 && errno == EINTR);
    if (fd < 0) RaiseErrno(errno, FileUse::Create, nativePath);
    ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) & ~O_NONBLOCK);
    return FileHandle(fd);
}

void WriteAll(const FileHandle& file, std::string_view bytes, const std::string& nativePath) {
    while (!bytes.empty()) {
        ssize_t n = ::write(file.Get(), bytes.data(), bytes.size());
        if (n < 0) {
            if (errno == EINTR) continue;
            RaiseErrno(errno, FileUse::Create, nativePath);
        }
        bytes.remove_prefix(static_cast<std::size_t>(n));
    }
}

void TruncateRegularFile(const FileHandle& file, std::uint64_t length,
                         const std::string& nativePath) {
    struct stat info;
    if (::fstat(file.Get(), &info) != 0) RaiseErrno(errno, FileUse::Create, nativePath);
    if (!S_ISREG(info.st_mode)) return;
    if (::ftruncate(file.Get(), static_cast<off_t>(length)) != 0)
        RaiseErrno(errno, FileUse::Create, nativePath);
}

void CloseFile(FileHandle& file, const std::string& nativePath) {
    if (int err = file.Close()) RaiseErrno(err, FileUse::Create, nativePath);
}

}  // namespace larkpost::detail
