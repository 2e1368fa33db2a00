#!/usr/bin/env python3
"""Header values from mime_encode_HdrField and messages from create_ex_message
and `tarnwick compose`, read back by Python's email package."""
import ctypes
import email
import os
import random
import subprocess
import sys
import tempfile
from email import policy
from email.header import decode_header
from pathlib import Path

I32, PTR = ctypes.c_int32, ctypes.c_void_p


class HdrField(ctypes.Structure):
    pass


HdrField._fields_ = [("text", ctypes.c_char_p), ("charset", ctypes.c_char_p),
                     ("encoding", I32), ("next", ctypes.POINTER(HdrField))]


class AddressLists(ctypes.Structure):
    _fields_ = [(name, ctypes.POINTER(HdrField))
                for name in ("to", "from_", "cc", "bcc", "subject")]


# Offsets and widths of the fields of mime_part_desc that these checks fill.
DESC = {"charset": (0, 20), "encoding": (20, 30), "content_id": (50, 80),
        "content_location": (130, 256), "content_type": (998, 20),
        "content_subtype": (1018, 20), "filename": (1038, 512), "description": (1550, 512)}
NEXT_PART = ctypes.CFUNCTYPE(I32, PTR, PTR, I32, ctypes.c_ssize_t)
BODY = ctypes.CFUNCTYPE(I32, PTR, I32, ctypes.POINTER(I32), ctypes.c_ssize_t)
OUTPUT = ctypes.CFUNCTYPE(I32, PTR, I32, ctypes.c_ssize_t)
LIB = ctypes.CDLL(os.environ["TARNWICK_LIB"])
LIB.mime_encode_HdrField.argtypes = [ctypes.POINTER(HdrField), ctypes.c_char_p, ctypes.POINTER(I32)]
LIB.create_ex_message.argtypes = [ctypes.POINTER(AddressLists), ctypes.c_char_p, OUTPUT,
                                  NEXT_PART, BODY, I32, I32, ctypes.c_ssize_t]
results = []


def check(name, ok, detail=""):
    results.append(ok)
    if not ok:
        print("FAIL:", name, detail)
    return ok


def chain(elements):
    """(text, charset, encoding) tuples linked; the list keeps the nodes alive."""
    nodes = [HdrField(*e) for e in elements]
    for a, b in zip(nodes, nodes[1:]):
        a.next = ctypes.pointer(b)
    return nodes


def check_words(rng):
    for round_ in range(120):
        kind = 2 if round_ % 2 else 3
        charset = rng.choice([b"utf-8", b"iso-8859-1", b"koi8-r"])
        # Python reads '_' in a Q word as a blank, and our '?' could close it.
        banned = {13, 10, 0} | ({ord("_"), ord("?")} if kind == 3 else set())
        text = bytes(b for b in rng.randbytes(rng.randint(1, 300)) if b not in banned) or b"x"
        nodes = chain([(text, charset, kind)])
        out = ctypes.create_string_buffer(1 << 16)
        length = I32(len(out))
        assert LIB.mime_encode_HdrField(nodes[0], out, ctypes.byref(length)) == 1
        value = out.raw[:length.value]
        pieces = decode_header(value.decode("ascii"))
        check("decode_header", (b"".join(p for p, _ in pieces), {c for _, c in pieces}) ==
              (text, {charset.decode()}), (value, pieces, text))
        check("folds only between words", all(line.startswith(b"=?") and line.endswith(b"?=")
                                              for line in value.split(b"\r\n  ") if line), value)


def compose_ex(path, lists, parts, bodies, output):
    """create_ex_message with `parts`: (answer, fields, extra) for each next_part_cb."""
    @NEXT_PART
    def next_part(record, extra, size, value):
        if not parts:
            return -1
        answer, fields, text = parts.pop(0)
        if answer == 1 and record:
            ctypes.memset(record, 0, 6160)
            for name, data in fields.items():
                offset, width = DESC[name]
                ctypes.memmove(record + offset, data[:width - 1], len(data[:width - 1]))
        if extra:
            ctypes.memmove(extra, text + b"\0", len(text) + 1)
        return answer

    @BODY
    def body(buffer, size, is_file, value):
        is_file[0] = 0
        data = bodies.pop(0) if bodies else b""
        ctypes.memmove(buffer, data, len(data))
        return len(data)

    return LIB.create_ex_message(ctypes.byref(lists), path, OUTPUT(output), next_part, body, 1, 0, 7)


