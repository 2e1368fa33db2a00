#!/usr/bin/env python3
"""Plain (non-MIME) messages against sharutils: the uuencoded blocks of `tarnwick compose
--plain` must uudecode to their sources, and sharutils' blocks between LF text must
extract alike; both come back through `tarnwick extract` and `tarnwick stream`. Only
text that ends with a line end, starts with no blank line and holds no NUL or 0x1A
comes back exactly."""
import os
import random
import re
import shutil
import subprocess
import sys
import tempfile
from pathlib import Path

results = []


def check(name, ok, detail=""):
    results.append(ok)
    if not ok:
        print("FAIL:", name, detail)


def tarnwick(*args):
    done = subprocess.run([os.environ["TARNWICK"], *args], capture_output=True)
    return done.returncode, done.stdout.decode("latin-1").splitlines()


def extracted(message, out):
    """The result line and the contents of the reported files of `tarnwick extract`."""
    os.mkdir(out)
    code, lines = tarnwick("extract", message, out)
    return [code, lines[-1:]], [Path(line.split(" ", 2)[2]).read_bytes() for line in lines[:-1]]


def streamed(message, out):
    """The same for a session fed in pieces that keeps its parts in `out`."""
    os.mkdir(out)
    code, lines = tarnwick("stream", message, out, "--pieces", "4096")
    return [code, lines[-1:]], [Path(line.split(" ", 2)[2]).read_bytes() for line in lines
                                if line.startswith("body: state=1 ")]


def round_trip(tmp, rng):
    text = b"Dear Ann,\r\n" + b"x" * 1500 + b"\r\nyours, Bob\r\n"
    Path(tmp, "text").write_bytes(text)
    names = [os.path.join(tmp, f"file {n}.bin") for n in range(5)]
    for name, size in zip(names, (0, 1, 45, 46, 70000)):
        Path(name).write_bytes(rng.randbytes(size))
    sources = [Path(name).read_bytes() for name in names]
    message = os.path.join(tmp, "round.eml")
    code, _ = tarnwick("compose", "--plain", "--from", "B", "--to", "A", "--subject", "S", "--text",
                       os.path.join(tmp, "text"), "-o", message, *[a for n in names for a in ("--attach", n)])
    check("tarnwick compose --plain", code == 0)
    data = Path(message).read_bytes()
    blocks = re.findall(rb"begin 644 [^\r]*\r\n.*?end\r\n", data, re.S)
    check("one block per file", len(blocks) == 5, len(blocks))
    for n, block in enumerate(blocks):
        Path(tmp, "block").write_bytes(block)
        run = subprocess.run(["uudecode", "-o", os.path.join(tmp, "decoded"), os.path.join(tmp, "block")],
                             capture_output=True)
        check(f"sharutils uudecode of block {n}",
              run.returncode == 0 and Path(tmp, "decoded").read_bytes() == sources[n], run.stderr)

    out = os.path.join(tmp, "out")
    result, got = extracted(message, out)
    header = data[:data.index(b"\r\n\r\n") + 2]
    check("extract", result == [0, ["result 1"]] and got == [header + b"\r\n" + text] + sources, result)
    check("begin names kept", sorted(os.listdir(out)) == ["MESSAGE.$$$"] + [f"file {n}.bin" for n in range(5)])
    result, got = streamed(message, os.path.join(tmp, "session"))
    check("stream", result == [0, ["result: 1"]] and got == [text] + sources, result)


def sharutils_blocks(tmp, rng):
    files = {"one two.bin": rng.randbytes(3000), "three .dat": rng.randbytes(46)}
    encoded = []
    for name, content in files.items():
        Path(tmp, "src").write_bytes(content)
        encoded.append(subprocess.run(["uuencode", os.path.join(tmp, "src"), name],
                                      capture_output=True, check=True).stdout)
    message, out = os.path.join(tmp, "shar.eml"), os.path.join(tmp, "shar")
    Path(message).write_bytes(b"From: Bob\nSubject: blocks\n\ntext before\n" + encoded[0] + b"between\n" +
                              encoded[1] + b"behind\n")
    result, got = extracted(message, out)
    want = list(files.values())
    check("sharutils blocks, extract",
          result == [0, ["result 1"]] and got == [b"From: Bob\nSubject: blocks\n\r\ntext before\n"] + want, got[:1])
    check("sharutils names", sorted(os.listdir(out)) == ["MESSAGE.$$$", "one two.bin", "three .dat"])
    result, got = streamed(message, os.path.join(tmp, "shar-session"))
    check("sharutils blocks, stream", result == [0, ["result: 1"]] and got == [b"text before\n"] + want, result)


def main():
    if shutil.which("uuencode") is None:
        print("sharutils is not installed")
        return 1
    rng = random.Random(20261123)
    with tempfile.TemporaryDirectory() as tmp:
        os.environ["XDG_STATE_HOME"] = os.path.join(tmp, "state")
        round_trip(tmp, rng)
        sharutils_blocks(tmp, rng)
    print(f"{results.count(True)} passed, {results.count(False)} failed")
    return 0 if all(results) else 1


if __name__ == "__main__":
    sys.exit(main())
