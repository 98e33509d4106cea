/* The C interface of Larkpost: every public member of the four classes behind a stable ABI, for
 * C programs and for other languages (Python's ctypes, FFI bindings).
 *
 * Objects. larkpost_create() makes a new object of a class named "Larkpost.MailClient",
 * "Larkpost.TcpStream", "Larkpost.MailMessage" or "Larkpost.StringBuilder" (ASCII case does not
 * matter) and hands back an opaque handle with a reference count of 1. larkpost_retain() adds a
 * reference, larkpost_release() drops one; the object goes with the last. A null, released or
 * foreign handle, or a handle of the wrong class, gives an error and never a crash; a released
 * handle stays invalid for good, also once new objects have been created.
 *
 * Errors. Every function that can fail returns an int32_t: 0 on success, otherwise the error
 * number (the library's own numbers are LARKPOST_ERROR_BASE + 1000 and up; see larkpost/error.h).
 * The description and source of the last call on the calling thread are read with
 * larkpost_error_description() and larkpost_error_source(); a successful call clears them.
 * No C++ exception ever leaves this interface.
 *
 * Strings. Text goes in and out in UTF-8. A string argument is NUL-terminated; NULL stands for
 * the empty string. Text that is not valid UTF-8 gives error 5. A string result is a new
 * NUL-terminated buffer that the caller frees with larkpost_string_free(); its length in bytes
 * is also stored through the optional length pointer, so text holding NUL characters survives.
 *
 * Threads. An object belongs to the thread that uses it: call its functions from one thread at
 * a time. Event callbacks run on that thread, inside the call that raises them.
 */
#ifndef LARKPOST_LARKPOST_C_H
#define LARKPOST_LARKPOST_C_H

#include <stddef.h>
#include <stdint.h>

#include "larkpost/export.h"

