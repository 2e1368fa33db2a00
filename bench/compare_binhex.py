#!/usr/bin/env python3
"""Times `tarnwick encode/decode binhex` against peers on the same bytes.

Peers: macutils `binhex -d` / `hexbin -d`, Perl's Convert::BinHex (where the
module is installed), and, as a yardstick, tarnwick's own Base64 on the same
input. Each contender runs as its own process, best of --runs, wall-clock
time. The ratio is ours / fastest BinHex peer: below 1 means tarnwick is
faster. With --memory the peak resident size of our two commands is printed
for 1/8, 1/2 and the whole input (from /usr/bin/time -v), which stays flat.

usage: compare_binhex.py [--tarnwick PATH] [--size MiB] [--runs N] [--memory]
"""
import argparse
import os
import random
import shutil
import subprocess
import sys
import tempfile
import time

PERL_ENC = ("use Convert::BinHex; my $h = Convert::BinHex->new; $h->filename('x');"
            "$h->data(Path => $ARGV[0]); open(my $o, '>', $ARGV[1]) or die; $h->encode($o);")
PERL_DEC = ("use Convert::BinHex; my $h = Convert::BinHex->open(Expr => '<' . $ARGV[0]);"
            "$h->read_header; open(my $o, '>', $ARGV[1]) or die; binmode $o;"
            "while (defined(my $d = $h->read_data(65536))) { print $o $d }")


def best_time(argv, out, runs, cwd=None, stdout_to_out=False):
    best = None
    for _ in range(runs):
        for leftover in (out, out + ".rsrc"):
            if os.path.exists(leftover):
                os.remove(leftover)
        start = time.perf_counter()
        with open(out if stdout_to_out else os.devnull, "wb") as sink:
            proc = subprocess.run(argv, stdout=sink, stderr=subprocess.PIPE, cwd=cwd)
        elapsed = time.perf_counter() - start
        if proc.returncode != 0:
            raise RuntimeError(f"{argv[0]} failed: {proc.stderr.decode(errors='replace')}")
        best = elapsed if best is None else min(best, elapsed)
    return best


def peak_kib(argv):
    run = subprocess.run(["/usr/bin/time", "-v"] + argv, capture_output=True, check=True)
    for line in run.stderr.decode().splitlines():
        if "Maximum resident set size" in line:
            return int(line.split(":")[1])
    return -1


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--tarnwick", default=os.environ.get("TARNWICK", "build/tools/tarnwick"))
    ap.add_argument("--size", type=int, default=64, help="input size in MiB")
    ap.add_argument("--runs", type=int, default=3)
    ap.add_argument("--memory", action="store_true")
    args = ap.parse_args()
    tw = os.path.abspath(args.tarnwick)
    work = tempfile.mkdtemp(prefix="tarnwick-hqx-peers-")
    try:
        rng = random.Random(1)
        data = os.path.join(work, "data")
        with open(data, "wb") as f:
            f.write(rng.randbytes(args.size << 20))
        out, hqx, b64 = (os.path.join(work, n) for n in ("out", "in.hqx", "in.b64"))
        # Every decoder reads macutils' block, with the banner our decoder
        # insists on; ours gets it too, so nobody reads only its own form.
        theirs = subprocess.run(["binhex", "-d", "data"], cwd=work, capture_output=True,
                                check=True).stdout
        with open(hqx, "wb") as f:
            f.write(b"(This file must be converted with BinHex 4.0)" + theirs[theirs.index(b"\n"):])
        subprocess.run([tw, "encode", "base64", data, b64], check=True)
        perl = subprocess.run(["perl", "-MConvert::BinHex", "-e", "1"]).returncode == 0

        ops = [
            ("binhex encode", [tw, "encode", "binhex", data, out],
             [("macutils binhex", ["binhex", "-d", "data"], True)] +
             ([("Convert::BinHex", ["perl", "-e", PERL_ENC, data, out], False)] if perl else []),
             [tw, "encode", "base64", data, out]),
            ("binhex decode", [tw, "decode", "binhex", hqx, out],
             [("macutils hexbin", ["hexbin", "-d", "-n", "out", "in.hqx"], False)] +
             ([("Convert::BinHex", ["perl", "-e", PERL_DEC, hqx, out], False)] if perl else []),
             [tw, "decode", "base64", b64, out]),
        ]
        print(f"input {args.size} MiB random, best of {args.runs} runs, wall-clock seconds")
        print(f"{'operation':<15}{'tarnwick':>9}  {'fastest peer':<17}{'peer':>8}{'ratio':>7}"
              f"{'our base64':>12}")
        for name, ours_argv, peers, base64_argv in ops:
            ours = best_time(ours_argv, out, args.runs)
            timed = [(best_time(argv, out if to_out else os.path.join(work, "out.data"),
                                args.runs, cwd=work, stdout_to_out=to_out), peer)
                     for peer, argv, to_out in peers]
            for t, peer in sorted(timed):
                print(f"{'':<15}{'':>9}  {peer:<17}{t:>8.3f}")
            peer_time, peer = min(timed)
            b64_time = best_time(base64_argv, out, args.runs)
            print(f"{name:<15}{ours:>9.3f}  {peer:<17}{peer_time:>8.3f}{ours / peer_time:>7.2f}"
                  f"{b64_time:>12.3f}")
        if args.memory:
            for fraction in (8, 2, 1):
                part = os.path.join(work, f"part{fraction}")
                with open(data, "rb") as src, open(part, "wb") as dst:
                    dst.write(src.read((args.size << 20) // fraction))
                enc = os.path.join(work, f"part{fraction}.hqx")
                e = peak_kib([tw, "encode", "binhex", part, enc])
                d = peak_kib([tw, "decode", "binhex", enc, os.path.join(work, f"back{fraction}")])
                print(f"peak RSS, {(args.size << 20) // fraction >> 20} MiB: encode {e} KiB, "
                      f"decode {d} KiB")
    finally:
        shutil.rmtree(work, ignore_errors=True)
    return 0


if __name__ == "__main__":
    sys.exit(main())
