"""Larkpost as its hosts meet it, one CTest test per class (tests/scripts.cmake): CInterface, Python
through ctypes; Command, the larkpost command; Package, the installed package and add_subdirectory.
Real aiosmtpd servers on loopback; messages read back by Python's email package."""
import contextlib, ctypes, email, email.policy, email.utils, glob, os, pathlib, pty, random, re, select, signal, socket  # noqa: E401
import shutil, subprocess, tempfile, time, unittest  # noqa: E401

from larkpost_ctypes import DIALOGUE, ERROR_BASE, EVENT, SEND_PROGRESS, WRITE, LarkpostError, Library, declarations

SOURCE, CLI = str(pathlib.Path(__file__).resolve().parents[2]), os.environ.get("LARKPOST_CLI", "")
BASE = ["--from", "ann@example.org", "--to", "bob@example.org"]


@contextlib.contextmanager
def smtp_server(*args):
    """Yields (port, messages): messages(n) waits up to 10 s for n, then gives [(raw, envelope lines)]."""
    with tempfile.TemporaryDirectory() as tmp, subprocess.Popen(
            ["/usr/bin/python3", SOURCE + "/tests/servers/smtp_server.py", "--dir", tmp, *args], stdout=subprocess.PIPE) as server:
        def messages(expected=0):
            for _ in range(200):
                if len(names := sorted(glob.glob(tmp + "/*.envelope"))) >= expected:
                    break
                time.sleep(0.05)
            return [(pathlib.Path(n[:-9] + ".eml").read_bytes(), pathlib.Path(n).read_text().splitlines()) for n in names]
        try:
            yield int(server.stdout.readline()), messages
        finally:
            server.terminate()


def parse(raw):
    return email.message_from_bytes(raw, policy=email.policy.default)


def body(parsed, subtype="plain"):  # decoded; the format ends a part with a line end of its own
    return parsed.get_body((subtype,)).get_content()


def check_standard(test, raw, subject="", name="", to=(), cc=(), plain=None, html=None, files=(), headers=()):
    """A standard message: 7-bit, lines of at most 78 ending in CR LF, read by Python's email and by reformime
    without defects and with every value as given; no Bcc; a Date of today, a Message-ID of the sender's domain."""
    test.assertTrue(raw.isascii() and max(map(len, raw.split(b"\r\n"))) <= 78, raw)
    test.assertIsNone(re.search(rb"\r(?!\n)|(?<!\r)\n", raw))
    m, bodies = parse(raw), [(t, b) for t, b in (("plain", plain), ("html", html)) if b is not None]
    test.assertEqual([d for p in m.walk() for d in p.defects] + [d for k in m for d in m[k].defects], [])
    sender, got = m["From"].addresses[0], [m.get_body((t,)) for t in ("plain", "html")]
    test.assertEqual([str(m["Subject"]), sender.display_name, sender.addr_spec, "Bcc" in m, [b and b.get_content() for b in got]],
                     [subject, name, "ann@example.org", False, [plain, html]])
    test.assertEqual([b["Content-Transfer-Encoding"] for b in got if b], [  # the shorter: Base64 for mostly CJK or emoji
        "base64" if len(b.encode()) > 1.3 * len(b) else "quoted-printable" for _, b in bodies])
    test.assertEqual([a for _, a in email.utils.getaddresses(m.get_all("To", []) + m.get_all("Cc", []))], [*to, *cc])
    test.assertLess(abs(m["Date"].datetime.timestamp() - time.time()), 86400)
    test.assertRegex(m["Message-ID"], r"^<[0-9a-f]{32}@example\.org>$")
    test.assertEqual([(a.get_filename(), a.get_content_type(), a.get_payload(decode=True)) for a in m.iter_attachments()],
                     list(files))
    test.assertEqual([str(m[n]) for n, _ in headers], [v for _, v in headers])
    reformime = lambda *args: run("reformime", *args, stdin=raw, check=True).stdout  # noqa: E731
    info = [dict(line.split(": ", 1) for line in block.splitlines()) for block in reformime("-i").decode().split("\n\n")]
    leaves = [s for s in info if s and not s["content-type"].startswith("multipart/")]
    test.assertEqual([(s["content-type"], s.get("content-disposition-filename"), reformime("-e", "-s", s["section"])) for s in leaves],
                     [("text/" + t, None, b.encode()) for t, b in bodies] + [(n, ty, d) for n, ty, d in ((t, n, d) for n, t, d in files)])
    raw_subject = re.search(rb"\r\nSubject: ?(.*?)\r\n(?! )", raw, re.S)[1].replace(b"\r\n", b"").decode()
    test.assertEqual(run("reformime", "-c", "utf-8", "-h", raw_subject).stdout.decode(), subject + "\n")


