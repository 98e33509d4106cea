"""Python reaches every class of Larkpost through the C interface (ctypes), sends to a real
aiosmtpd server, and reads numbered errors. Run by CTest with LARKPOST_LIBRARY set."""

import ctypes
import os
import socket
import sys
import tempfile
import threading
import unittest

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))

from larkpost_ctypes import (ERROR_BASE, EVENT, SEND_PROGRESS, Api, LarkpostError,  # noqa: E402
                             declared_functions, library_path, load)
from smtp_fixture import SOURCE_DIR, SmtpServer, body_text, parse_message, refused_port  # noqa: E402

LIB = load(library_path())
API = Api(LIB)


class Objects:
    """Releases every handle a test made."""

    def __init__(self):
        self.handles = []

    def new(self, class_name):
        handle = API.create(class_name)
        self.handles.append(handle)
        return handle

    def release_all(self):
        for handle in self.handles:
            API.release(handle)


class Case(unittest.TestCase):
    def setUp(self):
        self.objects = Objects()
        self.addCleanup(self.objects.release_all)

    def assertError(self, number, function, *args, contains=None):
        with self.assertRaises(LarkpostError) as caught:
            function(*args)
        self.assertEqual(caught.exception.number, number, caught.exception.description)
        if contains:
            self.assertIn(contains, caught.exception.description)
        return caught.exception

    def filled_message(self, body="Hello Bob,\r\nthe figures.\r\n"):
        message = self.objects.new("Larkpost.MailMessage")
        API.call("mail_message_set_from_address", message, "ann@example.org")
        API.call("mail_message_set_sender_name", message, "Ann Lee")
        API.call("mail_message_set_subject_line", message, "Quarterly figures")
        API.call("mail_message_set_body", message, body)
        API.call("mail_message_add_recipient", message, "bob@example.org")
        return message

    def connected_client(self, port, user=None, password=None):
        client = self.objects.new("Larkpost.MailClient")
        API.call("mail_client_set_server", client, "127.0.0.1")
        API.call("mail_client_set_port", client, port)
        API.call("mail_client_set_timeout", client, 10)
        API.call("mail_client_connect", client, user, password)
        return client


class ExportTest(Case):
    def test_every_declared_function_is_exported_and_bound(self):
        declared = declared_functions(os.path.join(SOURCE_DIR, "include", "larkpost", "larkpost_c.h"))
        self.assertEqual(len(declared), 59)
        for name in declared:
            self.assertTrue(hasattr(LIB, name), name)
        # The binding of this test covers the whole header.
        from larkpost_ctypes import SIGNATURES
        self.assertEqual(set(SIGNATURES), declared)
        self.assertEqual(LIB.larkpost_library_version(), b"1.0.0")


