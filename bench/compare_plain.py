#!/usr/bin/env python3
"""Times plain (non-MIME) messages against sharutils on the same data.

One attachment of --mib MiB random bytes behind a short text:
  compose   tarnwick compose --plain --attach FILE   vs  uuencode FILE NAME > OUT
  extract   tarnwick extract MESSAGE DIR --quiet     vs  uudecode -o OUT BLOCK
  stream    tarnwick stream MESSAGE DIR              vs  uudecode -o OUT BLOCK

Each contender is its own process, best of --runs, wall-clock time, with the
peak resident size from /usr/bin/time. The ratio is tarnwick's time over the
peer's: below 1 means tarnwick is faster. The same runs at 1 MiB show that the
peak size does not grow with the message.

usage: compare_plain.py [--tarnwick PATH] [--runs N] [--mib N] [--dir DIR]
"""
import argparse
import os
import shutil
import subprocess
import sys
import tempfile


def timed(command, runs, stdout=None):
    """Best wall-clock seconds and the peak resident KiB of `command`."""
    best, peak = None, 0
    for _ in range(runs):
        out = open(stdout, "wb") if stdout else subprocess.DEVNULL
        run = subprocess.run(["/usr/bin/time", "-f", "%e %M"] + command, stdout=out,
                             stderr=subprocess.PIPE, check=True)
        if stdout:
            out.close()
        seconds, kib = run.stderr.decode().strip().splitlines()[-1].split()
        best = float(seconds) if best is None else min(best, float(seconds))
        peak = max(peak, int(kib))
    return max(best, 0.01), peak


def measure(tarnwick, work, mib, runs):
    data = os.path.join(work, "big file.bin")
    with open(data, "wb") as f:
        for _ in range(mib):
            f.write(os.urandom(1 << 20))
    text = os.path.join(work, "text.txt")
    with open(text, "wb") as f:
        f.write(b"Hello,\nthe file is attached.\n")
    message, block = os.path.join(work, "m.eml"), os.path.join(work, "block.uue")
    rows = []

    def compose():
        if os.path.exists(message):
            os.remove(message)
        return [tarnwick, "compose", "--plain", "--from", "B", "--to", "A", "--text", text,
                "--attach", data, "-o", message]

    best, peak = None, 0
    for _ in range(runs):  # the message is appended to: each run starts afresh
        t, p = timed(compose(), 1)
        best, peak = t if best is None else min(best, t), max(peak, p)
    rows.append(("compose", (best, peak), timed(["uuencode", data, "big file.bin"], runs, block)))

    def fresh(name):
        path = os.path.join(work, name)
        shutil.rmtree(path, ignore_errors=True)
        os.mkdir(path)
        return path

    decoded = os.path.join(work, "decoded.bin")
    uudecode = timed(["uudecode", "-o", decoded, block], runs)
    extract_dir, stream_dir = fresh("x"), fresh("s")
    rows.append(("extract", timed([tarnwick, "extract", message, extract_dir, "--quiet"], runs), uudecode))
    rows.append(("stream", timed([tarnwick, "stream", message, stream_dir], runs), uudecode))
    for path in (data, message, block, decoded):
        os.remove(path)
    shutil.rmtree(extract_dir)
    shutil.rmtree(stream_dir)
    return rows


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--tarnwick", default="build/tools/tarnwick")
    parser.add_argument("--runs", type=int, default=3)
    parser.add_argument("--mib", type=int, default=256)
    parser.add_argument("--dir", default=None)
    args = parser.parse_args()
    for tool in ("uuencode", "uudecode"):
        if shutil.which(tool) is None:
            sys.exit(f"{tool} (Debian sharutils) is not installed")
    with tempfile.TemporaryDirectory(dir=args.dir) as work:
        # Its spool and work files stay in the scratch directory.
        os.environ["XDG_STATE_HOME"] = work
        small = {name: t[1] for name, t, _ in measure(args.tarnwick, work, 1, 1)}
        print(f"{'step':8} {'MiB':>5} {'tarnwick s':>10} {'sharutils s':>11} {'ratio':>6} "
              f"{'peak KiB':>9} {'at 1 MiB':>9}")
        for name, (t, peak), (p, _) in measure(args.tarnwick, work, args.mib, args.runs):
            print(f"{name:8} {args.mib:5d} {t:10.2f} {p:11.2f} {t / p:6.2f} {peak:9d} {small[name]:9d}")


if __name__ == "__main__":
    main()