def refused_port():
    with socket.socket() as s:
        return s.bind(("127.0.0.1", 0)) or s.getsockname()[1]


def run(*command, stdin=None, env=None, check=False):
    """Without LARKPOST_PASSWORD, in a session of its own: no terminal to ask a password on."""
    env = dict({k: v for k, v in os.environ.items() if k != "LARKPOST_PASSWORD"}, **(env or {}))
    result = subprocess.run(command, input=stdin, capture_output=True, env=env, timeout=300, start_new_session=True)
    assert not check or result.returncode == 0, (command, result.stdout[-3000:], result.stderr[-3000:])
    return result


class CInterface(unittest.TestCase):
    def setUp(self):
        self.c = Library()  # binds every declared function: one not exported fails here
        self.assertEqual(self.c.lib.larkpost_library_version(), b"1.0.0")

    def new(self, class_name, *calls):
        handle = self.c.out("create", "Larkpost." + class_name, kind=ctypes.c_void_p)
        self.addCleanup(self.c.lib.larkpost_release, handle)
        for name, *args in calls:
            self.c.call(name, handle, *args)
        return handle

    def raised(self, number, name, *args):
        with self.assertRaises(LarkpostError) as caught:
            self.c.call(name, *args)
        self.assertEqual(caught.exception.number, number, caught.exception)
        return caught.exception.description, caught.exception.source

    def test_send_in_utf8_with_progress_to_python_that_may_cancel_from_the_callback(self):
        text, events = "".join("café %04d\r\n" % i for i in range(300)), []
        with smtp_server() as (port, messages):
            client = self.new("MailClient", ("mail_client_set_server", "127.0.0.1"), ("mail_client_set_port", port),
                              ("mail_client_connect", None, None))  # NULL credentials: the empty strings
            message = self.new("MailMessage", ("mail_message_set_from_address", "ann@example.org"),
                               ("mail_message_set_body", text), ("mail_message_add_recipient", "bob@example.org"),
                               ("mail_message_set_mime_type", "text/plain; charset=windows-1252"))
            self.assertEqual(self.c.text("mail_message_get_body", message), text)
            callbacks = [SEND_PROGRESS(lambda user, *event: events.append(event)), EVENT(), EVENT()]
            self.c.call("mail_client_set_events", client, *callbacks, None)
            self.c.call("mail_client_send", client, message)
            self.assertEqual(body(parse(messages(1)[0][0])), text + "\r\n")
            total = events[-1][2]
            self.assertEqual(events, [(message, min(512 * i, total), total) for i in range(1, len(events) + 1)])

            events.clear()
            callbacks = [SEND_PROGRESS(lambda *args: events.append(args[2]) or self.c.call("mail_client_cancel_send", client)),
                         EVENT(lambda user: events.append("pending")), EVENT(lambda user: events.append("canceled"))]
            self.c.call("mail_client_set_events", client, *callbacks, None)  # replaces the first set
            self.c.call("mail_client_send", client, message)
            self.assertEqual(events, [512, "pending", "canceled"])
            self.assertEqual(self.raised(ERROR_BASE + 1000, "mail_client_send", client, message)[0], "Not connected.")
            self.assertEqual(len(messages()), 1)

    def test_classic_file_saved_over_a_longer_one_reads_back_part_by_part(self):
        """Types by extension; a file over three pieces of the encoder; the line end closing an encoded body reads as one
        more; Content-Length counts the encoded text with the CR LFs between its lines."""
        tmp, html, jpeg, every_byte = tempfile.mkdtemp(), "text/html", "image/jpeg", bytes(range(256)) * 2
        self.addCleanup(shutil.rmtree, tmp)
        files = [("one", b"\x80", "application/octet-stream"), ("a.HTM", every_byte, html), ("a.HTM", every_byte, html),
                 ("b.html", b"c", html), ("c.jpeg", b"c", jpeg), (".TxT", b"c", "text/plain"),
                 ("d.txt.gz", b"c", "application/octet-stream"), ("e.JPG", random.Random(7).randbytes(300000), jpeg)]
        text, path = ".\r\n..dots\r\nblank \t\r\nFrom me\r\n" + "x" * 80, os.path.join(tmp, "saved.eml")
        message = self.new("MailMessage", ("mail_message_set_from_address", "ann"), ("mail_message_set_body", text))
        for name, data, _ in files:
            pathlib.Path(tmp, name).write_bytes(data)
            self.c.call("mail_message_attach_file", message, os.path.join(tmp, name))
        pathlib.Path(path).write_bytes(b"z" * (1 << 21))
        self.c.call("mail_message_save_to_file", message, path)
        raw = pathlib.Path(path).read_bytes()
        m = email.message_from_bytes(raw, policy=email.policy.compat32)
        leaves = [p for p in m.walk() if not p.is_multipart()]
        self.assertEqual([raw.endswith(b"--\r\n"), m["From"], len(m), [d for p in m.walk() for d in p.defects]], [True, "ann", 5, []])
        self.assertEqual([p.get_content_type() for p in m.walk()], ["multipart/mixed", "multipart/alternative", "text/plain",
                                                                    *(t for *_, t in files)])
        self.assertEqual([(p.get_filename(), p.get_payload(decode=True)) for p in leaves],
                         [(None, text.encode() + b"\r\n"), *((n, d) for n, d, _ in files)])
        self.assertEqual([int(p["Content-Length"]) + 2 for p in leaves], [len(p.get_payload()) for p in leaves])

    def test_standard_format_keeps_every_value_through_python_and_reformime(self):
        tmp, xlsx = tempfile.mkdtemp(), "application/vnd.openxmlformats-officedocument.spreadsheetml.sheet"
        self.addCleanup(shutil.rmtree, tmp)
        mixed = [("Résumé 文件 😀.pdf", "application/pdf", bytes(range(256)) * 3), ("x" * 47 + "é" + "y" * 40 + "é.xlsx", xlsx, b"x"),
                 ("empty.png", "image/png", b""), ("a.TXT", "text/plain", b"t")]
        for subject, name, to, cc, plain, html, files, headers in [  # 4 shapes: alternative, plain, HTML, files only
                ("Grüße 会議 😀 " * 6, 'Zoë "Z" 山田 😀', ["a%d@example.org" % i for i in range(8)], ["c@example.org"],
                 "Grüße 😀\r\n.\r\nFrom me \r\n" + "x" * 100, "<p>会議 😀</p>" * 30, mixed,
                 [("X-Note", "ünï " * 30), ("Reply-To", "r@example.org")]),
                ("Plain words " * 9, 'Ann "the" \\Lee', ["b@example.org"], [], "a" * 200 + " \t\r\n", None, [], []),
                ("", "", ["b@example.org"], ["c@example.org", "d@example.org"], None, "<p>only</p>", [], []),
                (" files", "", ["b@example.org"], [], None, None, mixed[:1], [])]:
            message, path = self.new("MailMessage", ("mail_message_set_standard_format", 1)), os.path.join(tmp, "m.eml")
            for call, value in [("set_from_address", "ann@example.org"), ("set_subject_line", subject), ("set_sender_name", name),
                                ("set_mime_type", "text/plain; Charset=windows-1252; format=fixed"),  # the charset is replaced
                                ("set_body", plain), ("set_body_html", html), ("add_bcc_recipient", "hidden@example.org"),
                                *(("add_recipient", a) for a in to), *(("add_cc_recipient", a) for a in cc)]:
                self.c.call("mail_message_" + call, message, value)
            for file_name, _, data in files:
                pathlib.Path(tmp, file_name).write_bytes(data)
                self.c.call("mail_message_attach_file", message, os.path.join(tmp, file_name))
            for header in headers:
                self.c.call("mail_message_add_header", message, *header)
            self.c.call("mail_message_save_to_file", message, path)
            check_standard(self, pathlib.Path(path).read_bytes(), subject, name, to, cc, plain, html, files, headers)
        self.assertEqual(self.raised(ERROR_BASE + 4023, "mail_message_add_header", message, "Content-Type", "x")[0],
                         "The message writes the header 'Content-Type' itself: it cannot be added.")

    def test_strict_delivery_keeps_a_smuggled_end_of_data_inside_the_text_and_watchers_hear_it(self):
        subject, lines, writes = "x\r\n.\r\nMAIL FROM:<ceo@corp.example>\r\n..y", [], []
        with smtp_server() as (port, messages):
            client = self.new("MailClient", ("mail_client_set_server", "127.0.0.1"), ("mail_client_set_port", port),
                              ("mail_client_set_strict_delivery", 1), ("mail_client_set_pause_milliseconds", 0))
            watchers = [DIALOGUE(lambda user, sent, line: lines.append((sent, line.decode()))),
                        WRITE(lambda user, written, total: writes.append((written, total)))]
            self.c.call("mail_client_set_watchers", client, *watchers, None)
            message = self.new("MailMessage", ("mail_message_set_from_address", "ann@example.org"),
                               ("mail_message_add_recipient", "bob@example.org"),
                               ("mail_message_set_subject_line", subject))
            self.c.call("mail_client_connect", client, None, None)
            self.c.call("mail_client_send", client, message)
            self.c.call("mail_client_disconnect", client, 0)
            (raw, envelope), = messages(1)
        self.assertTrue(raw.startswith(b"Subject: " + subject.encode() + b"\r\n"), raw)  # the dots taken off again
        self.assertEqual(lines[-3:], [(1, "."), (0, "250 2.0.0 Message accepted"), (1, "QUIT")])
        self.assertEqual(writes[-1], (len(raw) + 5,) * 2)  # raw ends in CR LF; two dots doubled, and ". CR LF"

    def test_tcp_stream_against_a_loopback_peer_and_numbered_errors(self):
        with socket.create_server(("127.0.0.1", 0)) as listener:
            stream = self.new("TcpStream", ("tcp_stream_connect", "127.0.0.1", listener.getsockname()[1]))
            with listener.accept()[0] as peer:
                peer.sendall(b"220 caf\xe9\r\nsecond line\r\n")  # Windows-1252 on the wire
                self.assertEqual([self.c.text("tcp_stream_" + name, stream, *n) for name, *n in (("peek", 3), ("read", 4),
                                  ("read_line",), ("read_to_end",))], ["220", "220 ", "café", "second line"])
                self.c.call("tcp_stream_send_line", stream, "ping")
                self.c.call("tcp_stream_flush", stream)
                self.assertEqual(peer.recv(100), b"ping\r\n")
        client = self.new("MailClient", ("mail_client_set_server", "127.0.0.1"), ("mail_client_set_port", refused_port()))
        self.assertEqual(self.raised(10061, "mail_client_connect", client, None, None),
                         ("The connection was refused by the remote host.", "Larkpost.TcpStream"))
        self.assertEqual(self.raised(ERROR_BASE + 1000, "mail_message_attach_file", self.new("MailMessage"), "/no.pdf"),
                         ("File /no.pdf not found. Cannot attach to message.", "Larkpost.MailMessage"))


