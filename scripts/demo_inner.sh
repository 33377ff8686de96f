#!/usr/bin/env bash
# demo_inner.sh VYRHOST
#
# The part of the demo that runs inside tests/support/ns_run.sh's private
# namespace: three simulated adapters, then vyrhost in one-shot mode (a
# table per poll) and in service mode (JSON lines), each for a few 2-second
# intervals. Nothing here touches the machine's real /dev, /tmp or sysfs.
set -euo pipefail
VYRHOST=${1:?usage: demo_inner.sh VYRHOST}
[ "${VYR_TEST_NAMESPACE:-}" = 1 ] || {
    echo "demo_inner.sh runs only inside tests/support/ns_run.sh" >&2
    exit 1
}
cd /tmp

if [ -t 1 ]; then
    WIDTH=$(tput cols 2>/dev/null || echo 120)
    say() { printf '\n\033[1m== %s\033[0m\n' "$*"; }
else
    WIDTH=120
    say() { printf '\n== %s\n' "$*"; }
fi
show() { # prints a command as the reader would type it
    printf '$ %s\n' "$*" | sed "s|$VYRHOST|vyrhost|"
}

say "Three simulated adapters: arx0 and arx1 (Arcline), tdg0 (Tidegate)"
export ZDT_SIM_DEVICES="arx0,arcline,eth0;arx1,arcline,eth1;tdg0,tidegate,eth2"
# tdg0's phyprobe writes a 2-lane file with another header than the others.
export PHYPROBE_SIM_HEADER__tdg0=alt
zdt start
for i in 0 1 2; do
    mkdir -p /sys/class/net/eth$i
    echo 1 >/sys/class/net/eth$i/type # Ethernet
done
zdt status -v | sed -n '/^PCI devices:/,/^$/p'

COLUMNS_SHOWN=Speed,Lane_Count,Raw_Errors_Lane_0,hist_bin_0,Temperature,temperature

say "One-shot mode: phyprobe runs once per device every 2 seconds; one table per poll"
ONESHOT=("$VYRHOST" --set tarvik_update_interval_sec=2 --set tarvik_phyprobe_as_service=0
    --format table --no-refresh --width "$WIDTH" --columns "$COLUMNS_SHOWN" --duration 6.5)
show "${ONESHOT[@]}"
"${ONESHOT[@]}"

say "Service mode: one long-running phyprobe per device rewrites its file every 2 seconds; JSON lines"
SERVICE=("$VYRHOST" --set tarvik_update_interval_sec=2 --set tarvik_phyprobe_as_service=1
    --format json --duration 6.5)
show "${SERVICE[@]}"
echo "(a few of each event's fields are kept here; vyrhost prints all of them on one line)"
# Each line holds every field of the event; a few are kept here so that a
# line fits on the screen.
"${SERVICE[@]}" | python3 -u -c '
import json, sys
keep = ["source", "block_time", "device_name", "Lane_Count", "Raw_Errors_Lane_0", "hist_bin_0",
        "Temperature", "temperature"]
for line in sys.stdin:
    event = json.loads(line, object_pairs_hook=lambda pairs: pairs)
    shown = [(k, v) for k, v in event if k in keep]
    text = json.dumps(dict(shown), separators=(",", ":"))
    print(text[:-1] + ",... " + str(len(event) - len(shown)) + " more}")'


say "What you just saw"
cat <<'EOF'
vyrhost loaded build/libtarvik_provider.so the way a telemetry collector does. The
plug-in ran phyprobe once per device to learn its CSV header and registered the
schema "tarvik" with two event types: arx0 and arx1 write the same header and share
tarvik_event_0; tdg0 writes another one and got tarvik_event_1.

One-shot mode: the plug-in's collection thread ran phyprobe for every device every
2 seconds; every 2 seconds vyrhost drained write_events and printed one row per
device. COLLECTED is when the plug-in read the device's file; the error counters
and histogram bins grow from poll to poll, and a "-" marks a field that the
device's header does not have.

Service mode: the plug-in started one phyprobe service per device, which rewrites
its file every 2 seconds, and the collection thread only read the files. vyrhost
printed every event as one JSON object, adding "source" and the block's
"block_time". At the end vyrhost called stop, which killed the services with
signal 9 (the shell's "Killed" lines), and destroy.

All of it ran in a private mount and PID namespace: the /dev/zdt entries, the
files in /tmp and the sysfs attributes are gone again.

On a server with the adapters, the zdt driver set and phyprobe installed (as root):

  zdt start
  build/tools/vyrhost/vyrhost --set tarvik_update_interval_sec=10 --format table
  build/tools/vyrhost/vyrhost --set tarvik_update_interval_sec=10 --listen 9464

The last one serves Prometheus on http://127.0.0.1:9464/metrics. vyrhost --help
lists every option; docs/ describes the settings, the event format and what to do
when a device gives no data.
EOF
