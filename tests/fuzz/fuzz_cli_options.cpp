// What hosts hand in as text. The command's option parser (parsed with the needed options and read
// the same when written back, or a usage error) and its text helpers: escaping, CR LF line ends,
// the progress line. The C interface, each argument as a C string: text that glibc's strict iconv
// takes as UTF-8 is taken and comes back byte for byte; anything else is error 5 and changes
// nothing; every error description handed out is UTF-8; only known class names create.
// Input: the arguments, split at NUL bytes; the first also sets the progress line's numbers.
#include <iconv.h>

#include <cstring>

#include "cli_error.h"
#include "cli_options.h"
#include "control_escapes.h"
#include "fuzz_support.h"
#include "larkpost/larkpost_c.h"
#include "larkpost/text.h"
#include "progress_bar.h"
#include "text_input.h"

using namespace larkpost;
using namespace larkpost::cli;

namespace {

// Each parsed value in --option=VALUE form, in an order that parses to the same options; equal
// written forms mean equal options.
std::vector<std::string> WrittenBack(const Options& o) {
    std::vector<std::string> args = {"larkpost"};
    auto add = [&](const char* name, const std::string& value) {
        args.push_back(std::string(name) + "=" + value);
    };
    for (auto [flag, name] :
         {std::pair{o.help, "--help"}, {o.version, "--version"}, {o.quiet, "--quiet"}})
        if (flag) args.push_back(name);
    if (!o.server.empty()) add("--server", o.server);
    add("--port", std::to_string(o.port));
    add("--timeout", std::to_string(o.timeout));
    if (o.user) add("--user", *o.user);
    if (o.passwordEnv) add("--password-env", *o.passwordEnv);
    add("--from", o.from);
    add("--sender-name", o.senderName);
    for (const auto& v : o.to) add("--to", v);
    for (const auto& v : o.cc) add("--cc", v);
    for (const auto& v : o.bcc) add("--bcc", v);
    add("--subject", o.subject);
    if (o.bodyFile) add("--body", *o.bodyFile);
    if (o.htmlFile) add("--html", *o.htmlFile);
    for (const auto& v : o.attachments) add("--attach", v);
    if (o.saveFile) add("--save", *o.saveFile);
    return args;
}

Options Parse(const std::vector<std::string>& args) {
    std::vector<const char*> argv;
    for (const auto& a : args) argv.push_back(a.c_str());
    return ParseOptions(static_cast<int>(argv.size()), argv.data());
}

void CheckEscaped(const std::string& text) {
    const std::string escaped = EscapeControls(text);
    std::u16string decoded;
    assert(TryFromUtf8(escaped, decoded));
    for (char16_t c : decoded) assert(c >= 0x20 && c != 0x7F && !(c >= 0x80 && c <= 0x9F));
    std::u16string original;
    bool clean = TryFromUtf8(text, original);
    for (char16_t c : original) clean &= c >= 0x20 && c != 0x7F && !(c >= 0x80 && c <= 0x9F);
    assert(!clean || escaped == text);
}

// Every CR LF, lone CR and lone LF one break; what lies between the breaks unchanged.
std::u16string Breaks(std::u16string_view text, bool crLfOnly) {
    std::u16string out;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == u'\r' && i + 1 < text.size() && text[i + 1] == u'\n') {
            out += u'|', ++i;
        } else if (!crLfOnly && (text[i] == u'\r' || text[i] == u'\n')) {
            out += u'|';
        } else {
            assert(!crLfOnly || (text[i] != u'\r' && text[i] != u'\n'));
            out += text[i] == u'|' ? u'/' : text[i];
        }
    }
    return out;
}

