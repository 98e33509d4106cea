#include "password_source.h"

#include <fcntl.h>
#include <signal.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "cli_error.h"
#include "control_escapes.h"

namespace larkpost::cli {
namespace {

// The terminal state to restore if Ctrl-C comes while echo is off.
int g_promptFd = -1;
termios g_savedTerminal;

extern "C" void RestoreTerminalAndExit(int) {
    if (g_promptFd >= 0) ::tcsetattr(g_promptFd, TCSAFLUSH, &g_savedTerminal);
    static const char note[] = "\nlarkpost: canceled\n";
    (void)!::write(STDERR_FILENO, note, sizeof note - 1);
    _exit(kExitCanceled);
}

std::string PromptWithoutEcho(const std::string& user) {
    int fd = ::open("/dev/tty", O_RDWR | O_NOCTTY | O_CLOEXEC);
    if (fd < 0) {
        throw UsageError("--user " + user +
                         " needs a password: set LARKPOST_PASSWORD or use --password-env "
                         "VARIABLE (there is no terminal to ask on)");
    }
    std::string prompt = "Password for " + EscapeControls(user) + ": ";
    (void)!::write(fd, prompt.data(), prompt.size());

    termios quiet;
    bool haveTerminal = ::tcgetattr(fd, &g_savedTerminal) == 0;
    struct sigaction restore {
    }, previous{};
    if (haveTerminal) {
        g_promptFd = fd;
        restore.sa_handler = RestoreTerminalAndExit;
        ::sigaction(SIGINT, &restore, &previous);
        quiet = g_savedTerminal;
        quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO);
        quiet.c_lflag |= ECHONL;
        ::tcsetattr(fd, TCSAFLUSH, &quiet);
    }
    std::string password;
    char c;
    while (::read(fd, &c, 1) == 1 && c != '\n') password += c;
    if (haveTerminal) {
        ::tcsetattr(fd, TCSAFLUSH, &g_savedTerminal);
        ::sigaction(SIGINT, &previous, nullptr);
        g_promptFd = -1;
    }
    ::close(fd);
    if (!password.empty() && password.back() == '\r') password.pop_back();
    return password;
}

std::string FromVariable(const char* option, const std::string& variable) {
    const char* value = std::getenv(variable.c_str());
    if (value == nullptr)
        throw UsageError(std::string(option) + " names " + variable +
                         ", but that environment variable is not set");
    return value;
}

}  // namespace

std::string ObtainPassword(const std::string& user, const std::optional<std::string>& passwordEnv) {
    if (passwordEnv) return FromVariable("--password-env", *passwordEnv);
    if (const char* value = std::getenv("LARKPOST_PASSWORD")) return value;
    return PromptWithoutEcho(user);
}

std::string ObtainToken(const std::string& variable) {
    std::string token = FromVariable("--oauth2-token-env", variable);
    if (token.empty())
        throw UsageError("--oauth2-token-env names " + variable + ", which is empty");
    return token;
}

}  // namespace larkpost::cli
