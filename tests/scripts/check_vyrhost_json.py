#!/usr/bin/env python3
"""check_vyrhost_json.py SCHEMA_JSON EVENTS_JSONL: each line is "source",
"block_time", then one schema type's fields in order, typed; prints problems,
then "DEVICE TYPE_NAME EVENTS" per device, sorted; exits 1 on a problem."""
import json
import sys

types = {tuple(f["field_name"] for f in t["fields"]): (t["name"], t["fields"])
         for t in json.load(open(sys.argv[1]))["types"]}
problems, devices = [], {}
for number, line in enumerate(open(sys.argv[2]), 1):
    pairs = json.loads(line, object_pairs_hook=lambda p: p)
    obj, keys = dict(pairs), [k for k, _ in pairs]
    name, fields = types.get(tuple(keys[2:]), (None, []))
    if keys[:2] != ["source", "block_time"] or name is None:
        problems.append(f"line {number}: keys {keys}")
        continue
    for f in fields:
        text = f["type_name"] in ("char", "unsigned char") and f.get("array_length", 1) > 1
        value = obj[f["field_name"]]
        if not (isinstance(value, str) if text else value is None or type(value) in (int, float)):
            problems.append(f"line {number}: {f['field_name']} is {value!r}")
    if not obj["source"].endswith(":tarvik") or not obj["block_time"] >= obj["timestamp"] > 0:
        problems.append(f"line {number}: source {obj['source']!r}, block_time {obj['block_time']}")
    devices.setdefault((obj["device_name"], name), []).append(number)
print("\n".join(problems + [f"{d} {t} {len(n)}" for (d, t), n in sorted(devices.items())]))
sys.exit(1 if problems else 0)
