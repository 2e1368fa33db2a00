#!/usr/bin/env python3
"""message/partial sets. Messages built by Python's email package are split into
fragments as RFC 2046 5.2.2 describes (id, number and total on every fragment, the
whole inner header in the first) and fed in shuffled order to both extractions of
the tarnwick command, one process per fragment; the attachments must come back
byte for byte. For the directory form, where a joined multipart stays one body,
Python parses the .HDR file plus that body. Fragments written by Debian's
`mpack -m` must give back their file through the streaming form."""
import email
import os
import random
import shutil
import subprocess
import sys
import tempfile
from email import charset
from email.mime.application import MIMEApplication
from email.mime.multipart import MIMEMultipart
from email.mime.text import MIMEText
from pathlib import Path

TARNWICK = os.environ["TARNWICK"]


def run(*args):
    done = subprocess.run([TARNWICK, *args], capture_output=True)
    return done.returncode, done.stdout.decode("latin-1").splitlines()


def build(rng):
    """(name, message, {file name: bytes}) of each message to split."""
    mixed = MIMEMultipart()
    mixed.attach(MIMEText("Hello,\nthe files follow.\n", "plain"))
    mixed.attach(MIMEApplication(rng.randbytes(30000), Name="random.bin"))
    qp = charset.Charset("utf-8")
    qp.body_encoding = charset.QP
    quoted = MIMEText("".join(rng.choice("abc \u00e9\u00fc=\n") for _ in range(6000)), "plain", qp)
    quoted.add_header("Content-Disposition", "attachment", filename="notes.txt")
    mixed.attach(quoted)
    yield "multipart", mixed
    single = MIMEApplication(rng.randbytes(50000), Name="single.dat")
    single.add_header("Content-Disposition", "attachment", filename="single.dat")
    yield "single", single


def attachments(msg):
    return {part.get_filename(): part.get_payload(decode=True)
            for part in msg.walk() if part.get_filename()}


def split(raw, total, ident, rng):
    """Fragments of `raw`: the inner header whole in the first, the body cut at line
    ends. No fragment body begins with a blank line, since the directory form drops
    blank lines ahead of each fragment's body."""
    header, body = raw.split(b"\r\n\r\n", 1)
    lines = body.splitlines(keepends=True)
    cuts = sorted(rng.sample(range(1, len(lines)), total - 1))
    cuts = [c + 1 if lines[c] == b"\r\n" else c for c in cuts]
    pieces = [b"".join(lines[a:b]) for a, b in zip([0] + cuts, cuts + [len(lines)])]
    pieces[0] = header + b"\r\n\r\n" + pieces[0]
    return [(f"From: ann@example.org\r\nSubject: split ({n}/{total})\r\nMIME-Version: 1.0\r\n"
             f"Content-Type: message/partial; id=\"{ident}\"; number={n};\r\n total={total}\r\n"
             f"\r\n").encode() + piece for n, piece in enumerate(pieces, 1)]


def directory_form(paths, out, ident, total):
    """Problems of one set through `tarnwick extract`; the files it reported."""
    reported = []
    for count, path in enumerate(paths, 1):
        code, lines = run("extract", path, out)
        if count < total:
            want = [f"fragment stored: set {ident}, {count} of {total}", "result 21"]
            if code or lines != want:
                return f"fragment {count}: exit {code} {lines}", []
        elif code or lines[0] != f"set {ident} complete" or lines[-1] != "result 1":
            return f"completing fragment: exit {code} {lines}", []
        else:
            reported = [line.split(" ", 2) for line in lines[1:-1]]
    return None, reported


def stream_form(paths, out):
    delivered = []
    for count, path in enumerate(paths, 1):
        code, lines = run("stream", path, out)
        want = "result: 1" if count == len(paths) else "result: 21"
        if code or lines[-1] != want:
            return f"fragment {count}: exit {code} {lines[-3:]}", []
        delivered += [l.split(" ", 2)[2] for l in lines if l.startswith("body: state=1 ")]
    return None, delivered


def check(name, msg, rng, tmp):
    raw = msg.as_bytes(policy=msg.policy.clone(linesep="\r\n"))
    expected = attachments(email.message_from_bytes(raw))
    problems = []
    for form in ("directory", "stream"):
        work = Path(tmp, f"{name}-{form}")
        out = work / "out"
        out.mkdir(parents=True)
        ident = f"{name}.{form}@example.org"
        total = rng.randint(3, 9)
        paths = []
        for n, fragment in enumerate(split(raw, total, ident, rng), 1):
            paths.append(str(work / f"part{n}.eml"))
            Path(paths[-1]).write_bytes(fragment)
        rng.shuffle(paths)
        if form == "directory":
            problem, reported = directory_form(paths, str(out), ident, total)
            if problem is None:
                files = {Path(path).name: Path(path).read_bytes() for _, _, path in reported}
                if name == "multipart":  # the .HDR file, then the unparsed body (type 23)
                    types = [t for _, t, _ in reported]
                    got = attachments(email.message_from_bytes(b"".join(files.values())))
                    problem = None if types == ["0", "23"] else f"reported types {types}"
                else:
                    got = {n: files.get(n) for n in expected}
        else:
            problem, delivered = stream_form(paths, str(out))
            got = {Path(p).name: Path(p).read_bytes() for p in delivered}
            got = {n: got.get(n) for n in expected}
        leftovers = [p.name for p in out.iterdir() if p.name == "part.idx" or
                     p.name.split(".")[-1].isdigit()]
        if problem is None and got != expected:
            problem = f"attachments differ: {sorted(got)} for {sorted(expected)}"
        if problem is None and leftovers:
            problem = f"left behind: {leftovers}"
        if problem:
            problems.append(f"{name} through the {form} form: {problem}")
    return problems


def mpack_check(rng, tmp):
    if shutil.which("mpack") is None:
        print("mpack not installed: its fragments are not checked")
        return []
    problems = []
    for size, limit in ((60000, 20000), (5000, 1500)):
        work = Path(tmp, f"mpack{size}")
        (work / "out").mkdir(parents=True)
        data = rng.randbytes(size)
        (work / "blob.bin").write_bytes(data)
        subprocess.run(["mpack", "-s", "blob", "-m", str(limit), "-o", str(work / "mp"),
                        str(work / "blob.bin")], check=True, capture_output=True)
        paths = sorted(str(p) for p in work.glob("mp.*"))
        rng.shuffle(paths)
        problem, delivered = stream_form(paths, str(work / "out"))
        if problem is None and [Path(p).read_bytes() for p in delivered] != [data]:
            problem = f"delivered {delivered}"
        if problem:
            problems.append(f"mpack set of {len(paths)}: {problem}")
    return problems


def main():
    rng = random.Random(20261123)
    problems = []
    with tempfile.TemporaryDirectory() as tmp:
        for name, msg in build(rng):
            msg["From"], msg["To"], msg["Subject"] = "Bob <bob@example.org>", "ann@example.org", name
            problems += check(name, msg, rng, tmp)
        problems += mpack_check(rng, tmp)
    for problem in problems:
        print("FAIL", problem)
    print(f"{len(problems)} problems")
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main())
