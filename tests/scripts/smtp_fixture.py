"""A real SMTP server for the script tests: tests/servers/smtp_server.py (aiosmtpd) run by
Debian's /usr/bin/python3 on a free loopback port, and the messages it stored."""

import email
import email.policy
import os
import select
import socket
import subprocess
import tempfile
import time

SYSTEM_PYTHON = "/usr/bin/python3"
SOURCE_DIR = os.environ.get(
    "LARKPOST_SOURCE_DIR", os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__)))))
SERVER_SCRIPT = os.path.join(SOURCE_DIR, "tests", "servers", "smtp_server.py")


class SmtpServer:
    """Start with `with SmtpServer() as server:`; server.port, server.messages()."""

    def __init__(self, *extra_args):
        self.extra_args = list(extra_args)
        self.directory = None
        self.process = None
        self.port = None

    def __enter__(self):
        self._tmp = tempfile.TemporaryDirectory(prefix="larkpost-smtp-")
        self.directory = self._tmp.name
        self.process = subprocess.Popen(
            [SYSTEM_PYTHON, SERVER_SCRIPT, "--dir", self.directory] + self.extra_args,
            stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
        ready, _, _ = select.select([self.process.stdout], [], [], 20)
        line = self.process.stdout.readline() if ready else b""
        if not line.strip().isdigit():
            self.__exit__(None, None, None)
            raise RuntimeError("the SMTP server did not start")
        self.port = int(line)
        return self

    def __exit__(self, *exc):
        if self.process:
            self.process.terminate()
            try:
                self.process.wait(timeout=10)
            except subprocess.TimeoutExpired:
                self.process.kill()
                self.process.wait(timeout=10)
            self.process.stdout.close()
        self._tmp.cleanup()
        return False

    def messages(self, expected=None, limit=10.0):
        """(raw bytes, envelope dict) of each stored message, oldest first. With expected, waits
        (bounded) until that many are there."""
        deadline = time.monotonic() + limit
        while True:
            names = sorted(n for n in os.listdir(self.directory) if n.endswith(".envelope"))
            if expected is None or len(names) >= expected or time.monotonic() > deadline:
                break
            time.sleep(0.05)
        result = []
        for name in names:
            base = os.path.join(self.directory, name[:-len(".envelope")])
            with open(base + ".eml", "rb") as f:
                raw = f.read()
            envelope = {"rcpt_to": []}
            with open(base + ".envelope", encoding="latin-1") as f:
                for line in f.read().splitlines():
                    key, _, value = line.partition(" ")
                    if key == "rcpt_to":
                        envelope["rcpt_to"].append(value)
                    else:
                        envelope[key] = value
            result.append((raw, envelope))
        return result


def parse_message(raw):
    return email.message_from_bytes(raw, policy=email.policy.default)


def body_text(parsed, subtype):
    """The decoded text of the plain or html part. The message format ends the last encoded line
    with a line end of its own, ahead of the blank line before the boundary: drop that one."""
    content = parsed.get_body((subtype,)).get_content()
    assert content.endswith("\r\n"), repr(content[-10:])
    return content[:-2]


def refused_port():
    """A loopback port where nothing listens: bound, then closed again."""
    with socket.socket(socket.AF_INET, socket.SOCK_STREAM) as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]
