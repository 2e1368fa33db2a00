#!/usr/bin/env python3
"""Single-part messages made by Python's email package go through `tarnwick stream`:
the delivered file must hold what get_payload(decode=True) gives, the subject what
decode_header gives. Subjects avoid '_', which Python reads as a blank."""
import binascii
import email
import os
import random
import subprocess
import sys
import tempfile
from email import charset
from email.header import Header, decode_header
from email.message import EmailMessage
from email.mime.application import MIMEApplication
from email.mime.text import MIMEText
from pathlib import Path


def messages(rng):
    for size in (0, 1, 2, 3, 57, 58, 1000, 8126, 8127, 70000):
        yield MIMEApplication(rng.randbytes(size), Name=f"r{size}.bin")
    qp = charset.Charset("utf-8")
    qp.body_encoding = charset.QP
    yield MIMEText("".join(rng.choice("abc \t=\u00e9\u00fc\n") for _ in range(5000)), "plain", qp)
    data = rng.randbytes(3000)
    uu = EmailMessage()
    uu["Content-Type"], uu["Content-Transfer-Encoding"] = "application/octet-stream", "x-uuencode"
    uu.set_payload("begin 644 blob.dat\n" + "".join(binascii.b2a_uu(data[i:i + 45]).decode()
                                                    for i in range(0, len(data), 45)) + "`\nend\n")
    yield uu


def main():
    rng = random.Random(20261122)
    results = []
    with tempfile.TemporaryDirectory() as tmp:
        for n, msg in enumerate(messages(rng)):
            subject = "".join(rng.choice("xyz\u00e4\u00f6\u20ac?=") for _ in range(12))
            msg["Subject"] = Header(subject, rng.choice(["utf-8", "iso-8859-15"])).encode().replace(
                "_", "=5F")
            msg["From"], msg["MIME-Version"] = "Bob <bob@example.org>", "1.0"
            raw = msg.as_bytes(policy=msg.policy.clone(linesep="\r\n"))
            path, out = os.path.join(tmp, f"m{n}.eml"), os.path.join(tmp, f"d{n}")
            Path(path).write_bytes(raw)
            os.mkdir(out)
            run = subprocess.run([os.environ["TARNWICK"], "stream", path, out, "--pieces", "999"],
                                 capture_output=True)
            lines = run.stdout.split(b"\n")
            bodies = [l.split(b" ", 2)[2] for l in lines if l.startswith(b"body: state=1 ")]
            subjects = [l.split(b"] ", 1)[1] for l in lines if l.startswith(b"subject: ")]
            parsed = email.message_from_bytes(raw)
            expected = parsed.get_payload(decode=True)
            got = Path(bodies[0].decode()).read_bytes() if len(bodies) == 1 else None
            if msg.get_content_type() == "text/plain":  # line ends are the reader's
                expected = expected.replace(b"\r\n", b"\n")
                got = got and got.replace(b"\r\n", b"\n")
            want = b"".join(b if isinstance(b, bytes) else b.encode()
                            for b, _ in decode_header(parsed["Subject"]))
            problem = (f"exit {run.returncode}, {len(bodies)} deliveries {run.stderr!r}"
                       if run.returncode or got is None else
                       f"payload of {len(got)} bytes, not {len(expected)}" if got != expected else
                       f"subject {subjects} for {want!r}" if subjects != [want] else None)
            results.append(problem is None)
            if problem:
                print(f"FAIL {msg['Content-Transfer-Encoding']} {n}: {problem}")
    print(f"{results.count(True)} passed, {results.count(False)} failed")
    return 0 if all(results) else 1


if __name__ == "__main__":
    sys.exit(main())