#ifdef __cplusplus
extern "C" {
#endif

/* An object of any of the four classes. */
typedef struct larkpost_object larkpost_object;

/* Error numbers of the C interface itself, besides those of the classes (larkpost/error.h). */
#define LARKPOST_OK 0
#define LARKPOST_ERROR_INVALID_ARGUMENT 5 /* bad argument, invalid UTF-8, null out pointer */
#define LARKPOST_ERROR_OUT_OF_MEMORY 7
#define LARKPOST_ERROR_TYPE_MISMATCH 13  /* a handle of another class than the function's */
#define LARKPOST_ERROR_INTERNAL 51       /* a failure the library did not foresee */
#define LARKPOST_ERROR_NULL_HANDLE 91    /* a null handle */
#define LARKPOST_ERROR_CANNOT_CREATE 429 /* an unknown class name */
#define LARKPOST_ERROR_BASE ((int32_t)0xA38F0000u)

/* Values of the MailClient's security setting (an extension; see larkpost/mail_client.h). */
#define LARKPOST_SECURITY_NONE 0
#define LARKPOST_SECURITY_STARTTLS 1
#define LARKPOST_SECURITY_TLS 2

/* The library's version, such as "1.0.0" (LARKPOST_VERSION_STRING of larkpost/version.h). */
LARKPOST_API const char* larkpost_library_version(void);

/* ---- objects ---- */

/* Creates a new object of the named class; *out receives its handle (NULL on failure). */
LARKPOST_API int32_t larkpost_create(const char* class_name, larkpost_object** out);
/* Adds a reference and returns the same handle (NULL for a handle that is not live). */
LARKPOST_API larkpost_object* larkpost_retain(larkpost_object* object);
/* Drops a reference; the last one destroys the object. NULL is ignored. */
LARKPOST_API void larkpost_release(larkpost_object* object);
/* "Larkpost.MailClient" and so on, or NULL for a handle that is not live. Static text. */
LARKPOST_API const char* larkpost_class_name(const larkpost_object* object);

/* ---- errors and strings ---- */

/* Number, description and source of the failure of the last call on this thread (0 and empty
 * text after a success). The texts stay valid until the next call of this interface on this
 * thread. */
LARKPOST_API int32_t larkpost_error_number(void);
LARKPOST_API const char* larkpost_error_description(void);
LARKPOST_API const char* larkpost_error_source(void);
/* Frees a string result. NULL is ignored. */
LARKPOST_API void larkpost_string_free(char* text);

/* ---- MailClient ---- */

LARKPOST_API int32_t larkpost_mail_client_get_timeout(larkpost_object* client, int32_t* out);
LARKPOST_API int32_t larkpost_mail_client_set_timeout(larkpost_object* client, int32_t value);
LARKPOST_API int32_t larkpost_mail_client_set_server(larkpost_object* client, const char* rhs);
LARKPOST_API int32_t larkpost_mail_client_get_server(larkpost_object* client, char** out,
                                                     size_t* out_length);
LARKPOST_API int32_t larkpost_mail_client_set_port(larkpost_object* client, int32_t rhs);
LARKPOST_API int32_t larkpost_mail_client_get_port(larkpost_object* client, int32_t* out);
/* Username and password may be NULL (empty: no login). */
LARKPOST_API int32_t larkpost_mail_client_connect(larkpost_object* client, const char* username,
                                                  const char* password);
/* Extension: logs in with AUTH XOAUTH2, an OAuth 2.0 access token for the user name. */
LARKPOST_API int32_t larkpost_mail_client_connect_with_token(larkpost_object* client,
                                                             const char* username,
                                                             const char* access_token);
LARKPOST_API int32_t larkpost_mail_client_disconnect(larkpost_object* client, int32_t force);
/* message may be NULL: Send then fails with LARKPOST_ERROR_BASE + 2004. */
LARKPOST_API int32_t larkpost_mail_client_send(larkpost_object* client, larkpost_object* message);
LARKPOST_API int32_t larkpost_mail_client_cancel_send(larkpost_object* client);

/* Extension: TLS, read by each connect. security is one of LARKPOST_SECURITY_*; the certificate
 * is verified (verify non-zero, the default) against ca_file, or the system's trust store when
 * it is empty. */
LARKPOST_API int32_t larkpost_mail_client_set_security(larkpost_object* client, int32_t security);
LARKPOST_API int32_t larkpost_mail_client_get_security(larkpost_object* client, int32_t* out);
LARKPOST_API int32_t larkpost_mail_client_set_verify_certificate(larkpost_object* client,
                                                                 int32_t verify);
LARKPOST_API int32_t larkpost_mail_client_get_verify_certificate(larkpost_object* client,
                                                                 int32_t* out);
LARKPOST_API int32_t larkpost_mail_client_set_ca_file(larkpost_object* client, const char* path);
LARKPOST_API int32_t larkpost_mail_client_get_ca_file(larkpost_object* client, char** out,
                                                      size_t* out_length);

/* Events. The message handle of send_progress is the one given to larkpost_mail_client_send,
 * lent for the length of the callback (retain it to keep it). A callback may call back into the
 * client, larkpost_mail_client_cancel_send() above all. */
typedef void (*larkpost_send_progress_callback)(void* user_data, larkpost_object* message,
                                                int32_t bytes_sent, int32_t total_bytes);
typedef void (*larkpost_event_callback)(void* user_data);

/* Attaches one set of callbacks to the client, replacing the set attached before; any callback
 * may be NULL, and all three NULL detach. user_data is passed to each callback unchanged. */
LARKPOST_API int32_t larkpost_mail_client_set_events(larkpost_object* client,
                                                     larkpost_send_progress_callback send_progress,
                                                     larkpost_event_callback cancel_pending,
                                                     larkpost_event_callback send_canceled,
                                                     void* user_data);

/* Extensions (see mail_client.h): strict delivery, 0 (the default) or 1; the pause of Send in
 * milliseconds (default 5; 0: none). */
LARKPOST_API int32_t larkpost_mail_client_get_strict_delivery(larkpost_object* client,
                                                              int32_t* out);
LARKPOST_API int32_t larkpost_mail_client_set_strict_delivery(larkpost_object* client,
                                                              int32_t value);
LARKPOST_API int32_t larkpost_mail_client_get_pause_milliseconds(larkpost_object* client,
                                                                 int32_t* out);
LARKPOST_API int32_t larkpost_mail_client_set_pause_milliseconds(larkpost_object* client,
                                                                 int32_t value);
/* Watchers for logs and progress displays: each line of the dialogue (sent: 1 for the client's,
 * 0 for the server's; UTF-8, lent for the call; login tokens masked), and how much of the
 * message text's one write has gone. Either may be NULL; both NULL detach. */
typedef void (*larkpost_dialogue_callback)(void* user_data, int32_t sent, const char* line);
typedef void (*larkpost_write_callback)(void* user_data, int64_t written, int64_t total);
LARKPOST_API int32_t larkpost_mail_client_set_watchers(larkpost_object* client,
                                                       larkpost_dialogue_callback dialogue,
                                                       larkpost_write_callback write,
                                                       void* user_data);

/* ---- TcpStream ---- */

LARKPOST_API int32_t larkpost_tcp_stream_get_response_timeout(larkpost_object* stream,
                                                              int32_t* out);
LARKPOST_API int32_t larkpost_tcp_stream_set_response_timeout(larkpost_object* stream,
                                                              int32_t value);
LARKPOST_API int32_t larkpost_tcp_stream_connect(larkpost_object* stream,
                                                 const char* hostname_or_ip, int32_t port);
LARKPOST_API int32_t larkpost_tcp_stream_disconnect(larkpost_object* stream);
LARKPOST_API int32_t larkpost_tcp_stream_send(larkpost_object* stream, const char* data);
LARKPOST_API int32_t larkpost_tcp_stream_send_line(larkpost_object* stream, const char* data);
LARKPOST_API int32_t larkpost_tcp_stream_flush(larkpost_object* stream);
LARKPOST_API int32_t larkpost_tcp_stream_at_end_of_stream(larkpost_object* stream, int32_t* out);
LARKPOST_API int32_t larkpost_tcp_stream_read(larkpost_object* stream, int32_t num_chars,
                                              char** out, size_t* out_length);
LARKPOST_API int32_t larkpost_tcp_stream_peek(larkpost_object* stream, int32_t num_chars,
                                              char** out, size_t* out_length);
LARKPOST_API int32_t larkpost_tcp_stream_read_line(larkpost_object* stream, char** out,
                                                   size_t* out_length);
LARKPOST_API int32_t larkpost_tcp_stream_read_to_end(larkpost_object* stream, char** out,
                                                     size_t* out_length);
LARKPOST_API int32_t larkpost_tcp_stream_connected(larkpost_object* stream, int32_t* out);
/* Extension: TLS on the open connection (see TcpStream::StartTls); ca_file may be NULL. */
LARKPOST_API int32_t larkpost_tcp_stream_start_tls(larkpost_object* stream,
                                                   int32_t verify_certificate, const char* ca_file);
LARKPOST_API int32_t larkpost_tcp_stream_local_host_name(larkpost_object* stream, char** out,
                                                         size_t* out_length);

/* ---- MailMessage ---- */

LARKPOST_API int32_t larkpost_mail_message_set_from_address(larkpost_object* message,
                                                            const char* value);
LARKPOST_API int32_t larkpost_mail_message_get_from_address(larkpost_object* message, char** out,
                                                            size_t* out_length);
LARKPOST_API int32_t larkpost_mail_message_set_sender_name(larkpost_object* message,
                                                           const char* value);
LARKPOST_API int32_t larkpost_mail_message_get_sender_name(larkpost_object* message, char** out,
                                                           size_t* out_length);
LARKPOST_API int32_t larkpost_mail_message_set_subject_line(larkpost_object* message,
                                                            const char* value);
LARKPOST_API int32_t larkpost_mail_message_get_subject_line(larkpost_object* message, char** out,
                                                            size_t* out_length);
LARKPOST_API int32_t larkpost_mail_message_set_body(larkpost_object* message, const char* value);
LARKPOST_API int32_t larkpost_mail_message_get_body(larkpost_object* message, char** out,
                                                    size_t* out_length);
LARKPOST_API int32_t larkpost_mail_message_set_body_html(larkpost_object* message,
                                                         const char* value);
LARKPOST_API int32_t larkpost_mail_message_get_body_html(larkpost_object* message, char** out,
                                                         size_t* out_length);
LARKPOST_API int32_t larkpost_mail_message_set_mime_type(larkpost_object* message,
                                                         const char* value);
LARKPOST_API int32_t larkpost_mail_message_get_mime_type(larkpost_object* message, char** out,
                                                         size_t* out_length);
LARKPOST_API int32_t larkpost_mail_message_attach_file(larkpost_object* message,
                                                       const char* file_path);
LARKPOST_API int32_t larkpost_mail_message_add_recipient(larkpost_object* message,
                                                         const char* recipient);
LARKPOST_API int32_t larkpost_mail_message_remove_recipient(larkpost_object* message,
                                                            const char* recipient);
LARKPOST_API int32_t larkpost_mail_message_add_cc_recipient(larkpost_object* message,
                                                            const char* recipient);
LARKPOST_API int32_t larkpost_mail_message_remove_cc_recipient(larkpost_object* message,
                                                               const char* recipient);
LARKPOST_API int32_t larkpost_mail_message_add_bcc_recipient(larkpost_object* message,
                                                             const char* recipient);
LARKPOST_API int32_t larkpost_mail_message_remove_bcc_recipient(larkpost_object* message,
                                                                const char* recipient);
LARKPOST_API int32_t larkpost_mail_message_save_to_file(larkpost_object* message,
                                                        const char* file_spec);
/* Extensions: the standard format (0 or 1; 0 on a new message) and the host's own headers. */
LARKPOST_API int32_t larkpost_mail_message_set_standard_format(larkpost_object* message,
                                                               int32_t value);
LARKPOST_API int32_t larkpost_mail_message_get_standard_format(larkpost_object* message,
                                                               int32_t* out);
LARKPOST_API int32_t larkpost_mail_message_add_header(larkpost_object* message, const char* name,
                                                      const char* value);
LARKPOST_API int32_t larkpost_mail_message_clear_headers(larkpost_object* message);

/* ---- StringBuilder ---- */

LARKPOST_API int32_t larkpost_string_builder_get_contents(larkpost_object* builder, char** out,
                                                          size_t* out_length);
LARKPOST_API int32_t larkpost_string_builder_clear(larkpost_object* builder);
/* The C++ append operations return the builder itself for chaining; here it is the same handle. */
LARKPOST_API int32_t larkpost_string_builder_append(larkpost_object* builder,
                                                    const char* string_to_append);
LARKPOST_API int32_t larkpost_string_builder_append_line(larkpost_object* builder,
                                                         const char* string_to_append);
LARKPOST_API int32_t larkpost_string_builder_append_crlf(larkpost_object* builder);

#ifdef __cplusplus
}
#endif

#endif
