"""Compose with the command and with Python's email, then take every message
apart with `extract`, `stream DIR` (paths), `stream` (bytes) and
`stream --summary`: each attachment must come back byte for byte wherever it is
decoded, and the summary must say what the header lines say."""
import email.utils
import json
import os
import random
import subprocess
import sys
import tempfile
from email.message import EmailMessage

CLI = os.environ["TARNWICK"]
failures = []


def run(*args):
    done = subprocess.run([CLI, *args], capture_output=True, timeout=120)
    if done.returncode != 0:
        failures.append(f"{args}: exit {done.returncode}: {done.stderr[-300:]!r}")
    return done.stdout


def contents(directory):
    found = []
    for name in os.listdir(directory):
        with open(os.path.join(directory, name), "rb") as f:
            found.append(f.read())
    return found


def check(what, message, expected, stream_only=()):
    """`expected`: attachments every form gives back; `stream_only`: those only
    the streaming form takes out (the directory form keeps an embedded
    message whole and a BinHex block encoded)."""
    work = os.path.dirname(message)
    tag = os.path.basename(message)
    extracted, streamed = os.path.join(work, tag + ".x"), os.path.join(work, tag + ".s")
    os.mkdir(extracted)
    os.mkdir(streamed)
    if not run("extract", message, extracted).rstrip().endswith(b"result 1"):
        failures.append(f"{what}: extract did not end with result 1")
    if b"result: 1" not in run("stream", message, streamed):
        failures.append(f"{what}: stream DIR did not end with result 1")
    bytes_mode = run("stream", message)
    for form, files in (("extract", contents(extracted)), ("stream", contents(streamed))):
        for i, data in enumerate(expected + (list(stream_only) if form == "stream" else [])):
            if data not in files:
                failures.append(f"{what}: {form} lost attachment {i} ({len(data)} bytes)")
    for i, data in enumerate(expected + list(stream_only)):
        if f"{len(data)} bytes".encode() not in bytes_mode:
            failures.append(f"{what}: bytes mode lost attachment {i}")
    return json.loads(run("stream", "--summary", message))


def main():
    rng = random.Random(5)
    work = tempfile.mkdtemp()
    path = lambda name: os.path.join(work, name)
    blob, text = rng.randbytes(5000), b"one line\nand another\n"
    for name, data in (("a b.bin", blob), ("t.txt", text), ("p.html", b"<b>hi</b>\n")):
        with open(path(name), "wb") as f:
            f.write(data)

    # MIME through create_ex_message: encoded subject and display name, an
    # HTML alternative, a binary attachment.
    run("compose", "--from", "Jürgen <j@x.org>", "--to", "a@b.org", "--subject", "Grüße",
        "--text", path("t.txt"), "--html", path("p.html"), "--attach", path("a b.bin"),
        "-o", path("mime.eml"))
    summary = check("mime", path("mime.eml"), [blob])
    if summary["result"] != 1 or summary["signed_flag"] or summary["x_mailer"]:
        failures.append(f"mime: summary {summary}")

    # The older form: uuencoded attachments under their names.
    run("compose", "--plain", "--from", "a@x.org", "--to", "b@y.org", "--subject", "old",
        "--text", path("t.txt"), "--attach", path("a b.bin"), "--attach", path("p.html"),
        "-o", path("plain.eml"))
    check("plain", path("plain.eml"), [blob, b"<b>hi</b>\n"])

    # Python's email: BinHex, an embedded message, a web page, summary lines.
    fork = rng.randbytes(700)
    with open(path("fork"), "wb") as f:
        f.write(fork)
    run("encode", "binhex", path("fork"), path("fork.hqx"))
    inner = EmailMessage()
    inner["Subject"] = "inner"
    inner.set_content("inner text\n")
    inner.add_attachment(blob[:999], maintype="application", subtype="zip", filename="in.zip")
    page = EmailMessage()
    page.set_content("<img src=\"cid:pic\">\n", subtype="html")
    page.add_related(blob[:300], maintype="image", subtype="gif", cid="<pic>")
    outer = EmailMessage()
    date = "Tue, 3 Nov 2026 10:20:30 +0100"
    for field, value in (("From", "a@x.org"), ("To", "b@y.org"), ("Date", date),
                         ("Subject", "Returned mail: see transcript"),
                         ("X-Mailer", "Python email"), ("X-Priority", "1 (Highest)"),
                         ("Encrypted", "PGP")):
        outer[field] = value
    outer.set_content("see the parts\n")
    outer.add_attachment(inner)
    outer.add_attachment(page)
    # BinHex travels as the text it is: a Base64 line would not make the
    # decoder read anything but BinHex.
    binhex = EmailMessage()
    binhex["Content-Type"] = "application/mac-binhex40"
    binhex["Content-Disposition"] = 'attachment; filename="fork.hqx"'
    with open(path("fork.hqx"), "rb") as f:
        binhex.set_payload(f.read().decode("ascii").replace("\r\n", "\n"))
    outer.attach(binhex)
    with open(path("python.eml"), "wb") as f:
        f.write(outer.as_bytes())
    summary = check("python", path("python.eml"), [], [blob[:999], blob[:300], fork])
    expected = {"x_mailer": "Python email", "priority": "1 (", "encrypted_flag": True,
                "returned_flag": True, "returned_subject": "Returned mail: see transcript",
                "date_value": int(email.utils.parsedate_to_datetime(date).timestamp())}
    for field, value in expected.items():
        if summary.get(field) != value:
            failures.append(f"python: summary {field} {summary.get(field)!r} != {value!r}")

    for failure in failures:
        print("FAIL:", failure)
    print(f"end to end: {len(failures)} failures")
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
