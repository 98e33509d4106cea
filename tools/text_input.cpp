#include "text_input.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include "cli_error.h"
#include "larkpost/text.h"
#include "platform/file_errors.h"

namespace larkpost::cli {
namespace {

[[noreturn]] void RaiseReadFailure(int err, const std::string& path, std::string_view what) {
    int32_t number = detail::FileErrorNumber(err, detail::FileUse::Read, path);
    std::string name = path == "-" ? std::string("standard input") : "'" + path + "'";
    throw CliError{kExitFile, number,
                   "cannot read the " + std::string(what) + " " + name + ": " +
                       ToUtf8(detail::FileErrorDescription(number))};
}

std::string ReadAll(const std::string& path, std::string_view what) {
    int fd = path == "-" ? STDIN_FILENO : ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) RaiseReadFailure(errno, path, what);
    std::string bytes;
    char buffer[65536];
    for (;;) {
        ssize_t n = ::read(fd, buffer, sizeof buffer);
        if (n > 0) {
            bytes.append(buffer, static_cast<std::size_t>(n));
        } else if (n == 0) {
            break;
        } else if (errno != EINTR) {
            int err = errno;
            if (fd != STDIN_FILENO) ::close(fd);
            RaiseReadFailure(err, path, what);
        }
    }
    if (fd != STDIN_FILENO) ::close(fd);
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
        std::string name = path == "-" ? std::string("standard input") : "'" + path + "'";
        throw CliError{kExitFile, 5, "the " + std::string(what) + " " + name +
                                         " is not valid UTF-8 text"};
    }
    return WithCrLfLineEnds(text);
}

}  // namespace larkpost::cli
