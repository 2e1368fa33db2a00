#!/usr/bin/env python3
"""Plain (non-MIME) messages against sharutils: our uuencoded blocks must
uudecode to their sources, and sharutils' blocks pasted between LF text must
extract alike. Large random attachments also round-trip through
extract_message, extract_message_x and sessions in both delivery modes.
Only text that ends with a line end, starts with no blank line and holds no
NUL or 0x1A comes back exactly."""
import ctypes
import os
import random
import re
import shutil
import subprocess
import sys
import tempfile
from pathlib import Path


sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from compose_check import BODY, DONE, EXTRA, I32, LIB, NEXT_PART  # noqa: E402

PTR = ctypes.c_void_p
REPORT = ctypes.CFUNCTYPE(I32, ctypes.c_char_p, I32, I32)
SINK = ctypes.CFUNCTYPE(I32, PTR, I32)
HEADER = ctypes.CFUNCTYPE(I32, PTR, PTR, I32, ctypes.c_ssize_t)
SBODY = ctypes.CFUNCTYPE(I32, PTR, I32, ctypes.POINTER(I32), ctypes.c_ssize_t)
ADDRESS = ctypes.CFUNCTYPE(I32, PTR, ctypes.c_ssize_t)
LIB.extract_message.argtypes = [ctypes.c_char_p, REPORT, ctypes.c_char_p]
LIB.extract_message_x.argtypes = [PTR, I32, REPORT, SINK]
LIB.mime_extract_start.argtypes = [HEADER, SBODY, ADDRESS, ctypes.c_char_p, ctypes.c_ssize_t]
LIB.mime_extract_data.argtypes = [I32, PTR, I32, I32]
LIB.mime_extract_end.argtypes = [ctypes.POINTER(I32)]
results = []


def check(name, ok, detail=""):
    results.append(ok)
    if not ok:
        print("FAIL:", name, detail)


def compose(path, text, attachments):
    """attachments: (encoding, file path) in order; the library reads each file itself."""
    queue, pending = list(attachments), [text]

    def next_part(info):
        if not queue:
            return 0
        encoding, name = queue.pop(0)
        info.contents.encoding, info.contents.filename = encoding, name.encode()
        return 1

    def body(buffer, size, is_file):
        is_file[0] = 0
        data, pending[0] = pending[0][:size], pending[0][size:]
        ctypes.memmove(buffer, data, len(data))
        return len(data)

    keep = NEXT_PART(next_part), BODY(body), DONE(lambda l, b: 0), EXTRA(lambda b, s: 0)
    return LIB.create_message(b"Ann", b"Bob", b"Round trip", None, None, None, path.encode(),
                              *keep, 0, 0)


def directory_pieces(message, out):
    reports = []
    keep = REPORT(lambda name, level, kind: reports.append(name.decode()) or 0)
    result = LIB.extract_message(message.encode(), keep, out.encode())
    return result, [Path(p).read_bytes() for p in reports]


def x_pieces(data, piece):
    reports = []
    report = REPORT(lambda name, level, kind: reports.append(b"") or 0)

    def sink(chunk, length):
        reports[-1] += ctypes.string_at(chunk, length) if length else b""
        return 0

    keep = SINK(sink)
    for at in range(0, len(data), piece):
        chunk = data[at:at + piece]
        if LIB.extract_message_x(chunk, len(chunk), report, keep) != 1:
            return 0, []
    return LIB.extract_message_x(None, 0, report, keep), reports


def session_pieces(data, directory):
    pieces, current = [], []
    if directory:
        os.mkdir(directory)

    def body(chunk, length, state, user):
        piece = ctypes.string_at(chunk, length) if length else b""
        if state[0]:
            pieces.append(Path(piece.decode()).read_bytes())
        elif length:
            current.append(piece)
        else:
            pieces.append(b"".join(current))
            current.clear()
        return 0

    keep = HEADER(lambda *a: 0), SBODY(body), ADDRESS(lambda *a: 0)
    handle = I32(LIB.mime_extract_start(*keep, directory and directory.encode(), 0))
    for at in range(0, len(data), 65536):
        LIB.mime_extract_data(handle, data[at:at + 65536], len(data[at:at + 65536]), 0)
    LIB.mime_extract_data(handle, None, 0, 0)
    return LIB.mime_extract_end(ctypes.byref(handle)), pieces


