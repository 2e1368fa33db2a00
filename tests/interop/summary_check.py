#!/usr/bin/env python3
"""The header summary of `tarnwick stream --summary` against Python's email package.

Messages built with Python's email (mailers, priorities, Encrypted, dates in every
zone form, plain and B-encoded subjects, signed, encrypted, report, non-MIME) and,
where installed, the data messages of Python's own test suite go through the richer
end call. Every summary field that Python can read must equal Python's reading of
the same header. A field is compared only where both read alike: one unfolded line,
one header of its name, a date with weekday, seconds, 4-digit year and a zone both
know, a subject that is plain text or one encoded word. Skips are counted."""
import collections
import email
import email.charset
import email.utils
import json
import os
import random
import re
import subprocess
import sys
import tempfile
from email.header import Header, decode_header
import email.message
from email.mime.application import MIMEApplication
from email.mime.multipart import MIMEMultipart
from email.mime.text import MIMEText
from pathlib import Path

ZONES = ["GMT", "UT", "EST", "EDT", "CST", "CDT", "MST", "MDT", "PST", "PDT",
         "+0000", "+0100", "-0500", "+0530", "-1200", "+1400"]
DATE_FORM = re.compile(r"^(Mon|Tue|Wed|Thu|Fri|Sat|Sun), +\d{1,2} +[A-Za-z]{3} +\d{4} +"
                       r"\d{1,2}:\d{2}:\d{2} +(%s)$" % "|".join(re.escape(z) for z in ZONES),
                       re.IGNORECASE)
TYPE_FORM = re.compile(r"^[\w.+-]+/[\w.+-]+ *(;.*)?$")
WITH_FORM = re.compile(r"^from \S+ by [A-Za-z0-9.]+ with (\S+)$")
ID_FORM = re.compile(r"^\tid <([^<>@\s]+@[A-Za-z0-9.]+)>; (.*)$")


def as_json_text(raw):
    """What the tool prints for bytes: UTF-8 where well formed, other bytes as U+00XX."""
    text = raw.decode("utf-8", "surrogateescape")
    return "".join(chr(ord(c) - 0xDC00) if 0xDC80 <= ord(c) <= 0xDCFF else c for c in text)


def built(rng):
    """(name, bytes) of messages made with Python's email package."""
    mailers = ["Mutt/2.0.5", "Microsoft Outlook 16.0", "x" * 90, "Gnus v5.13 \u00e9".encode(
        "utf-8").decode("latin-1")]
    subjects = ["Returned mail: see transcript for details", "UNDELIVERABLE: hello",
                "undeliverable: " + "y" * 80, "Re: Returned mail: no", "hello world",
                "Returned mail: caf\u00e9"]
    for n in range(60):
        kind = n % 6
        if kind == 0:
            msg = MIMEText("body\n")
        elif kind == 1:
            msg = MIMEMultipart("signed", protocol="application/pgp-signature")
            msg.attach(MIMEText("signed text\n"))
            msg.attach(MIMEApplication(b"sig", "pgp-signature"))
        elif kind == 2:
            msg = MIMEMultipart("encrypted", protocol="application/pgp-encrypted")
            msg.attach(MIMEApplication(b"Version: 1\n", "pgp-encrypted"))
            msg.attach(MIMEApplication(b"data"))
        elif kind == 3:
            msg = MIMEMultipart("report", report_type="delivery-status")
            msg.attach(MIMEText("failed\n"))
        elif kind == 4:
            msg = MIMEApplication(b"signed data", "signed")
        else:
            msg = email.message.Message()  # no MIME header: the plain reader
            msg.set_payload("plain body\n")
        subject = rng.choice(subjects)
        if rng.random() < 0.4:
            cs = email.charset.Charset(rng.choice(["utf-8", "iso-8859-1"]))
            cs.header_encoding = email.charset.BASE64
            subject = Header(subject, cs, header_name="Subject", maxlinelen=998).encode()
        msg["Subject"] = subject
        msg["From"] = "Ann <ann@example.org>"
        if rng.random() < 0.8:
            msg["X-Mailer"] = rng.choice(mailers)
        if rng.random() < 0.6:
            msg["X-Priority"] = rng.choice(["1 (Highest)", "3", "5 (Lowest)", "2"])
        if rng.random() < 0.3:
            msg["Encrypted"] = "PEM"
        date = email.utils.formatdate(rng.randrange(0, 2**31 - 86400), usegmt=True)
        msg["Date"] = date[:-3] + rng.choice(ZONES)
        if rng.random() < 0.7:
            host = rng.choice(["mx.example.org", "relay.b.example", "MX.EXAMPLE.ORG"])
            msg["Received"] = (f"from a.example by {host} with {rng.choice(['ESMTP', 'LMTP'])}"
                               f"\r\n\tid <{rng.randrange(10**6)}@{host.split('.')[0].lower()}>; "
                               + email.utils.formatdate(rng.randrange(0, 2**31 - 86400)))
        if kind != 5 and "MIME-Version" not in msg:
            msg["MIME-Version"] = "1.0"
        yield f"built{n}", msg.as_bytes(policy=msg.policy.clone(linesep="\r\n", max_line_length=0))


def corpus():
    try:
        import test.test_email
        data = Path(test.test_email.__file__).parent / "data"
    except ImportError:
        return []
    return [(p.name, p.read_bytes()) for p in sorted(data.glob("msg_*.txt"))]


