#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""Writes a program's section 1 manual page.

The options and subcommands come from the program itself (its --help, and
--help-all where it has one), so the page lists what the program accepts;
the other sections come from a text file of sections:

    [DESCRIPTION]
    paragraphs; a line starting with two spaces starts an indented line
    [EXIT STATUS]
    ...

    man1.py --program PATH --name NAME --summary TEXT --sections FILE \
            --version V --date D --output FILE
"""

import argparse
import re
import subprocess
import sys

# Sections in the order pages present them; those not in the text file are
# left out, OPTIONS and COMMANDS come from the program.
ORDER = ["DESCRIPTION", "OPTIONS", "COMMANDS", "EXIT STATUS", "ENVIRONMENT", "FILES", "EXAMPLES", "SEE ALSO"]
OPTION_LINE = re.compile(r"^(\s+)(\S.*?)(?:\s{2,}(\S.*))?$")


def escape(text):
    text = text.replace("\\", "\\e").replace("-", "\\-")
    return "\\&" + text if text.startswith((".", "'")) else text


def help_text(program, option):
    result = subprocess.run([program, option], capture_output=True, text=True, timeout=30,
                            env={"NO_COLOR": "1", "PATH": "/usr/bin:/bin"})
    return result.stdout + result.stderr


def blocks(text):
    """{heading: [lines]} for each "Heading:" line at the left margin."""
    found = {}
    current = None
    for line in text.splitlines():
        if re.match(r"^[A-Z][A-Za-z ]*:$", line):
            current = line[:-1]
            found[current] = []
        elif current is not None and (line.startswith(" ") or not line.strip()):
            found[current].append(line)
        elif current is not None and not line.startswith(" "):
            # A name at the margin inside the subcommands of --help-all.
            found[current].append(line)
    return found


def options(lines):
    """(name, description) pairs of an indented option list."""
    pairs = []
    for line in lines:
        match = OPTION_LINE.match(line)
        if not match:
            continue
        indent, name, description = match.groups()
        if len(indent) > 8 and pairs and description is None:
            pairs[-1] = (pairs[-1][0], (pairs[-1][1] + " " + name).strip())
        else:
            pairs.append((name, description or ""))
    return pairs


def option_list(pairs):
    out = []
    for name, description in pairs:
        out += [".TP", "\\fB" + escape(name) + "\\fR", escape(description)]
    return out


def subcommands(help_all):
    """(name, summary, [(heading, pairs)]) for each subcommand --help-all shows."""
    text = help_all.split("\nSubcommands:\n", 1)
    if len(text) < 2:
        return []
    found = []
    current = None
    heading = None
    for line in text[1].splitlines():
        if not line.strip():
            continue
        if not line.startswith(" "):
            if re.match(r"^[a-z][a-z0-9-]*$", line):
                current = [line, "", []]
                found.append(current)
                heading = None
                continue
            break  # the text after the subcommands
        if current is None:
            continue
        stripped = line.strip()
        if line.startswith("  ") and not line.startswith("   ") and stripped.endswith(":"):
            heading = (stripped[:-1], [])
            current[2].append(heading)
        elif heading is None:
            current[1] = (current[1] + " " + stripped).strip()
        else:
            heading[1].append(line)
    return [(name, summary, [(h, options(lines)) for h, lines in parts]) for name, summary, parts in found]


def command_list(commands):
    out = []
    for name, summary, parts in commands:
        out += [".TP", "\\fB" + escape(name) + "\\fR", escape(summary)]
        for heading, pairs in parts:
            if not pairs:
                continue
            out += [".RS", ".PP", escape(heading) + ":"] + option_list(pairs) + [".RE"]
    return out


def sections_file(path):
    sections = {}
    current = None
    for line in open(path, encoding="utf-8").read().splitlines():
        match = re.match(r"^\[([A-Z ]+)\]$", line)
        if match:
            current = match.group(1)
            sections[current] = []
        elif current is not None:
            sections[current].append(line)
    return sections


def prose(lines):
    """Roff for a section of the text file: paragraphs; a line followed by
    indented lines is a term and its description; other indented lines are
    kept as lines; "$ command" lines are literal examples."""
    out = []
    fresh = True
    for i, line in enumerate(lines):
        following = lines[i + 1] if i + 1 < len(lines) else ""
        if not line.strip():
            if not fresh:
                out.append(".PP")
            fresh = True
            continue
        if line.startswith("$ "):
            out += [".nf", ".RS", escape(line[2:]), ".RE", ".fi"]
            fresh = False
            continue
        if not line.startswith(" ") and following.startswith("  "):
            out += [".TP", "\\fB" + escape(line) + "\\fR"]
            fresh = True
            continue
        if line.startswith("  ") and not fresh:
            out.append(".br")
        out.append(escape(line.strip()))
        fresh = False
    while out and out[-1] == ".PP":
        out.pop()
    return out


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    for name in ("program", "name", "summary", "sections", "version", "date", "output"):
        parser.add_argument("--" + name, required=True)
    args = parser.parse_args()

    brief = help_text(args.program, "--help")
    usage = re.search(r"^Usage:\s*\S+(.*)$", brief, re.M)
    if usage is None:
        sys.exit(f"man1.py: {args.program} --help shows no usage line")
    everything = help_text(args.program, "--help-all") if "--help-all" in brief else ""
    text = sections_file(args.sections)

    page = ['.\\" Generated by man1.py from the program\'s help and ' + args.sections.split("/")[-1] + "; do not edit.",
            f'.TH {args.name.upper()} 1 "{args.date}" "{args.name} {args.version}" "User commands"',
            ".nh", ".ad l",
            ".SH NAME", f"{escape(args.name)} \\- {escape(args.summary)}",
            ".SH SYNOPSIS", f"\\fB{escape(args.name)}\\fR {escape(usage.group(1).strip())}"]
    for section in ORDER:
        if section == "OPTIONS":
            pairs = options(blocks(brief).get("Options", []))
            if pairs:
                page += [".SH OPTIONS"] + option_list(pairs)
        elif section == "COMMANDS":
            commands = subcommands(everything) if everything else []
            if commands:
                page += [".SH COMMANDS"] + command_list(commands)
        elif section in text:
            page += [".SH " + section] + prose(text[section])
    missing = [s for s in ORDER if s not in ("OPTIONS", "COMMANDS") and s not in text]
    if missing:
        sys.exit(f"man1.py: {args.sections} lacks {', '.join(missing)}")
    with open(args.output, "w", encoding="utf-8") as out:
        out.write("\n".join(page) + "\n")


if __name__ == "__main__":
    main()
