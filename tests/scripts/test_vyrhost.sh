#!/usr/bin/env bash
# test_vyrhost.sh REPO BUILD
#
# vyrhost against the simulated adapters, inside a private namespace: the
# one-line explanations of what can go wrong before any event flows, the
# schema it prints, JSON over two intervals, a buffer grown to a 10,000-column
# event, and SIGINT in service mode.
source "${1:?usage: $0 REPO BUILD}/tests/scripts/vyrhost_env.sh" "$@"
in_namespace

# expect_failure "ONE LINE" ARGS...: status 1, exactly that line of vyrhost's
# on stderr (the tool's own complaints pass through), nothing on stdout.
expect_failure() {
    "$VYRHOST" "${@:2}" >out.txt 2>err.txt </dev/null
    expect_eq "1 $1" "$? $(grep '^vyrhost: ' err.txt)$(head -c 300 out.txt)" "vyrhost ${*:2}"
}
expect_failure "vyrhost: provider library /nonexistent/libtarvik_provider.so does not exist" \
    --library /nonexistent/libtarvik_provider.so
expect_failure "vyrhost: initialization failed: no devices to collect (/dev/zdt holds no devices; 'zdt start' creates them)"
setup_three_devices
expect_failure "vyrhost: the plug-in refused its settings: stoi failed (a setting that must be a number is not one)" \
    --set tarvik_max_errors=abc
PHYPROBE_SIM_FAIL_HEADER_RUN=5 expect_failure \
    "vyrhost: initialization failed: no device gave a usable header (header run for arx0 failed with exit status 5; header run for arx1 failed with exit status 5; header run for tdg0 failed with exit status 5)"
# A second Ctrl-C while header runs hang ends vyrhost at once.
PHYPROBE_SIM_HANG=10 "$VYRHOST" "${ONESHOT[@]}" >out.txt 2>err.txt &
pid=$!
sleep 1 && kill -INT "$pid" && sleep 0.5 && kill -INT "$pid"
wait_exit "$pid" 2
expect_eq "130 vyrhost: second signal, exiting without waiting for the plug-in" "$EXIT_STATUS $(cat err.txt)" "second SIGINT"
# One device without a header is only a note; the others are collected.
PHYPROBE_SIM_FAIL_HEADER_RUN__tdg0=7 "$VYRHOST" "${ONESHOT[@]}" --count 2 >out.txt 2>err.txt
expect_eq "0 vyrhost: note: header run for tdg0 failed with exit status 7; that device will not be collected 2" \
    "$? $(grep '^vyrhost: ' err.txt) $(wc -l <out.txt)" "one failing header run: status, note, events"

"$VYRHOST" --print-schema >schema.json 2>err.txt
expect_eq "0 vyrhost: schema \"tarvik\" version 1.0.0, identifier $(head -c -1 schema.json | md5sum | cut -d' ' -f1)" \
    "$? $(cat err.txt)" "--print-schema: the identifier is the MD5 of the pretty JSON printed"

# Six events take two polls of three devices, two seconds apart.
"$VYRHOST" "${ONESHOT[@]}" --count 6 >events.jsonl 2>err.txt
expect_eq "0 2 arx0
2 arx1
2 tdg0" "$? $(grep -o '^{"source":"[^"]*:tarvik","block_time":[0-9]*,"timestamp":[0-9]*,"event_name":"tarvik_event","device_name":"[a-z0-9]*"' \
    events.jsonl | sed 's/.*"device_name":"//; s/"$//' | sort | uniq -c | sed 's/^ *//')$(cat err.txt)" "JSON run: status, events per device"

# A device of 10,000 columns (80 KB events) with the default buffer.
PHYPROBE_SIM_HEADER_LINE__arx0=Device,$(seq -f 'c%g' 0 9999 | paste -sd,) \
    "$VYRHOST" "${ONESHOT[@]}" --set tarvik_devices=arx0 --count 1 >big.jsonl 2>err.txt
size=$(sed -n 's/.*largest event (\([0-9]*\) bytes.*/\1/p' err.txt)
expect_eq "0 vyrhost: note: --buffer-size 65536 is too small for the largest event ($size bytes plus a 16-byte block header); using $((size + 16))" \
    "$? $(cat err.txt)" "the buffer grows to the largest event"
grep -q '"device_name":"arx0".*"c9999":[0-9]*}$' big.jsonl || fail "no 10,000-column event: $(head -c 300 big.jsonl)"

"$VYRHOST" --set tarvik_update_interval_sec=2 --set tarvik_phyprobe_as_service=1 --log-level 6 >service.jsonl 2>service.err &
pid=$!
for _ in $(seq 150); do [ "$(wc -l <service.jsonl)" -ge 3 ] && break || sleep 0.2; done
kill -INT "$pid"
wait_exit "$pid" 40
expect_eq "0 [vyrhost] signal 2 received, stopping the plug-in|[vyrhost] the plug-in is stopped and destroyed" \
    "$EXIT_STATUS $(grep -oE '\[vyrhost\] (signal 2 |the plug-in is stopped ).*' service.err | paste -sd'|')" "SIGINT: status and log"
ps -eo args | grep -E 'tools/sim/phyprobe|tools/vyrhost/vyrhost' | grep -v grep >left.txt &&
    fail "processes left after SIGINT: $(cat left.txt)"
finish
