#!/usr/bin/env python3
# check_vyrhost_json.py SCHEMA_JSON EVENTS_JSONL: each line is "source",
# "block_time", then one schema type's fields in order, typed; prints problems,
# then "DEVICE TYPE_NAME EVENTS" per device, sorted; exits 1 on a problem.
import json
import sys

types = {tuple(f["field_name"] for f in t["fields"]): (t["name"], t["fields"])
         for t in json.load(open(sys.argv[1]))["types"]}
problems, devices = [], {}
for number, line in enumerate(open(sys.argv[2]), 1):
    pairs = json.loads(line, object_pairs_hook=lambda p: p)
    obj, keys = dict(pairs), [k for k, _ in pairs]
    name, fields = types.get(tuple(keys[2:]), (None, []))
    text = [f["type_name"] in ("char", "unsigned char") and f.get("array_length", 1) > 1 for f in fields]
    bad = [f["field_name"] for f, t in zip(fields, text) if not (isinstance(obj[f["field_name"]], str) if t
           else obj[f["field_name"]] is None or type(obj[f["field_name"]]) in (int, float))]
    if keys[:2] != ["source", "block_time"] or name is None or bad or not obj["source"].endswith(":tarvik") \
            or not obj["block_time"] >= obj["timestamp"] > 0:
        problems.append(f"line {number}: {line.strip()[:300]} (mistyped: {bad})")
    devices[obj.get("device_name"), name] = devices.get((obj.get("device_name"), name), 0) + 1
print("\n".join(problems + [f"{d} {t} {n}" for (d, t), n in sorted(devices.items())]))
sys.exit(1 if problems else 0)