class Command(unittest.TestCase):
    def setUp(self):
        self.dir = tempfile.mkdtemp(prefix="larkpost-cli-")
        self.addCleanup(shutil.rmtree, self.dir)

    def file(self, name, data=None):
        if data is not None:
            pathlib.Path(self.dir, name).write_bytes(data.encode() if isinstance(data, str) else data)
        return os.path.join(self.dir, name)

    def test_sends_with_the_password_from_the_environment_only_and_each_failure_has_its_status(self):
        self.assertEqual((run(CLI, "--version").stdout, run(CLI).returncode), (b"larkpost 1.0.0\n", 2))
        out, missing, lines = self.file("o.eml"), self.file("no.txt"), "".join("line %d\n" % i for i in range(300))
        with smtp_server("--auth-user", "ann", "--auth-password", "pa ss", "--size", "20000") as (port, messages):
            login = ["--server", "127.0.0.1", "--port", str(port), "--user", "ann"]
            for args, status, number, fragment in [
                    (["--to", "--cc", "x@example.org"], 2, 5, "option --to needs a value"),
                    (["--save", out, *login[:2]], 2, 5, "leave out --server"),
                    ([*login, "--password", "hunter2"], 2, 5, "no --password option"),
                    ([*login, "--password-env", "NOPE"], 2, 5, "NOPE, but that environment variable is not set"),
                    (login, 2, 5, "--user ann needs a password"),  # no terminal to ask on, in a session of its own
                    (["--save", out, "--body", missing], 3, 53, "cannot read the body file '%s'" % missing),
                    (["--save", out, "--html", "/no/dir/b.html"], 3, 76, "Path not found"),
                    (["--save", out, "--body", self.file("latin1.txt", b"caf\xe9\n")], 3, 5, "not valid UTF-8"),
                    (["--save", out, "--body", "/no/\x1b]0;t\x07\r.txt"], 3, 76, r"body file '/no/\x1b]0;t\x07\r.txt': Path"),
                    (["--save", out, "--attach", "/no.pdf"], 3, "0xA38F03E8", "File /no.pdf not found."),
                    (["--save", "/no/dir/o.eml"], 3, 76, "Error in MailMessage.SaveToFile: "),
                    ([*login, "--password-env", "WRONG"], 4, "0xA38F07D1", "535 5.7.8 Authentication credentials invalid"),
                    ([*login[:2], "--port", str(refused_port())], 4, 10061, "refused by the remote host. (server 127"),
                    ([*login, "--password-env", "LATIN1"], 2, 5, "Invalid UTF-8 text (--server, --user or the password)"),
                    (["--save", out, "--cc", "  "], 5, "0xA38F0BB9", "Blank recipient"),
                    (["--save", out, "--to", "BOB@example.org"], 5, "0xA38F0BBA", "'BOB@example.org' is already"),
                    ([*login, "--password-env", "P", "--attach", self.file("big", "x" * 30000)], 5, "0xA38F07D6", "too large"),
                    (["--save", out, "--body", "/dev/zero"], 5, 6, "'/dev/zero' holds more than 2147483647 characters"),
                    (["--save", out, "--header", "X-No-Colon"], 2, 5, '--header needs "Name: value"'),
                    (["--save", out, "--header", "X Y: z"], 5, "0xA38F0FB7", "'X Y' is not a header field name"),
                    (["--save", out, "--subject", "a\r\nBcc: x"], 5, "0xA38F0FB4", "The subject holds a line break")]:
                with self.subTest(args=args):
                    result = run(CLI, *BASE, *args, env={"WRONG": "hunter2", "P": "pa ss", "LATIN1": "\udce9"})
                    self.assertEqual(result.returncode, status, result.stderr)
                    self.assertRegex(result.stderr.decode(), "^larkpost: error %s: .*%s" % (number, re.escape(fragment)))
                    self.assertNotIn(b"hunter2", result.stderr)
            self.assertEqual((messages(), os.path.exists(out)), ([], False))
            self.assertEqual(run(CLI, *BASE, *login, "--body", "-", "--bcc", "dee@example.org", stdin=lines.encode(),
                                 env={"LARKPOST_PASSWORD": "pa ss"}).stderr.decode(),
                             "larkpost: sent to 2 recipients through 127.0.0.1:%d\n" % port)
            self.assertEqual(run(CLI, *BASE, *login, "--quiet", "--password-env", "P", env={"P": "pa ss"}).stderr, b"")
            dialogue = run(CLI, *BASE, *login, "-v", "--quiet", env={"LARKPOST_PASSWORD": "pa ss"}).stderr.decode()
            self.assertIn("> AUTH LOGIN\n< 334 VXNlciBOYW1lAA==\n> (login token hidden)\n< 334 UGFzc3dvcmQA\n"
                          "> (login token hidden)\n< 235 2.7.0 Authentication successful\n", dialogue)
            (raw, envelope), *_ = messages(3)
        self.assertEqual(envelope, ["mail_from ann@example.org", "rcpt_to bob@example.org", "rcpt_to dee@example.org",
                                    "auth_mechanism LOGIN", "auth_login ann"])
        self.assertEqual((body(parse(raw)), b"Bcc" in raw), (lines.replace("\n", "\r\n"), False))  # CR LF line ends

    def test_saved_message_reads_back_in_the_standard_format_or_with_compat_in_the_classic_one(self):
        html, data, out = self.file("b.html", "<p>Hi</p>\n"), bytes(range(256)) * 4, self.file("out.eml")
        args = [*BASE, "--cc", "cid@example.org", "--sender-name", "Zoë Lee", "--subject", "Grüße 😀", "--body",
                self.file("b.txt", "the café\n"), "--html", html, "--attach", self.file("d.bin", data), "--save", out]
        result = run(CLI, *args, "--header", "Reply-To:  r@example.org")
        self.assertEqual((result.returncode, result.stderr.decode()), (0, "larkpost: saved to %s\n" % out))
        check_standard(self, pathlib.Path(out).read_bytes(), "Grüße 😀", "Zoë Lee", ["bob@example.org"], ["cid@example.org"],
                       "the café\r\n", "<p>Hi</p>\r\n", [("d.bin", "application/octet-stream", data)], [("Reply-To", "r@example.org")])
        run(CLI, *args, "--compat", check=True)
        parsed = parse(pathlib.Path(out).read_bytes())
        plain = parsed.get_body(("plain",))
        self.assertEqual((body(parsed), plain.get_content_charset(), plain["Content-Length"], "Date" in parsed, parsed["Subject"]),
                         ("the café\r\n\r\n", "windows-1252", "18", False, "Gr��e ??"))

    def run_on_terminal(self, port, text, interrupt=None, *options):
        """The command with its standard error on a terminal, a Ctrl-C once the screen shows interrupt: the
        screen, and the exit status."""
        leader, follower = pty.openpty()
        process = subprocess.Popen([CLI, *BASE, "--server", "127.0.0.1", "--port", str(port), "--body",
                                    self.file("body.txt", text), *options], stderr=follower, start_new_session=True)
        os.close(follower)
        screen = b""
        with contextlib.suppress(OSError):  # the other end closed
            while select.select([leader], [], [], 30)[0] and (chunk := os.read(leader, 4096)):
                screen += chunk
                if interrupt and interrupt in screen:
                    interrupt = process.send_signal(signal.SIGINT)  # once: it gives None
        os.close(leader)
        return screen, process.wait(10)

    def test_progress_bar_on_a_terminal_and_ctrl_c_that_cancels_before_any_text_leaves(self):
        with smtp_server() as (port, messages):
            screen, status = self.run_on_terminal(port, "y" * 20000)
            for part in (b"Sending [", b"100%", b"waiting for the server", b"\r\x1b[Klarkpost: sent to 1 recipient"):
                self.assertIn(part, screen)
            # The classic pauses make the way into the send buffer long enough to interrupt it.
            screen, status = self.run_on_terminal(port, "secret text\n" * 200000, b"Preparing [", "--compat")
            self.assertEqual((status, b"larkpost: canceled" in screen, len(messages(1))), (130, True, 1), screen)

    def test_a_scripted_server_meets_ctrl_c_at_each_stage_a_vanished_attachment_and_a_reply_that_sets_the_title(self):
        notes, title = self.file("notes.txt"), b"550-5.7.1 \x1b]0;owned\x07\r\n550 5.7.1 \x9d\x7f no\r\n"  # 0x9D: a C1 control
        for script, status, stderr in [  # script: a reply by command, None for a Ctrl-C instead
                (None, 130, "larkpost: canceled\n"),  # while connecting; on a pipe, without \r\x1b[K
                ({b"MAIL": None}, 130, "larkpost: canceled\n"), ({b"RCPT": None}, 130, "larkpost: canceled\n"),
                ({b"DATA": None}, 130, "larkpost: canceled\n"),  # in each reply wait, at once
                ({b".\r\n": b"554 5.7.1 spam\r\n"}, 4, "larkpost: error 0xA38F0FAA: 554 5.7.1 spam\n"),
                ({}, 3, "larkpost: error 0xA38F0BB8: Error attaching file '%s'" % notes),  # the file went after the check
                ({b".\r\n": None}, 6, "larkpost: interrupted after the message text went to the server: it may have been"),
                ({b"MAIL": title}, 4, r"larkpost: error 0xA38F07D3: 550-5.7.1 \x1b]0;owned\x07\r\n550 5.7.1 \u{9d}\x7f no" "\n")]:
            with self.subTest(stderr), socket.create_server(("127.0.0.1", 0)) as listener:
                listener.settimeout(20)
                process = subprocess.Popen([CLI, *BASE, "--server", "127.0.0.1", "--port", str(listener.getsockname()[1]),
                                            "--attach", self.file("notes.txt", "notes")], stderr=subprocess.PIPE)
                connection, in_data = listener.accept()[0], False  # the attachment was found before the connection
                connection.settimeout(20)
                interrupted = time.monotonic() + 60
                if script is None:
                    interrupted = process.send_signal(signal.SIGINT) or time.monotonic()  # it waits for the greeting
                else:
                    if not script:
                        os.remove(notes)
                    connection.sendall(b"220 ready\r\n")
                    for line in connection.makefile("rb"):  # until the command closes; silent in the text
                        if not in_data or line == b".\r\n":
                            default, in_data = b"354 go\r\n" if line[:4] == b"DATA" else b"250 ok\r\n", line[:4] == b"DATA"
                            reply = script.get(b".\r\n" if line == b".\r\n" else line[:4], default)
                            if reply is None:
                                interrupted = process.send_signal(signal.SIGINT) or time.monotonic()
                            connection.sendall(reply or b"")
                output = process.communicate(timeout=20)[1].decode()
                self.assertLess(time.monotonic() - interrupted, 1)  # within a second of a Ctrl-C
                connection.close()
                self.assertEqual((process.returncode, output[:len(stderr)]), (status, stderr))

    def test_smtp_sink_delivers_refuses_hangs_up_and_lets_ctrl_c_through_each_answered_at_once(self):
        if os.geteuid() != 0:
            self.skipTest("smtp-sink is started as root, which it leaves for nobody")
        for flags, options, status, stderr in [  # -f: refuse with 5xx; -q: hang up; -w: wait before DATA's reply
                ([], [], 0, "larkpost: sent to 1 recipient"), (["-f", "."], ["--compat"], 0, "larkpost: sent to"),
                (["-f", "."], [], 4, "larkpost: error 0xA38F0FAA: 500 5.3.0 Error: command failed\n"),
                (["-q", "MAIL"], [], 4, "larkpost: error 0xA38F0FAB: The server closed the connection.\n"),
                (["-w", "20"], [], 130, "larkpost: canceled\n")]:  # a Ctrl-C half a second in
            port = refused_port()
            with self.subTest(flags + options), subprocess.Popen(
                    ["/usr/sbin/smtp-sink", "-u", "nobody", *flags, "127.0.0.1:%d" % port, "10"]) as sink:
                try:
                    for _ in range(100):
                        with contextlib.suppress(OSError), socket.create_connection(("127.0.0.1", port)):
                            break
                        time.sleep(0.05)
                    started = time.monotonic()
                    process = subprocess.Popen([CLI, *BASE, "--server", "127.0.0.1", "--port", str(port), *options],
                                               stderr=subprocess.PIPE)
                    if status == 130:
                        time.sleep(0.5)
                        started = process.send_signal(signal.SIGINT) or time.monotonic()
                    output = process.communicate(timeout=20)[1].decode()
                    self.assertLess(time.monotonic() - started, 1)
                    self.assertEqual((process.returncode, output[:len(stderr)]), (status, stderr))
                finally:
                    sink.terminate()


