// A MailClient against a fuzz server: documented failures only, whole-line writes, the outcome the
// replies call for; a second session on the same client meets nothing of the first.
// Input: a byte of options, then the replies split at NUL (the greeting, then one a write).
#include <algorithm>
#include <set>

#include "fuzz_support.h"
#include "larkpost/mail_client.h"
#include "larkpost/mail_message.h"
#include "platform/codepage.h"
#include "platform/socket_errors.h"
#include "support/fake_socket_control.h"
#include "support/mail_message_access.h"

using namespace larkpost;
using test::FakeEvent;

namespace {

std::shared_ptr<test::FakeSocketControl> g_server;  // the control of the session being played
std::u16string g_lastDescription;                   // of the last error Attempt caught

// Run when the connection stands: the replies in turn (an empty one is silence), then a close.
void Play(test::FakeSocketFactory& sockets, const std::vector<std::string>& replies, bool close) {
    g_server = sockets.Last();
    for (std::size_t i = 0; i < replies.size(); ++i) {
        test::FakeScript events{FakeEvent::SendDone(), FakeEvent::Arrival(replies[i])};
        if (replies[i].empty()) events.pop_back();
        if (close && i + 1 == replies.size())
            events.push_back(FakeEvent::Run([] { g_server->Post({FakeEvent::Closed()}); }));
        if (i > 0) g_server->OnSendData(events);
        if (i == 0) g_server->Post({events.begin() + 1, events.end()});
    }
}

// The number of the error the call raised (0: none), which must be one the client documents.
int32_t Attempt(const std::function<void()>& call) {
    static const std::set<int32_t> documented = {
        ERROR_NOT_CONNECTED,         ERROR_RESPONSE_TIMEOUT, ERROR_GREETING_REFUSED,
        ERROR_AUTH_FAILED,           ERROR_AUTH_UNSUPPORTED, ERROR_COMMAND_REFUSED,
        ERROR_MESSAGE_TOO_LARGE,     ERROR_OVERFLOW,         ERROR_TYPE_MISMATCH,
        detail::sckConnectionRefused};
    try {
        call();
        return 0;
    } catch (const RaisedError& error) {
        assert(documented.count(error.Number()));
        g_lastDescription = error.Description();
        return error.Number();
    }
}

// The server's bytes as the client reads them: reply k answers write k - 1; a part-line is dropped.
struct Reply {
    std::vector<std::string> lines;
    std::string text;  // each line with its CR LF
    // The code of the last line: up to three ASCII digits, else -1.
    int code() const {
        const std::string digits = lines.back().substr(0, 3);
        if (digits.empty() || digits.find_first_not_of("0123456789") != digits.npos) return -1;
        return std::stoi(digits);
    }
    // The pieces (split at single spaces, upper-cased) of each keyword line after the first.
    std::vector<std::vector<std::string>> keywords() const {
        std::vector<std::vector<std::string>> result;
        for (std::size_t i = 1; i < lines.size(); ++i) {
            std::string upper = lines[i].size() > 4 ? lines[i].substr(4) : "";
            for (char& c : upper) c = c >= 'a' && c <= 'z' ? char(c - 32) : c;
            result.push_back(fuzz::Split<char>(upper, ' '));
        }
        return result;
    }
    // The last SIZE line's limit (-1: none); the first malformed one's error goes to *error.
    long long sizeLimit(int32_t* error) const {
        long long limit = -1;
        *error = 0;
        for (const auto& pieces : keywords()) {
            if (pieces[0] != "SIZE") continue;
            const std::string value = pieces.size() < 2 ? "" : pieces[1];
            if (pieces.size() < 2) *error = ERROR_INVALID_SIZE_VALUE;
            else if (value.empty() || value.find_first_not_of("0123456789") != value.npos)
                *error = ERROR_TYPE_MISMATCH;
            else if (value.find_first_not_of('0') != value.npos &&
                     (value.size() - value.find_first_not_of('0') > 10 || std::stoll(value) > INT32_MAX))
                *error = ERROR_OVERFLOW;
            if (*error) return -1;
            limit = std::stoll(value);
        }
        return limit;
    }
    bool offers(const std::string& mechanism) const {
        for (const auto& pieces : keywords())
            if (pieces[0] == "AUTH" &&
                std::find(pieces.begin() + 1, pieces.end(), mechanism) != pieces.end())
                return true;
        return false;
    }
};

std::vector<Reply> ParseReplies(const std::string& bytes) {
    std::vector<Reply> replies;
    bool open = false;
    for (std::size_t start = 0, end; (end = bytes.find("\r\n", start)) != bytes.npos; start = end + 2) {
        const std::string line = bytes.substr(start, end - start);
        if (!open) replies.emplace_back();
        replies.back().lines.push_back(line);
        replies.back().text += line + "\r\n";
        open = line.size() > 3 && line[3] == '-';
    }
    if (open) replies.pop_back();
    return replies;
}

// Cancels at the progress event `at` (1: the first slice) and counts SendCanceled.
struct Canceler : MailClientEvents {
    MailClient* client = nullptr;
    int at = 0, progress = 0, canceled = 0;
    void SendProgress(const std::shared_ptr<MailMessage>&, int32_t, int32_t) override {
        if (++progress == at) client->CancelSend();
    }
    void SendCanceled() override { ++canceled; }
};

bool StartsTransaction(const std::string& write) {
    return write.starts_with("MAIL FROM:") || write.starts_with("RCPT TO:") || write == "DATA\r\n";
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) { return fuzz::UseFastTime(); }

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    const int o = size ? data[0] : 0;
    const bool logIn = o & 1, send = o & 2, longText = o & 4, silent = o & 32, refuse = o & 64,
               force = o & 128;
    const int cancelAt = (o >> 3) & 3;  // 0: no cancel
    const std::string input(reinterpret_cast<const char*>(data) + !!size, size - !!size);
    const std::vector<std::string> replies = fuzz::Split<char>(input, '\0');
    test::FakeSocketFactory sockets;
    const std::u16string refused = detail::SocketErrorDescription(detail::sckConnectionRefused);
    sockets.NextConnect(
        refuse ? test::FakeScript{FakeEvent::Failure(detail::sckConnectionRefused, refused)}
               : test::FakeScript{FakeEvent::Connected(),
                                  FakeEvent::Run([&] { Play(sockets, replies, !silent); })});
    g_server.reset();
    MailClient client;
    client.Server("mail.example");
    client.Timeout = 0;  // every silence ends at the first tick
    auto message = std::make_shared<MailMessage>();
    message->FromAddress("sender@example.org");
    message->AddRecipient("to@example.org");
    message->AddCCRecipient("cc@example.org");
    message->SubjectLine("fuzz");
    message->Body(longText ? std::string(3000, 'x') : std::string("short"));
    const std::size_t textLength = detail::MailMessageAccess::BuildBytes(*message).size();
    auto canceler = std::make_shared<Canceler>();
    canceler->client = &client;
    canceler->at = cancelAt;
    client.AddListener(canceler);

