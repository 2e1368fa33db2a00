#!/usr/bin/env python3
"""Times the streaming extraction of three multipart messages against Python's
email package doing the same job (parse, write every decoded leaf to a file), in
the same run: (a) 2000 small parts, (b) a web page linking 2000 images by cid:,
(c) one large Base64 attachment. Each contender is its own process, best of
--runs, wall-clock; the ratio is ours / Python (below 1: tarnwick is faster).
Peak memory (maximum resident set) of both comes from /usr/bin/time -v.

usage: compare_walk.py [--tarnwick PATH] [--size MiB] [--runs N]
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

PY_EMAIL = ("import email,os,sys\n"
            "m=email.message_from_binary_file(open(sys.argv[1],'rb'))\n"
            "for n,p in enumerate(x for x in m.walk() if not x.is_multipart()):\n"
            "    open(os.path.join(sys.argv[2],str(n)),'wb').write(p.get_payload(decode=True) or b'')")


def small_parts(f, count=2000):
    f.write(b"From: a\r\nMIME-Version: 1.0\r\nContent-Type: multipart/mixed; boundary=b\r\n\r\n")
    for n in range(count):
        f.write(b"--b\r\nContent-Type: text/plain\r\n\r\nsmall part %d\r\nsecond line\r\n" % n)
    f.write(b"--b--\r\n")


def page_with_images(f, count=2000):
    f.write(b"From: a\r\nMIME-Version: 1.0\r\nContent-Type: multipart/related; boundary=r\r\n\r\n"
            b"--r\r\nContent-Type: text/html\r\n\r\n")
    for n in range(count):
        f.write(b'<p><img src="cid:i%d@x"></p>\r\n' % n)
    image = base64.encodebytes(os.urandom(600)).replace(b"\n", b"\r\n")
    for n in range(count):
        f.write(b"--r\r\nContent-Type: image/gif\r\nContent-ID: <i%d@x>\r\n"
                b"Content-Transfer-Encoding: base64\r\n\r\n" % n + image)
    f.write(b"--r--\r\n")


def large_attachment(f, mib):
    f.write(b"From: a\r\nMIME-Version: 1.0\r\nContent-Type: multipart/mixed; boundary=b\r\n\r\n"
            b"--b\r\nContent-Type: text/plain\r\n\r\nsee the attachment\r\n"
            b"--b\r\nContent-Type: application/octet-stream; name=\"big.bin\"\r\n"
            b"Content-Transfer-Encoding: base64\r\n\r\n")
    block = base64.encodebytes(os.urandom(57 * 1024)).replace(b"\n", b"\r\n")
    for _ in range(mib * 1024 * 1024 // len(block)):
        f.write(block)
    f.write(b"--b--\r\n")


def timed(argv, out, runs):
    """Best wall-clock time of `runs` and the peak resident set in KiB."""
    best, peak = float("inf"), 0
    for _ in range(runs):
        shutil.rmtree(out, ignore_errors=True)
        os.mkdir(out)
        start = time.perf_counter()
        run = subprocess.run(["/usr/bin/time", "-v"] + argv, check=True,
                             stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)
        best = min(best, time.perf_counter() - start)
        peak = max(peak, int(re.search(rb"Maximum resident set size \(kbytes\): (\d+)",
                                       run.stderr).group(1)))
    return best, peak


def main():
    p = argparse.ArgumentParser()
    p.add_argument("--tarnwick", default="build/release/tools/tarnwick")
    p.add_argument("--size", type=int, default=200, help="attachment size in MiB")
    p.add_argument("--runs", type=int, default=3)
    a = p.parse_args()
    cases = [("(a) 2000 small parts", small_parts),
             ("(b) page with 2000 cid: images", page_with_images),
             (f"(c) {a.size} MiB Base64 attachment", lambda f: large_attachment(f, a.size)),
             ("(c') 1 MiB Base64 attachment", lambda f: large_attachment(f, 1))]
    with tempfile.TemporaryDirectory() as tmp:
        out = os.path.join(tmp, "out")
        for name, make in cases:
            msg = os.path.join(tmp, "m.eml")
            with open(msg, "wb") as f:
                make(f)
            ours, our_peak = timed([a.tarnwick, "stream", msg, out, "--path"], out, a.runs)
            py, py_peak = timed([sys.executable, "-c", PY_EMAIL, msg, out], out, a.runs)
            print(f"{name}: tarnwick {ours:.2f} s, {our_peak / 1024:.1f} MiB peak; "
                  f"python email {py:.2f} s, {py_peak / 1024:.1f} MiB peak; "
                  f"ratio {ours / py:.2f}")


if __name__ == "__main__":
    main()
