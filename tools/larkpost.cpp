// larkpost: sends one e-mail through an SMTP relay, or writes it to a file. See --help.
#include "larkpost/larkpost.h"

#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <memory>
#include <new>
#include <string>

#include "cli_error.h"
#include "cli_options.h"
#include "control_escapes.h"
#include "password_source.h"
#include "progress_bar.h"
#include "text_input.h"

namespace larkpost::cli {
namespace {

// What a Ctrl-C does depends on where the program stands.
enum Phase : int {
    kPhaseOther = 0,       // ends the program at once: nothing of the text has gone out (a
                           // connect or a reply wait: no event would come to cancel in)
    kPhaseCancelable = 1,  // the text goes into the send buffer: Send cancels at its next event
    kPhaseHandedOver = 2,  // the text is on its way or sent: ends the program at once
};
volatile sig_atomic_t g_phase = kPhaseOther;
volatile sig_atomic_t g_cancelRequested = 0;
volatile sig_atomic_t g_stderrIsTerminal = 0;

void WriteToStderr(const char* text, std::size_t length) {
    (void)!::write(STDERR_FILENO, text, length);
}

extern "C" void OnInterrupt(int) {
    if (g_phase == kPhaseCancelable && !g_cancelRequested) {
        g_cancelRequested = 1;
        return;
    }
    // Erases the progress bar's line; in a file or pipe the escape would be noise.
    static const char erase[] = "\r\x1b[K\n";
    if (g_stderrIsTerminal) WriteToStderr(erase, sizeof erase - 1);
    if (g_phase == kPhaseHandedOver) {
        static const char note[] =
            "larkpost: interrupted after the message text went to the server: it may have been "
            "delivered\n";
        WriteToStderr(note, sizeof note - 1);
        _exit(kExitMaybeDelivered);
    }
    static const char note[] = "larkpost: canceled\n";
    WriteToStderr(note, sizeof note - 1);
    _exit(kExitCanceled);
}

void InstallSignalHandlers() {
    g_stderrIsTerminal = ::isatty(STDERR_FILENO);
    struct sigaction interrupt {};
    interrupt.sa_handler = OnInterrupt;
    sigemptyset(&interrupt.sa_mask);
    ::sigaction(SIGINT, &interrupt, nullptr);
    // A server that closes while text goes out must give an error, not kill the program.
    ::signal(SIGPIPE, SIG_IGN);
}

CliError FromRaised(Step step, const RaisedError& error) {
    return CliError{StatusFor(step, error.Number()), error.Number(), error.what()};
}

// Runs one step of the program, turning a library error into the command's error.
template <class Work>
auto InStep(Step step, Work&& work) {
    try {
        return work();
    } catch (const RaisedError& error) {
        throw FromRaised(step, error);
    }
}

std::string FormatNumber(int32_t number) {
    char text[16];
    // The library's own numbers read best as in its table: 0xA38F03E8 and up.
    if ((static_cast<uint32_t>(number) >> 16) == (static_cast<uint32_t>(ERROR_BASE) >> 16))
        std::snprintf(text, sizeof text, "0x%08X", static_cast<unsigned>(number));
    else
        std::snprintf(text, sizeof text, "%d", number);
    return text;
}

// Server replies end in CR LF; the line breaks between their lines are shown escaped.
std::string WithoutLineEnd(std::string text) {
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r' || text.back() == ' '))
        text.pop_back();
    return text;
}

void PrintError(const CliError& error) {
    std::string line = "larkpost: error " + FormatNumber(error.number) + ": " +
                       EscapeControls(WithoutLineEnd(error.description)) + "\n";
    std::fputs(line.c_str(), stderr);
}

std::shared_ptr<MailMessage> FillMessage(const Options& options) {
    auto message = std::make_shared<MailMessage>();
    std::u16string body;
    std::u16string html;
    if (options.bodyFile) body = ReadTextInput(*options.bodyFile, "body file");
    if (options.htmlFile) html = ReadTextInput(*options.htmlFile, "HTML file");
    InStep(Step::FillMessage, [&] {
        message->FromAddress(std::string_view(options.from));
        message->SenderName(std::string_view(options.senderName));
        message->SubjectLine(std::string_view(options.subject));
        message->StandardFormat(!options.compat);
        // Classic bodies go out as quoted-printable codes of Windows-1252; say so to the reader.
        if (options.compat) message->MimeType(std::string_view("text/plain; charset=windows-1252"));
        for (const auto& header : options.headers) {
            const auto colon = header.find(':');
            const auto value = header.find_first_not_of(" \t", colon + 1);
            message->AddHeader(std::string_view(header).substr(0, colon),
                               value == std::string::npos ? std::string_view()
                                                          : std::string_view(header).substr(value));
        }
        if (!body.empty()) message->Body(std::move(body));
        if (!html.empty()) message->BodyHTML(std::move(html));
        for (const auto& to : options.to) message->AddRecipient(std::string_view(to));
        for (const auto& cc : options.cc) message->AddCCRecipient(std::string_view(cc));
        for (const auto& bcc : options.bcc) message->AddBCCRecipient(std::string_view(bcc));
        for (const auto& path : options.attachments) message->AttachFile(std::string_view(path));
    });
    return message;
}

// Feeds the progress bar and turns a Ctrl-C into CancelSend.
class SendListener : public MailClientEvents {
public:
    SendListener(MailClient& client, ProgressBar& bar) : m_client(client), m_bar(bar) {}

