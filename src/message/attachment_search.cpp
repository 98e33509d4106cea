#include "message/attachment_search.h"

#include <string>

#include "larkpost/text.h"
#include "platform/files.h"

namespace larkpost::detail {
namespace {

// Code units of the character at n: a surrogate pair is one character.
std::size_t CharLength(std::u16string_view text, std::size_t n) {
    bool pair = text[n] >= 0xD800 && text[n] <= 0xDBFF && n + 1 < text.size() &&
                text[n + 1] >= 0xDC00 && text[n + 1] <= 0xDFFF;
    return pair ? 2 : 1;
}

bool HasWildcard(std::u16string_view element) {
    return element.find_first_of(u"*?") != std::u16string_view::npos;
}

bool AnyPlainFileMatches(const std::string& directory, std::u16string_view pattern) {
    const std::string prefix = directory == "/" ? "/" : directory + "/";
    std::u16string name;
    return AnyDirectoryEntry(directory, [&](std::string_view entry) {
        // A name that is not UTF-8 cannot be written by the host, so it never matches.
        return TryFromUtf8(entry, name) && WildcardMatches(pattern, name) &&
               IsPlainFile(prefix + std::string(entry));
    });
}

}  // namespace

bool WildcardMatches(std::u16string_view pattern, std::u16string_view name) {
    if (!name.empty() && name[0] == u'.' && (pattern.empty() || pattern[0] != u'.')) return false;
    // Greedy matching with one backtrack point: the last * seen. Linear in practice.
    std::size_t p = 0, n = 0;
    std::size_t starP = std::u16string_view::npos, starN = 0;
    while (n < name.size()) {
        if (p < pattern.size() && pattern[p] == u'?') {
            ++p;
            n += CharLength(name, n);
        } else if (p < pattern.size() && pattern[p] == name[n]) {
            ++p;
            ++n;
        } else if (p < pattern.size() && pattern[p] == u'*') {
            starP = p++;
            starN = n;
        } else if (starP != std::u16string_view::npos) {
            p = starP + 1;
            starN += CharLength(name, starN);
            n = starN;
        } else {
            return false;
        }
    }
    while (p < pattern.size() && pattern[p] == u'*') ++p;
    return p == pattern.size();
}

bool PlainFileExists(std::u16string_view path) {
    auto slash = path.rfind(u'/');
    std::u16string_view element =
        slash == std::u16string_view::npos ? path : path.substr(slash + 1);
    if (element.empty()) return false;
    if (!HasWildcard(element)) {
        auto native = NativePath(path);
        return native && IsPlainFile(*native);
    }
    std::optional<std::string> directory;
    if (slash == std::u16string_view::npos)
        directory = ".";
    else if (slash == 0)
        directory = "/";
    else
        directory = NativePath(path.substr(0, slash));
    return directory && AnyPlainFileMatches(*directory, element);
}

}  // namespace larkpost::detail
