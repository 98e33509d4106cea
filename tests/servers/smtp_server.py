#!/usr/bin/python3
"""A real SMTP server for the tests: aiosmtpd on loopback, storing every message it accepts.

Run with Debian's /usr/bin/python3 (python3-aiosmtpd):

    smtp_server.py --dir DIR [--port 0] [--auth-user U --auth-password P [--auth LOGIN,PLAIN]]
                   [--size N]

Prints the bound port on its own line once it listens. Each accepted message becomes two files
in DIR: NNNN.eml (the DATA bytes as received, dot-unstuffed) and, written last, NNNN.envelope with
one "key value" line each: mail_from, rcpt_to (one per recipient), and after a login
auth_mechanism and auth_login. With --auth-user the
server requires AUTH with exactly those credentials before MAIL FROM. --size announces SIZE N
and refuses larger data; without it no SIZE is announced.
"""

import argparse
import asyncio
import logging
import os
import signal
import sys
import warnings

from aiosmtpd.smtp import SMTP, AuthResult, LoginPassword


class StoringHandler:
    def __init__(self, directory):
        self.directory = directory
        self.count = 0

    async def handle_DATA(self, server, session, envelope):
        self.count += 1
        base = os.path.join(self.directory, "%04d" % self.count)
        with open(base + ".eml.tmp", "wb") as f:
            f.write(envelope.content)
        os.rename(base + ".eml.tmp", base + ".eml")
        auth = getattr(session, "auth_data", None)
        lines = ["mail_from " + envelope.mail_from]
        lines += ["rcpt_to " + rcpt for rcpt in envelope.rcpt_tos]
        if isinstance(auth, LoginPassword):
            lines.append("auth_mechanism " + getattr(session, "larkpost_mechanism", ""))
            lines.append("auth_login " + auth.login.decode("latin-1"))
        with open(base + ".envelope.tmp", "w", encoding="latin-1") as f:
            f.write("\n".join(lines) + "\n")
        os.rename(base + ".envelope.tmp", base + ".envelope")
        return "250 2.0.0 Message accepted"


def make_authenticator(user, password):
    expected = LoginPassword(user.encode("latin-1"), password.encode("latin-1"))

    def authenticate(server, session, envelope, mechanism, auth_data):
        if isinstance(auth_data, LoginPassword) and auth_data == expected:
            session.larkpost_mechanism = mechanism
            return AuthResult(success=True, auth_data=auth_data)
        return AuthResult(success=False, handled=False)

    return authenticate


def main():
    # Plain AUTH without TLS is what these tests want; keep the server quiet about it.
    warnings.simplefilter("ignore")
    logging.getLogger("mail.log").setLevel(logging.ERROR)
    parser = argparse.ArgumentParser()
    parser.add_argument("--dir", required=True)
    parser.add_argument("--port", type=int, default=0)
    parser.add_argument("--auth-user")
    parser.add_argument("--auth-password")
    parser.add_argument("--auth", default="LOGIN,PLAIN", help="mechanisms offered")
    parser.add_argument("--size", type=int, default=None)
    args = parser.parse_args()

    offered = {m.strip().upper() for m in args.auth.split(",") if m.strip()}
    excluded = [m for m in ("LOGIN", "PLAIN") if m not in offered]
    handler = StoringHandler(args.dir)
    requires_auth = args.auth_user is not None

    def factory():
        return SMTP(
            handler,
            hostname="larkpost-test",
            data_size_limit=args.size,
            auth_require_tls=False,
            auth_required=requires_auth,
            auth_exclude_mechanism=excluded,
            authenticator=make_authenticator(args.auth_user or "", args.auth_password or "")
            if requires_auth else (lambda *a: AuthResult(success=False, handled=False)),
        )

    loop = asyncio.new_event_loop()
    asyncio.set_event_loop(loop)
    server = loop.run_until_complete(loop.create_server(factory, "127.0.0.1", args.port))
    print(server.sockets[0].getsockname()[1], flush=True)
    loop.add_signal_handler(signal.SIGTERM, loop.stop)
    loop.add_signal_handler(signal.SIGINT, loop.stop)
    try:
        loop.run_forever()
    finally:
        server.close()
        loop.run_until_complete(server.wait_closed())
        loop.close()
    return 0


if __name__ == "__main__":
    sys.exit(main())
