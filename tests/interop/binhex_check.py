#!/usr/bin/env python3
"""BinHex 4.0 against an encoder written here (CRC from binascii.crc_hqx), macutils'
hexbin and binhex, the codec commands, Python's email on a composed message, and
streaming sessions in both delivery modes."""
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

from tarnwick_abi import BODY, I32, NEXT_PART, PartInfo

LIB, CLI = ctypes.CDLL(os.environ["TARNWICK_LIB"]), os.environ["TARNWICK"]
WORK = tempfile.mkdtemp(prefix="tarnwick-hqx-")
BANNER = b"(This file must be converted with BinHex 4.0)"
ALPHABET = b"!\"#$%&'()*+,-012345689@ABCDEFGHIJKLMNPQRSTUVXYZ[`abcdefhijklmpqr"
Z4 = b"\0" * 4
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


def reference(name, data, rsrc, ftype=Z4, creator=Z4, flags=b"\0\0", longest=250, width=62,
              eol=b"\r\n"):
    """One block laid out the way this library writes it, unless told otherwise."""
    header = bytes([len(name)]) + name + b"\0" + ftype + creator + flags + \
        len(data).to_bytes(4, "big") + len(rsrc).to_bytes(4, "big")
    raw = header + crc(header) + data + crc(data) + rsrc + (crc(rsrc) if rsrc else b"\0\0")
    packed, i = bytearray(), 0
    while i < len(raw):
        n = 1
        while i + n < len(raw) and raw[i + n] == raw[i] and n < longest:
            n += 1
        one = b"\x90\0" if raw[i] == 0x90 else raw[i:i + 1]
        packed += (one * 2 if n == 2 else one) + (bytes([0x90, n]) if n > 2 else b"")
        i += n
    packed += b"\0" * (-len(packed) % 3)
    chars = b":" + bytes(ALPHABET[int.from_bytes(packed[j:j + 3], "big") >> k & 63]
                         for j in range(0, len(packed), 3) for k in (18, 12, 6, 0))
    lines = [chars[j:j + width] for j in range(0, len(chars), width)]
    return BANNER + eol + eol.join(lines) + (eol if len(lines[-1]) == width else b"") + b":"


def ours_encode(data, rsrc, name=b"fork.bin", ftype=Z4, creator=Z4, flags=b"\0\0", existing=None):
    dpath, rpath, out = (os.path.join(WORK, n) for n in (name.decode(), "rsrc", "out.hqx"))
    Path(dpath).write_bytes(data)
    Path(rpath).write_bytes(rsrc)
    Path(out).unlink(missing_ok=True)
    if existing is not None:
        Path(out).write_bytes(existing)
    info = Info(b"not used", ftype, creator, (ctypes.c_ubyte * 2)(*flags))
    result = LIB.binhex_enc(dpath.encode(), rpath.encode(), out.encode(), info)
    return result, Path(out).read_bytes()


def ours_decode(text):
    src, out = os.path.join(WORK, "in.hqx"), os.path.join(WORK, "decoded")
    Path(src).write_bytes(text)
    Path(out).unlink(missing_ok=True)
    second, info = ctypes.create_string_buffer(1024), Info()
    result = LIB.binhex_dec(src.encode(), out.encode(), second, ctypes.byref(info))
    rsrc = Path(second.value.decode()).read_bytes() if second.value else b""
    if second.value:
        os.unlink(second.value)
    return result, Path(out).read_bytes() if os.path.exists(out) else b"", rsrc, info


def check_codec(rng):
    # The last case: a run that begins in the header's CRC goes on into the data fork.
    header = b"\x08fork.bin\0" + b"\0" * 10 + (20).to_bytes(4, "big") + Z4
    cases = [(c * n, b"") for c in (b"A", b"\x90") for n in (2, 3, 251, 600)] + [
        (b"\x90\x00" * 5, b"\x90"), (b"", rng.randbytes(1000)), (crc(header)[1:] * 20, b""),
        (rng.randbytes(16380) + b"q" * 10 + rng.randbytes(16384), b"r" * 16390)]
    for data, rsrc in cases:
        result, got = ours_encode(data, rsrc)
        check(result == 1 and got == reference(b"fork.bin", data, rsrc),
              f"block of {len(data)}+{len(rsrc)} bytes")
    meta = dict(ftype=b"APPL", creator=b"MACS", flags=b"\x01\x80")
    _, once = ours_encode(b"data", b"res", name=b"n" * 100, existing=b"text before\r\n", **meta)
    _, twice = ours_encode(b"data", b"res", name=b"n" * 100, existing=once, **meta)
    one = reference(b"n" * 100, b"data", b"res", **meta)
    check(twice == b"text before\r\n" + one + one, "two blocks behind text")
    data = b"Z" * 1000 + b"\x90" * 1000 + rng.randbytes(3000)
    text = reference(b"py.bin", data, b"fork", b"TEXT", b"ttxt", longest=255, width=64, eol=b"\n")
    result, out, rsrc, info = ours_decode(text)
    check((result, out, rsrc, info.name, info.file_type, info.creator) ==
          (1, data, b"fork", b"py.bin", b"TEXT", b"ttxt"), "we read python's layout")


