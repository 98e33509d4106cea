/* A C program on the C interface: proves larkpost_c.h is valid C (compiled as C11 with
 * -Wall -Wextra -pedantic) and that a C host can create every class, fill a message, save it,
 * and read numbered errors. Exits 0 when every check holds. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "larkpost/larkpost_c.h"

static int failures = 0;

#define CHECK(condition)                                                     \
    do {                                                                     \
        if (!(condition)) {                                                  \
            fprintf(stderr, "%s:%d: check failed: %s (last error %d: %s)\n", \
                    __FILE__, __LINE__, #condition, larkpost_error_number(), \
                    larkpost_error_description());                           \
            ++failures;                                                      \
        }                                                                    \
    } while (0)

static int progress_events = 0;

static void on_progress(void* user, larkpost_object* message, int32_t sent, int32_t total) {
    (void)user;
    (void)message;
    (void)sent;
    (void)total;
    ++progress_events;
}

static void on_event(void* user) { (void)user; }

int main(int argc, char** argv) {
    const char* names[] = {"Larkpost.MailClient", "Larkpost.TcpStream", "Larkpost.MailMessage",
                           "Larkpost.StringBuilder"};
    larkpost_object* objects[4];
    larkpost_object* message;
    larkpost_object* builder;
    larkpost_object* client;
    larkpost_object* nothing = NULL;
    char* text = NULL;
    size_t length = 0;
    int32_t number = 0;
    const char* path = argc > 1 ? argv[1] : "c_program_message.eml";
    FILE* saved;
    char head[64];
    size_t i;

    CHECK(strcmp(larkpost_library_version(), "1.0.0") == 0);

    /* Every class, created and released without any other call. */
    for (i = 0; i < 4; ++i) {
        CHECK(larkpost_create(names[i], &objects[i]) == LARKPOST_OK);
        CHECK(strcmp(larkpost_class_name(objects[i]), names[i]) == 0);
        larkpost_release(objects[i]);
    }

    CHECK(larkpost_create("Larkpost.Nothing", &nothing) == LARKPOST_ERROR_CANNOT_CREATE);
    CHECK(nothing == NULL);
    CHECK(strstr(larkpost_error_description(), "Larkpost.Nothing") != NULL);

    CHECK(larkpost_create("Larkpost.MailMessage", &message) == LARKPOST_OK);
    CHECK(larkpost_mail_message_set_from_address(message, "ann@example.org") == LARKPOST_OK);
    CHECK(larkpost_mail_message_set_subject_line(message, "From C") == LARKPOST_OK);
    CHECK(larkpost_mail_message_set_body(message, "Hello from C.\r\n") == LARKPOST_OK);
    CHECK(larkpost_mail_message_add_recipient(message, "bob@example.org") == LARKPOST_OK);
    CHECK(larkpost_mail_message_add_recipient(message, "") == LARKPOST_ERROR_BASE + 3001);
    CHECK(larkpost_mail_message_get_mime_type(message, &text, &length) == LARKPOST_OK);
    CHECK(text != NULL && strcmp(text, "text/plain") == 0 && length == 10);
    larkpost_string_free(text);
    CHECK(larkpost_mail_message_save_to_file(message, path) == LARKPOST_OK);
    saved = fopen(path, "rb");
    CHECK(saved != NULL);
    if (saved) {
        CHECK(fgets(head, sizeof head, saved) != NULL && strcmp(head, "Subject: From C\r\n") == 0);
        fclose(saved);
    }

    CHECK(larkpost_create("Larkpost.StringBuilder", &builder) == LARKPOST_OK);
    CHECK(larkpost_string_builder_append_line(builder, "line") == LARKPOST_OK);
    CHECK(larkpost_string_builder_get_contents(builder, &text, NULL) == LARKPOST_OK);
    CHECK(text != NULL && strcmp(text, "line\r\n") == 0);
    larkpost_string_free(text);

    /* A client: events attached, then errors for a missing message, a wrong class, no handle. */
    CHECK(larkpost_create("Larkpost.MailClient", &client) == LARKPOST_OK);
    CHECK(larkpost_mail_client_set_events(client, on_progress, on_event, on_event, NULL) ==
          LARKPOST_OK);
    CHECK(larkpost_mail_client_get_timeout(client, &number) == LARKPOST_OK && number == 30);
    CHECK(larkpost_mail_client_send(client, NULL) == LARKPOST_ERROR_BASE + 2004);
    CHECK(larkpost_mail_client_send(client, builder) == LARKPOST_ERROR_TYPE_MISMATCH);
    CHECK(larkpost_mail_client_send(NULL, message) == LARKPOST_ERROR_NULL_HANDLE);
    CHECK(larkpost_error_number() == LARKPOST_ERROR_NULL_HANDLE);
    CHECK(progress_events == 0);

    larkpost_release(client);
    larkpost_release(builder);
    larkpost_release(message);
    remove(path);
    if (failures == 0) printf("C program: all checks passed\n");
    return failures == 0 ? 0 : 1;
}
