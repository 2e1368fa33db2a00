#!/usr/bin/env python3
"""`tarnwick extract` against Python's email package.

1. Messages that Python composes (attachments of random bytes and of text in
   Base64 and quoted-printable, a nested multipart/alternative, file names with
   spaces and with RFC 2047 words) extract into files equal to the payloads
   that Python decodes from the same message, under the names Python reads.
2. A corpus of messages nobody here wrote (the samples of Python's own email
   tests when they are installed, and examples after the MIME RFCs) extracts
   without a crash, a sanitizer report, or a file outside the directory.
"""
import email
import email.header
import email.utils
import glob
import os
import random
import subprocess
import sys
import tempfile
from email import policy
from email.message import EmailMessage
from email.mime.application import MIMEApplication
from email.mime.multipart import MIMEMultipart
from email.mime.text import MIMEText

CLI = os.environ.get("TARNWICK")
HERE = os.path.dirname(os.path.abspath(__file__))
FAILURES = []


def check(condition, what):
    if not condition:
        FAILURES.append(what)
        print("FAIL:", what)


def run_extract(message, directory):
    """Runs the command; gives (exit code, result line, [(level, type, path)], stderr)."""
    env = dict(os.environ)
    # A sanitizer report must not pass for the plain failure exit code 1.
    env["ASAN_OPTIONS"] = env.get("ASAN_OPTIONS", "") + ":exitcode=86"
    env["UBSAN_OPTIONS"] = "halt_on_error=1:print_stacktrace=1:exitcode=87"
    done = subprocess.run([CLI, "extract", message, directory], capture_output=True, env=env,
                          timeout=120)
    lines = done.stdout.split(b"\n")
    reports, result = [], None
    for line in lines:
        if line.startswith(b"result "):
            result = int(line.split()[1])
        elif line.startswith((b"fragment stored: ", b"set ")):
            continue  # what the command says of message/partial sets
        elif line:
            level, ctype, path = line.split(b" ", 2)
            reports.append((int(level), int(ctype), os.fsdecode(path)))
    return done.returncode, result, reports, done.stderr.decode("utf-8", "replace")


def leaves(message, depth=0):
    """The parts with a body, each with the number of multiparts around it."""
    if not message.is_multipart():
        return [(message, depth)]
    found = []
    for part in message.get_payload():
        found += leaves(part, depth + 1)
    return found


def expected_name(part):
    """The file name as bytes, its encoded words decoded but left in their charset:
    nothing converts between character sets. `part` is read with compat32, which
    hands over parameters as they stand."""
    raw = part.get_param("filename", header="content-disposition") or part.get_param("name")
    if raw is None:
        return None
    if isinstance(raw, tuple):
        raw = email.utils.collapse_rfc2231_value(raw)
    pieces = []
    for text, charset in email.header.decode_header(raw):
        pieces.append(text if isinstance(text, bytes) else text.encode(charset or "utf-8"))
    return b"".join(pieces)


# ---- 1. Messages made by Python ---------------------------------------------------------

def python_messages(rng):
    def blob(n):
        return bytes(rng.getrandbits(8) for _ in range(n))

    text = "First line\nsecond line with = and trailing space \nthird\n" * 20

    mixed = EmailMessage()
    mixed["From"], mixed["To"], mixed["Subject"] = "a@example.org", "b@example.org", "mixed"
    mixed.set_content("The text of the message.\nSecond line.\n")
    mixed.add_attachment(blob(30000), maintype="application", subtype="octet-stream",
                         filename="with spaces.bin")
    mixed.add_attachment(text, subtype="plain", cte="quoted-printable", filename="notes.txt")
    mixed.add_attachment(blob(5000), maintype="application", subtype="octet-stream",
                         cte="quoted-printable", filename="binary qp.dat")
    mixed.add_attachment(text.encode(), maintype="text", subtype="csv", cte="base64",
                         filename="table.csv")

    # The email package writes a non-ASCII name in the RFC 2231 form; older
    # mailers write RFC 2047 words, which only the compat32 classes keep.
    words = MIMEMultipart()
    words["Subject"] = "encoded words"
    words.attach(MIMEText("Names in encoded words.\n"))
    for name, data in (("=?utf-8?q?caf=C3=A9=20menu.csv?=", text.encode()),
                       ("=?iso-8859-1?b?culzdW3pLnppcA==?=", blob(999))):
        attachment = MIMEApplication(data)
        attachment.add_header("Content-Disposition", "attachment", filename=name)
        words.attach(attachment)

    nested = EmailMessage()
    nested["From"], nested["To"], nested["Subject"] = "a@example.org", "b@example.org", "nested"
    nested.set_content("plain version\nof the text\n", cte="quoted-printable")
    nested.add_alternative("<p>html version</p>\n", subtype="html", cte="base64")
    nested.make_mixed()
    nested.add_attachment(blob(70000), maintype="image", subtype="png", filename="picture.png")

    first_attachment = EmailMessage()
    first_attachment["Subject"] = "attachment first"
    first_attachment["MIME-Version"] = "1.0"
    first_attachment.make_mixed()
    first_attachment.add_attachment(blob(4096), maintype="image", subtype="gif",
                                    filename="first.gif")
    first_attachment.add_attachment("closing text\n", cte="quoted-printable")

    single = EmailMessage()
    single["Subject"] = "single part"
    single.set_content(blob(12345), maintype="application", subtype="pdf", filename="doc.pdf")
    return {"mixed": mixed, "words": words, "nested": nested,
            "first_attachment": first_attachment, "single": single}


