#!/usr/bin/env python3
"""Times the joining of a message/partial set: a single-part Base64 message of
--size MiB split into 64 fragments, each fragment one process of
`tarnwick extract` (directory form) or `tarnwick stream` (streaming form), summed
over the set. Beside it munpack in the same run: first on the same fragments (it
reassembles message/partial; where the installed munpack cannot, the script says
so), then on the unsplit message, which is the ratio's base. Peak memory is the
largest maximum resident set size of any one process (/usr/bin/time -v), so a
flat figure from 64 to 256 MiB shows that memory does not grow with the message.

usage: compare_fragments.py [--tarnwick PATH] [--sizes 64,256] [--fragments 64]
"""
import argparse
import base64
import os
import re
import shutil
import subprocess
import sys
import tempfile
import time

HEADER = (b"From: ann@example.org\r\nSubject: big\r\nMIME-Version: 1.0\r\n"
          b"Content-Type: application/octet-stream; name=\"big.bin\"\r\n"
          b"Content-Transfer-Encoding: base64\r\n\r\n")


def timed(argv, env=None):
    """Wall seconds and peak resident KiB of one process."""
    start = time.perf_counter()
    run = subprocess.run(["/usr/bin/time", "-v", *argv], stdout=subprocess.DEVNULL,
                         stderr=subprocess.PIPE, env=env)
    seconds = time.perf_counter() - start
    peak = re.search(rb"Maximum resident set size \(kbytes\): (\d+)", run.stderr)
    return run.returncode, seconds, int(peak.group(1)) if peak else 0


def write_set(tmp, size_mib, count):
    """The unsplit message and its fragments; every fragment body ends on a line,
    so each holds whole Base64 groups."""
    line_block = base64.encodebytes(os.urandom(57 * 1024)).replace(b"\n", b"\r\n")
    blocks = size_mib * 1024 * 1024 // len(line_block)
    whole = os.path.join(tmp, "whole.eml")
    with open(whole, "wb") as f:
        f.write(HEADER)
        for _ in range(blocks):
            f.write(line_block)
    paths = []
    per = max(1, blocks // count)
    for n in range(1, count + 1):
        path = os.path.join(tmp, f"frag{n:03}.eml")
        with open(path, "wb") as f:
            f.write(f"From: ann@example.org\r\nMIME-Version: 1.0\r\nContent-Type: message/partial;"
                    f" id=\"bench@example.org\"; number={n}; total={count}\r\n\r\n".encode())
            if n == 1:
                f.write(HEADER)
            for _ in range(per if n < count else blocks - per * (count - 1)):
                f.write(line_block)
        paths.append(path)
    return whole, paths


def run_set(argv_of, paths, env=None):
    total, peak = 0.0, 0
    for path in paths:
        code, seconds, rss = timed(argv_of(path), env)
        if code != 0:
            return None, None
        total += seconds
        peak = max(peak, rss)
    return total, peak


def main():
    p = argparse.ArgumentParser()
    p.add_argument("--tarnwick", default="build/release/tools/tarnwick")
    p.add_argument("--sizes", default="64,256")
    p.add_argument("--fragments", type=int, default=64)
    a = p.parse_args()
    munpack = shutil.which("munpack")
    print(f"{'MiB':>5} {'contender':<28} {'seconds':>8} {'MiB/s':>7} {'peak MiB':>9} {'ratio':>6}")
    for size in (int(s) for s in a.sizes.split(",")):
        with tempfile.TemporaryDirectory() as tmp:
            whole, paths = write_set(tmp, size, a.fragments)
            rows = []
            for name, form in (("tarnwick extract (directory)", "extract"),
                               ("tarnwick stream", "stream")):
                out = os.path.join(tmp, form)
                os.mkdir(out)
                extra = ["--quiet"] if form == "extract" else []
                seconds, peak = run_set(lambda f: [a.tarnwick, form, f, out, *extra], paths)
                rows.append((name, seconds, peak))
                shutil.rmtree(out)
            base = None
            if munpack:
                env = dict(os.environ, TMPDIR=tmp)
                out = os.path.join(tmp, "munpack")
                os.mkdir(out)
                seconds, peak = run_set(lambda f: [munpack, "-q", "-C", out, f], paths, env)
                joined = os.path.exists(os.path.join(out, "big.bin"))
                rows.append(("munpack, fragments" if joined else
                             "munpack, fragments: not joined", seconds if joined else None, peak))
                shutil.rmtree(out)
                os.mkdir(out)
                code, seconds, peak = timed([munpack, "-q", "-C", out, whole], env)
                base = seconds if code == 0 else None
                rows.append(("munpack, unsplit message", base, peak))
            for name, seconds, peak in rows:
                rate = f"{size / seconds:7.1f}" if seconds else "      -"
                ratio = f"{seconds / base:6.2f}" if seconds and base else "     -"
                shown = f"{seconds:8.2f}" if seconds else "       -"
                print(f"{size:>5} {name:<28} {shown} {rate} {(peak or 0) / 1024:9.1f} {ratio}")
            sys.stdout.flush()
    return 0


if __name__ == "__main__":
    sys.exit(main())