def round_trip(tmp, rng):
    text = b"Dear Ann,\r\n" + b"x" * 1500 + b"\r\nyours, Bob\r\n"
    attachments = []
    for n, size in enumerate((0, 1, 45, 46, 11926, 100000)):
        path = os.path.join(tmp, f"file {n} with spaces.bin")
        Path(path).write_bytes(rng.randbytes(size))
        attachments.append((b"uuencode", path))
    for n in range(2):
        path = os.path.join(tmp, f"note{n}.txt")
        Path(path).write_bytes(b"".join(b"line %d of note %d\r\n" % (i, n) for i in range(50 * n + 3)))
        attachments.append((b"text", path))
    sources = [Path(p).read_bytes() for _, p in attachments]
    message = os.path.join(tmp, "round.eml")
    check("create_message with mime 0", compose(message, text, attachments) == 1)
    data = Path(message).read_bytes()
    header = data[:data.index(b"\r\n\r\n") + 2]

    blocks = re.findall(rb"begin 644 [^\r]*\r\n.*?end\r\n", data, re.S)
    check("one block per uuencoded file", len(blocks) == 6, len(blocks))
    for n, block in enumerate(blocks):
        Path(tmp, "block").write_bytes(block)
        run = subprocess.run(["uudecode", "-o", os.path.join(tmp, "decoded"), os.path.join(tmp, "block")],
                             capture_output=True)
        check(f"sharutils uudecode of block {n}", run.returncode == 0 and
              Path(tmp, "decoded").read_bytes() == sources[n], run.stderr)

    out = os.path.join(tmp, "out")
    os.mkdir(out)
    result, got = directory_pieces(message, out)
    check("extract_message", result == 1 and got == [header + b"\r\n" + text] + sources,
          [len(g) for g in got])
    names = sorted(os.listdir(out))
    check("begin names kept", all(f"file {n} with spaces.bin" in names for n in range(6)), names)
    result, got = x_pieces(data, 4096)
    check("extract_message_x in pieces of 4096",
          result == 1 and got == [header + b"\r\n" + text] + sources, [len(g) for g in got])
    for directory in (None, os.path.join(tmp, "session")):
        result, got = session_pieces(data, directory)
        check(f"session to {directory}", result == 1 and got == [text] + sources,
              [len(g) for g in got])


def sharutils_blocks(tmp, rng):
    files = {"one two.bin": rng.randbytes(3000), "three .dat": rng.randbytes(46)}
    encoded = []
    for name, content in files.items():
        Path(tmp, "src").write_bytes(content)
        encoded.append(subprocess.run(["uuencode", os.path.join(tmp, "src"), name],
                                      capture_output=True, check=True).stdout)
    data = (b"From: Bob\nSubject: blocks\n\ntext before\n" + encoded[0] + b"between\n" + encoded[1] +
            b"behind\n")
    message = os.path.join(tmp, "shar.eml")
    Path(message).write_bytes(data)
    out = os.path.join(tmp, "shar")
    os.mkdir(out)
    result, got = directory_pieces(message, out)
    want = list(files.values())
    check("sharutils blocks, extract_message", result == 1 and
          got == [b"From: Bob\nSubject: blocks\n\r\ntext before\n"] + want, got[:1])
    check("sharutils names", sorted(os.listdir(out)) == sorted(["MESSAGE.$$$", "one two.bin", "three .dat"]),
          os.listdir(out))
    for directory in (None, os.path.join(tmp, "shar-session")):
        result, got = session_pieces(data, directory)
        check(f"sharutils blocks, session to {directory}", result == 1 and got == [b"text before\n"] + want)


def main():
    if shutil.which("uuencode") is None:
        print("sharutils is not installed")
        return 1
    rng = random.Random(20261123)
    with tempfile.TemporaryDirectory() as tmp:
        os.environ["XDG_STATE_HOME"] = os.path.join(tmp, "state")
        round_trip(tmp, rng)
        sharutils_blocks(tmp, rng)
        # The command's road: compose --plain, then extract.
        cli = os.path.join(tmp, "cli")
        os.mkdir(cli)
        Path(cli, "t.txt").write_bytes(b"Hello\n")
        Path(cli, "a b.bin").write_bytes(rng.randbytes(5000))
        run = subprocess.run([os.environ["TARNWICK"], "compose", "--plain", "--from", "B", "--to", "A",
                              "--text", os.path.join(cli, "t.txt"), "--attach",
                              os.path.join(cli, "a b.bin"), "-o", os.path.join(cli, "m.eml")])
        os.mkdir(os.path.join(cli, "out"))
        run2 = subprocess.run([os.environ["TARNWICK"], "extract", os.path.join(cli, "m.eml"),
                               os.path.join(cli, "out")], capture_output=True)
        check("tarnwick compose --plain, then extract", run.returncode == 0 and run2.returncode == 0 and
              Path(cli, "out", "a b.bin").read_bytes() == Path(cli, "a b.bin").read_bytes())
    print(f"{results.count(True)} passed, {results.count(False)} failed")
    return 0 if all(results) else 1


if __name__ == "__main__":
    sys.exit(main())