def check_against_python(work, name, message):
    data = message.as_bytes(policy=message.policy.clone(linesep="\r\n"))
    path = os.path.join(work, name + ".eml")
    with open(path, "wb") as f:
        f.write(data)
    out = os.path.join(work, name)
    os.mkdir(out)
    code, result, reports, err = run_extract(path, out)
    check(code == 0 and result == 1, f"{name}: extract gave {code} {result} {err}")
    parsed = email.message_from_bytes(data, policy=policy.default)
    parts = leaves(parsed)
    raw_parts = [p for p, _ in leaves(email.message_from_bytes(data, policy=policy.compat32))]
    files = [r for r in reports if not r[2].endswith(".HDR")]
    header_file = [r for r in reports if r[2].endswith(".HDR")]
    check(len(header_file) == 1, f"{name}: one .HDR file")
    if len(files) == len(parts) - 1:
        # The first part is plain text, and went behind the header.
        first = parts.pop(0)[0].get_payload(decode=True)
        raw_parts.pop(0)
        with open(header_file[0][2], "rb") as f:
            held = f.read()
        check(held.endswith(first) or held.endswith(first + b"\r\n"),
              f"{name}: the text of the first part follows the header")
    check(len(files) == len(parts), f"{name}: {len(files)} files for {len(parts)} parts")
    for (level, ctype, got_path), (part, depth), raw in zip(files, parts, raw_parts):
        payload = part.get_payload(decode=True)
        with open(got_path, "rb") as f:
            got = f.read()
        cte = part.get("Content-Transfer-Encoding", "7bit").lower()
        if cte in ("base64", "quoted-printable"):
            check(got == payload, f"{name}: {got_path} equals Python's payload ({cte})")
        else:
            # Unencoded, the line end ahead of the delimiter stays in the file.
            check(got == payload + b"\r\n", f"{name}: {got_path} equals the 7bit payload")
        want = expected_name(raw)
        if want is not None:
            check(os.fsencode(os.path.basename(got_path)) == want,
                  f"{name}: file name {os.path.basename(got_path)!r}, Python reads {want!r}")
        check(level == depth, f"{name}: level {level} of {got_path}, depth {depth}")


# ---- 2. A corpus nobody here wrote ------------------------------------------------------

def corpus():
    found = sorted(glob.glob("/usr/lib/python3*/test/test_email/data/msg_*.txt"))
    found += sorted(glob.glob(os.path.join(sys.prefix, "lib/python3*/test/test_email/data/msg_*.txt")))
    found += sorted(glob.glob(os.path.join(HERE, "extract_corpus", "*.eml")))
    return found


def all_entries(top):
    names = set()
    for root, dirs, files in os.walk(top):
        for entry in dirs + files:
            names.add(os.path.relpath(os.path.join(root, entry), top))
    return names


def check_corpus(work):
    messages = corpus()
    check(len(messages) >= 5, "a corpus to run")
    for i, source in enumerate(messages):
        with open(source, "rb") as f:
            data = f.read()
        # Each message as it is and with CRLF line ends, as it travels.
        for form, body in (("lf", data), ("crlf", data.replace(b"\r\n", b"\n").replace(b"\n", b"\r\n"))):
            case = os.path.join(work, f"corpus{i}{form}")
            inner = os.path.join(case, "a", "out")
            os.makedirs(inner)
            message = os.path.join(case, "message.eml")
            with open(message, "wb") as f:
                f.write(body)
            before = all_entries(case)
            code, result, reports, err = run_extract(message, inner)
            what = f"{os.path.basename(source)} ({form})"
            check(code in (0, 1) and result in (0, 1, 21), f"{what}: exit {code}, result {result}")
            check("Sanitizer" not in err and "runtime error" not in err, f"{what}: {err}")
            outside = {e for e in all_entries(case) - before if not e.startswith("a/out/")}
            check(not outside, f"{what}: files outside the directory: {sorted(outside)}")
            for _, _, path in reports:
                check(os.path.dirname(path) == inner and os.path.exists(path),
                      f"{what}: reported {path}")
            left = os.listdir(inner)
            check("temp.c" not in left, f"{what}: the work file stays")


def main():
    if not CLI:
        print("TARNWICK is not set; nothing to check")
        return 0
    rng = random.Random(2024)
    with tempfile.TemporaryDirectory() as work:
        for name, message in python_messages(rng).items():
            check_against_python(work, name, message)
        check_corpus(work)
    if FAILURES:
        print(f"{len(FAILURES)} failure(s)")
        return 1
    print("extract: all checks passed")
    return 0


if __name__ == "__main__":
    sys.exit(main())
