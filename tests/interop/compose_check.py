#!/usr/bin/env python3
"""Messages composed through create_message and `tarnwick compose`, read back
by Python's email package: the content-type tree and every decoded payload
must be the ones composed."""
import ctypes
import email
import os
import random
import subprocess
import sys
import tempfile
from email import policy
from pathlib import Path

from tarnwick_abi import BODY, DONE, EXTRA, I32, NEXT_PART, PartInfo


LIB = ctypes.CDLL(os.environ["TARNWICK_LIB"])
LIB.create_message.argtypes = [ctypes.c_char_p] * 5 + [
    ctypes.POINTER(PartInfo), ctypes.c_char_p, NEXT_PART, BODY, DONE, EXTRA, I32, I32]
END_MULTIPART, results = 19, []


def check(name, ok, detail=""):
    results.append(ok)
    if not ok:
        print("FAIL:", name, detail)
    return ok


def leaf(ctype, data):
    # Text that travels as lines comes back with the reader's line ends.
    return ctype, data.replace(b"\r\n", b"\n") if ctype.startswith("text/") else data


def walk(node):
    """Of a shape (type, content[, encoding, filename]) whose content is a list of shapes,
    one shape (message/rfc822), bytes or a file: the answers of next_part_cb, the tree."""
    ctype, content = node[:2]
    if isinstance(content, tuple):
        steps, tree = walk(content)
        return [node] + steps, (ctype, [tree])
    if isinstance(content, list):
        steps, trees = zip(*map(walk, content))
        return [node] + sum(steps, []) + [END_MULTIPART], (ctype, list(trees))
    return [node], leaf(ctype, Path(content).read_bytes() if isinstance(content, str) else content)


def compose(path, top, text=None):
    """Composes `top`; `text` is what the library writes first into a multipart."""
    steps, tree = walk(top)
    steps, bodies, offset = steps[:0:-1], [text] if text else [], [0]
    tree = (tree[0], [leaf("text/plain", text)] + tree[1]) if text else tree

    def fill(record, node):
        record.content_type, record.content_subtype = (s.encode() for s in node[0].split("/"))
        record.encoding, record.filename = (s.encode() for s in (*node[2:], "", "")[:2])

    def next_part(record):
        step = steps.pop() if steps else -1
        if step in (-1, END_MULTIPART):
            return step
        ctypes.memset(record, 0, ctypes.sizeof(PartInfo))
        fill(record.contents, step)
        if not isinstance(step[1], (list, tuple)):
            bodies.append(step[1])
        return 1

    def body(buffer, size, is_file):
        if not bodies:
            return -1
        is_file[0] = isinstance(bodies[0], str)
        chunk = bodies[0].encode() if is_file[0] else bodies[0][offset[0]:offset[0] + size]
        offset[0] += len(chunk)
        if is_file[0] or not chunk:
            bodies.pop(0)
            offset[0] = 0
        ctypes.memmove(buffer, chunk, len(chunk))
        return len(chunk)

    info, callbacks = PartInfo(), (NEXT_PART(next_part), BODY(body))
    fill(info, top)
    result = LIB.create_message(b"Ann", b"Bob", b"Shapes", None, None, ctypes.byref(info),
                                path.encode(), *callbacks, DONE(), EXTRA(), 1, 0)
    check("composing " + path, result == 1 and not steps and not bodies, result)
    return tree


def read_check(path, tree):
    def read(msg):
        defects.extend(msg.defects)
        if msg.is_multipart():
            return msg.get_content_type(), [read(p) for p in msg.get_payload()]
        return leaf(msg.get_content_type(), msg.get_payload(decode=True))

    defects = []
    got = read(email.message_from_bytes(Path(path).read_bytes(), policy=policy.default))
    check(path, got == tree and not defects, f"{defects}\n read {got!r:.500}\n made {tree!r:.500}")


def main():
    noise = random.Random(5).randbytes
    work = tempfile.TemporaryDirectory()
    os.chdir(work.name)
    files = {"big.bin": noise(100003), "photo.jpg": noise(20000), "data": b"\x00\x01 no extension",
             "body.txt": b"Hello,\r\nthe files are attached.\r\n", "notes.txt": b"notes\r\n-- \r\n",
             "page.html": "<p>caf\u00e9</p>\r\n".encode()}
    for name, data in files.items():
        Path(name).write_bytes(data)
    qp_text = b"a line with = signs and trailing blanks  \r\n" + b"x" * 200 + b"\r\ntab\tend\t\r\n"
    octets, b64 = "application/octet-stream", "base64"
    shapes = [  # (shape, text the library writes first)
        (("multipart/mixed", [(octets, noise(1), b64, "one.bin"),
                              ("image/png", noise(8126 * 3 + 5), b64, "chunks.png"),
                              (octets, "big.bin", b64, "big.bin")]), b"Attachments follow.\r\n"),
        (("multipart/mixed", [
            ("multipart/alternative", [("text/plain", b"plain version\r\n"),
                                       ("text/html", b"<p>html</p>\r\n", "quoted-printable")]),
            ("text/plain", qp_text, "quoted-printable", "notes.txt"),
            ("application/pdf", noise(777), b64, "doc.pdf")]), b"See below.\r\n"),
        (("multipart/mixed", [
            ("message/rfc822", ("multipart/mixed", [("text/plain", b"inner text\r\n"),
                                                    ("image/gif", noise(300), b64, "in.gif")])),
            ("text/plain", b"after the message\r\n")]), b"A forwarded message.\r\n"),
        (("message/rfc822", ("multipart/alternative", [("text/plain", b"plain\r\n"),
                                                       ("text/html", b"<b>html</b>\r\n")])), None),
    ]
    for i, (shape, text) in enumerate(shapes):
        read_check("shape%d.eml" % i, compose("shape%d.eml" % i, shape, text))

    attach = sum((["--attach", f] for f in ("photo.jpg", "notes.txt", "page.html", "data")), [])
    for extra, ctype, types in (
            (attach, "mixed", ["text/plain", "image/jpeg", "text/plain", "text/html", octets]),
            (["--html", "page.html"], "alternative", ["text/plain", "text/html"])):
        path = extra[0][2:] + ".eml"  # a new file: the command appends to an existing one
        run = subprocess.run([os.environ["TARNWICK"], "compose", "--from", "Bob", "--to", "Ann",
                              "--subject", "Files", "--text", "body.txt", "-o", path] + extra,
                             capture_output=True, text=True)
        if check("compose " + extra[0], run.returncode == 0, run.stderr):
            read_check(path, ("multipart/" + ctype, [leaf(t, files[f]) for t, f in
                                                     zip(types, ["body.txt"] + extra[1::2])]))
    leftovers = [n for n in os.listdir(".") if n.startswith("$$$")]
    check("no temporary file left behind", not leftovers, leftovers)
    work.cleanup()
    print("%d passed, %d failed" % (results.count(True), results.count(False)))
    return 0 if all(results) else 1


if __name__ == "__main__":
    sys.exit(main())
