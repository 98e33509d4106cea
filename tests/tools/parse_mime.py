#!/usr/bin/python3
"""Parses one message text with Python's email package and prints what it found as JSON.

Usage: parse_mime.py [FILE]   (reads standard input without FILE)

Prints one JSON object:
  headers       the top-level header fields in order, as [name, value] pairs; bytes outside
                ASCII are read as Windows-1252, the code page the message was written in
  structure     the tree of content types, e.g. "multipart/mixed(multipart/alternative(text/plain))"
  defects       every defect the parser reported, anywhere in the tree
  parts         every leaf part in order: content_type, charset, filename, disposition,
                transfer_encoding, content_length (the header's text or null), raw_length
                (characters of the payload as it stands in the text) and payload_hex (the
                decoded payload)
Exit status 0 when the text could be parsed, 2 when it could not be read.
"""
import email
import email.policy
import json
import sys


def text_of(value):
    """A header value as text: the parser keeps non-ASCII bytes as surrogate escapes."""
    raw = str(value).encode("ascii", "surrogateescape")
    return raw.decode("cp1252", errors="replace")


def structure(part):
    if part.is_multipart():
        inner = ",".join(structure(p) for p in part.get_payload())
        return f"{part.get_content_type()}({inner})"
    return part.get_content_type()


def leaves(part):
    if part.is_multipart():
        for p in part.get_payload():
            yield from leaves(p)
    else:
        yield part


def describe(part):
    raw = part.get_payload(decode=False)
    decoded = part.get_payload(decode=True) or b""
    return {
        "content_type": part.get_content_type(),
        "charset": part.get_param("charset"),
        "filename": part.get_filename(),
        "disposition": part.get_content_disposition(),
        "transfer_encoding": part.get("Content-Transfer-Encoding"),
        "content_length": part.get("Content-Length"),
        "raw_length": len(raw),
        "payload_hex": decoded.hex(),
    }


def main():
    try:
        if len(sys.argv) > 1:
            with open(sys.argv[1], "rb") as f:
                data = f.read()
        else:
            data = sys.stdin.buffer.read()
    except OSError as error:
        print(error, file=sys.stderr)
        return 2
    message = email.message_from_bytes(data, policy=email.policy.compat32)
    defects = []
    for part in message.walk():
        defects.extend(type(d).__name__ for d in part.defects)
    result = {
        "headers": [[name, text_of(value)] for name, value in message.items()],
        "structure": structure(message),
        "defects": defects,
        "parts": [describe(p) for p in leaves(message)],
    }
    print(json.dumps(result, ensure_ascii=True))
    return 0


if __name__ == "__main__":
    sys.exit(main())
