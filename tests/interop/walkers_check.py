#!/usr/bin/env python3
"""Multipart messages made by Python's email package go through `tarnwick stream`
and `tarnwick webpage`: each file must hold Python's decoded payload, each web page
Python's HTML with its links replaced by the names delivered, and each local link
of a page must name a file of the directory."""
import os
import random
import re
import subprocess
import sys
import tempfile
from email import message_from_bytes, policy
from email.message import EmailMessage

LINK = re.compile(rb'(src|background|code)\s*=\s*"([^"]*)"', re.I)


def images(rng, n):
    return [rng.randbytes(rng.choice([0, 1, 57, 300, 5000])) for _ in range(n)]


def page(links):
    return "".join(f'<p><img src="{link}"></p>\n' for link in links) + "<p>end</p>\n"


def alternative_with_page(rng):
    msg = EmailMessage()
    msg.set_content("plain text\n")
    msg.add_alternative(page(["cid:a@x", "cid:b@x", "cid:a@x"]), subtype="html")
    for cid, data in zip(["a@x", "b@x"], images(rng, 2)):
        msg.get_payload()[1].add_related(data, "image", "gif", cid=f"<{cid}>")
    return msg


def mixed_with_everything(rng):
    inner, embedded, related, msg = (EmailMessage() for _ in range(4))
    inner.set_content("inner one\n")
    inner.add_attachment(rng.randbytes(999), "application", "octet-stream", filename="one.bin")
    embedded.set_content("embedded text\n")
    related.set_content(page(["cid:i@x"]), subtype="html")
    related.add_related(images(rng, 1)[0], "image", "jpeg", cid="<i@x>")
    msg.set_content("outer text\n")
    for part in (inner, embedded, related):
        msg.add_attachment(part)
    msg.add_attachment(rng.randbytes(4000), "application", "octet-stream", filename="two.bin")
    # add_attachment wraps messages as message/rfc822; these two are wanted as multiparts.
    msg.get_payload()[1], msg.get_payload()[3] = inner, related
    return msg


def mht_page(rng):
    base = "http://example.com/site/"
    msg = EmailMessage()
    msg.set_content(f'<body background="{base}img/b.gif">\n<img src="img/a.gif">'
                    '<IMG SRC="IMG/A.GIF">\n<img src="http://elsewhere.example/x.gif">\n',
                    subtype="html")
    for data, location in zip(images(rng, 2), ["img/a.gif", base + "img/b.gif"]):
        msg.add_related(data, "image", "gif")
        msg.get_payload()[-1]["Content-Location"] = location
    msg["Content-Location"] = base
    return msg


def leaves(msg):
    if msg.is_multipart():
        for part in msg.get_payload():
            yield from leaves(part)
    else:
        yield msg


def groups(msg):
    if msg.get_content_type() == "multipart/related":
        yield msg
    for part in msg.get_payload() if msg.is_multipart() else []:
        yield from groups(part)


def same_body(ours, theirs):
    # An unencoded body may keep the line end that stands before its delimiter.
    return ours in (theirs, theirs + b"\r\n")


def resolve(group, value):
    """The part of a related group that a link value names."""
    base = (group["Content-Location"] or "").strip("<>")
    full = lambda v: (v if not base or v.lower().startswith("http://") else base + v).lower()
    for part in list(leaves(group))[1:]:
        if value.lower().startswith("cid:"):
            if (part["Content-ID"] or "").strip("<>").lower() == value[4:].lower():
                return part
        elif full(part["Content-Location"] or "") == full(value):
            return part
    return None


def check(tool, msg, tmp, n):
    path, out = os.path.join(tmp, f"m{n}.eml"), os.path.join(tmp, f"out{n}")
    with open(path, "wb") as f:
        f.write(msg.as_bytes(policy=policy.SMTP))
    parsed = message_from_bytes(open(path, "rb").read(), policy=policy.SMTP)
    os.mkdir(out)
    run = subprocess.run([tool, "stream", path, out], capture_output=True, check=True)
    pages = [line.split(b" ", 2)[2] for line in run.stdout.splitlines()
             if line.startswith(b"body: state=") and b"|" in line]
    errors = []
    for group in groups(parsed):
        html = next(leaves(group)).get_payload(decode=True)
        page_path, names = (pages.pop(0) if pages else b"|").split(b"|")
        expected, at = b"", 0
        for m, name in zip(LINK.finditer(html), names.split(b",")):
            target = resolve(group, m.group(2).decode())
            file_body = open(os.path.join(out, name.decode()), "rb").read()
            if target is None or file_body != target.get_payload(decode=True):
                errors.append(f"m{n}: {name} is not the part of {m.group(2)}")
            expected += html[at:m.start(2)] + name
            at = m.end(2)
        ours = open(page_path, "rb").read()
        if not same_body(ours, expected + html[at:]):
            errors.append(f"m{n}: page {page_path} differs")
        for m in LINK.finditer(ours):
            link = m.group(2).decode()
            if not re.match("(?i)(http://|cid:)", link) and not os.path.exists(os.path.join(out, link)):
                errors.append(f"m{n}: link {link} names no file")
    related = [p for g in groups(parsed) for p in leaves(g)]
    contents = [open(os.path.join(out, f), "rb").read() for f in os.listdir(out)]
    for leaf in leaves(parsed):
        if not any(leaf is p for p in related) and \
                not any(same_body(c, leaf.get_payload(decode=True)) for c in contents):
            errors.append(f"m{n}: no file holds the {leaf.get_content_type()} part")
    return errors


def main():
    tool = os.environ.get("TARNWICK", "build/release/tools/tarnwick")
    rng = random.Random(20261123)
    errors = []
    with tempfile.TemporaryDirectory() as tmp:
        for n, make in enumerate([alternative_with_page, mixed_with_everything, mht_page]):
            errors += check(tool, make(rng), tmp, n)
        # tarnwick webpage on the .mht-style page above: the page, then its two files.
        out = os.path.join(tmp, "web")
        os.mkdir(out)
        printed = subprocess.run([tool, "webpage", os.path.join(tmp, "m2.eml"), out],
                                 capture_output=True, check=True).stdout.decode().split()
        if len(printed) != 3 or not all(os.path.exists(p) for p in printed):
            errors.append(f"webpage printed {printed}")
        plain = EmailMessage()
        plain.set_content("no page here\n")
        with open(os.path.join(tmp, "plain.eml"), "wb") as f:
            f.write(plain.as_bytes(policy=policy.SMTP))
        missing = subprocess.run([tool, "webpage", os.path.join(tmp, "plain.eml"), out],
                                 capture_output=True)
        if missing.returncode != 1 or missing.stderr.count(b"\n") != 1:
            errors.append("webpage on a message without a page: " + str(missing))
    for e in errors:
        print(e)
    print(f"walkers_check: {len(errors)} errors")
    return 1 if errors else 0


if __name__ == "__main__":
    sys.exit(main())
