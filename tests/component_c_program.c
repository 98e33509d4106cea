/* A C host (C11, -pedantic): classes by name in any case, counted handles, numbered errors and
 * the thread's record of them, UTF-8 strings. Exits 0 when every check holds. */
#include <stdio.h>
#include <string.h>

#include "larkpost/larkpost_c.h"

static int errors = 0;
#define CHECK(c) \
    (void)((c) || (fprintf(stderr, "%d: %s\n", __LINE__, larkpost_error_description()), errors++))

enum { N = 2000 };

int main(void) {
    static larkpost_object *old[N], *live[N];
    larkpost_object *client = NULL, *message = NULL, *none = (larkpost_object*)&errors;
    const char* euro = "C \xE2\x82\xAC";
    char* text = NULL;
    CHECK(larkpost_create("LARKPOST.MAILCLIENT", &client) == 0);
    CHECK(larkpost_create("Larkpost.MailClient ", &none) == LARKPOST_ERROR_CANNOT_CREATE && !none);
    CHECK(strstr(larkpost_error_description(), "class 'Larkpost.MailClient ': Larkpost has no"));
    CHECK(larkpost_mail_client_set_port(NULL, 25) == LARKPOST_ERROR_NULL_HANDLE);
    CHECK(larkpost_mail_client_send(client, client) == LARKPOST_ERROR_TYPE_MISMATCH);
    CHECK(larkpost_mail_client_send(client, NULL) == LARKPOST_ERROR_BASE + 2004); /* its own */
    /* A handle lives until its last release; a success clears the record. */
    CHECK(larkpost_create("larkpost.mailmessage", &message) == 0);
    CHECK(larkpost_retain(message) == message);
    larkpost_release(message);
    CHECK(larkpost_mail_message_set_subject_line(message, euro) == 0);
    CHECK(larkpost_error_number() == 0 && strcmp(larkpost_error_description(), "") == 0);
    CHECK(larkpost_mail_message_set_subject_line(message, "\xC0\xAF") == 5); /* not UTF-8 */
    CHECK(!larkpost_mail_message_get_subject_line(message, &text, NULL) && !strcmp(text, euro));
    larkpost_string_free(text);
    larkpost_release(message);
    larkpost_release(message); /* a released handle is passed over, and refused */
    CHECK(larkpost_mail_message_set_body(message, "x") == LARKPOST_ERROR_INVALID_ARGUMENT);
    /* Released handles stay dead after new objects take their place: no call, retain or release
     * through one reaches a new object. */
    for (int i = 0; i < N; ++i) larkpost_create("Larkpost.StringBuilder", &old[i]);
    for (int i = 0; i < N; ++i) larkpost_release(old[i]);
    for (int i = 0; i < N; ++i)
        CHECK(!larkpost_create("Larkpost.StringBuilder", &live[i]) &&
              !larkpost_string_builder_append(live[i], "live"));
    for (int i = 0; i < N; ++i) {
        CHECK(larkpost_string_builder_clear(old[i]) == LARKPOST_ERROR_INVALID_ARGUMENT);
        CHECK(strstr(larkpost_error_description(), "not a live Larkpost object"));
        CHECK(!larkpost_retain(old[i]) && !larkpost_class_name(old[i]));
        larkpost_release(old[i]);
    }
    for (int i = 0; i < N; ++i) {
        CHECK(!larkpost_string_builder_get_contents(live[i], &text, NULL) && !strcmp(text, "live"));
        larkpost_string_free(text);
        larkpost_release(live[i]);
    }
    larkpost_release(client);
    return errors != 0;
}
