#!/usr/bin/env python3
"""Strict check of Prometheus text exposition (format 0.0.4).

check_exposition.py FILE [--split PREFIX]

Reads FILE (or standard input for "-"). With --split, the input is cut into
separate expositions at every line starting with PREFIX, and each one is
checked on its own. Prints one line per problem and exits 1 if there is any.

Rules: metric and label names follow the name rules (label names do not start
with "__"); a label value escapes only backslash, double quote and line feed;
HELP escapes only backslash and line feed; each family has at most one HELP
and one TYPE, both before its first sample, and its samples are contiguous;
every sample belongs to a family that has a TYPE; no series appears twice;
values and timestamps are numbers as Prometheus reads them.
"""
import re
import sys

METRIC = re.compile(r"[a-zA-Z_:][a-zA-Z0-9_:]*\Z")
LABEL = re.compile(r"[a-zA-Z_][a-zA-Z0-9_]*\Z")
TYPES = {"counter", "gauge", "histogram", "summary", "untyped"}
FLOAT = re.compile(r"[+-]?(\d+\.?\d*([eE][+-]?\d+)?|\.\d+([eE][+-]?\d+)?|Inf|NaN)\Z")
SUFFIXES = ("_bucket", "_sum", "_count", "_total", "_created")


def parse_labels(text, pos, problems, where):
    """Parses '{...}' starting at text[pos] == '{'; returns (labels, next pos)."""
    labels = []
    pos += 1
    while True:
        if pos < len(text) and text[pos] == "}":
            return labels, pos + 1
        m = re.compile(r"[^=]*").match(text, pos)
        name = m.group(0)
        pos = m.end()
        if not LABEL.match(name) or name.startswith("__"):
            problems.append(f"{where}: bad label name {name!r}")
        if pos >= len(text) or text[pos] != "=" or pos + 1 >= len(text) or text[pos + 1] != '"':
            problems.append(f"{where}: expected =\" after label {name!r}")
            return labels, len(text)
        pos += 2
        value = []
        while True:
            if pos >= len(text):
                problems.append(f"{where}: unterminated value of label {name!r}")
                return labels, len(text)
            c = text[pos]
            if c == "\\":
                nxt = text[pos + 1] if pos + 1 < len(text) else ""
                if nxt not in ('\\', '"', "n"):
                    problems.append(f"{where}: bad escape \\{nxt} in label {name!r}")
                value.append({"\\": "\\", '"': '"', "n": "\n"}.get(nxt, nxt))
                pos += 2
            elif c == '"':
                pos += 1
                break
            else:
                value.append(c)
                pos += 1
        labels.append((name, "".join(value)))
        if pos < len(text) and text[pos] == ",":
            pos += 1
        elif pos < len(text) and text[pos] == "}":
            continue
        else:
            problems.append(f"{where}: expected , or }} after label {name!r}")
            return labels, len(text)


def family_of(name, types):
    if name in types:
        return name
    for suffix in SUFFIXES:
        base = name[: -len(suffix)]
        if name.endswith(suffix) and types.get(base) in ("histogram", "summary", "counter"):
            return base
    return name


def check(text, label="exposition"):
    problems = []
    helps, types, seen_series = {}, {}, set()
    sampled, current = set(), None
    for number, line in enumerate(text.split("\n"), 1):
        where = f"{label} line {number}"
        if line == "":
            continue
        if line.startswith("#"):
            parts = line.split(" ", 3)
            if len(parts) >= 3 and parts[1] in ("HELP", "TYPE"):
                kind, name = parts[1], parts[2]
                rest = parts[3] if len(parts) > 3 else ""
                if not METRIC.match(name):
                    problems.append(f"{where}: bad metric name {name!r} in {kind}")
                if name in sampled:
                    problems.append(f"{where}: {kind} for {name} after its samples")
                table = helps if kind == "HELP" else types
                if name in table:
                    problems.append(f"{where}: second {kind} for {name}")
                if kind == "HELP":
                    if re.search(r"\\[^\\n]|\\\Z", rest):
                        problems.append(f"{where}: bad escape in HELP of {name}")
                    helps[name] = rest
                else:
                    if rest not in TYPES:
                        problems.append(f"{where}: unknown TYPE {rest!r} for {name}")
                    types[name] = rest
            continue
        m = re.compile(r"[^{ ]*").match(line)
        name = m.group(0)
        pos = m.end()
        if not METRIC.match(name):
            problems.append(f"{where}: bad metric name {name!r}")
        labels = []
        if pos < len(line) and line[pos] == "{":
            labels, pos = parse_labels(line, pos, problems, where)
        names = [n for n, _ in labels]
        if len(set(names)) != len(names):
            problems.append(f"{where}: repeated label name in {names}")
        rest = line[pos:]
        if not rest.startswith(" "):
            problems.append(f"{where}: no blank before the value")
        fields = rest.split()
        if len(fields) not in (1, 2):
            problems.append(f"{where}: expected a value and an optional timestamp, got {rest!r}")
        elif not FLOAT.match(fields[0]):
            problems.append(f"{where}: bad value {fields[0]!r}")
        if len(fields) == 2 and not re.match(r"-?\d+\Z", fields[1]):
            problems.append(f"{where}: bad timestamp {fields[1]!r}")
        family = family_of(name, types)
        if family not in types:
            problems.append(f"{where}: sample of {name} without a TYPE line")
        if family != current and family in sampled:
            problems.append(f"{where}: samples of {family} are not contiguous")
        current = family
        sampled.add(family)
        key = (name, tuple(sorted(labels)))
        if key in seen_series:
            problems.append(f"{where}: series {name}{dict(labels)} appears twice")
        seen_series.add(key)
    for name in types:
        if name not in helps:
            problems.append(f"{label}: family {name} has a TYPE but no HELP")
    return problems


def main():
    args = sys.argv[1:]
    if not args:
        print(__doc__, file=sys.stderr)
        return 2
    path = args[0]
    text = sys.stdin.read() if path == "-" else open(path, encoding="utf-8").read()
    chunks = [("exposition", text)]
    if len(args) == 3 and args[1] == "--split":
        chunks, current, title = [], [], None
        for line in text.split("\n"):
            if line.startswith(args[2]):
                if title is not None:
                    chunks.append((title, "\n".join(current)))
                title, current = line, []
            else:
                current.append(line)
        if title is not None:
            chunks.append((title, "\n".join(current)))
        if not chunks:
            print(f"no line starts with {args[2]!r}")
            return 1
    problems = []
    for title, chunk in chunks:
        problems += check(chunk, title)
    for p in problems:
        print(p)
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main())
