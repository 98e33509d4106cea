/* A C host (C11, -pedantic): classes by name in any case, counted handles, numbered errors and
 * the thread's record of them, UTF-8 strings. Exits 0 when every check holds. */
#include <stdio.h>
#include <string.h>

#include "larkpost/larkpost_c.h"

static int errors = 0;
#define CHECK(c) \
    (void)((c) || (fprintf(stderr, "%d: %s\n", __LINE__, larkpost_error_description()), errors++))

int main(void) {
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
    larkpost_release(client);
    return errors != 0;
}