def check_create_ex(work):
    addresses = [b"user%03d@example.com" % i for i in range(170)]
    to = chain([(b", ".join(addresses), b"", 7)])
    subject = chain([("Grüße aus Köln – naïve".encode(), b"utf-8", 2)])
    sender = chain([(b"Bob <bob@example.com>", b"", 7)])
    lists = AddressLists(ctypes.pointer(to[0]), ctypes.pointer(sender[0]), None, None,
                         ctypes.pointer(subject[0]))
    image = random.Random(3).randbytes(5000)
    text = "Grüße\r\nzweite Zeile =\r\n".encode()
    parts = [(1, {"content_type": b"multipart", "content_subtype": b"mixed"}, b"X-Top: yes\r\n"),
             (1, {"content_type": b"text", "content_subtype": b"plain", "charset": b"utf-8",
                  "encoding": b"quoted-printable", "description": b"the text"}, b"X-Part: one\r\n"),
             (1, {"content_type": b"image", "content_subtype": b"png", "encoding": b"base64",
                  "filename": b"p.png", "content_location": b"http://x/p.png",
                  "content_id": b"<p@x>"}, b""),
             (19, {}, b"")]
    fed = []

    def output(data, length, value):
        fed.append(ctypes.string_at(data, length) if length else b"")
        return 1

    path = os.path.join(work, "ex.eml").encode()
    status = compose_ex(path, lists, parts, [text, b"", image], output)
    if not check("create_ex_message", status == 1, status):
        return
    raw = Path(path.decode()).read_bytes()
    check("fed bytes", b"".join(fed) == raw and fed[-1] == b"")
    msg = email.message_from_bytes(raw, policy=policy.default)
    check("subject", msg["Subject"] == "Grüße aus Köln – naïve", msg["Subject"])
    check("to", [a.addr_spec for a in msg["To"].addresses] == [a.decode() for a in addresses])
    check("to folded", all(len(line) <= 998 for line in raw.split(b"\r\n")))
    check("from", msg["From"].addresses[0].addr_spec == "bob@example.com")
    check("top extra", msg["X-Top"] == "yes")
    check("types", [p.get_content_type() for p in msg.walk()] ==
          ["multipart/mixed", "text/plain", "image/png"])
    txt, img = [p for p in msg.walk() if not p.is_multipart()]
    check("text", txt.get_payload(decode=True) in (text, text.replace(b"\r\n", b"\n")),
          txt.get_payload(decode=True))
    check("part extra", (txt["X-Part"], txt["Content-Description"]) == ("one", "the text"))
    check("image", img.get_payload(decode=True) == image)
    check("location", (img["Content-Location"], img["Content-ID"], img.get_filename()) ==
          ("http://x/p.png", "<p@x>", "p.png"))


def check_cli(work):
    tool = os.environ["TARNWICK"]
    value = subprocess.run([tool, "header", "encode", "--b", "--charset", "iso-8859-1",
                            "Gr\xfc\xdfe".encode("latin-1")], check=True,
                           capture_output=True).stdout.rstrip(b"\n")
    check("header encode --b", decode_header(value.decode()) ==
          [("Grüße".encode("latin-1"), "iso-8859-1")], value)
    text = Path(work, "t.txt")
    text.write_bytes(b"Hello\r\n")
    out = Path(work, "cli.eml")
    subprocess.run([tool, "compose", "--from", "Jürgen Müller <j@example.org>", "--to",
                    'Ann <a@example.org>, "Zoë Ö" <z@example.org>', "--subject",
                    "Grüße aus Köln", "--text", str(text), "-o", str(out)], check=True)
    msg = email.message_from_bytes(out.read_bytes(), policy=policy.default)
    check("compose subject", msg["Subject"] == "Grüße aus Köln", msg["Subject"])
    check("compose addresses", [(a.display_name, a.addr_spec) for a in
                                msg["From"].addresses + msg["To"].addresses] ==
          [("Jürgen Müller", "j@example.org"), ("Ann", "a@example.org"),
           ("Zoë Ö", "z@example.org")], (msg["From"], msg["To"]))
    bad = subprocess.run([tool, "compose", "--to", "zö@example.org", "--text", str(text), "-o",
                          str(Path(work, "bad.eml"))], capture_output=True)
    check("non-ASCII address refused", bad.returncode == 2 and not Path(work, "bad.eml").exists())


def main():
    with tempfile.TemporaryDirectory() as work:
        check_words(random.Random(5))
        check_create_ex(work)
        check_cli(work)
    print("%d passed, %d failed" % (results.count(True), results.count(False)))
    return 0 if all(results) else 1


if __name__ == "__main__":
    sys.exit(main())
