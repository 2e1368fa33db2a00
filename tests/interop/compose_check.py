#!/usr/bin/env python3
"""Composes messages of several shapes with tarnwick, through create_message
(ctypes) and through `tarnwick compose`, and reads each back with Python's
email package: the tree of content types must be the one composed, and every
decoded payload must equal the bytes it was made from.
"""
import ctypes
import email
import os
import random
import subprocess
import sys
import tempfile
from email import policy

LIB = os.environ.get("TARNWICK_LIB")
CLI = os.environ.get("TARNWICK")
END_MULTIPART = 19


class PartInfo(ctypes.Structure):
    _fields_ = [("charset", ctypes.c_char * 20), ("encoding", ctypes.c_char * 30),
                ("filename", ctypes.c_char * 256), ("content_id", ctypes.c_char * 80),
                ("content_type", ctypes.c_char * 20), ("content_subtype", ctypes.c_char * 22),
                ("parameters", ctypes.c_ubyte * 1028), ("size_on_disk", ctypes.c_uint32),
                ("reserved", ctypes.c_char * 64)]


assert ctypes.sizeof(PartInfo) == 1524
NEXT_PART = ctypes.CFUNCTYPE(ctypes.c_int32, ctypes.POINTER(PartInfo))
BODY = ctypes.CFUNCTYPE(ctypes.c_int32, ctypes.c_void_p, ctypes.c_int32,
                        ctypes.POINTER(ctypes.c_int32))
DONE = ctypes.CFUNCTYPE(ctypes.c_int32, ctypes.c_int32, ctypes.c_int32)
EXTRA = ctypes.CFUNCTYPE(ctypes.c_int32, ctypes.c_char_p, ctypes.c_int32)


# ---- Shapes, and what they must read back as -------------------------------------

class Leaf:
    """A part with a body: bytes given in chunks, or a file named to the library."""

    def __init__(self, ctype, data, encoding="", filename="", by_name=None):
        self.ctype, self.data, self.encoding = ctype, data, encoding
        self.filename, self.by_name = filename, by_name


class Multi:
    """A multipart; at the top of a message the library writes `text` first."""

    def __init__(self, subtype, parts, text=None):
        self.subtype, self.parts, self.text = subtype, parts, text


class Rfc822:
    def __init__(self, inner):
        self.inner = inner


def steps_of(node):
    """The answers of next_part_cb that compose `node`."""
    if isinstance(node, Leaf):
        return [node]
    if isinstance(node, Rfc822):
        return [Leaf("message/rfc822", None)] + steps_of(node.inner)
    steps = [Leaf("multipart/" + node.subtype, None)]
    for child in node.parts:
        steps += steps_of(child)
    return steps + [END_MULTIPART]


def expected(node, top=False):
    """(tree of content types, payloads in order)."""
    if isinstance(node, Leaf):
        return node.ctype, [node.data]
    if isinstance(node, Rfc822):
        tree, payloads = expected(node.inner)
        return ("message/rfc822", [tree]), payloads
    trees, payloads = (["text/plain"], [node.text]) if top else ([], [])
    for child in node.parts:
        tree, more = expected(child)
        trees.append(tree)
        payloads += more
    return ("multipart/" + node.subtype, trees), payloads


def read_back(msg, payloads, defects):
    """The tree of `msg`; fills payloads (bytes, compare as lines) and defects."""
    defects += msg.defects
    ctype = msg.get_content_type()
    if msg.is_multipart():
        return ctype, [read_back(p, payloads, defects) for p in msg.get_payload()]
    # Text that travels as lines comes back with the reader's line ends.
    as_lines = (msg.get_content_maintype() == "text"
                and msg.get("Content-Transfer-Encoding", "").lower() != "base64")
    payloads.append((msg.get_payload(decode=True), as_lines))
    return ctype


# ---- Composing through the library -----------------------------------------------

def compose(lib, path, top):
    """`top` is a Multi, whose text the library writes itself, or an Rfc822."""
    info = PartInfo()
    if isinstance(top, Multi):
        info.content_type, info.content_subtype = b"multipart", top.subtype.encode()
        steps = steps_of(top)[1:]
        bodies = [Leaf("text/plain", top.text)]
    else:
        info.content_type, info.content_subtype = b"message", b"rfc822"
        steps, bodies = steps_of(top.inner), []
    steps.reverse()
    offset = [0]

    def next_part(record):
        if not steps:
            return -1
        step = steps.pop()
        if step == END_MULTIPART:
            return END_MULTIPART
        ctypes.memset(record, 0, ctypes.sizeof(PartInfo))
        rec = record.contents
        major, minor = step.ctype.split("/")
        rec.content_type, rec.content_subtype = major.encode(), minor.encode()
        rec.encoding, rec.filename = step.encoding.encode(), step.filename.encode()
        if step.data is not None:
            bodies.append(step)
        return 1

    def body(buffer, size, is_file):
        if not bodies:
            return -1
        item = bodies[0]
        if item.by_name:
            name = item.by_name.encode()
            ctypes.memmove(buffer, name, len(name))
            is_file[0] = 1
            bodies.pop(0)
            return len(name)
        chunk = item.data[offset[0]:offset[0] + size]
        if not chunk:
            bodies.pop(0)
            offset[0] = 0
            return 0
        ctypes.memmove(buffer, chunk, len(chunk))
        is_file[0] = 0
        offset[0] += len(chunk)
        return len(chunk)

    callbacks = NEXT_PART(next_part), BODY(body)
    result = lib.create_message(b"Ann", b"Bob", b"Shapes", None, None, ctypes.byref(info),
                                path.encode(), callbacks[0], callbacks[1], DONE(), EXTRA(),
                                1, 0)
    if result != 1 or steps or bodies:
        raise AssertionError("composing %s failed or stopped early" % path)


