#!/usr/bin/env python3
"""Makes the qxcurl(1) manual page from docs/cli.md, so that the page and the
document never disagree.

    md2man.py INPUT.md OUTPUT.1[.gz] [--version V]

Understands the Markdown that docs/cli.md uses: "#" title, "##" sections,
"###" subsections, paragraphs, "- " lists, fenced code blocks, tables, `code`
and **bold**. A name ending in .gz is compressed reproducibly (no time stamp).
"""
import gzip
import re
import sys


def escape(text):
    text = text.replace("\\", "\\e")
    return text


def inline(text):
    """Markdown inline markup to roff, escaping what roff would interpret."""
    out = []
    for i, part in enumerate(re.split(r"(`[^`]*`)", text)):
        if i % 2:
            out.append("\\fB" + escape(part[1:-1]).replace("-", "\\-") + "\\fR")
        else:
            part = escape(part)
            part = re.sub(r"\*\*(.+?)\*\*", r"\\fB\1\\fR", part)
            out.append(part)
    return "".join(out)


def line(text):
    """One output line that roff cannot take for a request."""
    return "\\&" + text if text.startswith((".", "'")) else text


def cells(row):
    row = row.strip()
    if row.startswith("|"):
        row = row[1:]
    if row.endswith("|") and not row.endswith("\\|"):
        row = row[:-1]
    parts = re.split(r"(?<!\\)\|", row)
    return [p.strip().replace("\\|", "|") for p in parts]


def table(rows, out):
    header = cells(rows[0])
    for row in rows[2:]:
        c = cells(row)
        out.append(".TP")
        out.append(line(inline(c[0])))
        rest = []
        for name, value in zip(header[1:], c[1:]):
            if not value:
                continue
            rest.append(value if len(header) == 2 else "%s: %s" % (name, value))
        for j, text in enumerate(rest):
            if j:
                out.append(".br")
            out.append(line(inline(text)))


def convert(md, version):
    lines = md.splitlines()
    out = []
    title = lines[0].lstrip("#").strip() if lines and lines[0].startswith("# ") else "qxcurl"
    name, _, summary = title.partition(" \u2014 ")
    out.append('.TH %s 1 "" "%s %s" "User Commands"' % (name.upper(), name, version))
    out.append(".SH NAME")
    out.append("%s \\- %s" % (name, escape(summary or "command-line tool")))
    out.append(".SH DESCRIPTION")
    i = 1
    para = []

    def flush():
        if para:
            out.append(".PP")
            for p in para:
                out.append(line(inline(p)))
            para.clear()

    while i < len(lines):
        text = lines[i]
        stripped = text.strip()
        if stripped.startswith("```"):
            flush()
            out.append(".PP")
            out.append(".RS 4")
            out.append(".nf")
            i += 1
            while i < len(lines) and not lines[i].strip().startswith("```"):
                out.append(line(escape(lines[i]).replace("-", "\\-")))
                i += 1
            out.append(".fi")
            out.append(".RE")
        elif stripped.startswith("### "):
            flush()
            out.append(".SS " + inline(stripped[4:]))
        elif stripped.startswith("## "):
            flush()
            out.append(".SH " + inline(stripped[3:]).upper())
        elif stripped.startswith("|"):
            flush()
            rows = []
            while i < len(lines) and lines[i].strip().startswith("|"):
                rows.append(lines[i])
                i += 1
            table(rows, out)
            continue
        elif stripped.startswith("- "):
            flush()
            out.append(".IP \\(bu 2")
            out.append(line(inline(stripped[2:])))
            i += 1
            while i < len(lines) and lines[i].startswith("  ") and lines[i].strip():
                out.append(line(inline(lines[i].strip())))
                i += 1
            continue
        elif not stripped:
            flush()
        else:
            para.append(stripped)
        i += 1
    flush()
    return "\n".join(out) + "\n"


def main(argv):
    args = argv[1:]
    version = ""
    if "--version" in args:
        k = args.index("--version")
        version = args[k + 1] if k + 1 < len(args) else ""
        del args[k:k + 2]
    if len(args) != 2:
        sys.stderr.write("usage: md2man.py INPUT.md OUTPUT.1[.gz] [--version V]\n")
        return 2
    with open(args[0], encoding="utf-8") as f:
        page = convert(f.read(), version).encode("utf-8")
    if args[1].endswith(".gz"):
        page = gzip.compress(page, compresslevel=9, mtime=0)
    with open(args[1], "wb") as f:
        f.write(page)
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
