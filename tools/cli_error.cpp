#include "cli_error.h"

#include "larkpost/error.h"

namespace larkpost::cli {

int StatusFor(Step step, int32_t number) {
    // Header values that the standard format cannot write: refused before anything goes out.
    if (number >= ERROR_HEADER_LINE_BREAK && number <= ERROR_BASE + 4029) return kExitMessage;
    switch (step) {
        case Step::FillMessage: return number == ERROR_FILE_NOT_FOUND ? kExitFile : kExitMessage;
        case Step::Save: return kExitFile;  // the target file, or an attachment read for it
        case Step::Connect:
            // Text that is not UTF-8 in the server name, user name or password.
            return number == ERROR_INVALID_ARGUMENT ? kExitUsage : kExitServer;
        case Step::Send:
            if (number == ERROR_ATTACHMENT_FAILED) return kExitFile;
            // Overflow: the built text is longer than a message can be.
            if (number == ERROR_NO_MESSAGE || number == ERROR_NO_RECIPIENTS ||
                number == ERROR_MESSAGE_TOO_LARGE || number == ERROR_OVERFLOW)
                return kExitMessage;
            return kExitServer;
    }
    return kExitInternal;
}

}  // namespace larkpost::cli
