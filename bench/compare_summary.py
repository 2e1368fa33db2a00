#!/usr/bin/env python3
"""Times the richer end call against the plain one, and the header stage
against Python's BytesHeaderParser, in the same run.

Two messages: a 1 MiB header of folded Received: lines with a tiny body, and
the same header in front of a Base64 attachment of --size MiB. Each contender
is its own process (best of --runs, wall-clock); the peak resident size of
each is shown too, so the big message can be seen to peak like the small one.
`tarnwick stream MSG --path` ends with mime_extract_end, `tarnwick stream
--summary MSG` with mime_extract_end_ex; both run without a directory.

usage: compare_summary.py [--tarnwick PATH] [--size MiB] [--runs N]
"""
import argparse
import base64
import os
import subprocess
import sys
import tempfile
import time

PY_HEADER = ("import sys\nfrom email.parser import BytesHeaderParser\n"
             "m=BytesHeaderParser().parse(open(sys.argv[1],'rb'))\n"
             "r=m.get_all('Received'); print(len(r), m['X-Mailer'], m['Date'])")


def best(argv, runs):
    """(seconds, peak KiB) of the fastest of `runs` runs."""
    results = []
    for _ in range(runs):
        start = time.perf_counter()
        proc = subprocess.Popen(argv, stdout=subprocess.DEVNULL)
        _, status, usage = os.wait4(proc.pid, 0)
        if status != 0:
            sys.exit(f"{argv} failed: {status}")
        results.append((time.perf_counter() - start, usage.ru_maxrss))
    return min(results)


def header(size):
    lines = [b"From: a@example.org\r\nTo: b@example.org\r\nSubject: Returned mail: x\r\n"
             b"X-Mailer: bench 1.0\r\nDate: Mon, 1 Jan 1996 12:00:00 GMT\r\n"]
    n = 0
    while sum(map(len, lines)) < size:
        lines.append(b"Received: from relay%d.example.org by mx%d.example.net with ESMTP\r\n"
                     b"\tid <%d@mx%d>; Mon, 1 Jan 1996 12:%02d:00 +0100\r\n" % (n, n, n, n, n % 60))
        n += 1
    return b"".join(lines) + b"MIME-Version: 1.0\r\n"


def main():
    p = argparse.ArgumentParser()
    p.add_argument("--tarnwick", default="build/release/tools/tarnwick")
    p.add_argument("--size", type=int, default=100, help="attachment size in MiB")
    p.add_argument("--runs", type=int, default=3)
    a = p.parse_args()
    head = header(1 << 20)
    with tempfile.TemporaryDirectory() as tmp:
        small, big = os.path.join(tmp, "small.eml"), os.path.join(tmp, "big.eml")
        with open(small, "wb") as f:
            f.write(head + b"Content-Type: text/plain\r\n\r\nbody\r\n")
        with open(big, "wb") as f:
            f.write(head + b"Content-Type: application/octet-stream; name=\"big.bin\"\r\n"
                           b"Content-Transfer-Encoding: base64\r\n\r\n")
            block = base64.encodebytes(os.urandom(57 * 1024)).replace(b"\n", b"\r\n")
            for _ in range(a.size * 1024 * 1024 // (57 * 1024)):
                f.write(block)
        for name, msg in (("1 MiB header", small), (f"header + {a.size} MiB", big)):
            end = best([a.tarnwick, "stream", msg, "--path"], a.runs)
            ex = best([a.tarnwick, "stream", "--summary", msg], a.runs)
            line = (f"{name}: end {end[0]:.3f} s ({end[1] // 1024} MiB peak), "
                    f"end_ex {ex[0]:.3f} s ({ex[1] // 1024} MiB peak), "
                    f"end_ex/end {ex[0] / end[0]:.2f}")
            if msg == small:
                py = best([sys.executable, "-c", PY_HEADER, msg], a.runs)
                line += (f"; python BytesHeaderParser {py[0]:.3f} s, "
                         f"end_ex/python {ex[0] / py[0]:.2f}")
            print(line)


if __name__ == "__main__":
    main()
