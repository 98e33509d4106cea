"""The larkpost command: options, failures and their exit statuses, --save output read by
Python's email package, real sends to aiosmtpd, the progress bar on a terminal, and Ctrl-C.
Run by CTest with LARKPOST_CLI naming the built command."""

import os
import pty
import select
import signal
import socket
import subprocess
import sys
import tempfile
import threading
import time
import unittest

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))

from smtp_fixture import SmtpServer, body_text, parse_message, refused_port  # noqa: E402

CLI = os.environ.get("LARKPOST_CLI") or sys.exit("LARKPOST_CLI must name the larkpost command")
BASE = ["--from", "ann@example.org", "--to", "bob@example.org"]


def run(*args, stdin=None, env_extra=None, new_session=True):
    env = {k: v for k, v in os.environ.items() if k != "LARKPOST_PASSWORD"}
    env.update(env_extra or {})
    # A new session has no controlling terminal, so a password prompt cannot open /dev/tty.
    return subprocess.run([CLI, *args], input=stdin, capture_output=True, env=env, timeout=60,
                          start_new_session=new_session)


class Files:
    def __init__(self):
        self._tmp = tempfile.TemporaryDirectory(prefix="larkpost-cli-")
        self.dir = self._tmp.name

    def write(self, name, data):
        path = os.path.join(self.dir, name)
        with open(path, "wb") as f:
            f.write(data if isinstance(data, bytes) else data.encode("utf-8"))
        return path

    def path(self, name):
        return os.path.join(self.dir, name)


class Case(unittest.TestCase):
    def setUp(self):
        self.files = Files()
        self.addCleanup(self.files._tmp.cleanup)

    def assertFails(self, result, status, number, *fragments):
        stderr = result.stderr.decode("utf-8", "replace")
        self.assertEqual(result.returncode, status, stderr)
        self.assertTrue(stderr.startswith("larkpost: error %s: " % number), stderr)
        for fragment in fragments:
            self.assertIn(fragment, stderr)
        return stderr


class HelpAndUsageTest(Case):
    def test_help_version_and_no_arguments(self):
        result = run("--help")
        self.assertEqual(result.returncode, 0)
        text = result.stdout.decode()
        for option in ("--server", "--port", "--timeout", "--user", "--password-env", "--from",
                       "--sender-name", "--to", "--cc", "--bcc", "--subject", "--body", "--html",
                       "--attach", "--save", "--quiet", "--help", "--version", "LARKPOST_PASSWORD"):
            self.assertIn(option, text)
        for status in ("0 ", "2 ", "3 ", "4 ", "5 ", "130 "):
            self.assertIn("\n  " + status, text)
        self.assertEqual(run("--version").stdout, b"larkpost 1.0.0\n")
        result = run()
        self.assertEqual(result.returncode, 2)
        self.assertIn(b"Usage: larkpost", result.stderr)

    def test_usage_errors_name_the_mistake_and_never_repeat_a_password(self):
        server = BASE + ["--server", "127.0.0.1"]
        cases = [
            (["--server"], "option --server needs a value"),
            (BASE + ["--to", "--cc", "x@example.org"], "option --to needs a value"),
            (BASE + ["--subject"], "option --subject needs a value"),
            (BASE + ["--server", "h", "--port", "abc"], "--port needs a whole number from 1 to 65535, not 'abc'"),
            (BASE + ["--server", "h", "--port", "70000"], "not '70000'"),
            (BASE + ["--server", "h", "--timeout", "-1"], "--timeout needs a whole number"),
            (BASE + ["--bogus"], "unknown option '--bogus'"),
            (BASE + ["stray"], "unexpected argument 'stray'"),
            (BASE + ["--quiet=yes"], "option --quiet takes no value"),
            (["--to", "b@example.org", "--server", "h"], "--from is needed"),
            (BASE, "--server is needed to send"),
            (["--from", "a@example.org", "--server", "h"], "at least one --to is needed"),
            (BASE + ["--save", "x.eml", "--server", "h"], "leave out --server"),
            (BASE + ["--body", "-", "--html", "-", "--save", "x"], "cannot both read standard input"),
            (BASE + ["--server", "h", "--password-env", "P"], "--password-env needs --user"),
            (server + ["--user", "ann", "--password", "hunter2"], "no --password option", "LARKPOST_PASSWORD"),
            (BASE + ["--password=hunter2"],),
            # No password source: the terminal is out of reach in a new session.
            (server + ["--user", "ann"], "--user ann needs a password", "no terminal"),
            (server + ["--user", "ann", "--password-env", "NOPE_VAR"],
             "NOPE_VAR, but that environment variable is not set"),
        ]
        for args, *fragments in cases:
            with self.subTest(args=args):
                self.assertNotIn("hunter2", self.assertFails(run(*args), 2, 5, *fragments))


