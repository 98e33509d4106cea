"""Python reaches every class of Larkpost through the C interface (ctypes), sends to a real
aiosmtpd server, and reads numbered errors. Run by CTest with LARKPOST_LIBRARY set. Handles,
error records and invalid arguments in detail are tested in C++ (component_c_api_test)."""

import os
import socket
import sys
import tempfile
import threading
import unittest

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))

from larkpost_ctypes import (ERROR_BASE, EVENT, SEND_PROGRESS, SIGNATURES, Api,  # noqa: E402
                             LarkpostError, declared_functions, library_path, load)
from smtp_fixture import SOURCE_DIR, SmtpServer, body_text, parse_message, refused_port  # noqa: E402

LIB = load(library_path())
API = Api(LIB)
NOT_CONNECTED = ERROR_BASE + 1000


class Case(unittest.TestCase):
    def new(self, class_name):
        """A new object, released when the test ends."""
        handle = API.create(class_name)
        self.addCleanup(API.release, handle)
        return handle

    def assertError(self, number, function, *args, contains=None):
        with self.assertRaises(LarkpostError) as caught:
            function(*args)
        self.assertEqual(caught.exception.number, number, caught.exception.description)
        if contains:
            self.assertIn(contains, caught.exception.description)
        return caught.exception

    def filled_message(self, body="Hello Bob,\r\nthe figures.\r\n"):
        message = self.new("Larkpost.MailMessage")
        for member, value in (("set_from_address", "ann@example.org"), ("set_sender_name", "Ann Lee"),
                              ("set_subject_line", "Quarterly figures"), ("set_body", body),
                              ("add_recipient", "bob@example.org")):
            API.call("mail_message_" + member, message, value)
        return message

    def client_for(self, port):
        client = self.new("Larkpost.MailClient")
        API.call("mail_client_set_server", client, "127.0.0.1")
        API.call("mail_client_set_port", client, port)
        return client


class ExportTest(Case):
    def test_every_declared_function_is_exported_and_bound(self):
        declared = declared_functions(os.path.join(SOURCE_DIR, "include", "larkpost", "larkpost_c.h"))
        self.assertEqual(len(declared), 59)
        for name in declared:
            self.assertTrue(hasattr(LIB, name), name)
        self.assertEqual(set(SIGNATURES), declared)  # the binding of this test covers the header
        self.assertEqual(LIB.larkpost_library_version(), b"1.0.0")


class ClassesTest(Case):
    def test_mail_client_properties_store_what_they_are_given(self):
        client = self.new("Larkpost.MailClient")
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
        message = self.new("Larkpost.MailMessage")
        values = {"from_address": "ann@example.org", "sender_name": "Ann \"Lee\"",
                  "subject_line": "Grüße, €5 ✓", "body": "line 1\r\nline 2\r\n",
                  "body_html": "<p>Caf\u00e9</p>", "mime_type": "text/x-custom"}
        for prop, value in values.items():
            API.call("mail_message_set_" + prop, message, value)
        for prop, value in values.items():
            self.assertEqual(API.text("mail_message_get_" + prop, message), value, prop)

    def test_string_builder_members(self):
        builder = self.new("Larkpost.StringBuilder")
        API.call("string_builder_append", builder, "Subject: ")
        API.call("string_builder_append_line", builder, "ü")
        API.call("string_builder_append_crlf", builder)
        self.assertEqual(API.text("string_builder_get_contents", builder), "Subject: ü\r\n\r\n")
        API.call("string_builder_clear", builder)
        API.call("string_builder_append", builder, None)  # NULL is the empty string
        self.assertEqual(API.text("string_builder_get_contents", builder), "")

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
        self.assertEqual([parsed[h] for h in ("Subject", "To", "Cc", "Bcc")],
                         ["Quarterly figures", "bob@example.org", "cid@example.org", "dee@example.org"])
        self.assertEqual(body_text(parsed, "plain"), "Hello Bob,\r\nthe figures.\r\n")
        self.assertEqual(body_text(parsed, "html"), "<p>Hello <b>Bob</b></p>")
        self.assertEqual([a.get_content() for a in parsed.iter_attachments()], [b"q,amount\n1,100\n"])

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
            stream = self.new("Larkpost.TcpStream")
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
            # Text waits in the buffer of a stream without a connection; flushing it fails.
            API.call("tcp_stream_send", stream, "x")
            self.assertError(NOT_CONNECTED, API.call, "tcp_stream_flush", stream)
        finally:
            thread.join(10)
            listener.close()
        self.assertEqual(received, [b"ping pong\r\n"])


class SendTest(Case):
    def test_send_to_aiosmtpd_with_progress_events(self):
        body = "".join("line %04d of the report\r\n" % i for i in range(200))
        with SmtpServer() as server:
            client = self.client_for(server.port)
            API.call("mail_client_connect", client, None, None)
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
            client = self.client_for(server.port)
            API.call("mail_client_connect", client, "ann", "s3cret")
            API.call("mail_client_send", client, self.filled_message())
            self.assertEqual(server.messages(expected=1)[0][1]["auth_login"], "ann")
            other = self.client_for(server.port)
            self.assertError(ERROR_BASE + 2001, API.call, "mail_client_connect", other, "ann", "wrong")
            self.assertError(ERROR_BASE + 2003, API.call, "mail_client_connect", other, "ann", None,
                             contains="you need a password as well")

    def test_cancel_from_the_progress_callback(self):
        with SmtpServer() as server:
            client = self.client_for(server.port)
            API.call("mail_client_connect", client, None, None)
            message = self.filled_message("x" * 5000)
            events = []

            @SEND_PROGRESS
            def progress(user, handle, sent, total):
                events.append("progress %d" % sent)
                API.call("mail_client_cancel_send", client)  # back into the client

            pending = EVENT(lambda user: events.append("pending"))
            canceled = EVENT(lambda user: events.append("canceled"))
            LIB.larkpost_mail_client_set_events(client, progress, pending, canceled, None)
            API.call("mail_client_send", client, message)
            self.assertEqual(events, ["progress 512", "pending", "canceled"])
            self.assertError(NOT_CONNECTED, API.call, "mail_client_send", client, message,
                             contains="Not connected.")
            self.assertEqual(server.messages(), [])


class ErrorTest(Case):
    def test_errors_come_back_numbered_with_description_and_source(self):
        client = self.client_for(refused_port())
        error = self.assertError(10061, API.call, "mail_client_connect", client, None, None)
        self.assertIn("refused", error.description)
        self.assertNotEqual(error.source, "")
        message = self.new("Larkpost.MailMessage")
        error = self.assertError(ERROR_BASE + 1000, API.call, "mail_message_attach_file", message,
                                 "/nonexistent/file.pdf")
        self.assertEqual(error.description, "File /nonexistent/file.pdf not found. Cannot attach to message.")
        self.assertTrue(error.source.startswith("Larkpost"))
        # A success clears the thread's record.
        API.call("mail_message_add_bcc_recipient", message, "x@example.org")
        self.assertEqual(LIB.larkpost_error_number(), 0)
        self.assertEqual(LIB.larkpost_error_description(), b"")


if __name__ == "__main__":
    unittest.main(verbosity=2)
