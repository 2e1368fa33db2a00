#!/usr/bin/env python3
"""Transfer encodings against Python's base64/binascii/quopri and sharutils (if
installed), each decoding what the other encodes; and the codec commands."""
import base64
import binascii
import ctypes
import os
import quopri
import random
import shutil
import subprocess
import sys
import tempfile
from pathlib import Path

LIB, CLI = ctypes.CDLL(os.environ["TARNWICK_LIB"]), os.environ["TARNWICK"]  # int results
WORK = tempfile.mkdtemp(prefix="tarnwick-enc-")
SRC, DST = os.path.join(WORK, "src"), os.path.join(WORK, "dst")
SHARUTILS = shutil.which("uuencode") and shutil.which("uudecode")
results = []


def check(ok, what):
    results.append(bool(ok))
    if not ok:
        print("FAIL:", what)


def write(path, data=None):
    # A fresh file rather than a truncated one: ext4 flushes a truncated
    # file to disk when it is closed, which would dominate the run time.
    Path(path).unlink(missing_ok=True)
    if data is not None:
        Path(path).write_bytes(data)


def ours(fn, data, *extra):
    """A file-to-file export on `data`: its result and the target's bytes."""
    write(SRC, data)
    write(DST)
    result = fn(SRC.encode(), DST.encode(), *extra)
    return result, Path(DST).read_bytes() if os.path.exists(DST) else b""


def random_text(rng, n):  # blanks and TABs in awkward places
    pieces = [b"word", b" ", b"\t", b"\n", b"x  \n", b"=", b"..", b"\t\n", b"a" * 80]
    return b"".join(rng.choice(pieces) for _ in range(n))[:n]


def check_size(data, text):
    n = len(data)
    result, encoded = ours(LIB.base64_encode, data)
    lines = encoded.split(b"\r\n")
    check(result == (n + 53) // 54 and max(map(len, lines)) <= 72 and
          base64.b64decode(b"".join(lines), validate=True) == data, f"python reads our base64, {n}")
    # Python's line forms: 76 columns with LF, 64 with CR LF.
    for theirs in (base64.encodebytes(data),
                   b"".join(base64.b64encode(data[i:i + 48]) + b"\r\n" for i in range(0, n, 48))):
        check(ours(LIB.base64_decode, theirs) == (1, data), f"we read python's base64, {n}")

    for kind, source in (("binary", data), ("text", text)):
        result, encoded = ours(LIB.quoted_encode, source)
        check(result == 1 and binascii.a2b_qp(encoded) == source and
              quopri.decodestring(encoded) == source and
              all(len(l) <= 76 and not l.endswith((b" ", b"\t"))  # nothing a transport strips
                  for l in encoded.replace(b"\r\n", b"\n").split(b"\n")),
              f"python reads our quoted-printable, {kind} {n}")
        check(ours(LIB.quoted_decode, binascii.b2a_qp(source, istext=kind == "text")) ==
              (1, source), f"we read binascii's quoted-printable, {kind} {n}")

    result, encoded = ours(LIB.uuencode, data, b"file name.bin")
    lines = encoded.split(b"\r\n")
    body = lines[3:lines.index(b"`", 3)] if b"`" in lines[3:] else []
    check(result == (n + 44) // 45 + 3 and lines[:3] == [b"", b"", b"begin 644 file name.bin"] and
          b"".join(binascii.a2b_uu(l) for l in body) == data and b" " not in b"".join(body),
          f"binascii reads our uuencode, {n}")
    name = ctypes.create_string_buffer(256)
    theirs = b"".join(binascii.b2a_uu(data[i:i + 45], backtick=True) for i in range(0, n, 45))
    check(ours(LIB.uudecode, b"begin 600 py.bin\n" + theirs + b"`\nend\n", name) == (1, data) and
          name.value == b"py.bin", f"we read binascii's uuencode, {n}")
    # Every line length, and the large sizes, for the slower separate processes.
    if SHARUTILS and not 50 < n <= 200:
        write(SRC, encoded), write(DST)
        run = subprocess.run(["uudecode", "-o", DST, SRC], capture_output=True)
        check(run.returncode == 0 and Path(DST).read_bytes() == data,
              f"sharutils reads our uuencode, {n}")
        write(SRC, data)
        run = subprocess.run(["uuencode", SRC, "their name"], capture_output=True)
        check(ours(LIB.uudecode, run.stdout, name) == (1, data) and name.value == b"their name",
              f"we read sharutils' uuencode, {n}")


def check_commands(data):
    """Round trips through the codec commands, the uu name on stdout, exit
    code 2 for usage errors and 1 for a failed export."""
    write(SRC, data)
    mid, back = os.path.join(WORK, "mid"), os.path.join(WORK, "back")
    for codec in ("base64", "qp", "uu"):
        write(mid), write(back)
        name = ["--name", "n m"] if codec == "uu" else []
        enc = subprocess.run([CLI, "encode", codec, SRC, mid] + name, capture_output=True)
        dec = subprocess.run([CLI, "decode", codec, mid, back], capture_output=True)
        check(enc.returncode == dec.returncode == 0 and Path(back).read_bytes() == data and
              dec.stdout == (b"n m\n" if name else b""), f"command round trip {codec}")
    for argv, code in ((["encode", "base64", SRC], 2), (["decode", "zz", SRC, DST], 2),
                       (["encode", "qp", SRC, DST, "--name", "x"], 2),
                       (["decode", "uu", os.path.join(WORK, "missing"), DST], 1)):
        run = subprocess.run([CLI] + argv, capture_output=True)
        check(run.returncode == code and run.stderr, f"exit code {code} for {argv}")


def main():
    rng = random.Random(20240611)
    check_commands(rng.randbytes(5000))
    sizes = list(range(201)) + [rng.randrange(201, 200001) for _ in range(40)] + [
        8191, 8192, 8193, 11925, 11926, 13823, 13824, 13825, 200000]
    for size in sizes:
        check_size(rng.randbytes(size), random_text(rng, size))
    shutil.rmtree(WORK, ignore_errors=True)
    print(f"sharutils {'used' if SHARUTILS else 'not installed'}; "
          f"{results.count(True)} passed, {results.count(False)} failed")
    return 0 if all(results) else 1


if __name__ == "__main__":
    sys.exit(main())
