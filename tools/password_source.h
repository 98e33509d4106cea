// Where the login password or access token comes from: never the command line.
#ifndef LARKPOST_TOOLS_PASSWORD_SOURCE_H
#define LARKPOST_TOOLS_PASSWORD_SOURCE_H

#include <optional>
#include <string>

namespace larkpost::cli {

// The password for user: the variable named by passwordEnv if given (it must be set), else
// LARKPOST_PASSWORD, else a prompt without echo on the controlling terminal. Throws a usage
// CliError when none of them gives one.
std::string ObtainPassword(const std::string& user, const std::optional<std::string>& passwordEnv);

// The OAuth 2.0 access token in the environment variable named variable; a usage CliError when
// it is not set or empty.
std::string ObtainToken(const std::string& variable);

}  // namespace larkpost::cli

#endif
