#!/usr/bin/env python3
"""Times `tarnwick extract` against peer tools taking apart the same message.

Two messages, written here with the standard library's codecs, CRLF lines:
  big    one text part and four attachments of 50 MiB random bytes in Base64
  many   2000 small parts: text, Base64 and quoted-printable attachments

Contenders, each as its own process, best of --runs, wall-clock time, with
the peak resident size of the process:
  tarnwick   tarnwick extract MESSAGE DIR --quiet
  munpack    munpack -q -t -C DIR MESSAGE   (Debian mpack)
  ripmime    ripmime -i MESSAGE -d DIR
  python     email.message_from_binary_file, every leaf's decoded payload
             written to a file

A peer that is not installed is left out. The ratio is tarnwick's time over
the peer's: below 1 means tarnwick is faster.

usage: extract_compare.py [--tarnwick PATH] [--runs N] [--mib N] [--dir DIR]
"""
import argparse
import base64
import binascii
import os
import random
import shutil
import subprocess
import sys
import tempfile
import time

PY = sys.executable

PY_EXTRACT = r"""
import email, os, sys
from email import policy
with open(sys.argv[1], 'rb') as f:
    message = email.message_from_binary_file(f, policy=policy.default)
for i, part in enumerate(message.walk()):
    if part.is_multipart():
        continue
    name = os.path.basename(part.get_filename() or 'part%05d' % i) or 'part%05d' % i
    with open(os.path.join(sys.argv[2], '%05d-%s' % (i, name)), 'wb') as out:
        out.write(part.get_payload(decode=True) or b'')
"""


def crlf(data):
    return data.replace(b"\n", b"\r\n")


def header(boundary, subject):
    return crlf(("From: bench@example.org\nTo: peer@example.org\nSubject: %s\n"
                 "MIME-Version: 1.0\nContent-Type: multipart/mixed; boundary=\"%s\"\n\n"
                 "This is a multipart message.\n" % (subject, boundary)).encode())


def part(boundary, ctype, cte, name, body):
    head = "\n--%s\nContent-Type: %s\n" % (boundary, ctype)
    if cte:
        head += "Content-Transfer-Encoding: %s\n" % cte
    if name:
        head += "Content-Disposition: attachment; filename=\"%s\"\n" % name
    return crlf((head + "\n").encode()) + body


def write_big(path, rng, mib, count=4):
    boundary = "big-boundary-0123456789"
    with open(path, "wb") as f:
        f.write(header(boundary, "four large attachments"))
        f.write(part(boundary, "text/plain", "", "", crlf(b"See the attachments.\n")))
        for i in range(count):
            data = rng.randbytes(mib << 20)
            f.write(part(boundary, "application/octet-stream", "base64", "big%d.bin" % i,
                         crlf(base64.encodebytes(data))))
        f.write(crlf(("\n--%s--\n" % boundary).encode()))


def write_many(path, rng, count=2000):
    boundary = "many-boundary-0123456789"
    words = [b"the", b"quick", b"brown", b"fox", b"jumps", b"over", b"lazy", b"dog", b"="]
    with open(path, "wb") as f:
        f.write(header(boundary, "2000 small parts"))
        f.write(part(boundary, "text/plain", "", "", crlf(b"Many parts follow.\n")))
        for i in range(1, count):
            kind = i % 3
            if kind == 0:
                text = b"\n".join(b" ".join(rng.choice(words) for _ in range(12))
                                  for _ in range(rng.randint(5, 40))) + b"\n"
                f.write(part(boundary, "text/plain", "", "note%04d.txt" % i,
                             crlf(text.replace(b"=", b"-"))))
            elif kind == 1:
                f.write(part(boundary, "application/octet-stream", "base64", "blob%04d.bin" % i,
                             crlf(base64.encodebytes(rng.randbytes(rng.randint(500, 8000))))))
            else:
                text = b" ".join(rng.choice(words) for _ in range(rng.randint(50, 600)))
                f.write(part(boundary, "text/plain; charset=utf-8", "quoted-printable",
                             "quoted%04d.txt" % i, crlf(binascii.b2a_qp(text) + b"\n")))
        f.write(crlf(("\n--%s--\n" % boundary).encode()))


