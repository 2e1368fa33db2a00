#!/usr/bin/env python3
"""Decodes header values full of encoded words with tarnwick and with Python's
email.header.decode_header: the decoded bytes must agree, and so must the
order of charsets once neighbours of one charset are merged. Where the
command offers `tarnwick date`, its seconds are checked against
email.utils.parsedate_tz for dates of the one form it reads.

The values keep to what both read alike: no '_' in Q words (Python reads it
as a blank), no blank behind a word before plain text (tarnwick drops it),
no TAB behind a word (tarnwick keeps it as text), words short enough to count
as words, well-formed escapes and padding.
"""
import base64
import ctypes
import email.utils
import os
import random
import subprocess
import sys
from email.header import decode_header

LIB = os.environ.get("TARNWICK_LIB")
CLI = os.environ.get("TARNWICK")


class HdrField(ctypes.Structure):
    pass


HdrField._fields_ = [
    ("text", ctypes.c_void_p),
    ("charset", ctypes.c_void_p),
    ("encoding", ctypes.c_int32),
    ("next", ctypes.POINTER(HdrField)),
]

CHARSETS = ["iso-8859-1", "UTF-8", "koi8-r", "windows-1252", "us-ascii", "ISO-8859-15"]
# Bytes that a Q word may carry as they stand.
Q_PLAIN = set(b"abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789!*+-/")


def q_word(charset, data, lower_hex=False):
    text = "".join(chr(b) if b in Q_PLAIN else ("=%02x" if lower_hex else "=%02X") % b
                   for b in data)
    return "=?%s?%s?%s?=" % (charset, random.choice("qQ"), text)


def b_word(charset, data):
    return "=?%s?%s?%s?=" % (charset, random.choice("bB"), base64.b64encode(data).decode())


def random_word(rng):
    charset = rng.choice(CHARSETS)
    room = 75 - len(charset) - 3  # what the text may take between the marks
    while True:
        data = bytes(rng.randrange(1, 256) for _ in range(rng.randrange(1, 30)))
        word = b_word(charset, data) if rng.random() < 0.5 else q_word(
            charset, data, rng.random() < 0.3)
        if len(word) - 4 - len(charset) - 3 <= room:
            return word


def random_value(rng):
    pieces = []
    if rng.random() < 0.3:
        pieces.append(rng.choice(["Re: ", "Hello ", "a\tb "]))
    for i in range(rng.randrange(1, 5)):
        pieces.append(random_word(rng))
        if rng.random() < 0.3:
            pieces.append(rng.choice(["x", "-plain ", "(c) "]))
        else:
            pieces.append(rng.choice([" ", "\r\n ", "  ", ""]))
    return "".join(pieces).rstrip()


FIXED = [
    "=?iso-8859-1?q?caf=E9?=",
    "Hi =?ISO-8859-1?Q?caf=e9?=x =?utf-8?B?w6k=?= =?UTF-8?q?=C3=A9?=",
    "=?utf-8?b?5pel5pys6Kqe?= =?utf-8?b?44OG44K544OI?=",
    "=?koi8-r?B?8NLJ18XU?=\r\n =?koi8-r?B?IMfP?=",
    "plain text only",
]


def merged(parts):
    """(bytes, [charset...]) with adjacent charsets merged, '' for plain."""
    data, charsets = b"", []
    for text, charset in parts:
        if isinstance(text, str):
            text = text.encode("latin-1")
        data += text
        charset = (charset or "").lower()
        if not charsets or charsets[-1] != charset:
            charsets.append(charset)
    return data, charsets


def tarnwick_parts(lib, value):
    buffer = ctypes.create_string_buffer(value.encode("latin-1"))
    head = lib.mime_decode_HdrField(buffer)
    if not head:
        raise RuntimeError("no chain for %r" % value)
    parts, element = [], head
    while element:
        e = element.contents
        parts.append((ctypes.string_at(e.text), ctypes.string_at(e.charset).decode("latin-1")))
        element = e.next
    lib.mime_FreeList(head)
    return parts


WEEKDAYS = ["Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"]
MONTHS = ["Jan", "Feb", "Mar", "Apr", "May", "Jun", "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"]
ZONES = ["GMT", "UT", "EST", "EDT", "CST", "CDT", "MST", "MDT", "PST", "pdt", "+0000"]


def random_date(rng):
    year = rng.randrange(1970, 2038)
    # Two-digit years only where both read them alike (69 is 2069 here).
    year_text = "%02d" % (year % 100) if rng.random() < 0.3 and year % 100 != 69 else str(year)
    zone = rng.choice(ZONES + ["%+03d%02d" % (rng.randrange(-12, 13), rng.choice([0, 30, 45]))])
    return "%s, %d %s %s %02d:%02d:%02d %s" % (
        rng.choice(WEEKDAYS), rng.randrange(1, 29), rng.choice(MONTHS), year_text,
        rng.randrange(24), rng.randrange(60), rng.randrange(60), zone)


def check_dates(rng):
    probe = subprocess.run([CLI, "date", "Mon, 1 Jan 1996 12:00:00 GMT"], capture_output=True)
    if probe.returncode == 2:
        print("note: this tarnwick command has no date subcommand; dates not checked")
        return 0
    failures = 0
    for _ in range(200):
        text = random_date(rng)
        expected = email.utils.mktime_tz(email.utils.parsedate_tz(text))
        if not -2**31 <= expected < 2**31:
            continue
        out = subprocess.run([CLI, "date", text], capture_output=True)
        if out.returncode != 0 or int(out.stdout) != expected:
            failures += 1
            print("date %r: tarnwick %r, python %d" % (text, out.stdout, expected))
    return failures


def main():
    if not LIB:
        print("TARNWICK_LIB is not set", file=sys.stderr)
        return 1
    lib = ctypes.CDLL(LIB)
    lib.mime_decode_HdrField.restype = ctypes.POINTER(HdrField)
    lib.mime_decode_HdrField.argtypes = [ctypes.c_char_p]
    lib.mime_FreeList.argtypes = [ctypes.POINTER(HdrField)]

    rng = random.Random(2047)
    random.seed(2047)
    values = FIXED + [random_value(rng) for _ in range(500)]
    failures = 0
    for value in values:
        ours = merged(tarnwick_parts(lib, value))
        theirs = merged(decode_header(value))
        if ours != theirs:
            failures += 1
            print("differ on %r:\n  tarnwick %r\n  python   %r" % (value, ours, theirs))

    # The command prints the same chain, one element a line.
    if CLI:
        for value in FIXED[:2]:
            out = subprocess.run([CLI, "header", "decode", value], check=True,
                                 capture_output=True).stdout
            texts = [line.split(b"\t", 2)[2] for line in out.splitlines()]
            if b"".join(texts) != merged(decode_header(value))[0]:
                failures += 1
                print("tarnwick header decode differs on %r: %r" % (value, out))

        failures += check_dates(rng)

    print("%d values, %d differences" % (len(values), failures))
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
