#!/usr/bin/python3
"""A real SMTP server for the tests: Debian's aiosmtpd on loopback, keeping what it accepts.
smtp_server.py --dir DIR [--port 0] [--auth-user U --auth-password P [--auth LOGIN,PLAIN,XOAUTH2]] [--size N]
               [--tls starttls|implicit --cert PEM --key KEY]
prints its port once it listens. Each message becomes DIR/NNNN.eml (the data as received), then
DIR/NNNN.envelope: "mail_from A", "rcpt_to A" for each recipient and, after a login, "auth_mechanism M"
and "auth_login U", over TLS "tls VERSION". --auth-user requires a login with those credentials (for XOAUTH2 the password is the token); --size announces
SIZE N. --tls starttls requires STARTTLS before anything else, implicit speaks TLS from the first byte; AUTH only
over TLS then."""
import argparse, asyncio, base64, ctypes, logging, os, signal, ssl, warnings  # noqa: E401

from aiosmtpd.smtp import SMTP, AuthResult, LoginPassword

options = argparse.ArgumentParser()
for flag in ("--dir", "--port", "--auth-user", "--auth-password", "--auth", "--size", "--tls", "--cert", "--key"):
    options.add_argument(flag, type=int if flag in ("--port", "--size") else str)
args = options.parse_args()
# Ends with the process that started it, even one killed at a time-out: an orphan would hold the
# test runner's output open.
ctypes.CDLL(None).prctl(1, signal.SIGTERM)  # PR_SET_PDEATHSIG
logging.getLogger("mail.log").setLevel(logging.CRITICAL)
warnings.simplefilter("ignore")  # plain AUTH without TLS is what the tests want


class Store:
    count = 0

    async def handle_DATA(self, server, session, envelope):
        self.count += 1
        lines = ["mail_from " + envelope.mail_from] + ["rcpt_to " + r for r in envelope.rcpt_tos]
        if tls := server.transport.get_extra_info("ssl_object"):
            lines.append("tls " + tls.version())
        if session.authenticated:
            lines += ["auth_mechanism " + session.mechanism, "auth_login " + session.auth_data.login.decode("latin-1")]
        for suffix, data in ((".eml", envelope.content), (".envelope", "".join(l + "\n" for l in lines).encode())):
            path = os.path.join(args.dir, "%04d%s" % (self.count, suffix))
            with open(path + ".tmp", "wb") as f:
                f.write(data)
            os.rename(path + ".tmp", path)  # whole files only
        return "250 2.0.0 Message accepted"

    async def auth_XOAUTH2(self, server, args):  # "user=U^Aauth=Bearer T^A^A"; a refusal is a challenge first
        fields = dict(f.split("=", 1) for f in base64.b64decode(args[1]).decode("latin-1").split("\x01") if "=" in f)
        login = LoginPassword(fields.get("user", "").encode("latin-1"), fields.get("auth", "")[7:].encode("latin-1"))
        result = authenticate(server, server.session, None, "XOAUTH2", login)
        if not result.success:
            await server.challenge_auth('{"status":"401","schemes":"bearer"}')
        return result


def authenticate(server, session, envelope, mechanism, login):
    session.mechanism = mechanism
    expected = LoginPassword(*(value.encode("latin-1") for value in (args.auth_user or "", args.auth_password or "")))
    return AuthResult(success=bool(args.auth_user) and login == expected, handled=False, auth_data=login)


context = None
if args.tls:
    context = ssl.create_default_context(ssl.Purpose.CLIENT_AUTH)
    context.load_cert_chain(args.cert, args.key)
starttls = context if args.tls == "starttls" else None
loop, store = asyncio.new_event_loop(), Store()
server = loop.run_until_complete(loop.create_server(lambda: SMTP(
    store, hostname="larkpost-test", data_size_limit=args.size, auth_require_tls=args.tls == "starttls",
    authenticator=authenticate, tls_context=starttls, require_starttls=bool(starttls),
    auth_required=bool(args.auth_user), auth_exclude_mechanism=[m for m in ("LOGIN", "PLAIN", "XOAUTH2") if m not in (
        args.auth or "LOGIN,PLAIN").upper()]), "127.0.0.1", args.port or 0,
    ssl=context if args.tls == "implicit" else None))
print(server.sockets[0].getsockname()[1], flush=True)
for stop in (signal.SIGTERM, signal.SIGINT):
    loop.add_signal_handler(stop, loop.stop)
loop.run_forever()
