#!/usr/bin/env bash
# test_ns_isolation.sh REPO [BUILD]
#
# ns_run.sh gives a command a private /dev, /tmp, /sys/class and PID space:
# whatever the command makes there -- /dev/zdt entries, collection files,
# sysfs attributes, a running phyprobe service -- is gone from the host once
# it returns, and the command's exit status comes back unchanged.
set -u
REPO=${1:?usage: test_ns_isolation.sh REPO [BUILD]}
NS_RUN=$REPO/tests/support/ns_run.sh
TAG=nsiso$$
failures=0
fail() {
    echo "FAIL: $*" >&2
    failures=$((failures + 1))
}
expect_status() { # expect_status WANT GOT WHAT
    [ "$1" = "$2" ] || fail "$3: exit status $2, expected $1"
}

[ -e /dev/zdt ] && zdt_before=1 || zdt_before=0
mnt_before=$(ls -A /mnt 2>/dev/null)
host_pidns=$(readlink /proc/self/ns/pid)

# Leaves behind everything a test could: device entries, files under /tmp,
# sysfs attributes and a service still running, then fails with its own code.
"$NS_RUN" bash -c '
    set -e
    tag=$1 host_pidns=$2
    [ "$(readlink /proc/self/ns/pid)" != "$host_pidns" ] || { echo "same PID namespace" >&2; exit 3; }
    [ "$VYR_TEST_NAMESPACE" = 1 ] || exit 4
    [ "$(command -v phyprobe)" = "$3/tools/sim/phyprobe" ] || { echo "phyprobe not from tools/sim" >&2; exit 5; }
    [ -d /dev/zdt ] && [ -z "$(ls -A /dev/zdt)" ] || { echo "/dev/zdt not empty" >&2; exit 6; }
    for n in null zero urandom random full; do [ -c /dev/$n ] || { echo "no /dev/$n" >&2; exit 7; }; done
    [ "$(head -c 4 /dev/zero | od -An -tx1 | tr -d " ")" = 00000000 ] || exit 8
    [ "$(readlink /dev/fd)" = /proc/self/fd ] && [ -L /dev/stdin ] && [ -L /dev/stdout ] && [ -L /dev/stderr ] || exit 9
    [ "$(stat -f -c %T /dev/shm)" = tmpfs ] || exit 10
    export ZDT_SIM_DEVICES="${tag}a,arcline,${tag}e0" PHYPROBE_SIM_SERVICE_SLEEP=587.25
    zdt start >/dev/null
    mknod /dev/zdt/${tag}b c 1 3
    mkdir -p /sys/class/net/${tag}e0 /sys/class/infiniband/${tag}a/ports/1
    echo 1 >/sys/class/net/${tag}e0/type
    echo Ethernet >/sys/class/infiniband/${tag}a/ports/1/link_layer
    : >/tmp/tarvik_collect_${tag}b.csv
    phyprobe -d /dev/zdt/${tag}a --tarvik_collect /tmp/tarvik_collect_${tag}a.csv --tarvik_rewrite \
        --service_start 600 --service_iterations 5 >/dev/null &
    for i in $(seq 300); do
        ls /dev/zdt | grep -q phyprobe_service_ && [ -e /tmp/tarvik_collect_${tag}a.csv ] && break
        sleep 0.05
    done
    ls /dev/zdt | grep -q phyprobe_service_ || { echo "service did not start" >&2; exit 11; }
    exit 42
' ns_iso "$TAG" "$host_pidns" "$REPO" </dev/null
expect_status 42 $? "namespace command"

if [ "$zdt_before" = 0 ] && [ -e /dev/zdt ]; then fail "/dev/zdt exists on the host"; fi
[ -e "/dev/zdt/${TAG}a" ] && fail "/dev/zdt/${TAG}a exists on the host"
compgen -G "/tmp/tarvik_collect_${TAG}*" >/dev/null && fail "collection files left in /tmp"
compgen -G "/tmp/tarvik_collect_*" >/dev/null && echo "note: /tmp/tarvik_collect_* exist on the host, not made here"
[ -e "/sys/class/net/${TAG}e0" ] && fail "sysfs net entry left on the host"
[ -e "/sys/class/infiniband/${TAG}a" ] && fail "sysfs infiniband entry left on the host"
[ "$(ls -A /mnt 2>/dev/null)" = "$mnt_before" ] || fail "/mnt changed on the host"
ps -eo args | grep -q "[p]hyprobe -d /dev/zdt/${TAG}a" && fail "the service outlived its namespace"
ps -eo args | grep -q "[s]leep 587.25" && fail "the service's sleep outlived its namespace"

# Status pass-through, with standard input closed or empty.
"$NS_RUN" true 0<&-
expect_status 0 $? "closed stdin"
"$NS_RUN" sh -c 'exit 7' </dev/null
expect_status 7 $? "exit status"
"$NS_RUN" sh -c 'kill -9 $$' </dev/null
expect_status 137 $? "killed command"
out=$(echo piped | "$NS_RUN" cat)
[ "$out" = piped ] || fail "standard input not passed through: '$out'"
"$NS_RUN" >/dev/null 2>&1
expect_status 2 $? "no command"

# Without root there is no namespace: status 77 and a reason.
if command -v setpriv >/dev/null && setpriv --reuid=65534 --regid=65534 --clear-groups test -r "$NS_RUN"; then
    msg=$(setpriv --reuid=65534 --regid=65534 --clear-groups bash "$NS_RUN" true 2>&1 </dev/null)
    expect_status 77 $? "not root"
    case "$msg" in *"needs root"*) ;; *) fail "not root: no reason given: $msg" ;; esac
fi

if [ "$failures" -ne 0 ]; then
    echo "$failures check(s) failed" >&2
    exit 1
fi
echo "ns_run.sh isolation: all checks passed"
