#!/usr/bin/env python3
"""Turns a program's help source (frontend/doc/NAME.txt) into the C header its
--help prints from and its man page, so that both always say the same.

The source: "@name NAME - summary", then "@usage" and the global help text,
then optionally "@command CMD" blocks, each the help of one command.
    gen_doc.py header SOURCE OUT.h
    gen_doc.py man SOURCE OUT.1 VERSION
"""
import sys


def parse(path):
    name, summary, usage, commands = "", "", [], []
    current = None
    for line in open(path, encoding="utf-8").read().splitlines():
        if line.startswith("@name "):
            name, _, summary = line[6:].partition(" - ")
        elif line == "@usage":
            current = usage
        elif line.startswith("@command "):
            commands.append((line[9:].strip(), []))
            current = commands[-1][1]
        elif current is not None:
            current.append(line)
    trim = lambda lines: "\n".join(lines).strip("\n") + "\n"
    return name, summary, trim(usage), [(c, trim(t)) for c, t in commands]


def c_string(text):
    out = []
    for line in text.splitlines(True):
        out.append('    "' + line.replace("\\", "\\\\").replace('"', '\\"').replace("\n", "\\n") + '"')
    return "\n".join(out)


def header(source, out):
    name, _, usage, commands = parse(source)
    ident = "".join(p.capitalize() for p in name.replace("-", " ").split())
    lines = [f"// Generated from {source.split('/')[-1]} by gen_doc.py: edit that file.", "#pragma once", "",
             f"static const char k{ident}Usage[] =", c_string(usage) + ";"]
    if commands:
        lines += ["", "struct CommandHelp {", "    const char *name;", "    const char *text;", "};",
                  f"static const CommandHelp k{ident}CommandHelp[] = {{"]
        for command, text in commands:
            lines.append(f'    {{"{command}",\n{c_string(text)}}},')
        lines.append("};")
    open(out, "w", encoding="utf-8").write("\n".join(lines) + "\n")


def roff(text):
    lines = []
    for line in text.splitlines():
        line = line.replace("\\", "\\e").replace("-", "\\-")
        if line.startswith(".") or line.startswith("'"):
            line = "\\&" + line
        lines.append(line)
    return "\n".join(lines)


def man(source, out, version):
    name, summary, usage, commands = parse(source)
    body = usage.splitlines()
    synopsis = body[0].replace("Usage: ", "")
    lines = [f'.TH {name.upper()} 1 "" "Ambrel {version}" "User Commands"', ".SH NAME",
             f"{name} \\- {summary}", ".SH SYNOPSIS", ".nf", roff(synopsis), ".fi", ".SH DESCRIPTION", ".nf",
             roff("\n".join(body[1:]).strip("\n")), ".fi"]
    if commands:
        lines.append(".SH COMMANDS")
        for command, text in commands:
            lines += [f".SS {command}", ".nf", roff(text.rstrip("\n")), ".fi"]
    lines += [".SH SEE ALSO", "ambreld(1)" if name == "ambrel" else "ambrel(1)"]
    open(out, "w", encoding="utf-8").write("\n".join(lines) + "\n")


if __name__ == "__main__":
    if sys.argv[1] == "header":
        header(sys.argv[2], sys.argv[3])
    else:
        man(sys.argv[2], sys.argv[3], sys.argv[4])