class InputFileTest(Case):
    def test_unreadable_inputs_and_bad_recipients_write_nothing(self):
        out = ["--save", self.files.path("o.eml")]
        missing = self.files.path("missing.txt")
        cases = [
            (["--body", missing], 3, 53, "cannot read the body file '%s': File not found" % missing),
            (["--html", self.files.dir], 3, 75, "cannot read the HTML file"),
            (["--body", "/no/such/dir/b.txt"], 3, 76, "Path not found"),
            (["--body", self.files.write("latin1.txt", b"caf\xe9\n")], 3, 5, "is not valid UTF-8 text"),
            (["--attach", "/nope.pdf"], 3, "0xA38F03E8", "File /nope.pdf not found. Cannot attach to message."),
            (["--cc", "  "], 5, "0xA38F0BB9", "Blank recipient"),
            (["--to", "BOB@example.org"], 5, "0xA38F0BBA", "'BOB@example.org' is already on the list"),
        ]
        if os.geteuid() != 0:  # root reads any file
            locked = self.files.write("locked.txt", "x")
            os.chmod(locked, 0)
            cases.append((["--body", locked], 3, 70))
        for args, status, number, *fragments in cases:
            with self.subTest(args=args):
                self.assertFails(run(*BASE, *out, *args), status, number, *fragments)
        self.assertFalse(os.path.exists(self.files.path("o.eml")), "nothing is written on failure")
        self.assertFails(run(*BASE, "--save", "/no/such/dir/o.eml"), 3, 76, "Error in MailMessage.SaveToFile: ")


class SaveTest(Case):
    def test_saved_message_reads_back_with_the_email_package(self):
        body = self.files.write("body.txt", "Hello Bob,\nthe café is open.\n")
        html = self.files.write("body.html", "<p>Hello <b>Bob</b></p>\n")
        data = bytes(range(256)) * 4
        attachment = self.files.write("data.bin", data)
        out = self.files.path("out.eml")
        result = run(*BASE, "--cc", "cid@example.org", "--bcc", "dee@example.org", "--sender-name",
                     "Ann Lee", "--subject", "Figures", "--body", body, "--html", html, "--attach",
                     attachment, "--save", out)
        self.assertEqual(result.returncode, 0, result.stderr)
        self.assertEqual(result.stderr.decode(), "larkpost: saved to %s\n" % out)
        with open(out, "rb") as f:
            parsed = parse_message(f.read())
        self.assertEqual(parsed["Subject"], "Figures")
        self.assertEqual(parsed["To"], "bob@example.org")
        self.assertEqual(parsed["Cc"], "cid@example.org")
        sender = parsed["From"].addresses[0]
        self.assertEqual((sender.display_name, sender.addr_spec), ("Ann Lee", "ann@example.org"))
        # Line ends became CR LF; the text went out in Windows-1252 and says so.
        self.assertEqual(body_text(parsed, "plain"), "Hello Bob,\r\nthe café is open.\r\n")
        self.assertEqual(parsed.get_body(("plain",)).get_content_charset(), "windows-1252")
        self.assertEqual(body_text(parsed, "html"), "<p>Hello <b>Bob</b></p>\r\n")
        attachments = list(parsed.iter_attachments())
        self.assertEqual([a.get_filename() for a in attachments], ["data.bin"])
        self.assertEqual(attachments[0].get_content(), data)

    def test_body_from_standard_input_and_quiet(self):
        out = self.files.path("stdin.eml")
        result = run(*BASE, "--body", "-", "--quiet", "--save", out, stdin=b"from a pipe\r\n")
        self.assertEqual(result.returncode, 0, result.stderr)
        self.assertEqual(result.stderr, b"")
        with open(out, "rb") as f:
            self.assertEqual(body_text(parse_message(f.read()), "plain"), "from a pipe\r\n")


