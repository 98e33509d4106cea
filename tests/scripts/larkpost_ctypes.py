"""Larkpost's C interface through ctypes: the declarations of larkpost_c.h, and a thin layer that
turns error numbers into exceptions. Shared by the script tests."""

import ctypes
import os
import re

c_int32 = ctypes.c_int32
c_char_p = ctypes.c_char_p
c_void_p = ctypes.c_void_p
c_size_t = ctypes.c_size_t
POINTER = ctypes.POINTER

ERROR_BASE = -1550909440  # 0xA38F0000 as a signed 32-bit number

SEND_PROGRESS = ctypes.CFUNCTYPE(None, c_void_p, c_void_p, c_int32, c_int32)
EVENT = ctypes.CFUNCTYPE(None, c_void_p)

_TEXT_OUT = [POINTER(c_char_p), POINTER(c_size_t)]

# name: (restype, argtypes); handles are c_void_p.
SIGNATURES = {
    "larkpost_library_version": (c_char_p, []),
    "larkpost_create": (c_int32, [c_char_p, POINTER(c_void_p)]),
    "larkpost_retain": (c_void_p, [c_void_p]),
    "larkpost_release": (None, [c_void_p]),
    "larkpost_class_name": (c_char_p, [c_void_p]),
    "larkpost_error_number": (c_int32, []),
    "larkpost_error_description": (c_char_p, []),
    "larkpost_error_source": (c_char_p, []),
    "larkpost_string_free": (None, [c_void_p]),
    "larkpost_mail_client_get_timeout": (c_int32, [c_void_p, POINTER(c_int32)]),
    "larkpost_mail_client_set_timeout": (c_int32, [c_void_p, c_int32]),
    "larkpost_mail_client_set_server": (c_int32, [c_void_p, c_char_p]),
    "larkpost_mail_client_get_server": (c_int32, [c_void_p] + _TEXT_OUT),
    "larkpost_mail_client_set_port": (c_int32, [c_void_p, c_int32]),
    "larkpost_mail_client_get_port": (c_int32, [c_void_p, POINTER(c_int32)]),
    "larkpost_mail_client_connect": (c_int32, [c_void_p, c_char_p, c_char_p]),
    "larkpost_mail_client_disconnect": (c_int32, [c_void_p, c_int32]),
    "larkpost_mail_client_send": (c_int32, [c_void_p, c_void_p]),
    "larkpost_mail_client_cancel_send": (c_int32, [c_void_p]),
    "larkpost_mail_client_set_events": (c_int32, [c_void_p, SEND_PROGRESS, EVENT, EVENT, c_void_p]),
    "larkpost_tcp_stream_get_response_timeout": (c_int32, [c_void_p, POINTER(c_int32)]),
    "larkpost_tcp_stream_set_response_timeout": (c_int32, [c_void_p, c_int32]),
    "larkpost_tcp_stream_connect": (c_int32, [c_void_p, c_char_p, c_int32]),
    "larkpost_tcp_stream_disconnect": (c_int32, [c_void_p]),
    "larkpost_tcp_stream_send": (c_int32, [c_void_p, c_char_p]),
    "larkpost_tcp_stream_send_line": (c_int32, [c_void_p, c_char_p]),
    "larkpost_tcp_stream_flush": (c_int32, [c_void_p]),
    "larkpost_tcp_stream_at_end_of_stream": (c_int32, [c_void_p, POINTER(c_int32)]),
    "larkpost_tcp_stream_read": (c_int32, [c_void_p, c_int32] + _TEXT_OUT),
    "larkpost_tcp_stream_peek": (c_int32, [c_void_p, c_int32] + _TEXT_OUT),
    "larkpost_tcp_stream_read_line": (c_int32, [c_void_p] + _TEXT_OUT),
    "larkpost_tcp_stream_read_to_end": (c_int32, [c_void_p] + _TEXT_OUT),
    "larkpost_tcp_stream_connected": (c_int32, [c_void_p, POINTER(c_int32)]),
    "larkpost_tcp_stream_local_host_name": (c_int32, [c_void_p] + _TEXT_OUT),
    "larkpost_string_builder_get_contents": (c_int32, [c_void_p] + _TEXT_OUT),
    "larkpost_string_builder_clear": (c_int32, [c_void_p]),
    "larkpost_string_builder_append": (c_int32, [c_void_p, c_char_p]),
    "larkpost_string_builder_append_line": (c_int32, [c_void_p, c_char_p]),
    "larkpost_string_builder_append_crlf": (c_int32, [c_void_p]),
}
for _prop in ("from_address", "sender_name", "subject_line", "body", "body_html", "mime_type"):
    SIGNATURES["larkpost_mail_message_set_" + _prop] = (c_int32, [c_void_p, c_char_p])
    SIGNATURES["larkpost_mail_message_get_" + _prop] = (c_int32, [c_void_p] + _TEXT_OUT)
for _method in ("attach_file", "add_recipient", "remove_recipient", "add_cc_recipient",
                "remove_cc_recipient", "add_bcc_recipient", "remove_bcc_recipient",
                "save_to_file"):
    SIGNATURES["larkpost_mail_message_" + _method] = (c_int32, [c_void_p, c_char_p])


def declared_functions(header_path):
    """The names of the functions that larkpost_c.h declares."""
    with open(header_path, encoding="utf-8") as f:
        text = f.read()
    return set(re.findall(r"LARKPOST_API[^;(]*?\b(larkpost_\w+)\s*\(", text))


class LarkpostError(Exception):
    def __init__(self, number, description, source):
        super().__init__("error %d: %s" % (number, description))
        self.number = number
        self.description = description
        self.source = source


def load(path):
    lib = ctypes.CDLL(path)
    for name, (restype, argtypes) in SIGNATURES.items():
        function = getattr(lib, name)
        function.restype = restype
        function.argtypes = argtypes
    return lib


def _bytes(text):
    return text.encode("utf-8") if isinstance(text, str) else text


class Api:
    """Calls that raise LarkpostError for a non-zero result."""

    def __init__(self, lib):
        self.lib = lib

    def last_error(self):
        return LarkpostError(self.lib.larkpost_error_number(),
                             self.lib.larkpost_error_description().decode("utf-8"),
                             self.lib.larkpost_error_source().decode("utf-8"))

    def check(self, result):
        if result != 0:
            error = self.last_error()
            assert error.number == result, (error.number, result)
            raise error

    def call(self, name, *args):
        self.check(getattr(self.lib, "larkpost_" + name)(*[_bytes(a) for a in args]))

    def text(self, name, *args):
        out = c_char_p()
        length = c_size_t(12345)
        self.check(getattr(self.lib, "larkpost_" + name)(
            *[_bytes(a) for a in args], ctypes.byref(out), ctypes.byref(length)))
        # Read by length, so NUL characters survive; then give the buffer back.
        data = ctypes.string_at(out, length.value)
        self.lib.larkpost_string_free(out)
        return data.decode("utf-8")

    def number(self, name, *args):
        out = c_int32(-999)
        self.check(getattr(self.lib, "larkpost_" + name)(*args, ctypes.byref(out)))
        return out.value

    def create(self, class_name):
        handle = c_void_p()
        self.check(self.lib.larkpost_create(_bytes(class_name), ctypes.byref(handle)))
        return handle.value

    def release(self, handle):
        self.lib.larkpost_release(handle)


def library_path():
    path = os.environ.get("LARKPOST_LIBRARY")
    if not path:
        raise SystemExit("LARKPOST_LIBRARY must name liblarkpost.so")
    return path
