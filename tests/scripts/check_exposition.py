#!/usr/bin/env python3
"""check_exposition.py [--same-series] [--split PREFIX] FILE...: each FILE (or
part of one starting at a PREFIX line) passes promtool and the naming rules;
with --same-series all hold the same series. Prints problems; exits 1 on any."""
import re
import shutil
import subprocess
import sys

SAMPLE = re.compile(r'([a-zA-Z_:][a-zA-Z0-9_:]*)(\{(.*)\})? (\S+)( -?\d+)?$')
LABEL = re.compile(r'([a-zA-Z_][a-zA-Z0-9_]*)="((?:[^"\\]|\\.)*)"')


def check(text, where):
    problems, series = [], set()
    for line in text.splitlines():
        if line.startswith("# TYPE "):
            _, _, name, kind = line.split(" ", 3)
            if (kind == "counter") != name.endswith("_total"):
                problems.append(f"{where}: {kind} {name}")
            if re.search(r"(lane|bin)_?\d", name):
                problems.append(f"{where}: a number in the name {name}")
        m = SAMPLE.match(line) if line[:1] not in ("", "#") else None  # promtool checks the rest
        if not m:
            continue
        labels = tuple(LABEL.findall(m.group(3) or ""))
        if any(n.startswith("__") for n, _ in labels):
            problems.append(f"{where}: reserved label name in {line!r}")
        if (m.group(1), labels) in series:
            problems.append(f"{where}: series twice: {line!r}")
        series.add((m.group(1), labels))
    if shutil.which("promtool"):
        run = subprocess.run(["promtool", "check", "metrics"], input=text.encode(),
                             capture_output=True)
        if run.returncode != 0:
            problems.append(f"{where}: promtool: {(run.stdout + run.stderr).decode().strip()}")
    return problems, series


def main():
    args = sys.argv[1:]
    same = args[0] == "--same-series"
    args = args[same:]
    split, args = (args[1], args[2:]) if args[0] == "--split" else (None, args)
    parts = []
    for path in args:
        text = open(path, encoding="utf-8").read()
        chunks = re.split(f"^{re.escape(split)}.*\n", text, flags=re.M)[1:] if split else [text]
        parts += [(f"{path} part {n + 1}", chunk) for n, chunk in enumerate(chunks)]
    problems, first = [], None
    for where, text in parts:
        found, series = check(text, where)
        problems += found
        if same and first and series != first[1]:
            problems.append(f"{where}: series differ from {first[0]}: {sorted(series ^ first[1])[:5]}")
        first = first or (where, series)
    print("\n".join(problems) if problems else f"{len(parts)} expositions ok")
    return 1 if problems or not parts else 0


if __name__ == "__main__":
    sys.exit(main())