TIME = shutil.which("time") or ("/usr/bin/time" if os.path.exists("/usr/bin/time") else None)


def run_measured(argv):
    """Runs argv; gives (seconds, peak resident KiB or 0 when unknown).

    The peak is taken by GNU time, whose own small process is the parent of the
    tool: a process forked from this interpreter would inherit its peak."""
    command = [TIME, "-f", "%M"] + argv if TIME else argv
    start = time.perf_counter()
    proc = subprocess.run(command, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)
    elapsed = time.perf_counter() - start
    if proc.returncode != 0:
        raise RuntimeError("%s failed (%d): %s" % (argv[0], proc.returncode,
                                                   proc.stderr.decode(errors="replace")))
    peak = 0
    if TIME:
        last = proc.stderr.decode(errors="replace").strip().splitlines()[-1:]
        peak = int(last[0]) if last and last[0].isdigit() else 0
    return elapsed, peak


def contenders(tarnwick):
    found = {"tarnwick": lambda m, d: [tarnwick, "extract", m, d, "--quiet"]}
    if shutil.which("munpack"):
        found["munpack"] = lambda m, d: ["munpack", "-q", "-t", "-C", d, m]
    if shutil.which("ripmime"):
        found["ripmime"] = lambda m, d: ["ripmime", "-i", m, "-d", d]
    found["python"] = lambda m, d: [PY, "-c", PY_EXTRACT, m, d]
    return found


def output_size(directory):
    return sum(os.path.getsize(os.path.join(root, f))
               for root, _, files in os.walk(directory) for f in files)


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--tarnwick", default=os.environ.get("TARNWICK", "tarnwick"))
    ap.add_argument("--runs", type=int, default=3)
    ap.add_argument("--mib", type=int, default=50, help="size of each big attachment")
    ap.add_argument("--dir", default=None, help="where to write the messages")
    args = ap.parse_args()

    work = tempfile.mkdtemp(prefix="tarnwick-extract-bench-", dir=args.dir)
    try:
        rng = random.Random(7)
        messages = {"big": os.path.join(work, "big.eml"), "many": os.path.join(work, "many.eml")}
        write_big(messages["big"], rng, args.mib)
        write_many(messages["many"], rng)
        small = os.path.join(work, "small.eml")
        write_big(small, rng, 1, count=1)
        messages_all = dict(messages, small=small)

        tools = contenders(args.tarnwick)
        results = {}
        for label, message in messages_all.items():
            for tool, argv in tools.items():
                best, peak, size = None, 0, 0
                for _ in range(args.runs if label != "small" else 1):
                    out = os.path.join(work, "out-" + tool)
                    shutil.rmtree(out, ignore_errors=True)
                    os.mkdir(out)
                    elapsed, rss = run_measured(argv(message, out))
                    best = elapsed if best is None else min(best, elapsed)
                    peak = max(peak, rss)
                    size = output_size(out)
                    shutil.rmtree(out, ignore_errors=True)
                results[(label, tool)] = (best, peak, size)

        mib = os.path.getsize(messages["big"]) / (1 << 20)
        print("message big: %.0f MiB, many: %.1f MiB, small: %.1f MiB"
              % (mib, os.path.getsize(messages["many"]) / (1 << 20),
                 os.path.getsize(small) / (1 << 20)))
        print("%-6s %-9s %9s %10s %12s %8s" % ("msg", "tool", "seconds", "peak KiB",
                                              "output MiB", "ratio"))
        for label in messages_all:
            ours = results[(label, "tarnwick")][0]
            for tool in tools:
                best, peak, size = results[(label, tool)]
                ratio = "" if tool == "tarnwick" else "%.2f" % (ours / best)
                print("%-6s %-9s %9.3f %10d %12.1f %8s" % (label, tool, best, peak,
                                                           size / (1 << 20), ratio))
        return 0
    finally:
        shutil.rmtree(work, ignore_errors=True)


if __name__ == "__main__":
    sys.exit(main())
