#!/usr/bin/env bash
# test_ns_isolation.sh REPO [BUILD]
#
# What the namespace tests rely on from ns_run.sh: whatever a command makes in
# its private /dev, /tmp and /sys/class -- device entries, collection files,
# sysfs attributes, a running service -- is gone from the host once it
# returns, and its exit status comes back unchanged.
set -u
REPO=${1:?usage: test_ns_isolation.sh REPO [BUILD]}
NS_RUN=$REPO/tests/support/ns_run.sh
TAG=nsiso$$
failures=0
fail() {
    echo "FAIL: $*" >&2
    failures=$((failures + 1))
}
[ -e /dev/zdt ] && zdt_before=1 || zdt_before=0

"$NS_RUN" bash -c '
    set -e
    tag=$1
    [ "$(command -v phyprobe)" = "$2/tools/sim/phyprobe" ] && [ -z "$(ls -A /dev/zdt)" ] || exit 3
    export ZDT_SIM_DEVICES="${tag}a,arcline,${tag}e0" PHYPROBE_SIM_SERVICE_SLEEP=587.25
    zdt start >/dev/null
    mkdir -p /sys/class/net/${tag}e0
    : >/tmp/tarvik_collect_${tag}b.csv
    phyprobe -d /dev/zdt/${tag}a --tarvik_collect /tmp/tarvik_collect_${tag}a.csv --tarvik_rewrite \
        --service_start 600 --service_iterations 5 >/dev/null &
    for i in $(seq 300); do ls /dev/zdt | grep -q phyprobe_service_ && break; sleep 0.05; done
    exit 42
' ns_iso "$TAG" "$REPO" </dev/null
[ $? = 42 ] || fail "exit status of the namespace command"

[ "$zdt_before" = 0 ] && [ -e /dev/zdt ] && fail "/dev/zdt exists on the host"
compgen -G "/tmp/tarvik_collect_${TAG}*" >/dev/null && fail "collection files left in /tmp"
[ -e "/sys/class/net/${TAG}e0" ] && fail "sysfs entry left on the host"
ps -eo args | grep -q "[s]leep 587.25" && fail "the service outlived its namespace"
"$NS_RUN" sh -c 'kill -9 $$' </dev/null
[ $? = 137 ] || fail "status of a killed command"

[ "$failures" -eq 0 ] || exit 1
echo "ns_run.sh isolation: all checks passed"
