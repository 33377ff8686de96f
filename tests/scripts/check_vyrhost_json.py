#!/usr/bin/env python3
"""Checks vyrhost's JSON lines against the schema vyrhost printed.

check_vyrhost_json.py SCHEMA_JSON EVENTS_JSONL

Every line must be one JSON object whose keys are "source", "block_time" and
then exactly the fields of one type of the schema, in field order; text
fields (char arrays) must be strings and every other field a number. Prints
problems, then one summary line per device: "DEVICE TYPE_NAME EVENTS", sorted.
Exits 1 if there was a problem.
"""
import json
import sys


def main():
    schema = json.load(open(sys.argv[1]))
    types = []
    for t in schema["types"]:
        fields = [(f["field_name"], f["type_name"], f.get("array_length", 1)) for f in t["fields"]]
        types.append((t["name"], fields))
    problems, devices = [], {}
    with open(sys.argv[2]) as lines:
        for number, line in enumerate(lines, 1):
            where = f"line {number}"
            try:
                pairs = json.loads(line, object_pairs_hook=lambda p: p)
            except ValueError as e:
                problems.append(f"{where}: not JSON: {e}: {line[:200]!r}")
                continue
            keys = [k for k, _ in pairs]
            obj = dict(pairs)
            if keys[:2] != ["source", "block_time"]:
                problems.append(f"{where}: starts with {keys[:2]}, not source and block_time")
            match = [t for t in types if [f[0] for f in t[1]] == keys[2:]]
            if len(match) != 1:
                problems.append(f"{where}: its fields are those of no type: {keys[2:]}")
                continue
            name, fields = match[0]
            for field, type_name, length in fields:
                value = obj[field]
                if type_name in ("char", "unsigned char") and length > 1:
                    ok = isinstance(value, str)
                else:
                    ok = isinstance(value, (int, float)) and not isinstance(value, bool)
                if not ok:
                    problems.append(f"{where}: {field} ({type_name}[{length}]) is {value!r}")
            if not (isinstance(obj["source"], str) and obj["source"].endswith(":tarvik")):
                problems.append(f"{where}: source is {obj['source']!r}")
            if not (isinstance(obj["block_time"], int) and obj["block_time"] >= obj["timestamp"] > 0):
                problems.append(f"{where}: block_time {obj['block_time']!r} is not an integer "
                                f"at or after the event's timestamp {obj['timestamp']!r}")
            if obj["event_name"] != "tarvik_event":
                problems.append(f"{where}: event_name is {obj['event_name']!r}")
            entry = devices.setdefault(obj["device_name"], [name, 0])
            if entry[0] != name:
                problems.append(f"{where}: device {obj['device_name']} changed type")
            entry[1] += 1
    for p in problems:
        print(p)
    for device in sorted(devices):
        print(device, devices[device][0], devices[device][1])
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main())
