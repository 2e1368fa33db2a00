#!/usr/bin/env python3
"""Times the streaming extraction of one large single-part Base64 message
against Python's email package doing the same job (parse, decode, write the
part to a file), in the same run. Each contender is its own process, best of
--runs, wall-clock. The ratio is ours / Python: below 1 means tarnwick is
faster.

usage: compare_stream.py [--tarnwick PATH] [--size MiB] [--runs N]
"""
import argparse
import base64
import os
import subprocess
import sys
import tempfile
import time

PY_EMAIL = ("import email,sys\n"
            "m=email.message_from_binary_file(open(sys.argv[1],'rb'))\n"
            "open(sys.argv[2],'wb').write(m.get_payload(decode=True))")


def best(argv, runs):
    times = []
    for _ in range(runs):
        start = time.perf_counter()
        subprocess.run(argv, check=True, stdout=subprocess.DEVNULL)
        times.append(time.perf_counter() - start)
    return min(times)


def main():
    p = argparse.ArgumentParser()
    p.add_argument("--tarnwick", default="build/release/tools/tarnwick")
    p.add_argument("--size", type=int, default=256, help="message size in MiB")
    p.add_argument("--runs", type=int, default=3)
    a = p.parse_args()
    with tempfile.TemporaryDirectory() as tmp:
        msg = os.path.join(tmp, "m.eml")
        with open(msg, "wb") as f:
            f.write(b"From: a\r\nTo: b\r\nMIME-Version: 1.0\r\n"
                    b"Content-Type: application/octet-stream; name=\"big.bin\"\r\n"
                    b"Content-Transfer-Encoding: base64\r\n\r\n")
            chunk = os.urandom(57 * 1024)
            line_block = base64.encodebytes(chunk).replace(b"\n", b"\r\n")
            for _ in range(a.size * 1024 * 1024 // len(line_block)):
                f.write(line_block)
        out = os.path.join(tmp, "out")
        os.mkdir(out)
        ours = best([a.tarnwick, "stream", msg, out, "--path"], a.runs)
        for name in os.listdir(out):
            os.remove(os.path.join(out, name))
        py = best([sys.executable, "-c", PY_EMAIL, msg, os.path.join(tmp, "py.bin")], a.runs)
        size = os.path.getsize(msg) / 2**20
        print(f"message {size:.0f} MiB: tarnwick stream {ours:.2f} s, "
              f"python email {py:.2f} s, ratio {ours / py:.2f}")


if __name__ == "__main__":
    main()
