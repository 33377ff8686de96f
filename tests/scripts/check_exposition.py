#!/usr/bin/env python3
# check_exposition.py [--same-series] FILE...: each FILE passes promtool and the
# naming rules; with --same-series all hold the same series. Prints problems;
# exits 1 on any.
import re
import subprocess
import sys

SAMPLE = re.compile(r'([a-zA-Z_:][a-zA-Z0-9_:]*)(\{(.*)\})? (\S+)( -?\d+)?$')
LABEL = re.compile(r'([a-zA-Z_][a-zA-Z0-9_]*)="((?:[^"\\]|\\.)*)"')


def check(text, where):
    problems, series = [], set()
    for line in text.splitlines():
        if line.startswith("# TYPE "):
            _, _, name, kind = line.split(" ", 3)
            if (kind == "counter") != name.endswith("_total") or re.search(r"(lane|bin)_?\d", name):
                problems.append(f"{where}: badly named {kind} {name}")
        m = SAMPLE.match(line) if line[:1] not in ("", "#") else None  # promtool checks the rest
        labels = m and tuple(LABEL.findall(m.group(3) or ""))
        if m and ((m.group(1), labels) in series or any(n.startswith("__") for n, _ in labels)):
            problems.append(f"{where}: series twice or a reserved label: {line!r}")
        series.add(m and (m.group(1), labels))
    run = subprocess.run(["promtool", "check", "metrics"], input=text.encode(), capture_output=True)
    if run.returncode != 0:
        problems.append(f"{where}: promtool: {(run.stdout + run.stderr).decode().strip()}")
    return problems, series - {None}


same = sys.argv[1] == "--same-series"
paths = sys.argv[1 + same:]
problems, first = [], None
for where in paths:
    found, series = check(open(where, encoding="utf-8").read(), where)
    problems += found
    if same and first and series != first[1]:
        problems.append(f"{where}: series differ from {first[0]}: {sorted(series ^ first[1])[:5]}")
    first = first or (where, series)
print("\n".join(problems) if problems else f"{len(paths)} expositions ok")
sys.exit(1 if problems or not paths else 0)
