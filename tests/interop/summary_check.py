#!/usr/bin/env python3
"""The header summary of `tarnwick stream --summary` against Python's email reading of
the same header, on messages built with Python's email and, where installed, the data
messages of Python's own test suite. A field is compared only where both read alike
(one unfolded line, one header of its name, plain zones and text); skips are counted."""
import collections
import email
import email.charset
import email.message
import email.utils
import json
import os
import random
import re
import subprocess
import sys
import tempfile
from email.header import Header, decode_header
from email.mime.application import MIMEApplication
from email.mime.multipart import MIMEMultipart
from email.mime.text import MIMEText
from pathlib import Path

ZONES = ["GMT", "UT", "EST", "EDT", "CST", "CDT", "MST", "MDT", "PST", "PDT",
         "+0000", "+0100", "-0500", "+0530", "-1200", "+1400"]
DATE_FORM = re.compile(r"^(Mon|Tue|Wed|Thu|Fri|Sat|Sun), +\d{1,2} +[A-Za-z]{3} +\d{4} +"
                       r"\d{1,2}:\d{2}:\d{2} +(%s)$" % "|".join(map(re.escape, ZONES)), re.I)
TYPE_FORM = re.compile(r"^[\w.+-]+/[\w.+-]+ *(;.*)?$")
WITH_FORM = re.compile(r"^from \S+ by [A-Za-z0-9.]+ with (\S+)$")
ID_FORM = re.compile(r"^\tid <([^<>@\s]+@[A-Za-z0-9.]+)>; (.*)$")


def as_json_text(raw):
    """What the tool prints for bytes: UTF-8 where well formed, other bytes as U+00XX."""
    text = raw.decode("utf-8", "surrogateescape")
    return "".join(chr(ord(c) - 0xDC00) if 0xDC80 <= ord(c) <= 0xDCFF else c for c in text)


def make(kind):
    """Plain, signed, encrypted, report, application/signed, and no MIME header."""
    if kind == 5:
        msg = email.message.Message()
        msg.set_payload("plain body\n")
    elif kind in (0, 4):
        msg = MIMEText("body\n") if kind == 0 else MIMEApplication(b"signed data", "signed")
    else:
        sub, params = [("signed", {"protocol": "application/pgp-signature"}),
                       ("encrypted", {"protocol": "application/pgp-encrypted"}),
                       ("report", {"report_type": "delivery-status"})][kind - 1]
        msg = MIMEMultipart(sub, **params)
        msg.attach(MIMEText("text\n"))
        msg.attach(MIMEApplication(b"data"))
    return msg


def built(rng):
    mailers = ["Mutt/2.0.5", "Outlook 16.0", "x" * 90, "Gnus \u00e9".encode().decode("latin-1")]
    subjects = ["Returned mail: see transcript", "UNDELIVERABLE: hello", "undeliverable: " +
                "y" * 80, "Re: Returned mail: no", "hello world", "Returned mail: caf\u00e9"]
    for n in range(60):
        msg = make(n % 6)
        subject = rng.choice(subjects)
        if rng.random() < 0.4:
            cs = email.charset.Charset(rng.choice(["utf-8", "iso-8859-1"]))
            cs.header_encoding = email.charset.BASE64
            subject = Header(subject, cs, header_name="Subject", maxlinelen=998).encode()
        msg["Subject"], msg["From"] = subject, "Ann <ann@example.org>"
        for name, p, values in (("X-Mailer", 0.8, mailers), ("Encrypted", 0.3, ["PEM"]),
                                ("X-Priority", 0.6, ["1 (Highest)", "3", "5"])):
            if rng.random() < p:
                msg[name] = rng.choice(values)
        date = email.utils.formatdate(rng.randrange(2**31 - 86400), usegmt=True)
        msg["Date"] = date[:-3] + rng.choice(ZONES)
        if rng.random() < 0.7:
            host = rng.choice(["mx.example.org", "relay.b.example", "MX.EXAMPLE.ORG"])
            msg["Received"] = (f"from a.example by {host} with {rng.choice(['ESMTP', 'LMTP'])}"
                               f"\r\n\tid <{rng.randrange(10**6)}@{host.split('.')[0].lower()}>; "
                               + email.utils.formatdate(rng.randrange(2**31 - 86400)))
        if n % 6 != 5 and "MIME-Version" not in msg:
            msg["MIME-Version"] = "1.0"
        yield f"built{n}", msg.as_bytes(policy=msg.policy.clone(linesep="\r\n", max_line_length=0))


def corpus():
    try:
        import test.test_email
    except ImportError:
        return []
    data = Path(test.test_email.__file__).parent / "data"
    return [(p.name, p.read_bytes()) for p in sorted(data.glob("msg_*.txt"))]


def expectations(raw, counts):
    """field -> what Python reads for it, for the fields it reads alike."""
    msg = email.message_from_bytes(raw)
    head = re.split(rb"\r?\n\r?\n", raw.lstrip(b"\r\n"), maxsplit=1)[0]
    lines = head.replace(b"\r\n", b"\n").split(b"\n")
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
    elif v is not None and DATE_FORM.match(v.strip()):
        want["date_value"] = email.utils.mktime_tz(email.utils.parsedate_tz(v))
    elif v is not None:
        counts["skip: date in a form read differently"] += 1
    is_mime = b"content-type" in names and any(
        l.lower().startswith(b"mime-version") and b"1.0" in l for l in lines)
    if not is_mime:
        want["signed_flag"] = False
    elif (v := single("Content-Type")) is not None and TYPE_FORM.match(v.strip()):
        want["signed_flag"] = msg.get_content_subtype() == "signed"
    if (v := single("Subject")) is not None:
        parts = decode_header(v)
        if any(len(w) > 75 for w in re.findall(r"=\?[^?]*\?[bBqQ]\?[^?]*\?=", v)):
            counts["skip: encoded word beyond 75 bytes, plain text here"] += 1
        elif len(parts) > 1:
            counts["skip: subject of several words"] += 1
        else:
            text = parts[0][0] if isinstance(parts[0][0], bytes) else raw_value(parts[0][0])
            # This reader keeps '_' of a Q word as it stands; Python reads a blank.
            if text == text.strip() and "_" not in v:
                hit = text[:14].lower() in (b"returned mail:", b"undeliverable:")
                want["returned_flag"] = hit
                want["returned_subject"] = as_json_text(text[:74]) if hit else ""
            else:
                counts["skip: subject with outer blanks or '_'"] += 1
    received = msg.get_all("Received") or []
    first = received and raw_value(received[0]).decode("latin-1").replace("\r\n", "\n").split("\n")
    if not received:
        want.update(received_with="", message_address="", received_value=0)
    elif len(received) == 1 and len(first) == 2 and (w := WITH_FORM.match(first[0])) \
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
    counts, failures = collections.Counter(), []
    with tempfile.TemporaryDirectory() as tmp, tempfile.TemporaryDirectory() as work:
        env = dict(os.environ, TMPDIR=work)  # where the session's part files go
        for name, raw in list(built(random.Random(20261123))) + corpus():
            path = os.path.join(tmp, name)
            Path(path).write_bytes(raw)
            run = subprocess.run([os.environ["TARNWICK"], "stream", "--summary", path],
                                 capture_output=True, env=env)
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
    print("\n".join([f"{k}: {counts[k]}" for k in sorted(counts)] + [f"FAIL {f}" for f in failures]))
    return 1 if failures or counts["compared"] < 300 else 0


if __name__ == "__main__":
    sys.exit(main())
