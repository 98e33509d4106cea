#include "cli_options.h"

#include <charconv>
#include <functional>
#include <string_view>

#include "cli_error.h"
#include "larkpost/mail_client.h"

namespace larkpost::cli {
namespace {

int32_t ParseNumber(std::string_view option, const std::string& value, int32_t minimum,
                    int32_t maximum) {
    int32_t number = 0;
    auto [end, error] = std::from_chars(value.data(), value.data() + value.size(), number);
    if (error != std::errc() || end != value.data() + value.size() || value.empty() ||
        number < minimum || number > maximum) {
        throw UsageError("option " + std::string(option) + " needs a whole number from " +
                         std::to_string(minimum) + " to " + std::to_string(maximum) + ", not '" +
                         value + "'");
    }
    return number;
}

struct OptionRule {
    std::string_view name;
    bool takesValue;
    std::function<void(Options&, const std::string&)> apply;
};

const std::vector<OptionRule>& Rules() {
    static const std::vector<OptionRule> rules = {
        {"--help", false, [](Options& o, const std::string&) { o.help = true; }},
        {"--version", false, [](Options& o, const std::string&) { o.version = true; }},
        {"--quiet", false, [](Options& o, const std::string&) { o.quiet = true; }},
        {"--verbose", false, [](Options& o, const std::string&) { o.verbose = true; }},
        {"-v", false, [](Options& o, const std::string&) { o.verbose = true; }},
        {"--compat", false, [](Options& o, const std::string&) { o.compat = true; }},
        {"--server", true, [](Options& o, const std::string& v) { o.server = v; }},
        {"--port", true,
         [](Options& o, const std::string& v) { o.port = ParseNumber("--port", v, 1, 65535); }},
        {"--timeout", true,
         [](Options& o, const std::string& v) {
             o.timeout = ParseNumber("--timeout", v, 1, 24 * 3600);
         }},
        {"--starttls", false,
         [](Options& o, const std::string&) { o.security = SECURITY_STARTTLS; }},
        {"--tls", false, [](Options& o, const std::string&) { o.security = SECURITY_TLS; }},
        {"--ca-file", true, [](Options& o, const std::string& v) { o.caFile = v; }},
        {"--oauth2-token-env", true, [](Options& o, const std::string& v) { o.tokenEnv = v; }},
        {"--user", true, [](Options& o, const std::string& v) { o.user = v; }},
        {"--password-env", true, [](Options& o, const std::string& v) { o.passwordEnv = v; }},
        {"--from", true, [](Options& o, const std::string& v) { o.from = v; }},
        {"--sender-name", true, [](Options& o, const std::string& v) { o.senderName = v; }},
        {"--to", true, [](Options& o, const std::string& v) { o.to.push_back(v); }},
        {"--cc", true, [](Options& o, const std::string& v) { o.cc.push_back(v); }},
        {"--bcc", true, [](Options& o, const std::string& v) { o.bcc.push_back(v); }},
        {"--subject", true, [](Options& o, const std::string& v) { o.subject = v; }},
        {"--body", true, [](Options& o, const std::string& v) { o.bodyFile = v; }},
        {"--html", true, [](Options& o, const std::string& v) { o.htmlFile = v; }},
        {"--attach", true, [](Options& o, const std::string& v) { o.attachments.push_back(v); }},
        {"--header", true,
         [](Options& o, const std::string& v) {
             if (v.find(':') == std::string::npos)
                 throw UsageError("--header needs \"Name: value\", not '" + v + "'");
             o.headers.push_back(v);
         }},
        {"--save", true, [](Options& o, const std::string& v) { o.saveFile = v; }},
    };
    return rules;
}

const OptionRule* FindRule(std::string_view name) {
    for (const auto& rule : Rules()) {
        if (rule.name == name) return &rule;
    }
    return nullptr;
}

void CheckCombination(const Options& options) {
    if (options.help || options.version) return;
    if (options.bodyFile == "-" && options.htmlFile == "-")
        throw UsageError("--body and --html cannot both read standard input");
    if (options.saveFile && !options.server.empty())
        throw UsageError("--save writes the message instead of sending it: leave out --server");
    if (options.saveFile && options.user)
        throw UsageError("--user has no use with --save, which sends nothing");
    if (options.passwordEnv && !options.user) throw UsageError("--password-env needs --user");
    if (options.tokenEnv && !options.user) throw UsageError("--oauth2-token-env needs --user");
    if (options.tokenEnv && options.passwordEnv)
        throw UsageError("--oauth2-token-env and --password-env exclude each other");
    if (options.caFile && options.security == SECURITY_NONE)
        throw UsageError("--ca-file needs --starttls or --tls");
    if (options.from.empty()) throw UsageError("--from is needed: the sender's address");
    if (!options.saveFile) {
        if (options.server.empty())
            throw UsageError("--server is needed to send (or --save FILE to write the message)");
        if (options.to.empty()) throw UsageError("at least one --to is needed to send a message");
    }
}

}  // namespace

Options ParseOptions(int argc, const char* const argv[]) {
    Options options;
    for (int i = 1; i < argc; ++i) {
        std::string_view argument = argv[i];
        if (argument == "--") {  // what follows is recipients, whatever it looks like
            options.to.insert(options.to.end(), argv + i + 1, argv + argc);
            break;
        }
        std::string_view name = argument;
        std::optional<std::string> inlineValue;
        if (auto equals = argument.find('=');
            argument.starts_with("--") && equals != argument.npos) {
            name = argument.substr(0, equals);
            inlineValue = std::string(argument.substr(equals + 1));
        }
        if (name == "--password") {
            throw UsageError(
                "there is no --password option, so that no password stands on a command line: "
                "set LARKPOST_PASSWORD, use --password-env VARIABLE, or type it at the prompt");
        }
        const OptionRule* rule = FindRule(name);
        if (rule == nullptr) {
            if (argument.starts_with("-"))
                throw UsageError("unknown option '" + std::string(argument) + "' (see --help)");
            throw UsageError("unexpected argument '" + std::string(argument) +
                             "': every value belongs to an option (see --help)");
        }
        if (!rule->takesValue) {
            if (inlineValue) throw UsageError("option " + std::string(name) + " takes no value");
            rule->apply(options, {});
            continue;
        }
        std::string value;
        if (inlineValue) {
            value = *inlineValue;
        } else {
            // "--to --cc x" forgot a value; a value that starts with "--" is given as --to=--x.
            if (i + 1 >= argc || std::string_view(argv[i + 1]).starts_with("--"))
                throw UsageError("option " + std::string(name) + " needs a value");
            value = argv[++i];
        }
        rule->apply(options, value);
    }
    CheckCombination(options);
    if (options.port == 0)
        options.port = options.security == SECURITY_TLS        ? 465
                       : options.security == SECURITY_STARTTLS ? 587
                                                               : 25;
    return options;
}

bool IsLoopbackHost(std::string_view host) {
    return host == "localhost" || host.starts_with("127.") || host == "::1" || host == "[::1]";
}

std::string HelpText() {
    return R"(Usage: larkpost --server HOST --from ADDRESS --to ADDRESS [options]
       larkpost --save FILE --from ADDRESS [options]

Sends one e-mail through an SMTP relay, or writes it to a file.

Connection:
  --server HOST         the relay's host name or address (needed to send)
  --port N              the relay's port (default 25; 587 with --starttls, 465 with --tls)
  --starttls            switch to TLS with STARTTLS before logging in (fails if not offered)
  --tls                 speak TLS from the first byte (implicit TLS, usually port 465)
  --ca-file FILE        trust the CA certificates in FILE instead of the system's store
  --timeout SECONDS     how long a reply from the server may take (default 30)
  --user NAME           log in as NAME with AUTH LOGIN or AUTH PLAIN; the password comes from
                        the environment variable named by --password-env, else LARKPOST_PASSWORD,
                        else a prompt (without echo) when there is a terminal. There is no
                        password option: a password never stands on the command line.
  --password-env VAR    read the password from environment variable VAR
  --oauth2-token-env VAR  log in as --user with AUTH XOAUTH2, the OAuth 2.0 access token
                        read from environment variable VAR (Gmail, Microsoft 365)
  A password or token sent without TLS to a host other than this one draws a warning.

Message:
  --from ADDRESS        the sender's address (needed)
  --sender-name NAME    the sender's display name
  --to ADDRESS          a recipient; repeat for more (at least one is needed to send)
  --cc ADDRESS          a copy recipient; repeatable
  --bcc ADDRESS         a blind copy recipient; repeatable. No recipient sees it (with
                        --compat the text carries a Bcc: line, which every recipient receives).
  --subject TEXT        the subject line
  --body FILE           the plain text body, UTF-8; "-" reads standard input
  --html FILE           the HTML body, UTF-8; "-" reads standard input
  --attach FILE         attach a file; repeatable
  --header "NAME: VALUE"  an extra header field, such as "Reply-To: a@example.org"; repeatable
  --compat              the library's classic format instead of the standard one: no Date or
                        Message-ID, addresses joined by ";", text in Windows-1252 (a character
                        outside it becomes "?"), a Bcc: line
  The message is written in the standard Internet format (RFC 5322, MIME): UTF-8 text,
  encoded so that the whole message is 7-bit ASCII. Line ends of the bodies are sent as CR LF.

Output:
  --save FILE           write the message text to FILE instead of sending it
  --quiet               no progress bar and no closing note
  -v, --verbose         print the dialogue with the server on standard error (login tokens
                        masked)
  --compat              the library's classic delivery: a refusal after the message text is
                        not an error, no RSET after a failed transaction, a closed connection
                        is found by the time-out, connecting may take up to 21 s, lines of the
                        text that begin with "." go out unchanged, and Send pauses 5 ms before
                        every 2048 characters. Without it the command delivers strictly and
                        without pauses.
  --help                show this help and exit
  --version             show the version and exit
  An option's value may also be given as --option=VALUE; a value that begins with "--"
  must be given that way. Arguments after "--" are recipients, as --to.

While sending, a progress bar is drawn on standard error when it is a terminal: the message
going into the send buffer ("Preparing", seen with --compat's pauses), then its one write to
the server ("Sending"), with the rate and the time left. Ctrl-C cancels at once at any point
before the write (status 130): nothing of the message text reaches the server. Once the text
is on its way, a Ctrl-C ends the program at once with status 6: it may have been delivered.

Errors are printed as "larkpost: error NUMBER: DESCRIPTION". The library's own numbers are
printed in hexadecimal (0xA38F03E8 and up), the runtime's in decimal (5 invalid argument,
53 file not found, 70 permission denied, ...). Control characters in what the command prints
from elsewhere (server replies, file names, addresses) are shown as \r, \n, \t, \xNN (other
controls, DEL, bytes that are not UTF-8) or \u{NN} (C1 controls), so a server reply's lines
print as one line.

Exit status:
  0    the message was sent or saved
  1    an unexpected internal failure
  2    usage: an unknown option, a missing or bad value, a missing needed option, a server
       name, user name or password that is not UTF-8
  3    file: a body, HTML or attached file cannot be read, or the --save file cannot be written
  4    connection or server: no connection, no answer in time, a closed connection, a refused
       greeting, login, command or message (after its text)
  5    message: a blank or repeated recipient, a line break in a header value, an address that
       is not ASCII, a --header that cannot be added, a message too large for the server, a body
       longer than a message can carry (2147483647 characters)
  6    interrupted with Ctrl-C after the message text went to the server: it may have been
       delivered, so check before sending it again
  130  canceled with Ctrl-C: nothing of the message text reached the server
)";
}

}  // namespace larkpost::cli