class SecureRelay(unittest.TestCase):
    """aiosmtpd requiring STARTTLS, and speaking implicit TLS, with certificates made for this run."""

    @classmethod
    def setUpClass(cls):
        cls.certs = tempfile.mkdtemp(prefix="larkpost-tls-")
        cls.addClassCleanup(shutil.rmtree, cls.certs)
        run("/bin/sh", SOURCE + "/tests/support/make_certificates.sh", cls.certs, check=True)

    def relay(self, mode, mechanism, secret):
        return smtp_server("--tls", mode, "--cert", self.certs + "/server.pem", "--key", self.certs + "/server.key",
                           "--auth-user", "ann", "--auth-password", secret, "--auth", mechanism)

    def test_command_delivers_an_attachment_over_starttls_and_implicit_tls_with_each_login(self):
        data, attachment = bytes(range(256)) * 300, os.path.join(self.certs, "data.bin")
        pathlib.Path(attachment).write_bytes(data)
        for mode, flag, mechanism, secret_option in [("starttls", "--starttls", "LOGIN", "--password-env"),
                                                     ("starttls", "--starttls", "PLAIN", "--password-env"),
                                                     ("implicit", "--tls", "XOAUTH2", "--oauth2-token-env")]:
            with self.subTest(mechanism), self.relay(mode, mechanism, "s3cret") as (port, messages):
                result = run(CLI, *BASE, "--server", "127.0.0.1" if flag == "--tls" else "localhost", "--port", str(port),
                             flag, "--ca-file", self.certs + "/ca.pem", "--user", "ann", secret_option, "S",
                             "--attach", attachment, env={"S": "s3cret"}, check=True)
                (raw, envelope), = messages(1)
                self.assertEqual(envelope[-3:], ["tls TLSv1.3", "auth_mechanism " + mechanism, "auth_login ann"])
                self.assertEqual([a.get_content() for a in parse(raw).iter_attachments()], [data])
                self.assertNotIn(b"warning", result.stderr)
        with self.relay("starttls", "LOGIN", "s3cret") as (port, messages):  # no TLS: refused, and a warning first
            result = run(CLI, *BASE, "--server", "0.0.0.0", "--port", str(port), "--user", "ann", env={"LARKPOST_PASSWORD": "x"})
            self.assertRegex(result.stderr.decode(), "^larkpost: warning: the password for ann goes to 0.0.0.0 without TLS")
            self.assertEqual((result.returncode, messages()), (4, []))

    def test_c_interface_logs_in_with_a_token_over_tls_trusting_the_ca_file(self):
        c = Library()  # a relay that speaks TLS only, with a certificate only the run's CA vouches for
        with self.relay("implicit", "XOAUTH2", "t0ken") as (port, messages):
            client = c.out("create", "Larkpost.MailClient", kind=ctypes.c_void_p)
            self.addCleanup(c.lib.larkpost_release, client)
            for name, *args in [("set_server", "127.0.0.1"), ("set_port", port), ("set_security", 2),
                                ("set_ca_file", self.certs + "/ca.pem"), ("connect_with_token", "ann", "t0ken")]:
                c.call("mail_client_" + name, client, *args)