class SendTest(Case):
    def test_send_to_aiosmtpd(self):
        body = self.files.write("body.txt", "".join("line %d\n" % i for i in range(300)))
        attachment = self.files.write("notes.txt", "attached notes\n")
        with SmtpServer() as server:
            result = run(*BASE, "--cc", "cid@example.org", "--bcc", "dee@example.org", "--server",
                         "127.0.0.1", "--port", str(server.port), "--subject", "Sent", "--body",
                         body, "--attach", attachment)
            self.assertEqual(result.returncode, 0, result.stderr)
            stored = server.messages(expected=1)
        self.assertEqual(result.stderr.decode(),
                         "larkpost: sent to 3 recipients through 127.0.0.1:%d\n" % server.port)
        self.assertNotIn("Sending [", result.stderr.decode(), "no bar without a terminal")
        raw, envelope = stored[0]
        self.assertEqual(envelope["rcpt_to"], ["bob@example.org", "cid@example.org", "dee@example.org"])
        parsed = parse_message(raw)
        self.assertEqual(parsed["Subject"], "Sent")
        self.assertEqual(body_text(parsed, "plain"), "".join("line %d\r\n" % i for i in range(300)))
        self.assertEqual([a.get_payload(decode=True) for a in parsed.iter_attachments()],
                         [b"attached notes\n"])

    def test_login_with_the_password_from_the_environment(self):
        with SmtpServer("--auth-user", "ann", "--auth-password", "pa ss") as server:
            common = BASE + ["--server", "127.0.0.1", "--port", str(server.port), "--user", "ann"]
            result = run(*common, env_extra={"LARKPOST_PASSWORD": "pa ss"})
            self.assertEqual(result.returncode, 0, result.stderr)
            result = run(*common, "--password-env", "MY_PASS", env_extra={"MY_PASS": "pa ss"})
            self.assertEqual(result.returncode, 0, result.stderr)
            self.assertEqual(len(server.messages(expected=2)), 2)
            stderr = self.assertFails(run(*common, env_extra={"LARKPOST_PASSWORD": "wrong"}), 4,
                                      "0xA38F07D1")
            self.assertNotIn("wrong", stderr.split(":", 2)[2].replace("wrong password", ""))

    def test_server_that_is_not_there(self):
        port = refused_port()
        self.assertFails(run(*BASE, "--server", "127.0.0.1", "--port", str(port)), 4, 10061,
                         "refused", "(server 127.0.0.1, port %d)" % port)

    def test_message_too_large_for_the_server(self):
        body = self.files.write("big.txt", "x" * 5000)
        with SmtpServer("--size", "1000") as server:
            self.assertFails(run(*BASE, "--server", "127.0.0.1", "--port", str(server.port), "--body", body),
                             5, "0xA38F07D6", "The message was too large to send.")
            self.assertEqual(server.messages(), [])


