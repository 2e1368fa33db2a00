#!/usr/bin/env python3
"""BinHex 4.0 against an encoder written here from the published format (CRC from
binascii.crc_hqx), against macutils' hexbin and binhex where installed, through
the codec commands, in a composed message that Python's email package reads, and
through streaming sessions in both delivery modes."""
import binascii
import ctypes
import email
import os
import random
import shutil
import subprocess
import sys
import tempfile
from pathlib import Path

LIB, CLI = ctypes.CDLL(os.environ["TARNWICK_LIB"]), os.environ["TARNWICK"]
WORK = tempfile.mkdtemp(prefix="tarnwick-hqx-")
BANNER = b"(This file must be converted with BinHex 4.0)"
ALPHABET = b"!\"#$%&'()*+,-012345689@ABCDEFGHIJKLMNPQRSTUVXYZ[`abcdefhijklmpqr"
results = []


class Info(ctypes.Structure):
    _fields_ = [("name", ctypes.c_char * 256), ("file_type", ctypes.c_char * 5),
                ("creator", ctypes.c_char * 5), ("flags", ctypes.c_ubyte * 2)]


LIB.binhex_enc.argtypes = [ctypes.c_char_p, ctypes.c_char_p, ctypes.c_char_p, Info]
LIB.binhex_dec.argtypes = [ctypes.c_char_p, ctypes.c_char_p, ctypes.c_char_p, ctypes.POINTER(Info)]


def check(ok, what):
    results.append(bool(ok))
    if not ok:
        print("FAIL:", what)


def crc(data):
    return binascii.crc_hqx(data, 0).to_bytes(2, "big")


def reference(name, data, rsrc, ftype=b"\0" * 4, creator=b"\0" * 4, flags=b"\0\0",
              longest=250, width=62, eol=b"\r\n"):
    """One block as the format describes it, laid out the way this library writes it."""
    header = bytes([len(name)]) + name + b"\0" + ftype + creator + flags + \
        len(data).to_bytes(4, "big") + len(rsrc).to_bytes(4, "big")
    raw = header + crc(header) + data + crc(data) + rsrc + (crc(rsrc) if rsrc else b"\0\0")
    packed, i = bytearray(), 0
    while i < len(raw):
        n = 1
        while i + n < len(raw) and raw[i + n] == raw[i] and n < longest:
            n += 1
        one = b"\x90\0" if raw[i] == 0x90 else raw[i:i + 1]
        packed += one * 2 if n == 2 else one
        if n > 2:
            packed += bytes([0x90, n])
        i += n
    packed += b"\0" * (-len(packed) % 3)
    chars = bytearray(b":")
    for j in range(0, len(packed), 3):
        v = int.from_bytes(packed[j:j + 3], "big")
        chars += bytes(ALPHABET[v >> k & 63] for k in (18, 12, 6, 0))
    lines = [bytes(chars[j:j + width]) for j in range(0, len(chars), width)]
    body = eol.join(lines) + (eol if len(lines[-1]) == width else b"")
    return BANNER + eol + body + b":"


def ours_encode(data, rsrc, name=b"fork.bin", ftype=b"\0" * 4, creator=b"\0" * 4, flags=b"\0\0",
                existing=None):
    dpath, rpath, out = (os.path.join(WORK, n) for n in (name.decode(), "rsrc", "out.hqx"))
    Path(dpath).write_bytes(data)
    Path(out).unlink(missing_ok=True)
    if existing is not None:
        Path(out).write_bytes(existing)
    if rsrc is not None:
        Path(rpath).write_bytes(rsrc)
    info = Info(b"not used", ftype, creator, (ctypes.c_ubyte * 2)(*flags))
    result = LIB.binhex_enc(dpath.encode(), rpath.encode() if rsrc is not None else None,
                            out.encode(), info)
    return result, Path(out).read_bytes()


def ours_decode(text):
    src, out = os.path.join(WORK, "in.hqx"), os.path.join(WORK, "decoded")
    Path(src).write_bytes(text)
    Path(out).unlink(missing_ok=True)
    second, info = ctypes.create_string_buffer(1024), Info()
    result = LIB.binhex_dec(src.encode(), out.encode(), second, ctypes.byref(info))
    rsrc = b""
    if second.value:
        rsrc = Path(second.value.decode()).read_bytes()
        os.unlink(second.value)
    return result, Path(out).read_bytes() if os.path.exists(out) else b"", rsrc, info


def encoder_cases(rng):
    for c in (b"A", b"\x90"):
        for n in (1, 2, 3, 250, 251, 255, 256, 600):
            yield c * n, b""
    yield b"\x90\x00" * 5, b"\x90"
    yield rng.randbytes(16380) + b"q" * 10 + rng.randbytes(16384), b"r" * 16390
    yield b"", b""
    yield b"", rng.randbytes(1000)
    # A run that begins in the header's CRC goes on into the data fork.
    header = b"\x08fork.bin\0" + b"\0" * 10 + (20).to_bytes(4, "big") + b"\0" * 4
    yield crc(header)[1:] * 20, b""