    const int32_t connectError =
        Attempt([&] { logIn ? client.Connect(u"user", u"pw") : client.Connect(); });
    const bool connected = connectError == 0;
    const int32_t sendError = connected && send ? Attempt([&] { client.Send(message); }) : -1;
    const std::u16string sendDescription = g_lastDescription;
    Attempt([&] { client.Disconnect(force); });
    client.RemoveListener(canceler);
    const std::vector<std::string> writes = g_server ? g_server->Writes() : std::vector<std::string>{};
    // A flush delayed past the first tick fails, and the next sends its text again: whole lines only.
    bool textWritten = false, retried = false;
    for (const std::string& write : writes) {
        const bool text = write.starts_with("Subject: fuzz\r\n") && write.ends_with("\r\n.\r\n");
        retried |= !text && write.find("\r\n") != write.size() - 2;
        assert(write.ends_with("\r\n"));
        textWritten |= text;
    }
    // A clean server, with a limit generous enough for a busy machine: its SIZE stops the send.
    client.Timeout = 10000;
    const std::vector<std::string> clean = {"220 clean\r\n", "250-clean\r\n250 SIZE 99\r\n",
                                            "221 bye\r\n"};
    sockets.NextConnect(
        {FakeEvent::Connected(), FakeEvent::Run([&] { Play(sockets, clean, false); })});
    assert(!Attempt([&] { client.Connect(); }) &&
           Attempt([&] { client.Send(message); }) == ERROR_MESSAGE_TOO_LARGE &&
           !Attempt([&] { client.Disconnect(); }));
    assert(g_server->Writes() == (std::vector<std::string>{"EHLO fake-host.test\r\n", "QUIT\r\n"}));
    if (retried) return 0;
    assert(!(connected && refuse) && (textWritten || sendError != 0 || canceler->canceled));

