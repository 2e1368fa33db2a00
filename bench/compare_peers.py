#!/usr/bin/env python3
"""Times the tarnwick command against peer tools doing the same job.

For each operation every contender turns the same 64 MiB input into a file
of the same form (line-wrapped Base64, quoted-printable, uuencode, and back).
Each runs as its own process, best of --runs, wall-clock time. The ratio is
ours / fastest peer: below 1 means tarnwick is faster.

usage: compare_peers.py [--tarnwick PATH] [--size MiB] [--runs N] [--dir DIR]
"""
import argparse
import os
import random
import shutil
import subprocess
import sys
import tempfile
import time

PY = sys.executable

# Python peers: the standard library's C codecs wrapped in the loop that a
# line-oriented tool needs.
PY_B64_ENC = ("import base64,sys;open(sys.argv[2],'wb').write(base64.encodebytes("
              "open(sys.argv[1],'rb').read()))")
PY_B64_DEC = ("import binascii,sys;open(sys.argv[2],'wb').write(binascii.a2b_base64("
              "open(sys.argv[1],'rb').read()))")
PY_QP_ENC = ("import binascii,sys;open(sys.argv[2],'wb').write(binascii.b2a_qp("
             "open(sys.argv[1],'rb').read()))")
PY_QP_DEC = ("import binascii,sys;open(sys.argv[2],'wb').write(binascii.a2b_qp("
             "open(sys.argv[1],'rb').read()))")
PY_UU_ENC = ("import binascii,sys\nd=open(sys.argv[1],'rb').read()\n"
             "o=open(sys.argv[2],'wb');o.write(b'begin 644 x\\n')\n"
             "o.write(b''.join(binascii.b2a_uu(d[i:i+45],backtick=True) for i in range(0,len(d),45)))\n"
             "o.write(b'`\\nend\\n')")
PY_UU_DEC = ("import binascii,sys\nL=open(sys.argv[1],'rb').read().split(b'\\n')\n"
             "i=next(k for k,l in enumerate(L) if l.startswith(b'begin'))+1\nout=[]\n"
             "for l in L[i:]:\n"
             " if not l.strip(b'\\r') or l[0] in (32,96): break\n"
             " out.append(binascii.a2b_uu(l.rstrip(b'\\r')))\n"
             "open(sys.argv[2],'wb').write(b''.join(out))")


def best_time(argv, out, runs, stdout_to_out=False):
    best = None
    for _ in range(runs):
        if os.path.exists(out):
            os.remove(out)
        start = time.perf_counter()
        if stdout_to_out:
            with open(out, "wb") as f:
                proc = subprocess.run(argv, stdout=f, stderr=subprocess.PIPE)
        else:
            proc = subprocess.run(argv, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)
        elapsed = time.perf_counter() - start
        if proc.returncode != 0:
            raise RuntimeError(f"{argv[0]} failed: {proc.stderr.decode(errors='replace')}")
        best = elapsed if best is None else min(best, elapsed)
    return best


def make_inputs(work, size):
    rng = random.Random(1)
    binary = os.path.join(work, "binary")
    text = os.path.join(work, "text")
    with open(binary, "wb") as f:
        f.write(rng.randbytes(size))
    words = [b"the ", b"quick ", b"brown ", b"fox ", b"=", b"jumps\t", b"over ", b"caf\xe9 ",
             b"lazy ", b"dog.\r\n", b"x  \r\n"]
    chunk = b"".join(rng.choice(words) for _ in range(200000))
    with open(text, "wb") as f:
        left = size
        while left > 0:
            f.write(chunk[:left])
            left -= min(left, len(chunk))
    return binary, text


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--tarnwick", default=os.environ.get("TARNWICK", "build/tools/tarnwick"))
    ap.add_argument("--size", type=int, default=64, help="input size in MiB")
    ap.add_argument("--runs", type=int, default=5)
    ap.add_argument("--dir", default=None, help="work directory (default: a temporary one)")
    args = ap.parse_args()
    tw = os.path.abspath(args.tarnwick)
    work = tempfile.mkdtemp(prefix="tarnwick-peers-", dir=args.dir)
    try:
        binary, text = make_inputs(work, args.size << 20)
        out = os.path.join(work, "out")
        b64 = os.path.join(work, "in.b64")
        qp = os.path.join(work, "in.qp")
        uu = os.path.join(work, "in.uue")
        # The decoders all read the same encoded files, written by peers
        # where one exists, so that nobody decodes only its own form.
        subprocess.run(["base64", "-w", "76", binary], stdout=open(b64, "wb"), check=True)
        subprocess.run([PY, "-c", PY_QP_ENC, text, qp], check=True)
        have_sharutils = shutil.which("uuencode") and shutil.which("uudecode")
        if have_sharutils:
            subprocess.run(["uuencode", binary, "binary"], stdout=open(uu, "wb"), check=True)
        else:
            subprocess.run([PY, "-c", PY_UU_ENC, binary, uu], check=True)

        ops = [
            ("base64 encode", [tw, "encode", "base64", binary, out], [
                ("coreutils base64", ["base64", "-w", "76", binary], True),
                ("python base64", [PY, "-c", PY_B64_ENC, binary, out], False)]),
            ("base64 decode", [tw, "decode", "base64", b64, out], [
                ("coreutils base64", ["base64", "-d", b64], True),
                ("python binascii", [PY, "-c", PY_B64_DEC, b64, out], False)]),
            ("qp encode (text)", [tw, "encode", "qp", text, out], [
                ("python binascii", [PY, "-c", PY_QP_ENC, text, out], False)]),
            ("qp encode (binary)", [tw, "encode", "qp", binary, out], [
                ("python binascii", [PY, "-c", PY_QP_ENC, binary, out], False)]),
            ("qp decode", [tw, "decode", "qp", qp, out], [
                ("python binascii", [PY, "-c", PY_QP_DEC, qp, out], False)]),
            ("uu encode", [tw, "encode", "uu", binary, out], [
                ("python binascii", [PY, "-c", PY_UU_ENC, binary, out], False)] +
             ([("sharutils uuencode", ["uuencode", binary, "binary"], True)] if have_sharutils else [])),
            ("uu decode", [tw, "decode", "uu", uu, out], [
                ("python binascii", [PY, "-c", PY_UU_DEC, uu, out], False)] +
             ([("sharutils uudecode", ["uudecode", "-o", out, uu], False)] if have_sharutils else [])),
        ]
        print(f"input {args.size} MiB, best of {args.runs} runs, wall-clock seconds")
        print(f"{'operation':<20}{'tarnwick':>10}  {'fastest peer':<22}{'peer':>8}{'ratio':>8}")
        for name, ours_argv, peers in ops:
            ours = best_time(ours_argv, out, args.runs)
            timed = [(best_time(argv, out, args.runs, to_out), peer) for peer, argv, to_out in peers]
            peer_time, peer = min(timed)
            print(f"{name:<20}{ours:>10.3f}  {peer:<22}{peer_time:>8.3f}{ours / peer_time:>8.2f}")
    finally:
        shutil.rmtree(work, ignore_errors=True)
    return 0


if __name__ == "__main__":
    sys.exit(main())
