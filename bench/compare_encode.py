#!/usr/bin/env python3
"""Times mime_encode_HdrField (bench/field_encode_bench.cpp) beside Python's
email.header.Header(text, 'utf-8').encode() on the same UTF-8 texts, in one
run: 60 bytes, and a large text (16 MiB by default). Both make Base64
encoded words. The ratio is ours / Python's time per call: below 1 means
tarnwick is faster.

usage: compare_encode.py --bench PATH [--large MiB] [--runs N]
"""
import argparse
import json
import subprocess
import sys
import time
from email.header import Header

PIECE = "Grüße aus Köln, naïve Straße "


def mail_text(size):
    """The bench's text: the UTF-8 piece repeated and cut at `size` bytes."""
    data = (PIECE.encode() * (size // len(PIECE.encode()) + 1))[:size]
    return data.decode("utf-8", errors="ignore")


def python_time(size, runs):
    text = mail_text(size)
    calls = max(1, 20000 // max(1, size // 60)) if size < 4096 else 1
    best = None
    for _ in range(runs):
        start = time.perf_counter()
        for _ in range(calls):
            Header(text, "utf-8").encode()
        elapsed = (time.perf_counter() - start) / calls
        best = elapsed if best is None else min(best, elapsed)
    return best


def ours(bench, name):
    out = subprocess.run([bench, "--benchmark_filter=^%s$" % name, "--benchmark_format=json",
                          "--benchmark_min_time=0.5"], check=True, capture_output=True)
    run = json.loads(out.stdout)["benchmarks"][0]
    scale = {"ns": 1e-9, "us": 1e-6, "ms": 1e-3, "s": 1.0}[run["time_unit"]]
    return run["real_time"] * scale


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--bench", required=True, help="tarnwick_field_encode_bench")
    parser.add_argument("--large", type=int, default=16, help="MiB of the large text")
    parser.add_argument("--runs", type=int, default=3)
    args = parser.parse_args()
    if args.large != 16:
        print("note: the bench encodes 16 MiB; its time is scaled to %d MiB" % args.large)
    rows = [("60 bytes", "BM_EncodeB60", 60, 1.0),
            ("%d MiB" % args.large, "BM_EncodeB16M", args.large << 20, args.large / 16)]
    print("%-10s %14s %14s %8s" % ("text", "tarnwick s", "python s", "ratio"))
    for label, name, size, scale in rows:
        mine = ours(args.bench, name) * scale
        theirs = python_time(size, args.runs if size < 4096 else 1)
        print("%-10s %14.3g %14.3g %8.4f" % (label, mine, theirs, mine / theirs))
    return 0


if __name__ == "__main__":
    sys.exit(main())
