// A failure of the command: its exit status, and the numbered error it prints.
#ifndef LARKPOST_TOOLS_CLI_ERROR_H
#define LARKPOST_TOOLS_CLI_ERROR_H

#include <cstdint>
#include <string>

namespace larkpost::cli {

// Exit statuses, as --help documents them.
enum ExitStatus : int {
    kExitOk = 0,
    kExitInternal = 1,
    kExitUsage = 2,
    kExitFile = 3,
    kExitServer = 4,
    kExitMessage = 5,
    kExitMaybeDelivered = 6,  // Ctrl-C once the message text had gone to the server
    kExitCanceled = 130,
};

struct CliError {
    int status;
    int32_t number;
    std::string description;  // UTF-8
};

// The step of the command in which a library error came, which decides its exit status.
enum class Step { FillMessage, Save, Connect, Send };
int StatusFor(Step step, int32_t number);

// A usage mistake: error 5 (invalid argument), exit status 2.
inline CliError UsageError(std::string description) {
    return CliError{kExitUsage, 5, std::move(description)};
}

}  // namespace larkpost::cli

#endif