class ClassesTest(Case):
    def test_new_objects_hold_their_defaults(self):
        client = self.objects.new("Larkpost.MailClient")
        self.assertEqual(API.number("mail_client_get_timeout", client), 30)
        self.assertEqual(API.number("mail_client_get_port", client), 25)
        self.assertEqual(API.text("mail_client_get_server", client), "")
        stream = self.objects.new("larkpost.tcpstream")
        self.assertEqual(API.number("tcp_stream_get_response_timeout", stream), 3)
        self.assertEqual(API.number("tcp_stream_connected", stream), 0)
        message = self.objects.new("Larkpost.MailMessage")
        self.assertEqual(API.text("mail_message_get_mime_type", message), "text/plain")
        for prop in ("from_address", "sender_name", "subject_line", "body", "body_html"):
            self.assertEqual(API.text("mail_message_get_" + prop, message), "")
        builder = self.objects.new("LARKPOST.STRINGBUILDER")
        self.assertEqual(API.text("string_builder_get_contents", builder), "")
        self.assertEqual(LIB.larkpost_class_name(builder), b"Larkpost.StringBuilder")

    def test_mail_client_properties_store_what_they_are_given(self):
        client = self.objects.new("Larkpost.MailClient")
        API.call("mail_client_set_timeout", client, -5)
        API.call("mail_client_set_port", client, 0)
        API.call("mail_client_set_server", client, " smtp.exämple.org ")
        self.assertEqual(API.number("mail_client_get_timeout", client), -5)
        self.assertEqual(API.number("mail_client_get_port", client), 0)
        self.assertEqual(API.text("mail_client_get_server", client), " smtp.exämple.org ")
        # Disconnect without a connection does nothing and raises nothing.
        API.call("mail_client_disconnect", client, 0)
        API.call("mail_client_disconnect", client, 1)

    def test_mail_message_text_properties_round_trip_utf8(self):
        message = self.objects.new("Larkpost.MailMessage")
        values = {"from_address": "ann@example.org", "sender_name": "Ann \"Lee\"",
                  "subject_line": "Grüße, €5 ✓", "body": "line 1\r\nline 2\r\n",
                  "body_html": "<p>Caf\u00e9</p>", "mime_type": "text/x-custom"}
        for prop, value in values.items():
            API.call("mail_message_set_" + prop, message, value)
        for prop, value in values.items():
            self.assertEqual(API.text("mail_message_get_" + prop, message), value, prop)

    def test_string_builder_members_and_nul_free_results(self):
        builder = self.objects.new("Larkpost.StringBuilder")
        API.call("string_builder_append", builder, "Subject: ")
        API.call("string_builder_append_line", builder, "ü")
        API.call("string_builder_append_crlf", builder)
        self.assertEqual(API.text("string_builder_get_contents", builder), "Subject: ü\r\n\r\n")
        API.call("string_builder_clear", builder)
        API.call("string_builder_append", builder, None)  # NULL is the empty string
        self.assertEqual(API.text("string_builder_get_contents", builder), "")

    def test_retain_and_release_count_references(self):
        handle = API.create("Larkpost.MailMessage")
        self.assertEqual(LIB.larkpost_retain(handle), handle)
        API.release(handle)
        API.call("mail_message_set_body", handle, "still here")
        API.release(handle)
        self.assertIsNone(LIB.larkpost_class_name(handle))
        self.assertError(5, API.call, "mail_message_set_body", handle, "x",
                         contains="not a live Larkpost object")

    def test_save_to_file_gives_a_message_the_email_package_reads(self):
        message = self.filled_message()
        API.call("mail_message_set_body_html", message, "<p>Hello <b>Bob</b></p>")
        API.call("mail_message_add_cc_recipient", message, "cid@example.org")
        API.call("mail_message_add_bcc_recipient", message, "dee@example.org")
        API.call("mail_message_add_recipient", message, "eve@example.org")
        API.call("mail_message_remove_recipient", message, "EVE@example.org")
        with tempfile.TemporaryDirectory() as directory:
            attachment = os.path.join(directory, "figures.csv")
            with open(attachment, "wb") as f:
                f.write(b"q,amount\n1,100\n")
            API.call("mail_message_attach_file", message, attachment)
            path = os.path.join(directory, "saved.eml")
            API.call("mail_message_save_to_file", message, path)
            with open(path, "rb") as f:
                parsed = parse_message(f.read())
        self.assertEqual(parsed["Subject"], "Quarterly figures")
        self.assertEqual(parsed["To"], "bob@example.org")
        self.assertEqual(parsed["Cc"], "cid@example.org")
        self.assertEqual(parsed["Bcc"], "dee@example.org")
        self.assertEqual(body_text(parsed, "plain"), "Hello Bob,\r\nthe figures.\r\n")
        self.assertEqual(body_text(parsed, "html"), "<p>Hello <b>Bob</b></p>")
        attachments = list(parsed.iter_attachments())
        self.assertEqual(len(attachments), 1)
        self.assertEqual(attachments[0].get_content(), b"q,amount\n1,100\n")

    def test_tcp_stream_members_against_a_loopback_peer(self):
        listener = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
        listener.bind(("127.0.0.1", 0))
        listener.listen(1)
        listener.settimeout(10)
        received = []

        def peer():
            connection, _ = listener.accept()
            with connection:
                connection.settimeout(10)
                connection.sendall(b"220 hello\r\nsecond line\r\n")
                data = b""
                while not data.endswith(b"\r\n"):
                    chunk = connection.recv(100)
                    if not chunk:
                        break
                    data += chunk
                received.append(data)
                connection.sendall(b"caf\xe9\r\n")

        thread = threading.Thread(target=peer)
        thread.start()
        try:
            stream = self.objects.new("Larkpost.TcpStream")
            API.call("tcp_stream_connect", stream, "127.0.0.1", listener.getsockname()[1])
            API.call("tcp_stream_set_response_timeout", stream, 5)
            self.assertEqual(API.number("tcp_stream_get_response_timeout", stream), 5)
            self.assertEqual(API.number("tcp_stream_connected", stream), 1)
            self.assertNotEqual(API.text("tcp_stream_local_host_name", stream), "")
            self.assertEqual(API.text("tcp_stream_peek", stream, 3), "220")
            self.assertEqual(API.text("tcp_stream_read", stream, 4), "220 ")
            self.assertEqual(API.text("tcp_stream_read_line", stream), "hello")
            self.assertEqual(API.text("tcp_stream_read_to_end", stream), "second line")
            self.assertEqual(API.number("tcp_stream_at_end_of_stream", stream), 1)
            API.call("tcp_stream_send", stream, "ping ")
            API.call("tcp_stream_send_line", stream, "pong")
            API.call("tcp_stream_flush", stream)
            # A Windows-1252 byte from the wire comes out as UTF-8.
            self.assertEqual(API.text("tcp_stream_read_line", stream), "café")
            API.call("tcp_stream_disconnect", stream)
            self.assertEqual(API.number("tcp_stream_connected", stream), 0)
        finally:
            thread.join(10)
            listener.close()
        self.assertEqual(received, [b"ping pong\r\n"])


