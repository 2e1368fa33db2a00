#!/usr/bin/env python3
"""Single-part messages written by Python's email package go through a
tarnwick streaming session (`tarnwick stream MESSAGE DIR`): the delivered file
must hold exactly what get_payload(decode=True) gives, and an encoded subject
must decode to the bytes that email.header.decode_header gives.

Subjects keep to one encoded word without '_' (Python reads it as a blank,
tarnwick keeps it).
"""
import os
import random
import subprocess
import sys
import tempfile
from email.header import Header, decode_header
from email.message import EmailMessage
from email.mime.application import MIMEApplication
from email.mime.text import MIMEText

CLI = os.environ["TARNWICK"]


def messages(rng):
    for size in (0, 1, 2, 3, 57, 58, 1000, 8126, 8127, 70000):
        data = bytes(rng.getrandbits(8) for _ in range(size))
        m = MIMEApplication(data, "octet-stream", Name=f"r{size}.bin")
        yield f"base64 {size}", m, data
    text = "".join(rng.choice("abc \t=\u00e9\u00fc\n") for _ in range(5000))
    m = MIMEText(text, "plain", "utf-8")
    m.replace_header("Content-Transfer-Encoding", "quoted-printable")
    m.set_payload(__import__("quopri").encodestring(text.encode("utf-8")).decode("ascii"))
    yield "quoted-printable", m, text.encode("utf-8").replace(b"\n", b"\r\n")
    payload = bytes(rng.getrandbits(8) for _ in range(3000))
    import binascii
    lines = [b"begin 644 blob.dat"]
    for i in range(0, len(payload), 45):
        lines.append(binascii.b2a_uu(payload[i:i + 45]).rstrip(b"\n"))
    lines += [b"`", b"end"]
    m = EmailMessage()
    m["Content-Type"] = "application/octet-stream"
    m["Content-Transfer-Encoding"] = "x-uuencode"
    m.set_payload(b"\r\n".join(lines).decode("ascii") + "\r\n")
    yield "uuencode", m, payload


def main():
    rng = random.Random(20261122)
    failures = 0
    with tempfile.TemporaryDirectory() as tmp:
        for n, (name, msg, expected) in enumerate(messages(rng)):
            subject = "".join(rng.choice("xyz\u00e4\u00f6\u20ac?=") for _ in range(12))
            charset = rng.choice(["utf-8", "iso-8859-15"])
            msg["Subject"] = Header(subject, charset).encode().replace("_", "=5F")
            msg["From"] = "Bob <bob@example.org>"
            msg["MIME-Version"] = "1.0"
            path = os.path.join(tmp, f"m{n}.eml")
            raw = msg.as_bytes(policy=msg.policy.clone(linesep="\r\n"))
            with open(path, "wb") as f:
                f.write(raw)
            out = os.path.join(tmp, f"d{n}")
            os.mkdir(out)
            run = subprocess.run([CLI, "stream", path, out, "--pieces", "999"],
                                 capture_output=True)
            lines = run.stdout.split(b"\n")
            bodies = [l.split(b" ", 2)[2] for l in lines if l.startswith(b"body: state=1 ")]
            subjects = [l for l in lines if l.startswith(b"subject: ")]
            problem = None
            if run.returncode != 0 or len(bodies) != 1:
                problem = f"exit {run.returncode}, {len(bodies)} deliveries: {run.stderr!r}"
            else:
                with open(bodies[0], "rb") as f:
                    got = f.read()
                if name == "quoted-printable":
                    # Python's own decoder is the reference for this body.
                    import email
                    expected = email.message_from_bytes(raw).get_payload(decode=True)
                    expected = expected.replace(b"\r\n", b"\n").replace(b"\n", b"\r\n")
                    got = got.replace(b"\r\n", b"\n").replace(b"\n", b"\r\n")
                if got != expected:
                    problem = f"payload differs: {len(got)} bytes against {len(expected)}"
                want = b"".join(b if isinstance(b, bytes) else b.encode()
                                for b, _ in decode_header(msg["Subject"]))
                have = subjects[0].split(b"] ", 1)[1] if subjects else b""
                if have != want:
                    problem = f"subject {have!r} against {want!r}"
            if problem:
                failures += 1
                print(f"FAIL {name}: {problem}")
    print(f"{len(list(messages(random.Random(0))))} messages checked")
    if failures:
        print(f"0 passed, {failures} failed")
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
