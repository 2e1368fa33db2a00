#!/usr/bin/env python3
"""Cross-checks of the transfer encodings against software nobody here wrote.

Python's base64/binascii/quopri decode what the library encodes, and the
library decodes what they encode, for random sources of many sizes: every
size from 0 to 200 and a spread up to 200 000 bytes. Where sharutils is
installed, its uudecode and uuencode take part as well.

Environment: TARNWICK_LIB, the path of the shared library.
"""
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



def preload_sanitizer_runtime(lib):
    """A library built with AddressSanitizer loads only into a process whose
    first library is the sanitizer runtime: start again with it preloaded.
    Python's own allocations are no leaks of ours."""
    if os.environ.get("TARNWICK_CHECK_PRELOADED") or "asan" in os.environ.get("LD_PRELOAD", ""):
        return
    try:
        listing = subprocess.run(["ldd", lib], capture_output=True, text=True).stdout
    except OSError:
        return
    runtimes = [line.split("=>")[1].split()[0] for line in listing.splitlines()
                if "=>" in line and ("libasan" in line or "libubsan" in line)]
    if not runtimes:
        return
    env = dict(os.environ, TARNWICK_CHECK_PRELOADED="1", LD_PRELOAD=" ".join(runtimes),
               TARNWICK_CHECK_ASAN_OPTIONS=os.environ.get("ASAN_OPTIONS", ""))
    env["ASAN_OPTIONS"] = ":".join(filter(None, [env.get("ASAN_OPTIONS"), "detect_leaks=0"]))
    sys.stdout.flush()
    os.execve(sys.executable, [sys.executable] + sys.argv, env)


# Other programs run without the preload, with the sanitizer options that
# this script was given.
PEER_ENV = {k: v for k, v in os.environ.items() if k != "LD_PRELOAD"}
if "TARNWICK_CHECK_ASAN_OPTIONS" in PEER_ENV:
    PEER_ENV["ASAN_OPTIONS"] = PEER_ENV.pop("TARNWICK_CHECK_ASAN_OPTIONS")

preload_sanitizer_runtime(os.environ["TARNWICK_LIB"])
LIB = ctypes.CDLL(os.environ["TARNWICK_LIB"])
for _name in ("base64_encode", "base64_decode", "quoted_encode", "quoted_decode"):
    getattr(LIB, _name).argtypes = [ctypes.c_char_p, ctypes.c_char_p]
    getattr(LIB, _name).restype = ctypes.c_int32
LIB.uuencode.argtypes = [ctypes.c_char_p, ctypes.c_char_p, ctypes.c_char_p]
LIB.uuencode.restype = ctypes.c_int32
LIB.uudecode.argtypes = [ctypes.c_char_p, ctypes.c_char_p, ctypes.c_char_p]
LIB.uudecode.restype = ctypes.c_int32

WORK = tempfile.mkdtemp(prefix="tarnwick-enc-")
SRC = os.path.join(WORK, "src")
DST = os.path.join(WORK, "dst")
SHARUTILS = shutil.which("uuencode") is not None and shutil.which("uudecode") is not None
failures = []


def check(ok, what):
    if not ok:
        failures.append(what)
        if len(failures) <= 20:
            print("FAIL:", what, file=sys.stderr)


def write(path, data):
    # A fresh file rather than a truncated one: ext4 flushes a truncated
    # file to disk when it is closed, which would dominate the run time.
    if os.path.exists(path):
        os.remove(path)
    with open(path, "wb") as f:
        f.write(data)


def read(path):
    with open(path, "rb") as f:
        return f.read()


def ours(fn, data, *extra):
    """Runs a file-to-file export on `data` into a fresh target."""
    write(SRC, data)
    if os.path.exists(DST):
        os.remove(DST)
    result = fn(SRC.encode(), DST.encode(), *extra)
    return result, read(DST) if os.path.exists(DST) else None


def random_text(rng, n):
    """Text with blanks and TABs in awkward places, LF line ends."""
    pieces = [b"word", b" ", b"\t", b"\n", b"x  \n", b"=", b"..", b"\t\n", b"a" * 80]
    out = bytearray()
    while len(out) < n:
        out += rng.choice(pieces)
    return bytes(out[:n])