class SendTest(Case):
    def test_send_to_aiosmtpd_with_progress_events(self):
        body = "".join("line %04d of the report\r\n" % i for i in range(200))
        with SmtpServer() as server:
            client = self.connected_client(server.port)
            message = self.filled_message(body)
            API.call("mail_message_add_cc_recipient", message, "cid@example.org")
            API.call("mail_message_add_bcc_recipient", message, "dee@example.org")
            events = []

            @SEND_PROGRESS
            def progress(user, handle, sent, total):
                events.append((handle, sent, total))

            LIB.larkpost_mail_client_set_events(client, progress, EVENT(), EVENT(), None)
            API.call("mail_client_send", client, message)
            API.call("mail_client_disconnect", client, 0)
            stored = server.messages(expected=1)
        self.assertEqual(len(stored), 1)
        raw, envelope = stored[0]
        self.assertEqual(envelope["mail_from"], "ann@example.org")
        self.assertEqual(envelope["rcpt_to"], ["bob@example.org", "cid@example.org", "dee@example.org"])
        parsed = parse_message(raw)
        self.assertEqual(parsed["Subject"], "Quarterly figures")
        sender = parsed["From"].addresses[0]
        self.assertEqual((sender.display_name, sender.addr_spec), ("Ann Lee", "ann@example.org"))
        self.assertEqual(body_text(parsed, "plain"), body)

        self.assertGreater(len(events), 1)
        total = events[-1][2]
        self.assertEqual([e[1] for e in events], [min(512 * (i + 1), total) for i in range(len(events))])
        self.assertTrue(all(e[0] == message for e in events), "progress names the sent message handle")

    def test_login_and_refused_login(self):
        with SmtpServer("--auth-user", "ann", "--auth-password", "s3cret") as server:
            client = self.connected_client(server.port, "ann", "s3cret")
            API.call("mail_client_send", client, self.filled_message())
            self.assertEqual(server.messages(expected=1)[0][1]["auth_login"], "ann")
            other = self.objects.new("Larkpost.MailClient")
            API.call("mail_client_set_server", other, "127.0.0.1")
            API.call("mail_client_set_port", other, server.port)
            self.assertError(ERROR_BASE + 2001, API.call, "mail_client_connect", other, "ann", "wrong")
            self.assertError(ERROR_BASE + 2003, API.call, "mail_client_connect", other, "ann", None,
                             contains="you need a password as well")

    def test_cancel_from_the_progress_callback(self):
        with SmtpServer() as server:
            client = self.connected_client(server.port)
            message = self.filled_message("x" * 5000)
            events = []

            @SEND_PROGRESS
            def progress(user, handle, sent, total):
                events.append("progress %d" % sent)
                API.call("mail_client_cancel_send", client)  # back into the client

            @EVENT
            def pending(user):
                events.append("pending")

            @EVENT
            def canceled(user):
                events.append("canceled")

            LIB.larkpost_mail_client_set_events(client, progress, pending, canceled, None)
            API.call("mail_client_send", client, message)
            self.assertEqual(events, ["progress 512", "pending", "canceled"])
            self.assertError(ERROR_BASE + 1000, API.call, "mail_client_send", client, message,
                             contains="Not connected.")
            self.assertEqual(server.messages(), [])