    void SendProgress(const std::shared_ptr<MailMessage>&, int32_t bytesSent,
                      int32_t totalBytes) override {
        if (g_phase == kPhaseOther) g_phase = kPhaseCancelable;
        m_bar.Update("Preparing", bytesSent, totalBytes);
        // From the last slice on, the text leaves in one write that no cancel can stop. The flag
        // is read after the phase changes, so a Ctrl-C just before still cancels.
        if (bytesSent >= totalBytes) g_phase = kPhaseHandedOver;
        if (g_cancelRequested) m_client.CancelSend();
    }
    void SendCanceled() override { m_canceled = true; }

    bool Canceled() const { return m_canceled; }

private:
    MailClient& m_client;
    ProgressBar& m_bar;
    bool m_canceled = false;
};

int SendMessage(const Options& options, const std::shared_ptr<MailMessage>& message) {
    std::string secret;
    if (options.user)
        secret = options.tokenEnv ? ObtainToken(*options.tokenEnv)
                                  : ObtainPassword(*options.user, options.passwordEnv);
    if (options.user && options.security == SECURITY_NONE && !IsLoopbackHost(options.server)) {
        std::fprintf(
            stderr,
            "larkpost: warning: the %s for %s goes to %s without TLS (see --starttls, --tls)\n",
            options.tokenEnv ? "access token" : "password", EscapeControls(*options.user).c_str(),
            EscapeControls(options.server).c_str());
    }

    // The bar outlives the client, whose watchers draw on it.
    ProgressBar bar(STDERR_FILENO, !options.quiet && ::isatty(STDERR_FILENO));
    MailClient client;
    client.StrictDelivery(!options.compat);
    client.PauseMilliseconds(options.compat ? 5 : 0);
    client.WatchWrite(
        [&](int64_t written, int64_t total) { bar.Update("Sending", written, total); });
    if (options.verbose) {
        client.WatchDialogue([&](bool sent, const std::u16string& line) {
            bar.Clear();
            const std::string text = (sent ? "> " : "< ") + EscapeControls(ToUtf8(line)) + "\n";
            std::fputs(text.c_str(), stderr);
        });
    }
    try {
        client.Server(std::string_view(options.server));
        client.Port(options.port);
        client.Timeout = options.timeout;
        client.Security(options.security);
        if (options.caFile) client.CaFile(std::string_view(*options.caFile));
        const std::string user = options.user.value_or("");
        if (options.tokenEnv)
            client.ConnectWithToken(user, std::string_view(secret));
        else
            client.Connect(user, std::string_view(secret));
    } catch (const RaisedError& error) {
        CliError failure = FromRaised(Step::Connect, error);
        failure.description =
            WithoutLineEnd(failure.description) +
            (failure.status == kExitUsage
                 ? " (--server, --user or the password)"
                 : " (server " + options.server + ", port " + std::to_string(options.port) + ")");
        throw failure;
    }

    auto listener = std::make_shared<SendListener>(client, bar);
    client.AddListener(listener);
    InStep(Step::Send, [&] { client.Send(message); });
    g_phase = listener->Canceled() ? kPhaseOther : kPhaseHandedOver;
    bar.Clear();
    client.RemoveListener(listener);

    if (listener->Canceled()) {
        std::fputs(
            "larkpost: canceled: the connection was closed before any of the message "
            "text reached the server\n",
            stderr);
        return kExitCanceled;
    }
    try {
        client.Disconnect();
    } catch (const RaisedError&) {
        // The message is delivered; a QUIT that cannot go out changes nothing for it.
    }
    if (!options.quiet) {
        std::size_t count = options.to.size() + options.cc.size() + options.bcc.size();
        std::fprintf(stderr, "larkpost: sent to %zu recipient%s through %s:%d\n", count,
                     count == 1 ? "" : "s", EscapeControls(options.server).c_str(), options.port);
    }
    return kExitOk;
}

int Run(int argc, char** argv) {
    InstallSignalHandlers();
    if (argc <= 1) {
        std::fputs(HelpText().c_str(), stderr);
        return kExitUsage;
    }
    Options options = ParseOptions(argc, argv);
    if (options.help) {
        std::fputs(HelpText().c_str(), stdout);
        return kExitOk;
    }
    if (options.version) {
        std::printf("larkpost %s\n", LARKPOST_VERSION_STRING);
        return kExitOk;
    }
    auto message = FillMessage(options);
    if (options.saveFile) {
        InStep(Step::Save, [&] { message->SaveToFile(std::string_view(*options.saveFile)); });
        if (!options.quiet)
            std::fprintf(stderr, "larkpost: saved to %s\n",
                         EscapeControls(*options.saveFile).c_str());
        return kExitOk;
    }
    return SendMessage(options, message);
}

}  // namespace
}  // namespace larkpost::cli

int main(int argc, char** argv) {
    using namespace larkpost::cli;
    try {
        return Run(argc, argv);
    } catch (const CliError& error) {
        PrintError(error);
        return error.status;
    } catch (const larkpost::RaisedError& error) {
        PrintError(CliError{kExitInternal, error.Number(), error.what()});
        return kExitInternal;
    } catch (const std::bad_alloc&) {
        PrintError(CliError{kExitInternal, 7, "Out of memory"});
        return kExitInternal;
    } catch (const std::exception& error) {
        PrintError(CliError{kExitInternal, 51, std::string("Internal error: ") + error.what()});
        return kExitInternal;
    }
}
