#include "text_input.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <limits>

#include "cli_error.h"
#include "larkpost/error.h"
#include "larkpost/text.h"

namespace larkpost::cli {
namespace {

// The numbers and words the library uses for the same file failures.
struct ReadFailure {
    int32_t number;
    const char* description;
};

bool DirectoryOfPathExists(const std::string& path) {
    const auto slash = path.rfind('/');
    const std::string directory = slash == std::string::npos ? "."
                                  : slash == 0               ? "/"
                                                             : path.substr(0, slash);
    struct stat info;
    return ::stat(directory.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

ReadFailure DescribeReadFailure(int err, const std::string& path) {
    switch (err) {
        case ENOENT:
            if (DirectoryOfPathExists(path)) return {53, "File not found"};
            return {76, "Path not found"};
        case ENOTDIR: return {76, "Path not found"};
        case EACCES:
        case EPERM: return {70, "Permission denied"};
        case EIO: return {57, "Device I/O error"};
        case ENOMEM: return {7, "Out of memory"};
        default: return {75, "Path/File access error"};
    }
}

std::string InputName(const std::string& path) {
    return path == "-" ? std::string("standard input") : "'" + path + "'";
}

[[noreturn]] void RaiseReadFailure(int err, const std::string& path, std::string_view what) {
    const ReadFailure failure = DescribeReadFailure(err, path);
    throw CliError{kExitFile, failure.number,
                   "cannot read the " + std::string(what) + " " + InputName(path) + ": " +
                       failure.description};
}

// The library counts a message's characters in 32-bit signed numbers.
constexpr std::size_t kMostCharacters = std::numeric_limits<int32_t>::max();

[[noreturn]] void RaiseTooLong(const std::string& path, std::string_view what) {
    throw CliError{kExitMessage, ERROR_OVERFLOW,
                   "the " + std::string(what) + " " + InputName(path) + " holds more than " +
                       std::to_string(kMostCharacters) +
                       " characters, more than a message can carry"};
}

// The 16-bit characters that UTF-8 bytes give at least (line ends may still grow): one for each
// byte that starts a sequence, two for a four-byte sequence.
std::size_t LeastCharacters(std::string_view bytes) {
    std::size_t count = 0;
    for (char c : bytes) {
        const auto byte = static_cast<unsigned char>(c);
        count += static_cast<std::size_t>((byte & 0xC0) != 0x80) +
                 (byte >= 0xF0 && byte <= 0xF4 ? 1 : 0);
    }
    return count;
}

// Reads until the end, or until more has come than a message can carry: /dev/zero or an endless
// pipe must not take all memory.
std::string ReadAll(const std::string& path, std::string_view what) {
    int fd = path == "-" ? STDIN_FILENO : ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) RaiseReadFailure(errno, path, what);
    std::string bytes;
    std::size_t characters = 0;
    int failure = 0;
    char buffer[65536];
    while (characters <= kMostCharacters) {
        ssize_t n = ::read(fd, buffer, sizeof buffer);
        if (n > 0) {
            bytes.append(buffer, static_cast<std::size_t>(n));
            characters += LeastCharacters(std::string_view(buffer, static_cast<std::size_t>(n)));
        } else if (n == 0) {
            break;
        } else if (errno != EINTR) {
            failure = errno;
            break;
        }
    }
    if (fd != STDIN_FILENO) ::close(fd);
    if (failure != 0) RaiseReadFailure(failure, path, what);
    if (characters > kMostCharacters) RaiseTooLong(path, what);
    return bytes;
}

}  // namespace

std::u16string WithCrLfLineEnds(std::u16string_view text) {
    std::u16string out;
    out.reserve(text.size() + text.size() / 32);
    for (std::size_t i = 0; i < text.size(); ++i) {
        char16_t c = text[i];
        if (c == u'\r') {
            out += u"\r\n";
            if (i + 1 < text.size() && text[i + 1] == u'\n') ++i;
        } else if (c == u'\n') {
            out += u"\r\n";
        } else {
            out += c;
        }
    }
    return out;
}

std::u16string ReadTextInput(const std::string& path, std::string_view what) {
    std::string bytes = ReadAll(path, what);
    std::u16string text;
    if (!TryFromUtf8(bytes, text)) {
        throw CliError{
            kExitFile, 5,
            "the " + std::string(what) + " " + InputName(path) + " is not valid UTF-8 text"};
    }
    bytes = std::string();
    text = WithCrLfLineEnds(text);
    if (text.size() > kMostCharacters) RaiseTooLong(path, what);
    return text;
}

}  // namespace larkpost::cli
