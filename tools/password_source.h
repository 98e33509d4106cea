// Where the login password comes from: never the command line.
#ifndef LARKPOST_TOOLS_PASSWORD_SOURCE_H
#define LARKPOST_TOOLS_PASSWORD_SOURCE_H

#include <optional>
#include <string>

namespace larkpost::cli {

// The password for user: the variable named by passwordEnv if given (it must be set), else
// LARKPOST_PASSWORD, else a prompt without echo on the controlling terminal. Throws a usage
// CliError when none of them gives one.
std::string ObtainPassword(const std::string& user, const std::optional<std::string>& passwordEnv);

}  // namespace larkpost::cli

#endif
