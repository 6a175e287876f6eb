#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""Writes the section 3 manual of libVyrix_Api from the public headers.

Every function the headers declare with VYRIX_API gets a page of its own:
its prototype, the comment written above it (shared by the declarations
that follow one comment without a blank line), and the text of the header
section it stands in.  libvyrix(3) is made from the headers' opening
comments.  Nothing is written by hand, so the pages say what the headers
say.

    man3.py --version 1.3.0 --date 2026-11-23 --out DIR HEADER...
"""

import argparse
import os
import re
import sys

SECTION_RULE = re.compile(r"^/\*\s*(=====|----)\s*(.*?)\s*[=-]*\s*(\*/)?\s*$")
DECLARATION = re.compile(r"\bVYRIX_API\b(.*?)\b([A-Za-z_][A-Za-z0-9_]*)\s*\(", re.S)


class Function:
    def __init__(self, name, prototype, doc, section, header):
        self.name = name
        self.prototype = prototype
        self.doc = doc
        self.section = section
        self.header = header


class Section:
    def __init__(self, title, doc):
        self.title = title
        self.doc = doc


def comment_text(block):
    """The text of a /* ... */ comment, without its frame, one string per line."""
    body = block.strip()
    body = body[2:] if body.startswith("/*") else body
    body = body[:-2] if body.endswith("*/") else body
    lines = []
    for line in body.split("\n"):
        line = re.sub(r"^\s*\* ?", "", line) if re.match(r"^\s*\*", line) else line.strip()
        lines.append(line.rstrip().rstrip("*").rstrip())
    while lines and not lines[0].strip():
        lines.pop(0)
    while lines and not lines[-1].strip():
        lines.pop()
    return lines


def parse(header_path):
    """(overview lines, sections, functions) of one header."""
    text = open(header_path, encoding="utf-8").read()
    base = os.path.basename(header_path)
    overview = []
    functions = []
    sections = []
    section = Section("", [])
    pending = []  # the comment above the next declarations
    pos = 0
    first_comment = True
    while pos < len(text):
        if text.startswith("/*", pos):
            end = text.index("*/", pos) + 2
            block = text[pos:end]
            lines = comment_text(block)
            first_line = block.split("\n", 1)[0]
            rule = SECTION_RULE.match(first_line)
            if "SPDX-License-Identifier" in block:
                pass  # the licence tag is not documentation
            elif first_comment:
                overview = lines
                first_comment = False
            elif rule and rule.group(2):
                title = re.sub(r"\s*[=-]+\s*\*?$", "", rule.group(2)).strip()
                doc = lines[1:] if lines and title in lines[0] else lines
                section = Section(title, [line for line in doc if not re.match(r"^[=-]+$", line.strip())])
                sections.append(section)
                pending = []
            else:
                pending = lines
            pos = end
            continue
        if text.startswith("//", pos):
            pos = text.index("\n", pos) + 1
            continue
        if text.startswith("\n\n", pos):
            # A blank line ends what a comment speaks for.
            pending = []
            pos += 1
            continue
        match = DECLARATION.match(text, pos)
        if match:
            end = text.index(";", pos)
            prototype = " ".join(text[pos:end].replace("VYRIX_API", "").split()) + ";"
            prototype = prototype.replace("( ", "(").replace(" )", ")")
            functions.append(Function(match.group(2), prototype, pending, section, base))
            pos = end + 1
            continue
        if text[pos] not in " \t\n":
            # Any other code (a type, a macro) ends what a comment speaks for.
            line_end = text.find("\n", pos)
            line_end = len(text) if line_end < 0 else line_end
            if not text[pos:line_end].startswith(("#ifdef __cplusplus", "#endif", "extern", "}")):
                pending = []
            pos = line_end
            continue
        pos += 1
    return overview, sections, functions


def escape(text):
    """Text as roff reads it literally."""
    text = text.replace("\\", "\\e")
    text = text.replace("-", "\\-")
    if text.startswith((".", "'")):
        text = "\\&" + text
    return text


def paragraphs(lines):
    """Roff for comment lines: blank lines part paragraphs, indented lines keep their break."""
    out = []
    fresh = True
    for line in lines:
        if not line.strip():
            if not fresh:
                out.append(".PP")
            fresh = True
            continue
        if line.startswith(" ") and not fresh:
            out.append(".br")
        out.append(escape(line.strip()))
        fresh = False
    return out


def first_sentence(lines, fallback):
    text = " ".join(line.strip() for line in lines if line.strip())
    text = re.sub(r"^Extension\.\s*", "", text)
    match = re.match(r"(.+?[.;:])(\s|$)", text)
    sentence = match.group(1) if match else text
    sentence = sentence.rstrip(".;:")
    if not sentence or len(sentence) > 90:
        return fallback
    return sentence[0].lower() + sentence[1:] if not sentence[:2].isupper() else sentence


def title_header(name, version, date):
    return [
        '.\\" Generated from the headers of libVyrix_Api; do not edit.',
        f'.TH {name.upper() if name == "libvyrix" else name} 3 "{date}" "libVyrix_Api {version}" "libVyrix_Api manual"',
        ".nh",  # identifiers are neither hyphenated
        ".ad l",  # nor stretched to fill a line
    ]


def function_page(fn, siblings, version, date):
    family = fn.section.title or "libVyrix_Api"
    lines = title_header(fn.name, version, date)
    lines += [".SH NAME", f"{fn.name} \\- {escape(first_sentence(fn.doc, family.lower()))}"]
    lines += [".SH SYNOPSIS", ".nf", f".B #include <{fn.header}>", ".PP", escape(fn.prototype), ".fi"]
    lines += [".PP", "Link with \\fI\\-lVyrix_Api\\fP (\\fBpkg\\-config \\-\\-libs vyrix\\fP)."]
    lines += [".SH DESCRIPTION"]
    if fn.doc:
        lines += paragraphs(fn.doc)
    if fn.section.doc:
        if fn.doc:
            lines += [".PP"]
        lines += paragraphs(fn.section.doc)
    if not fn.doc and not fn.section.doc:
        lines += [escape(f"One of the functions of the group \"{family}\".")]
    others = [s.name for s in siblings if s.name != fn.name][:12]
    lines += [".SH SEE ALSO", ",\n".join([f".BR {o} (3)" for o in others] + [".BR libvyrix (3)"])]
    return "\n".join(lines) + "\n"


# The paragraphs of the opening comments that become sections of libvyrix(3)
# of their own; every other paragraph becomes a subsection of DESCRIPTION.
OWN_SECTIONS = {"Files": "FILES", "Environment": "ENVIRONMENT"}


def overview_parts(lines):
    """(heading, paragraph lines) for each paragraph of an opening comment."""
    parts = []
    current = []
    for line in lines + [""]:
        if line.strip():
            current.append(line)
            continue
        if current:
            match = re.match(r"^([A-Z][A-Za-z ()]*?)\.\s{1,2}(.*)$", current[0])
            if match and len(match.group(1)) < 40:
                parts.append((match.group(1), [match.group(2)] + current[1:]))
            else:
                parts.append(("", current))
            current = []
    return parts


def overview_page(headers, all_functions, version, date):
    lines = title_header("libvyrix", version, date)
    lines += [".SH NAME", "libvyrix \\- control a laser scanning display engine over USB, a UART line or Bluetooth"]
    lines += [".SH SYNOPSIS", ".nf"]
    lines += [f".B #include <{os.path.basename(h)}>" for h, _ in headers]
    lines += [".fi", ".PP", "Link with \\fI\\-lVyrix_Api\\fP (\\fBpkg\\-config \\-\\-cflags \\-\\-libs vyrix\\fP)."]
    lines += [".SH DESCRIPTION"]
    own = {}
    for path, overview in headers:
        lines += [".SS " + escape(os.path.basename(path))]
        for heading, body in overview_parts(overview):
            key = heading.split(" ")[0]
            if key in OWN_SECTIONS:
                own.setdefault(OWN_SECTIONS[key], []).extend(body + [""])
                continue
            if heading:
                lines += [".TP", ".B " + escape(heading)]
            else:
                lines += [".PP"]
            lines += paragraphs(body)
    lines += [".SH FUNCTIONS"]
    by_section = {}
    for fn in all_functions:
        by_section.setdefault(fn.section.title or fn.header, []).append(fn.name)
    for title, names in by_section.items():
        lines += [".TP", ".B " + escape(title), escape(", ".join(dict.fromkeys(names)))]
    for name in ("ENVIRONMENT", "FILES"):
        if name in own:
            lines += [".SH " + name] + paragraphs(own[name])
    lines += [".SH SEE ALSO", ".BR vyrixctl (1),", ".BR vyrix\\-sim (1),", ".BR vyrix\\-demo (1)"]
    return "\n".join(lines) + "\n"


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--version", required=True)
    parser.add_argument("--date", required=True)
    parser.add_argument("--out", required=True)
    parser.add_argument("headers", nargs="+")
    args = parser.parse_args()
    os.makedirs(args.out, exist_ok=True)
    headers = []
    everything = []
    for path in args.headers:
        overview, _, functions = parse(path)
        headers.append((path, overview))
        everything += functions
    if not everything:
        sys.exit("man3.py: no VYRIX_API declarations found")
    written = set()
    for fn in everything:
        if fn.name in written:
            continue  # an overload documented once
        written.add(fn.name)
        # The functions one comment speaks for, else those of the section.
        siblings = [f for f in everything if f.doc and f.doc is fn.doc]
        if len(siblings) < 2:
            siblings = [f for f in everything if f.section is fn.section]
        with open(os.path.join(args.out, fn.name + ".3"), "w", encoding="utf-8") as page:
            page.write(function_page(fn, siblings, args.version, args.date))
    with open(os.path.join(args.out, "libvyrix.3"), "w", encoding="utf-8") as page:
        page.write(overview_page(headers, everything, args.version, args.date))


if __name__ == "__main__":
    main()
