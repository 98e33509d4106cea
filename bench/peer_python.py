#!/usr/bin/python3
"""Python's side of the workloads in bench/run.py: the email package for the assembly, smtplib for
the transfers, base64 and quopri for the encoders. One repetition per process (the encoders take
the median of a few runs inside one process); the result is one JSON line on stdout.

    peer_python.py assemble mode=build|save attach=FILE body=FILE html=FILE out=FILE
    peer_python.py send port=N message=FILE
    peer_python.py session port=N count=N message=FILE
    peer_python.py idle port=N
    peer_python.py encoders data=DIR
"""
import base64
import email.base64mime
import email.generator
import email.message
import email.policy
import email.quoprimime
import json
import quopri
import resource
import smtplib
import socket
import statistics
import sys
import time

SENDER = "sender@example.com"
RECIPIENT = "rcpt@example.com"


def peak_rss_kb():
    with open("/proc/self/status") as status:
        for line in status:
            if line.startswith("VmHWM:"):
                return int(line.split()[1])
    return -1


def cpu_seconds():
    usage = resource.getrusage(resource.RUSAGE_SELF)
    return usage.ru_utime + usage.ru_stime


def read_bytes(path):
    with open(path, "rb") as f:
        return f.read()


def emit(**fields):
    fields["peak_kb"] = peak_rss_kb()
    print(json.dumps(fields), flush=True)


def assemble(args):
    body = read_bytes(args["body"]).decode("ascii")
    html = read_bytes(args["html"]).decode("ascii")
    baseline_kb = peak_rss_kb()
    start = time.perf_counter()
    message = email.message.EmailMessage(policy=email.policy.SMTP)
    message["Subject"] = "Larkpost benchmark"
    message["From"] = SENDER
    message["To"] = RECIPIENT
    message.set_content(body, cte="quoted-printable")
    message.add_alternative(html, subtype="html", cte="quoted-printable")
    message.add_attachment(read_bytes(args["attach"]), maintype="application", subtype="octet-stream",
                           filename="attachment.bin")
    if args["mode"] == "build":
        size = len(message.as_bytes())
    else:
        with open(args["out"], "wb") as out:
            email.generator.BytesGenerator(out, policy=email.policy.SMTP).flatten(message)
        size = None
    seconds = time.perf_counter() - start
    if size is None:
        with open(args["out"], "rb") as f:
            size = len(f.read())
    emit(seconds=seconds, bytes=size, baseline_kb=baseline_kb)


def send_messages(args, count):
    text = read_bytes(args["message"])
    session = smtplib.SMTP("127.0.0.1", int(args["port"]), timeout=60)
    session.ehlo("localhost")
    cpu_before = cpu_seconds()
    start = time.perf_counter()
    for _ in range(count):
        session.sendmail(SENDER, [RECIPIENT], text)
    seconds = time.perf_counter() - start
    cpu = cpu_seconds() - cpu_before
    session.quit()
    emit(seconds=seconds, cpu_seconds=cpu, messages=count, bytes=len(text))


def idle(args):
    cpu_before = cpu_seconds()
    start = time.perf_counter()
    outcome = "no time-out"
    try:
        smtplib.SMTP("127.0.0.1", int(args["port"]), timeout=10)
    except (socket.timeout, TimeoutError):
        outcome = "timeout"
    except smtplib.SMTPServerDisconnected as error:
        # smtplib turns the socket's time-out on the greeting into this.
        outcome = "timeout" if "timed out" in str(error) else repr(error)
    except Exception as error:  # report whatever else ended the wait
        outcome = repr(error)
    seconds = time.perf_counter() - start
    emit(seconds=seconds, cpu_seconds=cpu_seconds() - cpu_before, outcome=outcome)
    return 0 if outcome == "timeout" else 1


def throughput(function, data, runs=5, budget=20.0):
    """Median MB/s of up to `runs` calls, stopping early once `budget` seconds are spent."""
    rates = []
    spent_start = time.perf_counter()
    for _ in range(runs):
        start = time.perf_counter()
        function(data)
        elapsed = time.perf_counter() - start
        rates.append(len(data) / elapsed / 1e6)
        if time.perf_counter() - spent_start > budget:
            break
    return statistics.median(rates)


def encoders(args):
    raw = read_bytes(args["data"] + "/enc_bytes.bin")
    prose = read_bytes(args["data"] + "/enc_text.txt")
    prose_text = prose.decode("ascii")
    emit(
        base64_encodebytes_mbps=throughput(base64.encodebytes, raw),
        base64mime_body_encode_mbps=throughput(lambda d: email.base64mime.body_encode(d, 76, "\r\n"), raw),
        quopri_encodestring_mbps=throughput(quopri.encodestring, prose),
        quoprimime_body_encode_mbps=throughput(lambda t: email.quoprimime.body_encode(t, 76, "\r\n"),
                                               prose_text, runs=3),
        input_bytes=len(raw),
        input_text_bytes=len(prose),
    )


def main(argv):
    if len(argv) < 2:
        print(__doc__, file=sys.stderr)
        return 2
    workload = argv[1]
    args = dict(item.split("=", 1) for item in argv[2:])
    if workload == "assemble":
        assemble(args)
    elif workload == "send":
        send_messages(args, 1)
    elif workload == "session":
        send_messages(args, int(args["count"]))
    elif workload == "idle":
        return idle(args)
    elif workload == "encoders":
        encoders(args)
    else:
        print("unknown workload " + workload, file=sys.stderr)
        return 2
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
