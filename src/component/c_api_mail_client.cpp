// The C interface of MailClient.
#include "component/c_call.h"
#include "component/c_event_bridge.h"
#include "larkpost/larkpost_c.h"
#include "larkpost/mail_client.h"
#include "larkpost/mail_message.h"
#include "larkpost/text.h"

using namespace larkpost;
using namespace larkpost::capi;

namespace {

constexpr std::string_view kClass = "Larkpost.MailClient";

template <class Work>
int32_t OnClient(std::string_view function, larkpost_object* handle, Work&& work) noexcept {
    return CallOn<MailClient>(function, handle, kClass, std::forward<Work>(work));
}

}  // namespace

extern "C" {

LARKPOST_API int32_t larkpost_mail_client_get_timeout(larkpost_object* client, int32_t* out) {
    const std::string_view function = __func__;
    return OnClient(function, client, [&](MailClient& self) {
        RequireOut(function, out);
        *out = self.Timeout;
    });
}

LARKPOST_API int32_t larkpost_mail_client_set_timeout(larkpost_object* client, int32_t value) {
    return OnClient(__func__, client, [&](MailClient& self) { self.Timeout = value; });
}

LARKPOST_API int32_t larkpost_mail_client_set_server(larkpost_object* client, const char* rhs) {
    const std::string_view function = __func__;
    return OnClient(function, client,
                    [&](MailClient& self) { self.Server(InText(function, "rhs", rhs)); });
}

LARKPOST_API int32_t larkpost_mail_client_get_server(larkpost_object* client, char** out,
                                                     size_t* out_length) {
    const std::string_view function = __func__;
    return OnClient(function, client, [&](MailClient& self) {
        RequireOutText(function, out, out_length);
        OutText(out, out_length, self.Server());
    });
}

LARKPOST_API int32_t larkpost_mail_client_set_port(larkpost_object* client, int32_t rhs) {
    return OnClient(__func__, client, [&](MailClient& self) { self.Port(rhs); });
}

LARKPOST_API int32_t larkpost_mail_client_get_port(larkpost_object* client, int32_t* out) {
    const std::string_view function = __func__;
    return OnClient(function, client, [&](MailClient& self) {
        RequireOut(function, out);
        *out = self.Port();
    });
}

LARKPOST_API int32_t larkpost_mail_client_connect(larkpost_object* client, const char* username,
                                                  const char* password) {
    const std::string_view function = __func__;
    return OnClient(function, client, [&](MailClient& self) {
        std::u16string user = InText(function, "username", username);
        std::u16string pass = InText(function, "password", password);
        self.Connect(user, pass);
    });
}

LARKPOST_API int32_t larkpost_mail_client_connect_with_token(larkpost_object* client,
                                                             const char* username,
                                                             const char* access_token) {
    const std::string_view function = __func__;
    return OnClient(function, client, [&](MailClient& self) {
        std::u16string user = InText(function, "username", username);
        std::u16string token = InText(function, "access_token", access_token);
        self.ConnectWithToken(user, token);
    });
}

LARKPOST_API int32_t larkpost_mail_client_set_security(larkpost_object* client, int32_t security) {
    return OnClient(__func__, client, [&](MailClient& self) { self.Security(security); });
}

LARKPOST_API int32_t larkpost_mail_client_get_security(larkpost_object* client, int32_t* out) {
    const std::string_view function = __func__;
    return OnClient(function, client, [&](MailClient& self) {
        RequireOut(function, out);
        *out = self.Security();
    });
}

LARKPOST_API int32_t larkpost_mail_client_set_verify_certificate(larkpost_object* client,
                                                                 int32_t verify) {
    return OnClient(__func__, client,
                    [&](MailClient& self) { self.VerifyCertificate(verify != 0); });
}

LARKPOST_API int32_t larkpost_mail_client_get_verify_certificate(larkpost_object* client,
                                                                 int32_t* out) {
    const std::string_view function = __func__;
    return OnClient(function, client, [&](MailClient& self) {
        RequireOut(function, out);
        *out = self.VerifyCertificate() ? 1 : 0;
    });
}

LARKPOST_API int32_t larkpost_mail_client_set_ca_file(larkpost_object* client, const char* path) {
    const std::string_view function = __func__;
    return OnClient(function, client,
                    [&](MailClient& self) { self.CaFile(InText(function, "path", path)); });
}

LARKPOST_API int32_t larkpost_mail_client_get_ca_file(larkpost_object* client, char** out,
                                                      size_t* out_length) {
    const std::string_view function = __func__;
    return OnClient(function, client, [&](MailClient& self) {
        RequireOutText(function, out, out_length);
        OutText(out, out_length, self.CaFile());
    });
}

LARKPOST_API int32_t larkpost_mail_client_disconnect(larkpost_object* client, int32_t force) {
    return OnClient(__func__, client, [&](MailClient& self) { self.Disconnect(force != 0); });
}

LARKPOST_API int32_t larkpost_mail_client_send(larkpost_object* client, larkpost_object* message) {
    const std::string_view function = __func__;
    return OnClient(function, client, [&](MailClient& self) {
        // A null message goes on to Send, which has its own error for it.
        std::shared_ptr<MailMessage> instance;
        if (message != nullptr) instance = CheckedInstance<MailMessage>(function, message);
        SendingMessageScope scope(instance.get(), message);
        self.Send(instance);
    });
}

LARKPOST_API int32_t larkpost_mail_client_cancel_send(larkpost_object* client) {
    return OnClient(__func__, client, [&](MailClient& self) { self.CancelSend(); });
}

LARKPOST_API int32_t larkpost_mail_client_set_events(larkpost_object* client,
                                                     larkpost_send_progress_callback send_progress,
                                                     larkpost_event_callback cancel_pending,
                                                     larkpost_event_callback send_canceled,
                                                     void* user_data) {
    const std::string_view function = __func__;
    return OnClient(function, client, [&](MailClient& self) {
        // The bridge stays attached for the client's life, so that callbacks can be replaced
        // from inside an event without touching the client's listener list while it is raising.
        EventBridgeOf(function, client, self)
            ->SetCallbacks(send_progress, cancel_pending, send_canceled, user_data);
    });
}

LARKPOST_API int32_t larkpost_mail_client_get_strict_delivery(larkpost_object* client,
                                                              int32_t* out) {
    const std::string_view function = __func__;
    return OnClient(function, client, [&](MailClient& self) {
        RequireOut(function, out);
        *out = self.StrictDelivery() ? 1 : 0;
    });
}

LARKPOST_API int32_t larkpost_mail_client_set_strict_delivery(larkpost_object* client,
                                                              int32_t value) {
    return OnClient(__func__, client, [&](MailClient& self) { self.StrictDelivery(value != 0); });
}

LARKPOST_API int32_t larkpost_mail_client_get_pause_milliseconds(larkpost_object* client,
                                                                 int32_t* out) {
    const std::string_view function = __func__;
    return OnClient(function, client, [&](MailClient& self) {
        RequireOut(function, out);
        *out = self.PauseMilliseconds();
    });
}

LARKPOST_API int32_t larkpost_mail_client_set_pause_milliseconds(larkpost_object* client,
                                                                 int32_t value) {
    return OnClient(__func__, client, [&](MailClient& self) { self.PauseMilliseconds(value); });
}

LARKPOST_API int32_t larkpost_mail_client_set_watchers(larkpost_object* client,
                                                       larkpost_dialogue_callback dialogue,
                                                       larkpost_write_callback write,
                                                       void* user_data) {
    return OnClient(__func__, client, [&](MailClient& self) {
        MailClient::DialogueWatcher onLine;
        if (dialogue != nullptr) {
            onLine = [=](bool sent, const std::u16string& line) {
                dialogue(user_data, sent ? 1 : 0, ToUtf8(line).c_str());
            };
        }
        MailClient::WriteWatcher onWrite;
        if (write != nullptr)
            onWrite = [=](int64_t done, int64_t all) { write(user_data, done, all); };
        self.WatchDialogue(std::move(onLine));
        self.WatchWrite(std::move(onWrite));
    });
}

}  // extern "C"
