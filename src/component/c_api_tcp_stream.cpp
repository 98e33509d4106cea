// The C interface of TcpStream.
#include "component/c_call.h"
#include "larkpost/larkpost_c.h"
#include "larkpost/tcp_stream.h"

using namespace larkpost;
using namespace larkpost::capi;

namespace {

constexpr std::string_view kClass = "Larkpost.TcpStream";

template <class Work>
int32_t OnStream(std::string_view function, larkpost_object* handle, Work&& work) noexcept {
    return CallOn<TcpStream>(function, handle, kClass, std::forward<Work>(work));
}

// A member that gives text: the result pointer is checked before the member runs, because the
// reads consume what they return.
template <class Member>
int32_t TextResult(std::string_view function, larkpost_object* handle, char** out,
                   size_t* outLength, Member&& member) noexcept {
    return OnStream(function, handle, [&](TcpStream& self) {
        RequireOutText(function, out, outLength);
        OutText(out, outLength, member(self));
    });
}

int32_t BoolResult(std::string_view function, larkpost_object* handle, int32_t* out,
                   bool (TcpStream::*member)()) noexcept {
    return OnStream(function, handle, [&](TcpStream& self) {
        RequireOut(function, out);
        *out = (self.*member)() ? 1 : 0;
    });
}

}  // namespace

extern "C" {

LARKPOST_API int32_t larkpost_tcp_stream_get_response_timeout(larkpost_object* stream,
                                                              int32_t* out) {
    const std::string_view function = __func__;
    return OnStream(function, stream, [&](TcpStream& self) {
        RequireOut(function, out);
        *out = self.ResponseTimeout;
    });
}

LARKPOST_API int32_t larkpost_tcp_stream_set_response_timeout(larkpost_object* stream,
                                                              int32_t value) {
    return OnStream(__func__, stream, [&](TcpStream& self) { self.ResponseTimeout = value; });
}

LARKPOST_API int32_t larkpost_tcp_stream_connect(larkpost_object* stream,
                                                 const char* hostname_or_ip, int32_t port) {
    const std::string_view function = __func__;
    return OnStream(function, stream, [&](TcpStream& self) {
        self.Connect(InText(function, "hostname_or_ip", hostname_or_ip), port);
    });
}

LARKPOST_API int32_t larkpost_tcp_stream_disconnect(larkpost_object* stream) {
    return OnStream(__func__, stream, [&](TcpStream& self) { self.Disconnect(); });
}

LARKPOST_API int32_t larkpost_tcp_stream_send(larkpost_object* stream, const char* data) {
    const std::string_view function = __func__;
    return OnStream(function, stream,
                    [&](TcpStream& self) { self.Send(InText(function, "data", data)); });
}

LARKPOST_API int32_t larkpost_tcp_stream_send_line(larkpost_object* stream, const char* data) {
    const std::string_view function = __func__;
    return OnStream(function, stream,
                    [&](TcpStream& self) { self.SendLine(InText(function, "data", data)); });
}

LARKPOST_API int32_t larkpost_tcp_stream_flush(larkpost_object* stream) {
    return OnStream(__func__, stream, [&](TcpStream& self) { self.Flush(); });
}

LARKPOST_API int32_t larkpost_tcp_stream_at_end_of_stream(larkpost_object* stream, int32_t* out) {
    return BoolResult(__func__, stream, out, &TcpStream::AtEndOfStream);
}

LARKPOST_API int32_t larkpost_tcp_stream_read(larkpost_object* stream, int32_t num_chars,
                                              char** out, size_t* out_length) {
    return TextResult(__func__, stream, out, out_length,
                      [&](TcpStream& self) { return self.Read(num_chars); });
}

LARKPOST_API int32_t larkpost_tcp_stream_peek(larkpost_object* stream, int32_t num_chars,
                                              char** out, size_t* out_length) {
    return TextResult(__func__, stream, out, out_length,
                      [&](TcpStream& self) { return self.Peek(num_chars); });
}

LARKPOST_API int32_t larkpost_tcp_stream_read_line(larkpost_object* stream, char** out,
                                                   size_t* out_length) {
    return TextResult(__func__, stream, out, out_length,
                      [](TcpStream& self) { return self.ReadLine(); });
}

LARKPOST_API int32_t larkpost_tcp_stream_read_to_end(larkpost_object* stream, char** out,
                                                     size_t* out_length) {
    return TextResult(__func__, stream, out, out_length,
                      [](TcpStream& self) { return self.ReadToEnd(); });
}

LARKPOST_API int32_t larkpost_tcp_stream_connected(larkpost_object* stream, int32_t* out) {
    return BoolResult(__func__, stream, out, &TcpStream::Connected);
}

LARKPOST_API int32_t larkpost_tcp_stream_start_tls(larkpost_object* stream,
                                                   int32_t verify_certificate,
                                                   const char* ca_file) {
    const std::string_view function = __func__;
    return OnStream(function, stream, [&](TcpStream& self) {
        self.StartTls(verify_certificate != 0, InText(function, "ca_file", ca_file));
    });
}

LARKPOST_API int32_t larkpost_tcp_stream_local_host_name(larkpost_object* stream, char** out,
                                                         size_t* out_length) {
    return TextResult(__func__, stream, out, out_length,
                      [](TcpStream& self) { return self.LocalHostName(); });
}

}  // extern "C"