class HeldServer:
    """A loopback SMTP peer that answers up to a chosen command and then holds, so a test can
    interrupt the command at a known point. Records everything it receives."""

    def __init__(self, hold_before):
        self.hold_before = hold_before  # the command whose reply waits for release()
        self.listener = socket.socket()
        self.listener.bind(("127.0.0.1", 0))
        self.listener.listen(1)
        self.listener.settimeout(20)
        self.port = self.listener.getsockname()[1]
        self.holding = threading.Event()
        self.released = threading.Event()
        self.received = b""
        self.closed_by_client = threading.Event()
        self.thread = threading.Thread(target=self._run, daemon=True)
        self.thread.start()

    def release(self):
        self.released.set()

    def _run(self):
        try:
            connection, _ = self.listener.accept()
        except OSError:
            return
        finally:
            self.listener.close()
        with connection:
            connection.settimeout(20)
            replies = {b"EHLO": b"250 hi\r\n", b"MAIL": b"250 ok\r\n", b"RCPT": b"250 ok\r\n",
                       b"DATA": b"354 go\r\n"}
            if self.hold_before == b"GREETING":
                self.holding.set()
                self.released.wait(20)
            connection.sendall(b"220 ready\r\n")
            buffer = b""
            while True:
                try:
                    chunk = connection.recv(65536)
                except OSError:
                    chunk = b""
                if not chunk:
                    self.closed_by_client.set()
                    return
                self.received += chunk
                buffer += chunk
                while b"\r\n" in buffer:
                    line, buffer = buffer.split(b"\r\n", 1)
                    command = line[:4].upper()
                    if command == self.hold_before:
                        self.holding.set()
                        self.released.wait(20)
                    connection.sendall(replies.get(command, b"250 ok\r\n"))


class InterruptTest(Case):
    def interrupt(self, hold_before, *args):
        """Runs the command against a HeldServer, sends Ctrl-C while the server holds, expects
        the command to end as canceled, and gives the server."""
        server = HeldServer(hold_before)
        process = subprocess.Popen([CLI, *BASE, "--server", "127.0.0.1", "--port", str(server.port), *args],
                                   stdout=subprocess.PIPE, stderr=subprocess.PIPE, start_new_session=True)
        try:
            self.assertTrue(server.holding.wait(20), "the client never reached %s" % hold_before)
            process.send_signal(signal.SIGINT)
            if hold_before != b"GREETING":
                time.sleep(0.2)  # the signal lands while the client waits for the reply
                server.release()
            # A held greeting is released only after the command ended (or after 20 s): a client
            # that did not end at once would still be waiting for it.
            _, stderr = process.communicate(timeout=15)
        finally:
            server.release()
            if process.poll() is None:
                process.kill()
                process.wait(10)
        self.assertEqual(process.returncode, 130, stderr)
        self.assertIn(b"larkpost: canceled", stderr)
        return server

    def test_ctrl_c_during_send_cancels_before_any_text_goes_out(self):
        server = self.interrupt(b"DATA", "--body", self.files.write("body.txt", "secret text\n" * 100))
        self.assertTrue(server.closed_by_client.wait(10))
        self.assertNotIn(b"secret text", server.received)
        self.assertNotIn(b"QUIT", server.received)

    def test_ctrl_c_while_connecting_ends_at_once(self):
        self.interrupt(b"GREETING")


class ProgressBarTest(Case):
    def test_bar_is_drawn_when_stderr_is_a_terminal(self):
        body = self.files.write("body.txt", "y" * 20000)
        with SmtpServer() as server:
            leader, follower = pty.openpty()
            try:
                process = subprocess.Popen(
                    [CLI, *BASE, "--server", "127.0.0.1", "--port", str(server.port), "--body", body],
                    stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=follower,
                    start_new_session=True)
                os.close(follower)
                screen = b""
                deadline = time.monotonic() + 30
                while time.monotonic() < deadline:
                    ready, _, _ = select.select([leader], [], [], 1)
                    if ready:
                        try:
                            chunk = os.read(leader, 4096)
                        except OSError:  # the other end closed
                            break
                        if not chunk:
                            break
                        screen += chunk
                    elif process.poll() is not None:
                        break
                process.wait(10)
            finally:
                os.close(leader)
        self.assertEqual(process.returncode, 0, screen)
        text = screen.decode("utf-8", "replace")
        self.assertIn("Sending [", text)
        self.assertIn("100%", text)
        self.assertIn("waiting for the server", text)
        self.assertIn("larkpost: sent to 1 recipient through", text)
        # The bar is erased before the closing note.
        self.assertLess(text.rindex("\x1b[K"), text.index("larkpost: sent"))


if __name__ == "__main__":
    unittest.main(verbosity=2)