def check_codec(rng):
    for data, rsrc in encoder_cases(rng):
        result, got = ours_encode(data, rsrc)
        check(result == 1 and got == reference(b"fork.bin", data, rsrc),
              f"block of {len(data)}+{len(rsrc)} bytes, byte for byte")
        check(ours_decode(got)[:3] == (1, data, rsrc), f"round trip {len(data)}+{len(rsrc)}")
    meta = dict(ftype=b"APPL", creator=b"MACS", flags=b"\x01\x80")
    name = b"n" * 100
    result, got = ours_encode(b"data", b"res", name=name, existing=b"text before\r\n", **meta)
    _, twice = ours_encode(b"data", b"res", name=name, existing=got, **meta)
    one = reference(name, b"data", b"res", b"APPL", b"MACS", b"\x01\x80")
    check(result == 1 and twice == b"text before\r\n" + one + one, "two blocks behind text")
    # Python's block in another layout: 64-character LF lines, runs up to 255.
    for data in (rng.randbytes(5000), b"Z" * 1000 + b"\x90" * 1000):
        text = reference(b"py.bin", data, b"fork", b"TEXT", b"ttxt", longest=255, width=64,
                         eol=b"\n")
        result, out, rsrc, info = ours_decode(text)
        check((result, out, rsrc, info.name, info.file_type, info.creator) ==
              (1, data, b"fork", b"py.bin", b"TEXT", b"ttxt"), "we read python's layout")
        bad = bytearray(text)
        bad[len(text) // 2] = ord("!") if bad[len(text) // 2] != ord("!") else ord("#")
        check(ours_decode(bytes(bad))[0] == 0, "a changed character fails the CRC")


def check_macutils(rng):
    if not (shutil.which("hexbin") and shutil.which("binhex")):
        print("macutils not installed: cross-check skipped")
        return
    data, rsrc = rng.randbytes(20000) + b"\x90" * 700, rng.randbytes(3000)
    _, block = ours_encode(data, rsrc, ftype=b"TEXT", creator=b"ttxt")
    with tempfile.TemporaryDirectory(dir=WORK) as d:
        Path(d, "x.hqx").write_bytes(block)
        run = subprocess.run(["hexbin", "-3", "x.hqx"], cwd=d, capture_output=True)
        info = Path(d, "fork.bin.info").read_bytes() if Path(d, "fork.bin.info").exists() else b""
        check(run.returncode == 0 and Path(d, "fork.bin.data").read_bytes() == data and
              Path(d, "fork.bin.rsrc").read_bytes() == rsrc and info[65:73] == b"TEXTttxt",
              f"hexbin -3 reads our block {run.stderr!r}")
        Path(d, "plain").write_bytes(data)
        theirs = subprocess.run(["binhex", "-d", "plain"], cwd=d, capture_output=True).stdout
        theirs = BANNER + theirs[theirs.index(b"\n"):]  # their banner is their own
        result, out, _, info = ours_decode(theirs)
        check((result, out, info.name) == (1, data, b"plain"), "we read binhex -d output")


def check_cli(rng):
    data, rsrc = rng.randbytes(3000), rng.randbytes(500)
    d, r, hqx, out = (os.path.join(WORK, n) for n in ("c.data", "c.rsrc", "c.hqx", "c.out"))
    Path(d).write_bytes(data)
    Path(r).write_bytes(rsrc)
    for p in (hqx, out, out + ".rsrc"):
        Path(p).unlink(missing_ok=True)
    enc = subprocess.run([CLI, "encode", "binhex", d, r, hqx, "--name", "Read Me", "--type", "TX",
                          "--creator", "ab"], capture_output=True)
    check(enc.returncode == 0 and Path(hqx).read_bytes() == reference(
        b"Read Me", data, rsrc, b"TX  ", b"ab  "), f"encode binhex --name {enc.stderr!r}")
    dec = subprocess.run([CLI, "decode", "binhex", hqx, out], capture_output=True)
    check(dec.returncode == 0 and b"name: Read Me\ntype: TX  \ncreator: ab  \n" in dec.stdout and
          Path(out).read_bytes() == data and Path(out + ".rsrc").read_bytes() == rsrc,
          f"decode binhex gives both forks {dec.stdout!r}")
    again = subprocess.run([CLI, "decode", "binhex", hqx, out], capture_output=True)
    check(again.returncode == 1 and Path(out + ".rsrc").read_bytes() == rsrc and
          not any(n.startswith("$$$") for n in os.listdir(WORK)), "OUT.rsrc is never replaced")
    Path(hqx).write_bytes(Path(hqx).read_bytes().replace(b"(This", b"(That"))
    bad = subprocess.run([CLI, "decode", "binhex", hqx, out + "2"], capture_output=True)
    check(bad.returncode == 1, "decode binhex of no BinHex exits 1")


# ---- Composition and streaming ---------------------------------------------------------

class PartInfo(ctypes.Structure):
    _fields_ = [("charset", ctypes.c_char * 20), ("encoding", ctypes.c_char * 30),
                ("filename", ctypes.c_char * 256), ("content_id", ctypes.c_char * 80),
                ("content_type", ctypes.c_char * 20), ("content_subtype", ctypes.c_char * 22),
                ("parameters", ctypes.c_char * 1028), ("size_on_disk", ctypes.c_uint32),
                ("reserved", ctypes.c_char * 64)]


I32 = ctypes.c_int32
NEXT_PART = ctypes.CFUNCTYPE(I32, ctypes.POINTER(PartInfo))
BODY = ctypes.CFUNCTYPE(I32, ctypes.c_void_p, I32, ctypes.POINTER(I32))


def compose(path, answers):
    """A message of one application/mac-binhex40 part; `answers` are the body_cb
    answers: bytes, or ("file", path)."""
    queue = list(answers)

    def body(buffer, size, is_file):
        if not queue:
            return 0
        a = queue.pop(0)
        if isinstance(a, tuple):
            is_file[0] = 1
            a = a[1].encode()
        ctypes.memmove(buffer, a, len(a))
        return len(a)

    info = PartInfo(encoding=b"binhex", content_type=b"application",
                    content_subtype=b"mac-binhex40", filename=b"forks.hqx")
    cb_next, cb_body = NEXT_PART(lambda r: -1), BODY(body)
    return LIB.create_message(b"Ann", b"Bob", b"forks", None, None, ctypes.byref(info),
                              path.encode(), cb_next, cb_body, None, None, 1, 0)


def check_messages(rng):
    data, rsrc = rng.randbytes(9000) + b"\x90" * 300, rng.randbytes(700)
    dpath, rpath = os.path.join(WORK, "named.data"), os.path.join(WORK, "named.rsrc")
    Path(dpath).write_bytes(data)
    Path(rpath).write_bytes(rsrc)
    for n, answers in enumerate(([data[:8126], data[8126:], b"", rsrc, b""],
                                 [("file", dpath), ("file", rpath)])):
        path = os.path.join(WORK, f"m{n}.eml")
        Path(path).unlink(missing_ok=True)
        check(compose(path, answers) == 1, f"compose a BinHex part ({n})")
        raw = Path(path).read_bytes()
        msg = email.message_from_bytes(raw)
        parts = [p for p in msg.walk() if p.get_content_type() == "application/mac-binhex40"]
        block = parts[0].get_payload(decode=False).encode("latin-1") if parts else b""
        check(len(parts) == 1 and "Content-Transfer-Encoding" not in parts[0] and
              block.startswith(BANNER), f"python's email finds the BinHex part ({n})")
        if n == 1:
            check(raw.endswith(b"\r\n\r\n" + reference(b"named.data", data, rsrc)),
                  "the composed block, byte for byte")
        for mode_dir in (None, os.path.join(WORK, f"out{n}")):
            args = [CLI, "stream", path] + ([mode_dir] if mode_dir else [])
            if mode_dir:
                shutil.rmtree(mode_dir, ignore_errors=True)
                os.mkdir(mode_dir)
            run = subprocess.run(args, capture_output=True)
            lines = [l for l in run.stdout.split(b"\n") if l.startswith(b"body: ")]
            if mode_dir:
                got = [Path(l.split(b" ", 2)[2].decode()).read_bytes() for l in lines]
            else:
                got = [int(l.split()[2]) for l in lines]
            want = [data, rsrc] if mode_dir else [len(data), len(rsrc)]
            check(run.returncode == 0 and got == want and
                  b"encoding=binhex" in run.stdout, f"session mode {1 if mode_dir else 0} ({n})")


def check_bad_part(rng):
    path = os.path.join(WORK, "bad.eml")
    Path(path).unlink(missing_ok=True)
    compose(path, [rng.randbytes(500), b"", b"r", b""])
    raw = bytearray(Path(path).read_bytes())
    raw[-100] = ord("!") if raw[-100] != ord("!") else ord("#")
    Path(path).write_bytes(bytes(raw))
    run = subprocess.run([CLI, "stream", path], capture_output=True)
    check(b"result: -9" in run.stdout and b"body: " not in run.stdout and
          b"header: " not in run.stdout, f"a part that fails its CRC: -9 {run.stdout!r}")


def main():
    rng = random.Random(20261123)
    check_codec(rng)
    check_macutils(rng)
    check_cli(rng)
    check_messages(rng)
    check_bad_part(rng)
    shutil.rmtree(WORK, ignore_errors=True)
    print(f"{sum(results)}/{len(results)} checks passed")
    return 0 if all(results) else 1


if __name__ == "__main__":
    sys.exit(main())