// Refuses overlong forms, surrogates, cut sequences and anything past U+10FFFF.
bool IsUtf8(std::string text) {
    static const iconv_t utf8 = iconv_open("UTF-16LE", "UTF-8");
    std::string out(2 * text.size(), '\0');
    char *in = text.data(), *to = out.data();
    std::size_t inLeft = text.size(), outLeft = out.size();
    return iconv(utf8, nullptr, nullptr, nullptr, nullptr) == 0 &&
           iconv(utf8, &in, &inLeft, &to, &outLeft) != std::size_t(-1);
}

// The call's number, once the thread's record agrees with it.
int32_t Status(int32_t status) {
    const std::string description = larkpost_error_description();
    assert(status == larkpost_error_number() && IsUtf8(description) &&
           (status != 0 || description.empty()));
    return status;
}

std::string Text(int32_t (*get)(larkpost_object*, char**, size_t*), larkpost_object* object) {
    char* value = nullptr;
    size_t length = 0;
    assert(get(object, &value, &length) == 0);
    const std::string text(value, length);
    larkpost_string_free(value);
    return text;
}

void CheckCInterface(const std::string& text) {
    const bool valid = IsUtf8(text);
    larkpost_object *message = nullptr, *client = nullptr, *made = nullptr;
    larkpost_create("Larkpost.MailMessage", &message);
    larkpost_create("Larkpost.MailClient", &client);
    larkpost_mail_message_set_subject_line(message, "before");
    larkpost_mail_client_set_server(client, "before");
    assert(Status(larkpost_mail_message_set_subject_line(message, text.c_str())) ==
           (valid ? 0 : 5));
    assert(Status(larkpost_mail_client_set_server(client, text.c_str())) == (valid ? 0 : 5));
    assert(Text(larkpost_mail_message_get_subject_line, message) == (valid ? text : "before"));
    assert(Text(larkpost_mail_client_get_server, client) == (valid ? text : "before"));
    // A class name: a known one (ASCII case aside) creates, anything else fails cleanly.
    assert((Status(larkpost_create(text.c_str(), &made)) == 0) == (made != nullptr) &&
           (valid || !made));
    larkpost_release(made);
    larkpost_release(client);
    larkpost_release(message);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    std::vector<std::string> args = {"larkpost"};
    const std::string input(reinterpret_cast<const char*>(data), size);
    const auto pieces = fuzz::Split<char>(input, '\0');
    if (size) args.insert(args.end(), pieces.begin(), pieces.end());
    if (args.size() > 64) return 0;

    try {
        const Options options = Parse(args);
        assert(options.help || options.version || !options.from.empty());
        assert(options.help || options.version || options.saveFile ||
               (!options.server.empty() && !options.to.empty()));
        assert(options.port >= 1 && options.port <= 65535 && options.timeout >= 1);
        assert(!options.user || !options.saveFile || options.help || options.version);
        // Written back, the options read the same.
        Options again;
        try {
            again = Parse(WrittenBack(options));
        } catch (const CliError&) {
            assert(false);
        }
        assert(WrittenBack(options) == WrittenBack(again));
    } catch (const CliError& error) {
        assert(error.status == kExitUsage && error.number == 5 && !error.description.empty());
    }

    for (std::size_t i = 1; i < args.size(); ++i) {
        CheckCInterface(args[i]);
        CheckEscaped(args[i]);
        std::u16string text;
        if (TryFromUtf8(args[i], text))
            assert(Breaks(WithCrLfLineEnds(text), true) == Breaks(text, false));
    }
    // Progress as the send reports it: 0 <= sent <= total < 2^31, any terminal width.
    uint64_t numbers[3] = {};
    std::memcpy(numbers, data, std::min(size, sizeof numbers));
    const auto total = static_cast<int64_t>(numbers[1] % (1ull << 31));
    const auto sent = static_cast<int64_t>(numbers[0] % (total + 1));
    const int columns = static_cast<int>(numbers[2] % 400);
    assert(FormatProgressLine("Sending", sent, total, double(numbers[1] >> 31), columns).size() <=
           static_cast<std::size_t>(std::max(columns - 1, 1)));
    assert(!FormatSize(total).empty());
    return 0;
}
