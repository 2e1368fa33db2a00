#!/usr/bin/env python3
"""Random header values full of encoded words must decode alike in tarnwick and
email.header.decode_header (bytes; charsets with neighbours merged), `tarnwick date`
like email.utils.parsedate_tz. The values keep to what both read alike: no '_' in
Q words, no blank or TAB between a word and plain text, words short enough."""
import base64
import ctypes
import email.utils
import os
import random
import subprocess
import sys
from email.header import decode_header


class HdrField(ctypes.Structure):
    pass


HdrField._fields_ = [("text", ctypes.c_void_p), ("charset", ctypes.c_void_p),
                     ("encoding", ctypes.c_int32), ("next", ctypes.POINTER(HdrField))]
LIB, CLI = ctypes.CDLL(os.environ["TARNWICK_LIB"]), os.environ["TARNWICK"]
LIB.mime_decode_HdrField.restype = ctypes.POINTER(HdrField)
LIB.mime_FreeList.argtypes = [ctypes.POINTER(HdrField)]
CHARSETS = ["iso-8859-1", "UTF-8", "koi8-r", "windows-1252", "us-ascii", "ISO-8859-15"]
Q_PLAIN = set(b"abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789!*+-/")


def random_word(rng):
    charset = rng.choice(CHARSETS)
    while True:
        data = bytes(rng.randrange(1, 256) for _ in range(rng.randrange(1, 30)))
        if rng.random() < 0.5:
            text = rng.choice("bB") + "?" + base64.b64encode(data).decode()
        else:
            hex_form = "=%02x" if rng.random() < 0.3 else "=%02X"
            text = rng.choice("qQ") + "?" + "".join(
                chr(b) if b in Q_PLAIN else hex_form % b for b in data)
        if len(text) <= 74 - len(charset):  # the longest a word may be and count as one
            return "=?%s?%s?=" % (charset, text)


def random_value(rng):
    pieces = [rng.choice(["Re: ", "Hello ", "a\tb "])] if rng.random() < 0.3 else []
    for _ in range(rng.randrange(1, 5)):
        pieces.append(random_word(rng))
        pieces.append(rng.choice(["x", "-plain ", "(c) "]) if rng.random() < 0.3 else
                      rng.choice([" ", "\r\n ", "  ", ""]))
    return "".join(pieces).rstrip()


def merged(parts):
    """(bytes, [charset...]) with neighbours of one charset merged, '' for plain."""
    data, charsets = b"", []
    for text, charset in parts:
        data += text.encode("latin-1") if isinstance(text, str) else text
        if not charsets or charsets[-1] != (charset or "").lower():
            charsets.append((charset or "").lower())
    return data, charsets


def ours(value):
    head = LIB.mime_decode_HdrField(ctypes.create_string_buffer(value.encode("latin-1")))
    parts, element = [], head
    while element:
        e = element.contents
        parts.append((ctypes.string_at(e.text), ctypes.string_at(e.charset).decode("latin-1")))
        element = e.next
    LIB.mime_FreeList(head)
    return parts


def random_date(rng):
    year = rng.randrange(1970, 2038)
    # Two-digit years only where both read them alike (69 is 2069 here).
    year_text = "%02d" % (year % 100) if rng.random() < 0.3 and year % 100 != 69 else str(year)
    zone = rng.choice(["GMT", "UT", "EST", "EDT", "CST", "CDT", "MST", "MDT", "PST", "pdt", "+0000",
                       "%+03d%02d" % (rng.randrange(-12, 13), rng.choice([0, 30, 45]))])
    return "%s, %d %s %s %02d:%02d:%02d %s" % (
        rng.choice(["Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"]), rng.randrange(1, 29),
        rng.choice("Jan Feb Mar Apr May Jun Jul Aug Sep Oct Nov Dec".split()), year_text,
        rng.randrange(24), rng.randrange(60), rng.randrange(60), zone)


def main():
    rng = random.Random(2047)
    results = []

    def check(what, got, want):
        results.append(got == want)
        if got != want:
            print("FAIL: %r: tarnwick %r, python %r" % (what, got, want))

    for value in [random_value(rng) for _ in range(500)]:
        check(value, merged(ours(value)), merged(decode_header(value)))
    # The command prints the same chain, one element a line.
    value = "Hi =?ISO-8859-1?Q?caf=e9?=x =?utf-8?B?w6k=?= =?UTF-8?q?=C3=A9?="
    out = subprocess.run([CLI, "header", "decode", value], capture_output=True).stdout
    check(value, b"".join(line.split(b"\t", 2)[2] for line in out.splitlines()),
          merged(decode_header(value))[0])
    for text in [random_date(rng) for _ in range(200)]:
        expected = email.utils.mktime_tz(email.utils.parsedate_tz(text))
        if -2**31 <= expected < 2**31:
            out = subprocess.run([CLI, "date", text], capture_output=True)
            check(text, (out.returncode, out.stdout.strip()), (0, str(expected).encode()))
    print("%d passed, %d failed" % (results.count(True), results.count(False)))
    return 0 if all(results) else 1


if __name__ == "__main__":
    sys.exit(main())