class Package(unittest.TestCase):
    """cmake --install into a temporary prefix, and the consumers of what it put there."""

    @classmethod
    def setUpClass(cls):
        cls.tmp, cls.cmake = tempfile.mkdtemp(prefix="larkpost-package-"), os.environ["LARKPOST_CMAKE"]
        cls.addClassCleanup(shutil.rmtree, cls.tmp)
        run(cls.cmake, "--install", os.environ["LARKPOST_BUILD_DIR"], "--prefix", cls.tmp + "/prefix", check=True)
        cls.lib = os.path.dirname(glob.glob(cls.tmp + "/prefix/lib*/**/liblarkpost.so", recursive=True)[0])

    def test_library_headers_and_command_in_place_exporting_the_interface_only(self):
        self.assertEqual([os.readlink(self.lib + "/liblarkpost.so" + s) for s in ("", ".1")],
                         ["liblarkpost.so.1", "liblarkpost.so.1.0.0"])
        self.assertIn(b"Library soname: [liblarkpost.so.1]", run("readelf", "-d", self.lib + "/liblarkpost.so").stdout)
        self.assertEqual(set(os.listdir(self.tmp + "/prefix/include/larkpost")),
                         set(os.listdir(SOURCE + "/include/larkpost") + ["version.h"]))
        self.assertEqual(run(self.tmp + "/prefix/bin/larkpost", "--version").stdout, b"larkpost 1.0.0\n")
        symbols = run("nm", "-D", "--defined-only", "--demangle", self.lib + "/liblarkpost.so").stdout.decode()
        names = {line.split(" ", 2)[2] for line in symbols.splitlines() if line.count(" ") >= 2}
        self.assertEqual({n for n in names if n.startswith("larkpost_")}, set(declarations()))
        self.assertEqual([n for n in names if n.startswith("larkpost::detail::")], [])

    def test_find_package_and_pkg_config_give_programs_that_run(self):
        build = self.tmp + "/example"
        run(self.cmake, "-S", SOURCE + "/examples", "-B", build, "-DCMAKE_PREFIX_PATH=" + self.tmp + "/prefix", check=True)
        run(self.cmake, "--build", build, "-j2", check=True)
        with smtp_server() as (port, messages):
            output = run(build + "/send_mail", "127.0.0.1", str(port), "ann@example.org", "bob@example.org",
                         "From the example", "Hello.\r\n", check=True).stdout
            self.assertEqual(parse(messages(1)[0][0])["Subject"], "From the example")
        self.assertTrue(output.startswith(b"progress ") and output.endswith(b"sent\n"), output)
        env = {"PKG_CONFIG_PATH": self.lib + "/pkgconfig", "LD_LIBRARY_PATH": self.lib}
        flags = run("pkg-config", "--cflags", "--libs", "larkpost", env=env, check=True).stdout.decode().split()
        pathlib.Path(build, "version.c").write_text("#include <stdio.h>\n#include <larkpost/larkpost_c.h>\n"
                                                    "int main(void) { return puts(larkpost_library_version()) < 0; }\n")
        run("cc", "-std=c11", "-Wall", "-Werror", build + "/version.c", "-o", build + "/version", *flags, check=True)
        self.assertEqual(run(build + "/version", env=env).stdout, b"1.0.0\n")

    def test_a_host_keeps_its_build_type_and_flags_and_gets_no_tests_or_tools(self):
        host, state = pathlib.Path(self.tmp, "host"), "${CMAKE_BUILD_TYPE}|$CACHE{CMAKE_BUILD_TYPE}|${CMAKE_CXX_FLAGS}|${BUILD_TESTING}"
        host.mkdir()
        (host / "CMakeLists.txt").write_text(
            "cmake_minimum_required(VERSION 3.25)\nproject(Host CXX)\ninclude(CTest)\nset(before \"%s\")\n"
            "add_subdirectory(%s larkpost)\nfile(WRITE ${CMAKE_BINARY_DIR}/seen.txt \"${before}\\n%s\\n\")\n"
            "add_executable(host host.cpp)\ntarget_link_libraries(host PRIVATE larkpost::larkpost)\n" % (state, SOURCE, state))
        (host / "host.cpp").write_text(
            "#include <larkpost/larkpost.h>\n#if defined(NDEBUG) || !defined(HOST_FLAG)\n#error host settings lost\n#endif\n"
            "int main() { return larkpost::CreateObject(\"Larkpost.TcpStream\").Is<larkpost::TcpStream>() ? 0 : 1; }\n")
        for build in (host / "buildDebug", host / "build"):  # a build type of its own, then none
            run(self.cmake, "-S", host, "-B", build, "-DCMAKE_BUILD_TYPE=" + build.name[5:], "-DCMAKE_CXX_FLAGS=-DHOST_FLAG",
                check=True)
            before, after = (build / "seen.txt").read_text().splitlines()
            self.assertEqual(after, before)
            self.assertEqual([d for d in ("tests", "tools", "bench") if (build / "larkpost" / d).exists()], [])
        run(self.cmake, "--build", host / "buildDebug", "--target", "host", "-j2", check=True)
        self.assertEqual(run(host / "buildDebug/host").returncode, 0)


if __name__ == "__main__":
    unittest.main(verbosity=2)