class ErrorTest(Case):
    def test_refused_connection_gives_a_numbered_error(self):
        client = self.objects.new("Larkpost.MailClient")
        API.call("mail_client_set_server", client, "127.0.0.1")
        API.call("mail_client_set_port", client, refused_port())
        error = self.assertError(10061, API.call, "mail_client_connect", client, None, None)
        self.assertIn("refused", error.description)
        self.assertNotEqual(error.source, "")

    def test_unknown_class_name(self):
        handle = ctypes.c_void_p(1)
        self.assertEqual(LIB.larkpost_create(b"Larkpost.Mailer", ctypes.byref(handle)), 429)
        self.assertIsNone(handle.value)
        error = API.last_error()
        self.assertIn("'Larkpost.Mailer'", error.description)
        self.assertIn("Larkpost.MailClient", error.description)
        self.assertEqual(error.source, "Larkpost")

    def test_invalid_utf8_is_error_5_naming_the_argument(self):
        message = self.objects.new("Larkpost.MailMessage")
        error = self.assertError(5, API.call, "mail_message_set_subject_line", message, b"Caf\xe9")
        self.assertEqual(error.description,
                         "larkpost_mail_message_set_subject_line: the argument 'value' is not valid UTF-8 text.")
        self.assertEqual(API.text("mail_message_get_subject_line", message), "")
        self.assertError(5, API.create, b"Larkpost.\xff")

    def test_null_and_wrong_class_handles(self):
        self.assertError(91, API.call, "string_builder_append", None, "x", contains="handle is null")
        message = self.objects.new("Larkpost.MailMessage")
        self.assertError(13, API.call, "tcp_stream_flush", message,
                         contains="the handle is a Larkpost.MailMessage, but this function needs a Larkpost.TcpStream")
        client = self.objects.new("Larkpost.MailClient")
        self.assertError(ERROR_BASE + 2004, API.call, "mail_client_send", client, None)
        LIB.larkpost_release(None)  # ignored

    def test_library_errors_keep_number_description_and_a_source(self):
        message = self.objects.new("Larkpost.MailMessage")
        error = self.assertError(ERROR_BASE + 1000, API.call, "mail_message_attach_file", message,
                                 "/nonexistent/file.pdf")
        self.assertEqual(error.description,
                         "File /nonexistent/file.pdf not found. Cannot attach to message.")
        self.assertTrue(error.source.startswith("Larkpost"))
        self.assertError(ERROR_BASE + 3001, API.call, "mail_message_add_bcc_recipient", message, "  ")
        # A success clears the thread's record.
        API.call("mail_message_add_bcc_recipient", message, "x@example.org")
        self.assertEqual(LIB.larkpost_error_number(), 0)
        self.assertEqual(LIB.larkpost_error_description(), b"")


if __name__ == "__main__":
    unittest.main(verbosity=2)
