// The directory search behind AttachFile: does a path name a plain file?
#ifndef LARKPOST_MESSAGE_ATTACHMENT_SEARCH_H
#define LARKPOST_MESSAGE_ATTACHMENT_SEARCH_H

#include <string_view>

namespace larkpost::detail {

// True when path names a plain file: a regular file or a symbolic link to one. Directories,
// devices, FIFOs, sockets and dangling links do not count. The last path element may hold the
// wildcards * and ?; then the path counts when any plain file of that directory matches. An
// empty path, and a path that ends in "/", name no file.
bool PlainFileExists(std::u16string_view path);

// Matches a name against a pattern in which * stands for any run of characters and ? for one
// character; every other character stands for itself, case counting. As in the shell, a name
// that begins with "." matches only a pattern that begins with ".".
bool WildcardMatches(std::u16string_view pattern, std::u16string_view name);

}  // namespace larkpost::detail

#endif
