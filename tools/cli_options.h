// The command line of the larkpost sender.
#ifndef LARKPOST_TOOLS_CLI_OPTIONS_H
#define LARKPOST_TOOLS_CLI_OPTIONS_H

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace larkpost::cli {

struct Options {
    bool help = false;
    bool version = false;
    bool quiet = false;
    bool verbose = false;
    // The library's classic behaviour: no strict delivery, the pauses of Send, the classic format.
    bool compat = false;
    std::string server;
    int32_t port = 0;      // after parsing: as given, else 465 with --tls, 587 with --starttls, 25
    int32_t security = 0;  // SECURITY_NONE, SECURITY_STARTTLS or SECURITY_TLS
    std::optional<std::string> caFile;
    std::optional<std::string> tokenEnv;  // --oauth2-token-env
    int32_t timeout = 30;
    std::optional<std::string> user;
    std::optional<std::string> passwordEnv;
    std::string from;
    std::string senderName;
    std::vector<std::string> to;
    std::vector<std::string> cc;
    std::vector<std::string> bcc;
    std::string subject;
    std::optional<std::string> bodyFile;
    std::optional<std::string> htmlFile;
    std::vector<std::string> attachments;
    std::vector<std::string> headers;  // "Name: value"
    std::optional<std::string> saveFile;
};

// Parses argv; throws CliError (a usage error) for anything it cannot take, including options
// that only make sense together with others.
Options ParseOptions(int argc, const char* const argv[]);

// True for names and addresses that never leave the host: localhost, 127.0.0.0/8, ::1.
bool IsLoopbackHost(std::string_view host);

// The complete --help text.
std::string HelpText();

}  // namespace larkpost::cli

#endif
