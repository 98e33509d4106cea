"""Larkpost's C interface from Python: every function larkpost_c.h declares, bound by ctypes with
the types the header gives, and calls that raise LarkpostError for a non-zero result."""
import ctypes, os, re  # noqa: E401
from ctypes import POINTER, c_char_p, c_int32, c_int64, c_size_t, c_void_p

ERROR_BASE = -0x5C710000  # 0xA38F0000 as a signed 32-bit number
SEND_PROGRESS, EVENT = ctypes.CFUNCTYPE(None, c_void_p, c_void_p, c_int32, c_int32), ctypes.CFUNCTYPE(None, c_void_p)
DIALOGUE, WRITE = ctypes.CFUNCTYPE(None, c_void_p, c_int32, c_char_p), ctypes.CFUNCTYPE(None, c_void_p, c_int64, c_int64)
HEADER = os.path.join(os.path.dirname(os.path.abspath(__file__)), "../../include/larkpost/larkpost_c.h")
C_TYPES = {"void": None, "int32_t": c_int32, "int64_t": c_int64, "int32_t*": POINTER(c_int32), "size_t*": POINTER(c_size_t),
           "constchar*": c_char_p, "char*": c_void_p, "char**": POINTER(c_char_p), "void*": c_void_p,
           "larkpost_object*": c_void_p, "constlarkpost_object*": c_void_p, "larkpost_object**": POINTER(c_void_p),
           "larkpost_send_progress_callback": SEND_PROGRESS, "larkpost_event_callback": EVENT,
           "larkpost_dialogue_callback": DIALOGUE, "larkpost_write_callback": WRITE}


def declarations():
    """{name: (result type, [argument types])} of every function the header declares."""
    with open(HEADER, encoding="utf-8") as f:
        found = re.findall(r"LARKPOST_API\s+([\w\s*]+?)\s*\b(larkpost_\w+)\s*\(([^)]*)\)", f.read())
    c_type = lambda text: C_TYPES[re.sub(r"\s", "", text)]  # noqa: E731
    return {name: (c_type(result), [c_type(re.sub(r"\w+\s*$", "", p)) for p in params.split(",") if p.strip() != "void"])
            for result, name, params in found}


class LarkpostError(Exception):
    def __init__(self, number, description, source):
        super().__init__("error %d: %s (%s)" % (number, description, source))
        self.number, self.description, self.source = number, description, source


class Library:
    """Library(path).lib.<function> as declared; call/text/number("mail_message_set_body", ...)."""

    def __init__(self, path=None):
        self.lib = ctypes.CDLL(path or os.environ["LARKPOST_LIBRARY"])
        for name, (result, arguments) in declarations().items():
            getattr(self.lib, name).restype, getattr(self.lib, name).argtypes = result, arguments

    def call(self, name, *args):
        result = getattr(self.lib, "larkpost_" + name)(*[a.encode() if isinstance(a, str) else a for a in args])
        assert self.lib.larkpost_error_number() == result, "the thread's record holds the same number"
        if result:
            raise LarkpostError(result, self.lib.larkpost_error_description().decode(),
                                self.lib.larkpost_error_source().decode())

    def text(self, name, *args):
        out, length = c_char_p(), c_size_t()
        self.call(name, *args, ctypes.byref(out), ctypes.byref(length))
        data = ctypes.string_at(out, length.value)  # by length: NUL characters survive
        self.lib.larkpost_string_free(out)
        return data.decode()

    def out(self, name, *args, kind=c_int32):
        value = kind()
        self.call(name, *args, ctypes.byref(value))
        return value.value