def check_macutils(rng):
    if not (shutil.which("hexbin") and shutil.which("binhex")):
        print("macutils not installed: cross-check skipped")
        return
    data, rsrc = rng.randbytes(20000) + b"\x90" * 700, rng.randbytes(3000)
    _, block = ours_encode(data, rsrc, ftype=b"TEXT", creator=b"ttxt")
    with tempfile.TemporaryDirectory(dir=WORK) as d:
        Path(d, "x.hqx").write_bytes(block)
        run = subprocess.run(["hexbin", "-3", "x.hqx"], cwd=d, capture_output=True)
        got = [Path(d, "fork.bin." + e).read_bytes() if Path(d, "fork.bin." + e).exists() else b""
               for e in ("data", "rsrc", "info")]
        check(run.returncode == 0 and got[:2] == [data, rsrc] and got[2][65:73] == b"TEXTttxt",
              f"hexbin -3 reads our block {run.stderr!r}")
        Path(d, "plain").write_bytes(data)
        theirs = subprocess.run(["binhex", "-d", "plain"], cwd=d, capture_output=True).stdout
        result, out, _, info = ours_decode(BANNER + theirs[theirs.index(b"\n"):])
        check((result, out, info.name) == (1, data, b"plain"), "we read binhex -d output")


def check_cli(rng):
    data, rsrc = rng.randbytes(3000), rng.randbytes(500)
    d, r, hqx, out = (os.path.join(WORK, n) for n in ("c.data", "c.rsrc", "c.hqx", "c.out"))
    Path(d).write_bytes(data)
    Path(r).write_bytes(rsrc)
    cli = lambda *args: subprocess.run([CLI, *args], capture_output=True)
    enc = cli("encode", "binhex", d, r, hqx, "--name", "Read Me", "--type", "TX", "--creator", "ab")
    check(enc.returncode == 0 and Path(hqx).read_bytes() == reference(
        b"Read Me", data, rsrc, b"TX  ", b"ab  "), f"encode binhex --name {enc.stderr!r}")
    dec = cli("decode", "binhex", hqx, out)
    check(dec.returncode == 0 and b"name: Read Me\ntype: TX  \ncreator: ab  \n" in dec.stdout and
          Path(out).read_bytes() == data and Path(out + ".rsrc").read_bytes() == rsrc,
          f"decode binhex gives both forks {dec.stdout!r}")
    check(cli("decode", "binhex", hqx, out).returncode == 1 and
          Path(out + ".rsrc").read_bytes() == rsrc and
          not any(n.startswith("$$$") for n in os.listdir(WORK)), "OUT.rsrc is never replaced")
    Path(hqx).write_bytes(Path(hqx).read_bytes().replace(b"(This", b"(That"))
    check(cli("decode", "binhex", hqx, out + "2").returncode == 1, "no BinHex exits 1")


def compose(path, answers):
    """One application/mac-binhex40 part; body_cb answers bytes, or ("file", path)."""
    Path(path).unlink(missing_ok=True)
    queue = list(answers)

    def body(buffer, size, is_file):
        if not queue:
            return 0
        a = queue.pop(0)
        if isinstance(a, tuple):
            is_file[0], a = 1, a[1].encode()
        ctypes.memmove(buffer, a, len(a))
        return len(a)

    info = PartInfo(encoding=b"binhex", content_type=b"application",
                    content_subtype=b"mac-binhex40", filename=b"forks.hqx")
    cb_next, cb_body = NEXT_PART(lambda r: -1), BODY(body)
    return LIB.create_message(b"Ann", b"Bob", b"forks", None, None, ctypes.byref(info),
                              path.encode(), cb_next, cb_body, None, None, 1, 0)


def check_messages(rng):
    data, rsrc = rng.randbytes(9000) + b"\x90" * 300, rng.randbytes(700)
    dpath, rpath, path = (os.path.join(WORK, n) for n in ("named.data", "named.rsrc", "m.eml"))
    Path(dpath).write_bytes(data)
    Path(rpath).write_bytes(rsrc)
    check(compose(path, [("file", dpath), ("file", rpath)]) == 1, "compose a BinHex part")
    raw = Path(path).read_bytes()
    parts = [p for p in email.message_from_bytes(raw).walk()
             if p.get_content_type() == "application/mac-binhex40"]
    check(len(parts) == 1 and "Content-Transfer-Encoding" not in parts[0] and
          parts[0].get_payload().encode("latin-1").startswith(BANNER) and
          raw.endswith(b"\r\n\r\n" + reference(b"named.data", data, rsrc)),
          "python's email finds the block, byte for byte")
    out = os.path.join(WORK, "out")
    os.mkdir(out)
    for mode_dir in (None, out):
        run = subprocess.run([CLI, "stream", path] + ([mode_dir] if mode_dir else []),
                             capture_output=True)
        lines = [l for l in run.stdout.split(b"\n") if l.startswith(b"body: ")]
        got = [Path(l.split(b" ", 2)[2].decode()).read_bytes() if mode_dir
               else int(l.split()[2]) for l in lines]
        want = [data, rsrc] if mode_dir else [len(data), len(rsrc)]
        check(run.returncode == 0 and got == want and b"encoding=binhex" in run.stdout,
              f"session mode {1 if mode_dir else 0}")


def check_bad_part(rng):
    path = os.path.join(WORK, "bad.eml")
    compose(path, [rng.randbytes(500), b"", b"r", b""])
    raw = bytearray(Path(path).read_bytes())
    raw[-100] = ord("!") if raw[-100] != ord("!") else ord("#")
    Path(path).write_bytes(bytes(raw))
    out = subprocess.run([CLI, "stream", path], capture_output=True).stdout
    check(b"result: -9" in out and b"body: " not in out and b"header: " not in out,
          f"a part that fails its CRC: -9 {out!r}")


def main():
    rng = random.Random(20261123)
    for step in (check_codec, check_macutils, check_cli, check_messages, check_bad_part):
        step(rng)
    shutil.rmtree(WORK, ignore_errors=True)
    print(f"{sum(results)}/{len(results)} checks passed")
    return 0 if all(results) else 1


if __name__ == "__main__":
    sys.exit(main())