def check_base64(data, size):
    result, text = ours(LIB.base64_encode, data)
    check(result == (size + 53) // 54, f"base64 line count, size {size}")
    check(text is not None and
          base64.b64decode(text.replace(b"\r\n", b""), validate=True) == data,
          f"python decodes our base64, size {size}")
    check(text is not None and all(len(l) <= 72 for l in text.split(b"\r\n")),
          f"base64 lines of 72, size {size}")
    # Python's own line forms: 76 columns with LF, 64 columns with CR LF.
    for form, encoded in (
        ("76/LF", base64.encodebytes(data)),
        ("64/CRLF", b"".join(base64.b64encode(data[i:i + 48]) + b"\r\n"
                             for i in range(0, len(data), 48))),
    ):
        result, back = ours(LIB.base64_decode, encoded)
        check(result == 1 and back == data, f"we decode python base64 {form}, size {size}")


def check_quoted(data, size, kind):
    result, text = ours(LIB.quoted_encode, data)
    check(result == 1 and text is not None, f"quoted_encode {kind}, size {size}")
    if text is None:
        return
    check(binascii.a2b_qp(text) == data, f"binascii decodes our qp {kind}, size {size}")
    check(quopri.decodestring(text) == data, f"quopri decodes our qp {kind}, size {size}")
    lines = text.replace(b"\r\n", b"\n").split(b"\n")
    check(all(len(l) <= 76 for l in lines), f"qp lines within 76, {kind} size {size}")
    encoded = binascii.b2a_qp(data, istext=(kind == "text"))
    result, back = ours(LIB.quoted_decode, encoded)
    check(result == 1 and back == data, f"we decode binascii qp {kind}, size {size}")


def check_uu(data, size):
    result, text = ours(LIB.uuencode, data, b"file name.bin")
    check(result == (size + 44) // 45 + 3, f"uuencode line count, size {size}")
    if text is None:
        return
    lines = text.split(b"\r\n")
    check(lines[:3] == [b"", b"", b"begin 644 file name.bin"], f"uu begin line, size {size}")
    body = lines[3:lines.index(b"`", 3)]
    check(b"".join(binascii.a2b_uu(l) for l in body) == data,
          f"binascii decodes our uu, size {size}")
    check(b" " not in b"".join(body), f"uu zero as backquote, size {size}")
    # Python's b2a_uu lines inside a classic frame.
    frame = (b"begin 600 py.bin\n" +
             b"".join(binascii.b2a_uu(data[i:i + 45], backtick=True)
                      for i in range(0, len(data), 45)) +
             b"`\nend\n")
    name = ctypes.create_string_buffer(256)
    result, back = ours(LIB.uudecode, frame, name)
    check(result == 1 and back == data and name.value == b"py.bin",
          f"we decode binascii uu, size {size}")
    # Every line length and the large sizes are enough for the slower
    # round trips through separate processes.
    if not SHARUTILS or 50 < size <= 200:
        return
    write(SRC, text)
    out = os.path.join(WORK, "sharutils.out")
    run = subprocess.run(["uudecode", "-o", out, SRC], capture_output=True, env=PEER_ENV)
    check(run.returncode == 0 and read(out) == data,
          f"sharutils uudecode decodes ours, size {size}")
    write(SRC, data)
    run = subprocess.run(["uuencode", SRC, "their name"], capture_output=True, env=PEER_ENV)
    result, back = ours(LIB.uudecode, run.stdout, name)
    check(result == 1 and back == data and name.value == b"their name",
          f"we decode sharutils uuencode, size {size}")


def check_command(rng):
    """The encode and decode commands: round trips, the uu name on stdout,
    exit code 2 for usage errors and 1 for a failed export."""
    cli = os.environ.get("TARNWICK")
    if not cli:
        return
    data = rng.randbytes(5000)
    write(SRC, data)
    for codec in ("base64", "qp", "uu"):
        mid, back = os.path.join(WORK, "cli.mid"), os.path.join(WORK, "cli.back")
        for path in (mid, back):
            if os.path.exists(path):
                os.remove(path)
        name = ["--name", "n m"] if codec == "uu" else []
        enc = subprocess.run([cli, "encode", codec, SRC, mid] + name, capture_output=True,
                             env=PEER_ENV)
        dec = subprocess.run([cli, "decode", codec, mid, back], capture_output=True, env=PEER_ENV)
        check(enc.returncode == 0 and dec.returncode == 0 and read(back) == data,
              f"command round trip {codec}")
        if codec == "uu":
            check(dec.stdout == b"n m\n", "uu decode prints the begin-line name")
    for argv, code in ((["encode", "base64", SRC], 2), (["decode", "zz", SRC, DST], 2),
                       (["encode", "qp", SRC, DST, "--name", "x"], 2),
                       (["decode", "uu", os.path.join(WORK, "missing"), DST], 1)):
        run = subprocess.run([cli] + argv, capture_output=True, env=PEER_ENV)
        check(run.returncode == code and run.stderr, f"exit code {code} for {' '.join(argv[:2])}")


def main():
    rng = random.Random(20240611)
    check_command(rng)
    sizes = list(range(0, 201)) + [rng.randrange(201, 200001) for _ in range(40)] + [
        13823, 13824, 13825, 11925, 11926, 8191, 8192, 8193, 200000]
    for size in sizes:
        data = rng.randbytes(size)
        check_base64(data, size)
        check_quoted(data, size, "binary")
        check_quoted(random_text(rng, size), size, "text")
        check_uu(data, size)
    shutil.rmtree(WORK, ignore_errors=True)
    print(f"{len(sizes)} sizes, sharutils {'used' if SHARUTILS else 'not installed'}, "
          f"{len(failures)} failures")
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
