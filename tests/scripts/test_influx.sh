#!/usr/bin/env bash
# test_influx.sh REPO BUILD
#
# vyrhost --format influx over the simulated devices, one with quotes and
# backslashes in its text: one line per event in the line-protocol form with
# the device and interface tags and the text escaped, and every diagnostic
# line on stderr with an inputs.execd prefix.
source "${1:?usage: $0 REPO BUILD}/tests/scripts/vyrhost_env.sh" "$@"
in_namespace
setup_three_devices
export PHYPROBE_SIM_HEADER_LINE__arx1='Device,Note,Path,Lane_Count'
export PHYPROBE_SIM_VALUE_LINE__arx1='{dev},say "hi",C:\temp\,4'
"$VYRHOST" "${ONESHOT[@]}" --poll 1 --count 6 --format influx --log-level 6 >lines.txt 2>err.txt
expect_eq 0 $? "vyrhost's exit status"
grep -vE '^(E|W|I|D)! ' err.txt && fail "stderr lines without an inputs.execd prefix"
grep -q '^I! \[vyrhost\] calling stop$' err.txt || fail "vyrhost's own steps are not info lines: $(head -3 err.txt)"
expect_eq 'tarvik,device=arx1,interface=eth1 event_name="tarvik_event",device_name="arx1",Device="arx1",Note="say \"hi\"",Path="C:\\temp\\",Lane_Count=4i' \
    "$(grep -m1 '^tarvik,device=arx1,' lines.txt | sed 's/ timestamp=[0-9]*i,/ /; s/ [0-9]\{19\}$//')" "arx1's line"
expect_eq "2 2 2 6" "$(for d in arx0,interface=eth0 arx1,interface=eth1 tdg0,interface=eth2; do
    grep -cE "^tarvik,device=$d .* [0-9]{19}$" lines.txt; done | xargs) $(wc -l <lines.txt)" "lines of each device, all lines"
finish
