#!/usr/bin/env bash
# test_influx.sh REPO BUILD
#
# vyrhost --format influx over four simulated devices (one with quotes and
# backslashes in its text): every line parses by the line-protocol grammar,
# every device's event appears with its interface tag, text comes back
# unescaped, and every diagnostic line on stderr has an inputs.execd prefix.
source "${1:?usage: $0 REPO BUILD}/tests/scripts/vyrhost_env.sh" "$@"
in_namespace
setup_three_devices
# A fourth adapter whose text values hold a double quote and backslashes.
export ZDT_SIM_DEVICES="$ZDT_SIM_DEVICES;qt0,arcline,eth3"
export PHYPROBE_SIM_HEADER_LINE__qt0='Device,Note,Path,Lane_Count'
export PHYPROBE_SIM_VALUE_LINE__qt0='{dev},say "hi",C:\temp\{run},4'
mknod /dev/zdt/qt0 c 1 3
mkdir -p /sys/class/net/eth3
echo 1 >/sys/class/net/eth3/type

"$VYRHOST" "${ONESHOT[@]}" --poll 1 --count 8 --format influx --log-level 6 >lines.txt 2>err.txt
expect_eq 0 $? "vyrhost's exit status"
grep -vE '^(E|W|I|D)! ' err.txt && fail "stderr lines without an inputs.execd prefix"
grep -q '^I! \[vyrhost\] calling stop$' err.txt || fail "vyrhost's own steps are not info lines: $(head -3 err.txt)"

python3 - lines.txt <<'EOT' || fail "line protocol"
import re, sys
KEY = r'(?:[^\\ ,=]|\\[ ,=])+'
VALUE = r'(?:-?[0-9]+i|-?(?:[0-9]+\.?[0-9]*|\.[0-9]+)(?:[eE][-+]?[0-9]+)?|"(?:[^"\\]|\\["\\])*"|true|false)'
LINE = re.compile(r'tarvik((?:,%s=%s)*) (%s=%s(?:,%s=%s)*) ([0-9]{19})' % (KEY, KEY, KEY, VALUE, KEY, VALUE))
def pairs(text, value):
    return {re.sub(r'\\(.)', r'\1', k): v for k, v in re.findall(r'(%s)=(%s)' % (KEY, value), text)}
seen = {}
for line in open(sys.argv[1]).read().splitlines():
    m = LINE.fullmatch(line)
    if not m:
        sys.exit("not line protocol: " + line)
    tags, fields = pairs(m.group(1), KEY), pairs(m.group(2), VALUE)
    seen[tags["device"]] = (tags, fields, m.group(3))
assert sorted(seen) == ["arx0", "arx1", "qt0", "tdg0"], sorted(seen)
for i, d in enumerate(["arx0", "arx1", "tdg0", "qt0"]):
    tags, fields, ns = seen[d]
    assert tags == {"device": d, "interface": "eth%d" % i}, tags
    assert re.fullmatch(r"[0-9]+i", fields["Lane_Count"]), fields
tags, fields, ns = seen["arx0"]
assert re.fullmatch(r"[0-9.]+(e-[0-9]+)?", fields["Raw_BER_Lane_0"]), fields["Raw_BER_Lane_0"]
note, path = seen["qt0"][1]["Note"], seen["qt0"][1]["Path"]
assert note == r'"say \"hi\""', note
assert re.fullmatch(r'"C:\\\\temp\\\\[0-9]+"', path), path
EOT
finish