# ---- Checks --------------------------------------------------------------------

failures = []


def check(name, path, tree, payloads):
    with open(path, "rb") as f:
        msg = email.message_from_binary_file(f, policy=policy.default)
    got, defects = [], []
    got_tree = read_back(msg, got, defects)
    if got_tree != tree:
        failures.append("%s: tree %r, expected %r" % (name, got_tree, tree))
        return
    if len(got) != len(payloads):
        failures.append("%s: %d payloads, expected %d" % (name, len(got), len(payloads)))
    for i, ((a, as_lines), b) in enumerate(zip(got, payloads)):
        if as_lines:
            a, b = a.replace(b"\r\n", b"\n"), b.replace(b"\r\n", b"\n")
        if a != b:
            failures.append("%s: payload %d differs" % (name, i))
    if defects:
        failures.append("%s: defects %r" % (name, defects))


def library_shapes(rng, workdir):
    def noise(n):
        return bytes(rng.getrandbits(8) for _ in range(n))

    big, big_data = os.path.join(workdir, "big.bin"), noise(100003)
    with open(big, "wb") as f:
        f.write(big_data)
    qp_text = (b"a line with = signs and trailing blanks  \r\n" + b"x" * 200 + b"\r\n"
               + b"tab\tend\t\r\n")
    return {
        "three binary attachments": Multi("mixed", [
            Leaf("application/octet-stream", noise(1), "base64", "one.bin"),
            Leaf("image/png", noise(8126 * 3 + 5), "base64", "chunks.png"),
            Leaf("application/octet-stream", big_data, "base64", "big.bin", by_name=big),
        ], text=b"Three attachments follow.\r\n"),
        "alternative inside mixed": Multi("mixed", [
            Multi("alternative", [
                Leaf("text/plain", b"plain version\r\n"),
                Leaf("text/html", b"<p>html version</p>\r\n", "quoted-printable"),
            ]),
            Leaf("text/plain", qp_text, "quoted-printable", "notes.txt"),
            Leaf("application/pdf", noise(777), "base64", "doc.pdf"),
        ], text=b"See below.\r\n"),
        "embedded message in mixed": Multi("mixed", [
            Rfc822(Multi("mixed", [
                Leaf("text/plain", b"inner text\r\n"),
                Leaf("image/gif", noise(300), "base64", "inner.gif"),
            ])),
            Leaf("text/plain", b"after the message\r\n"),
        ], text=b"A forwarded message.\r\n"),
        "embedded multipart at the top": Rfc822(Multi("alternative", [
            Leaf("text/plain", b"plain\r\n"), Leaf("text/html", b"<b>html</b>\r\n")])),
    }


def cli_shapes(rng, workdir):
    """(name, arguments of `tarnwick compose`, tree, payloads)."""
    text = b"Hello,\r\nthe files are attached.\r\n"
    files = {"body.txt": text,
             "photo.jpg": bytes(rng.getrandbits(8) for _ in range(20000)),
             "notes.txt": b"plain notes\r\n-- \r\nsig\r\n",
             "page.html": "<p>caf\u00e9</p>\r\n".encode(),
             "data": b"\x00\x01\x02 no extension"}
    for name, data in files.items():
        with open(os.path.join(workdir, name), "wb") as f:
            f.write(data)
    attach = ["photo.jpg", "notes.txt", "page.html", "data"]
    args = ["--from", "Bob", "--to", "Ann", "--subject", "Files", "--text", "body.txt"]
    return [
        ("cli --attach", args + sum((["--attach", a] for a in attach), []),
         ("multipart/mixed", ["text/plain", "image/jpeg", "text/plain", "text/html",
                              "application/octet-stream"]),
         [text] + [files[a] for a in attach]),
        ("cli --html", args + ["--html", "page.html"],
         ("multipart/alternative", ["text/plain", "text/html"]), [text, files["page.html"]]),
    ]


def main():
    if not LIB or not CLI:
        print("TARNWICK and TARNWICK_LIB must be set", file=sys.stderr)
        return 2
    lib = ctypes.CDLL(LIB)
    lib.create_message.restype = ctypes.c_int32
    lib.create_message.argtypes = [ctypes.c_char_p] * 5 + [
        ctypes.POINTER(PartInfo), ctypes.c_char_p, NEXT_PART, BODY, DONE, EXTRA,
        ctypes.c_int32, ctypes.c_int32]
    rng = random.Random(5)
    with tempfile.TemporaryDirectory() as workdir:
        os.chdir(workdir)
        for i, (name, shape) in enumerate(library_shapes(rng, workdir).items()):
            path = "shape%d.eml" % i
            compose(lib, path, shape)
            check(name, path, *expected(shape, top=isinstance(shape, Multi)))
        for i, (name, args, tree, payloads) in enumerate(cli_shapes(rng, workdir)):
            path = "cli%d.eml" % i
            run = subprocess.run([CLI, "compose"] + args + ["-o", path], capture_output=True,
                                 text=True)
            if run.returncode != 0:
                failures.append("%s: exit %d: %s" % (name, run.returncode, run.stderr))
                continue
            check(name, path, tree, payloads)
        leftovers = [n for n in os.listdir(workdir) if n.startswith("$$$")]
        if leftovers:
            failures.append("temporary files left behind: %r" % leftovers)
        os.chdir("/")
    for failure in failures:
        print("FAIL " + failure, file=sys.stderr)
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
