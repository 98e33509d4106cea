// GetFileExtension, and the directory search behind AttachFile in a fixed directory: a pattern
// is accepted exactly when a plain file of the directory matches it (checked against a plain
// reference matcher), a refusal carries the documented error, and an accepted path builds into
// a message or fails with the attachment error, never anything else.
//
// Input: one byte that picks the reading (even: each byte one character; odd: 16-bit code
// units), then the name or pattern. A "/" is dropped, so the search stays in the directory.
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "encoding/common.h"
#include "fuzz_support.h"
#include "larkpost/error.h"
#include "larkpost/mail_message.h"
#include "larkpost/text.h"
#include "platform/codepage.h"

using namespace larkpost;
namespace fs = std::filesystem;

namespace {

struct Entry {
    std::u16string name;
    bool plainFile;  // what the search may accept: regular files and links to them
};

std::string g_searchDir;
std::string g_saveFile;
std::vector<Entry> g_entries;

void WriteFile(const std::string& path, const std::string& content) {
    FILE* file = std::fopen(path.c_str(), "wb");
    if (!file) std::abort();
    std::fwrite(content.data(), 1, content.size(), file);
    std::fclose(file);
}

void MakeDirectory() {
    char pattern[] = "/tmp/larkpost-fuzz-attach-XXXXXX";
    if (!::mkdtemp(pattern)) std::abort();
    const std::string root = pattern;
    g_searchDir = root + "/search";
    g_saveFile = root + "/saved.eml";
    fs::create_directory(g_searchDir);
    const std::vector<std::pair<std::string, std::string>> files = {
        {"a.txt", "hello"},     {"b.TXT", "B"},        {"report.pdf", "%PDF"}, {"noext", "n"},
        {"dot.", "d"},          {".hidden", "h"},      {"empty.txt", ""},      {"x.tar.gz", "gz"},
        {"with space.jpg", "j"}, {"caf\xc3\xa9.htm", "c"}};
    for (const auto& [name, content] : files) {
        WriteFile(g_searchDir + "/" + name, content);
        g_entries.push_back({FromUtf8(name), true});
    }
    fs::create_directory(g_searchDir + "/dir.txt");
    g_entries.push_back({u"dir.txt", false});
    fs::create_symlink("a.txt", g_searchDir + "/link.txt");
    g_entries.push_back({u"link.txt", true});
    fs::create_symlink("missing.txt", g_searchDir + "/dangling.txt");
    g_entries.push_back({u"dangling.txt", false});
    if (::mkfifo((g_searchDir + "/pipe.txt").c_str(), 0600) != 0) std::abort();
    g_entries.push_back({u"pipe.txt", false});
    std::atexit([] { fs::remove_all(fs::path(g_searchDir).parent_path()); });
}

// Glob by the textbook table: matches[p][n] says whether pattern[p...] matches name[n...];
// * stands for any run, ? for one unit. Names here are one code unit per character.
bool ReferenceMatch(std::u16string_view pattern, std::u16string_view name) {
    std::vector<std::vector<char>> matches(pattern.size() + 1, std::vector<char>(name.size() + 1, 0));
    matches[pattern.size()][name.size()] = 1;
    for (std::size_t p = pattern.size(); p-- > 0;) {
        for (std::size_t n = name.size() + 1; n-- > 0;) {
            if (pattern[p] == u'*') {
                matches[p][n] = matches[p + 1][n] || (n < name.size() && matches[p][n + 1]);
            } else {
                matches[p][n] = n < name.size() && (pattern[p] == u'?' || pattern[p] == name[n]) &&
                                matches[p + 1][n + 1];
            }
        }
    }
    return matches[0][0];
}

bool ReferenceAccepts(std::u16string_view pattern) {
    if (pattern.empty()) return false;
    const bool wildcard = pattern.find_first_of(u"*?") != std::u16string_view::npos;
    for (const Entry& entry : g_entries) {
        if (!entry.plainFile) continue;
        if (!wildcard && entry.name == pattern) return true;
        if (wildcard && (entry.name[0] != u'.' || pattern[0] == u'.') && ReferenceMatch(pattern, entry.name)) {
            return true;
        }
    }
    return false;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    MakeDirectory();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    if (size == 0 || size > 512) return 0;
    std::u16string name = (data[0] & 1)
                              ? fuzz::CodeUnits(data + 1, size - 1)
                              : detail::FromAnsi(std::string_view(reinterpret_cast<const char*>(data) + 1, size - 1));

    // The extension is everything behind the last "." and holds no "." itself.
    const auto extension = detail::GetFileExtension(name);
    const std::size_t dot = name.rfind(u'.');
    FUZZ_CHECK(extension.has_value() == (dot != std::u16string::npos));
    if (extension) FUZZ_CHECK(*extension == name.substr(dot + 1));

    std::erase(name, u'/');
    const std::u16string path = FromUtf8(g_searchDir) + u"/" + name;

    auto message = std::make_shared<MailMessage>();
    bool accepted = true;
    try {
        message->AttachFile(path);
    } catch (const RaisedError& error) {
        accepted = false;
        FUZZ_CHECK(error.Number() == ERROR_FILE_NOT_FOUND);
        FUZZ_CHECK(error.Description() == u"File " + path + u" not found. Cannot attach to message.");
    }
    FUZZ_CHECK(accepted == ReferenceAccepts(name));

    if (accepted) {
        message->AddRecipient("to@example.org");
        try {
            message->SaveToFile(g_saveFile);
        } catch (const RaisedError& error) {
            // A wildcard path may be refused when the file is read, with the attachment error.
            FUZZ_CHECK(error.Number() == ERROR_ATTACHMENT_FAILED);
        }
    }
    return 0;
}