def header_lines(raw):
    """The raw header lines as the library's reader sees them."""
    head = re.split(rb"\r?\n\r?\n", raw.lstrip(b"\r\n"), maxsplit=1)[0]
    return head.replace(b"\r\n", b"\n").split(b"\n")


def expectations(raw, counts):
    """field -> what Python reads for it, for the fields it reads alike."""
    msg = email.message_from_bytes(raw)
    lines = header_lines(raw)
    names, folded = [], set()
    for line in lines:
        if line[:1] in (b" ", b"\t"):
            folded.update(names[-1:])
        else:
            names.append(line.split(b":", 1)[0].strip().lower())
    if any(len(l) > 500 for l in lines):
        counts["skip: header line beyond one read"] += 1
        return {}
    want = {}

    def single(name):
        values = msg.get_all(name) or [""]  # none reads as an empty value
        if len(values) == 1 and name.lower().encode() not in folded:
            return values[0]
        counts[f"skip: {name} absent, repeated or folded"] += 1
        return None

    raw_value = lambda s: s.encode("latin-1", "surrogateescape") if isinstance(s, str) else s
    mailer_like = [n for n in names if n.startswith(b"x-mailer")]
    if not mailer_like:
        want["x_mailer"] = ""
    elif mailer_like == [b"x-mailer"] and (v := single("X-Mailer")) is not None:
        want["x_mailer"] = as_json_text(raw_value(v)[:74])
    if (v := single("X-Priority")) is not None:
        want["priority"] = as_json_text(raw_value(v)[:3])
    want["encrypted_flag"] = b"encrypted" in names
    if (v := single("Date")) == "":
        want["date_value"] = 0
    elif v is not None:
        if DATE_FORM.match(v.strip()):
            want["date_value"] = email.utils.mktime_tz(email.utils.parsedate_tz(v))
        else:
            counts["skip: date in a form read differently"] += 1
    is_mime = b"content-type" in names and any(
        (l.lower().startswith(b"mime-version") and b"1.0" in l) for l in lines)
    if not is_mime:
        want["signed_flag"] = False
    elif (v := single("Content-Type")) is not None and TYPE_FORM.match(v.strip()):
        want["signed_flag"] = msg.get_content_subtype() == "signed"
    if (v := single("Subject")) is not None:
        parts = decode_header(v)
        if any(len(w) > 75 for w in re.findall(r"=\?[^?]*\?[bBqQ]\?[^?]*\?=", v)):
            counts["skip: encoded word beyond 75 bytes, plain text here"] += 1
        elif len(parts) == 1:
            text = parts[0][0] if isinstance(parts[0][0], bytes) else raw_value(parts[0][0])
            # This reader keeps '_' of a Q word as it stands; Python reads a blank.
            if text == text.strip() and "_" not in v:
                hit = text[:14].lower() in (b"returned mail:", b"undeliverable:")
                want["returned_flag"] = hit
                want["returned_subject"] = as_json_text(text[:74]) if hit else ""
            else:
                counts["skip: subject with outer blanks or '_'"] += 1
        else:
            counts["skip: subject of several words"] += 1
    received = msg.get_all("Received") or []
    if not received:
        want.update(received_with="", message_address="", received_value=0)
    else:
        first = raw_value(received[0]).decode("latin-1").split("\r\n")
        first = [l for part in first for l in part.split("\n")]
        if len(received) == 1 and len(first) == 2 and (w := WITH_FORM.match(first[0])) \
                and (i := ID_FORM.match(first[1])) and DATE_FORM.match(i.group(2).strip()):
            want["received_with"] = w.group(1)
            want["received_value"] = email.utils.mktime_tz(email.utils.parsedate_tz(i.group(2)))
            local, domain = i.group(1).split("@")
            host = first[0].split(" by ", 1)[1].split(" ")[0]
            ok = host.lower().startswith(domain.lower() + ".")
            want["message_address"] = f"{local}@{host[len(domain) + 1:]}" if ok else ""
        else:
            counts["skip: Received: of another shape"] += 1
    return want


def main():
    tool = os.environ["TARNWICK"]
    counts = collections.Counter()
    failures = []
    with tempfile.TemporaryDirectory() as tmp, tempfile.TemporaryDirectory() as work:
        env = dict(os.environ, TMPDIR=work)  # where the session's part files go
        for name, raw in list(built(random.Random(20261123))) + corpus():
            path = os.path.join(tmp, name)
            Path(path).write_bytes(raw)
            run = subprocess.run([tool, "stream", "--summary", path], capture_output=True, env=env)
            got = json.loads(run.stdout)
            left = [str(p.relative_to(work)) for p in Path(work).rglob("*") if p.is_file()]
            if os.listdir(tmp) != [name] or left:
                failures.append(f"{name}: files left behind: {os.listdir(tmp)} {left}")
            os.remove(path)
            if got["result"] not in (1, 21):
                counts[f"skip: end call gave {got['result']}"] += 1
                continue
            for field, value in expectations(raw, counts).items():
                counts["compared"] += 1
                if got[field] != value:
                    failures.append(f"{name}: {field}: tarnwick {got[field]!r}, python {value!r}")
    for key in sorted(counts):
        print(f"{key}: {counts[key]}")
    for f in failures:
        print("FAIL", f)
    return 1 if failures or counts["compared"] < 300 else 0


if __name__ == "__main__":
    sys.exit(main())
