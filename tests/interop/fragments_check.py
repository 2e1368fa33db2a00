#!/usr/bin/env python3
"""message/partial sets built from Python's email messages, and written by `mpack -m`,
fed in shuffled order to both extractions of the tarnwick command, one process per
fragment; the attachments must come back byte for byte. A joined multipart stays one
body in the directory form, so Python parses the .HDR file plus that body."""
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
    mixed = MIMEMultipart()
    mixed.attach(MIMEText("Hello,\nthe files follow.\n", "plain"))
    mixed.attach(MIMEApplication(rng.randbytes(8000), Name="random.bin"))
    qp = charset.Charset("utf-8")
    qp.body_encoding = charset.QP
    quoted = MIMEText("".join(rng.choice("abc \u00e9\u00fc=\n") for _ in range(2000)), "plain", qp)
    quoted.add_header("Content-Disposition", "attachment", filename="notes.txt")
    mixed.attach(quoted)
    single = MIMEApplication(rng.randbytes(12000), Name="single.dat")
    single.add_header("Content-Disposition", "attachment", filename="single.dat")
    return {"multipart": mixed, "single": single}


def attachments(msg):
    return {part.get_filename(): part.get_payload(decode=True) for part in msg.walk() if part.get_filename()}


def split(raw, total, ident, rng):
    """The inner header whole in the first fragment, the body cut at line ends; no piece
    begins with a blank line, which the directory form drops ahead of each body."""
    header, body = raw.split(b"\r\n\r\n", 1)
    lines = body.splitlines(keepends=True)
    cuts = [c + 1 if lines[c] == b"\r\n" else c for c in sorted(rng.sample(range(1, len(lines)), total - 1))]
    pieces = [b"".join(lines[a:b]) for a, b in zip([0] + cuts, cuts + [len(lines)])]
    pieces[0] = header + b"\r\n\r\n" + pieces[0]
    return [(f"From: ann@example.org\r\nSubject: split ({n}/{total})\r\nMIME-Version: 1.0\r\nContent-Type: "
             f"message/partial; id=\"{ident}\"; number={n};\r\n total={total}\r\n\r\n").encode() + piece
            for n, piece in enumerate(pieces, 1)]


def feed(form, paths, out, ident):
    """The problem of one set fed to `tarnwick extract` or `tarnwick stream`, one process a
    fragment, and the reported or delivered files."""
    total = len(paths)
    for count, path in enumerate(paths, 1):
        code, lines = run(form, path, out)
        if form == "stream":
            want = ["result: 1" if count == total else "result: 21"]
            got = lines[-1:]
        elif count < total:
            want, got = [f"fragment stored: set {ident}, {count} of {total}", "result 21"], lines
        else:
            want, got = [f"set {ident} complete", "result 1"], lines[:1] + lines[-1:]
        if code or got != want:
            return f"fragment {count}: exit {code} {lines[-3:]}", []
    if form == "stream":
        return None, [line.split(" ", 2)[2] for line in lines if line.startswith("body: state=1 ")]
    return None, [line.split(" ", 2) for line in lines[1:-1]]


def check(name, msg, rng, tmp):
    raw = msg.as_bytes(policy=msg.policy.clone(linesep="\r\n"))
    expected = attachments(email.message_from_bytes(raw))
    problems = []
    for form in ("extract", "stream"):
        work = Path(tmp, f"{name}-{form}")
        out = work / "out"
        out.mkdir(parents=True)
        ident, total = f"{name}.{form}@example.org", rng.randint(3, 9)
        paths = [str(work / f"part{n}.eml") for n in range(1, total + 1)]
        for path, fragment in zip(paths, split(raw, total, ident, rng)):
            Path(path).write_bytes(fragment)
        rng.shuffle(paths)
        problem, told = feed(form, paths, str(out), ident)
        if form == "stream":
            files = {Path(p).name: Path(p).read_bytes() for p in told}
        else:
            files = {Path(path).name: Path(path).read_bytes() for _, _, path in told}
            if name == "multipart":  # the .HDR file, then the unparsed body (type 23)
                types = [t for _, t, _ in told]
                problem = problem or (None if types == ["0", "23"] else f"reported types {types}")
                files = attachments(email.message_from_bytes(b"".join(files.values())))
        leftovers = [p.name for p in out.iterdir() if p.name == "part.idx" or p.name.split(".")[-1].isdigit()]
        if problem is None and {n: files.get(n) for n in expected} != expected:
            problem = f"attachments differ: {sorted(files)} for {sorted(expected)}"
        if problem is None and leftovers:
            problem = f"left behind: {leftovers}"
        if problem:
            problems.append(f"{name} through tarnwick {form}: {problem}")
    return problems


def mpack_check(rng, tmp):
    if shutil.which("mpack") is None:
        print("mpack not installed: its fragments are not checked")
        return []
    work = Path(tmp, "mpack")
    (work / "out").mkdir(parents=True)
    data = rng.randbytes(12000)
    (work / "blob.bin").write_bytes(data)
    subprocess.run(["mpack", "-s", "blob", "-m", "4000", "-o", str(work / "mp"), str(work / "blob.bin")],
                   check=True, capture_output=True)
    paths = sorted(str(p) for p in work.glob("mp.*"))
    rng.shuffle(paths)
    problem, delivered = feed("stream", paths, str(work / "out"), None)
    if problem is None and (len(paths) < 2 or [Path(p).read_bytes() for p in delivered] != [data]):
        problem = f"delivered {delivered}"
    return [f"mpack set of {len(paths)}: {problem}"] if problem else []


def main():
    rng = random.Random(20261123)
    problems = []
    with tempfile.TemporaryDirectory() as tmp:
        for name, msg in build(rng).items():
            msg["From"], msg["To"], msg["Subject"] = "Bob <bob@example.org>", "ann@example.org", name
            problems += check(name, msg, rng, tmp)
        problems += mpack_check(rng, tmp)
    for problem in problems:
        print("FAIL", problem)
    print(f"{len(problems)} problems")
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main())
