// AttachFile with a name or pattern in a fixed directory: accepted exactly when a reference matcher
// finds a plain file; refusals as documented; an accepted path saves or fails with the attachment
// error only. Input: a byte (odd: 16-bit code units follow), then the name, "/" dropped.
#include <filesystem>

#include "fuzz_support.h"
#include "larkpost/error.h"
#include "larkpost/mail_message.h"
#include "larkpost/text.h"
#include "platform/codepage.h"

using namespace larkpost;

namespace {

const std::string g_dir = "/tmp/larkpost-fuzz-attach-" + std::to_string(::getpid());
// What the search may accept; a directory, a dangling link and a FIFO lie beside them.
const std::u16string g_files[] = {u"a.txt",          u"b.TXT",         u"noext",
                                  u"dot.",           u".hidden",       u"x.tar.gz",
                                  u"with space.jpg", u"caf\u00e9.htm", u"link.txt"};

// match[p][n]: pattern[p...] matches name[n...]; "*" stands for any run, "?" for one character.
bool Matches(std::u16string_view pattern, std::u16string_view name) {
    std::vector<std::vector<char>> match(pattern.size() + 1, std::vector<char>(name.size() + 2));
    match[pattern.size()][name.size()] = 1;
    for (std::size_t p = pattern.size(); p-- > 0;)
        for (std::size_t n = name.size() + 1; n-- > 0;)
            match[p][n] = pattern[p] == u'*'
                              ? match[p + 1][n] || (n < name.size() && match[p][n + 1])
                              : n < name.size() && match[p + 1][n + 1] &&
                                    (pattern[p] == u'?' || pattern[p] == name[n]);
    return match[0][0];
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    std::system(
        ("mkdir -p " + g_dir + "/search && cd " + g_dir +
         "/search && touch a.txt b.TXT noext dot. .hidden x.tar.gz 'with space.jpg' caf\xc3\xa9.htm"
         " && mkdir dir.txt && mkfifo pipe.txt && ln -s a.txt link.txt && ln -s no dangling.txt")
            .c_str());
    return std::atexit([] { std::filesystem::remove_all(g_dir); });
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    if (size == 0 || size > 512) return 0;
    std::u16string name =
        data[0] & 1 ? fuzz::CodeUnits(data + 1, size - 1)
                    : detail::FromAnsi({reinterpret_cast<const char*>(data) + 1, size - 1});
    std::erase(name, u'/');
    const bool wildcard = name.find_first_of(u"*?") != name.npos;
    bool found = false;  // a wildcard does not match a name starting with "." (an exact name does)
    for (const std::u16string& file : g_files)
        found |=
            wildcard ? (file[0] != u'.' || name[0] == u'.') && Matches(name, file) : name == file;
    const std::u16string path = FromUtf8(g_dir) + u"/search/" + name;
    auto message = std::make_shared<MailMessage>();
    try {
        message->AttachFile(path);
    } catch (const RaisedError& error) {
        assert(!found && error.Number() == ERROR_FILE_NOT_FOUND &&
               error.Description() == u"File " + path + u" not found. Cannot attach to message.");
        return 0;
    }
    assert(found);
    message->AddRecipient("to@example.org");
    try {
        message->SaveToFile(g_dir + "/saved.eml");
    } catch (const RaisedError& error) {  // a wildcard's file is read at the build
        assert(error.Number() == ERROR_ATTACHMENT_FAILED);
    }
    return 0;
}