    // The outcome the replies call for. Reply k + 1 answers write k.
    std::string served;
    for (const std::string& reply : replies) served += reply;
    const std::vector<Reply> read = ParseReplies(served);
    auto answer = [&](std::size_t write) -> const Reply* {
        return write + 1 < read.size() ? &read[write + 1] : nullptr;
    };
    for (std::size_t k = 0; k < writes.size(); ++k) {
        const Reply* reply = answer(k);
        const bool refused = reply && reply->code() >= 400;
        // After a refused greeting, EHLO or transaction command only QUIT may follow.
        if (k == 0 && !read.empty() && read[0].code() >= 400) assert(writes[0] == "QUIT\r\n");
        if (refused && (writes[k].starts_with("EHLO ") || StartsTransaction(writes[k])) &&
            k + 1 < writes.size())
            assert(writes[k + 1] == "QUIT\r\n");
        // (Unless the reply's last part came after its wait ran out.)
        if (writes[k].starts_with("EHLO ") && reply && reply->code() < 400 && reply->code() >= 0 &&
            connectError != ERROR_RESPONSE_TIMEOUT) {
            // SIZE: a limit below the text's length lets no MAIL FROM out.
            int32_t sizeError = 0;
            const long long limit = reply->sizeLimit(&sizeError);
            const bool tooLarge = limit > 0 && textLength > std::size_t(limit);
            for (const std::string& w : writes) assert(!(tooLarge && w.starts_with("MAIL FROM:")));
            if (tooLarge && connected && send) assert(sendError == ERROR_MESSAGE_TOO_LARGE);
            if (sizeError) assert(connectError == sizeError);
            // AUTH: LOGIN when offered, else PLAIN, else none and the documented refusal.
            if (logIn && k + 1 < writes.size()) {
                const std::string expected = sizeError                   ? "QUIT\r\n"
                                             : reply->offers("LOGIN") ? "AUTH LOGIN\r\n"
                                             : reply->offers("PLAIN") ? "AUTH PLAIN\r\n"
                                                                      : "QUIT\r\n";
                assert(writes[k + 1] == expected);
                assert(expected != "QUIT\r\n" ||
                       connectError == (sizeError ? sizeError : ERROR_AUTH_UNSUPPORTED));
            }
        }
    }
    if (sendError == ERROR_COMMAND_REFUSED) {
        // The last command before the QUIT (if any) was refused, and the error carries its reply.
        std::size_t last = writes.size() - 1;
        if (writes[last] == "QUIT\r\n") --last;
        assert(StartsTransaction(writes[last]) && answer(last) && answer(last)->code() >= 400);
        assert(detail::ToAnsi(sendDescription) == answer(last)->text);
    }
    // A cancel from a progress handler: nothing of the text, the connection closed, no error.
    if (canceler->canceled) {
        assert(cancelAt && !textWritten && sendError == 0 && writes.back() == "DATA\r\n");
    } else if (cancelAt && sendError == 0 && send && connected) {
        assert(textWritten && canceler->progress < cancelAt);
    }

    return 0;
}
