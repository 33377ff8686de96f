# Sourced by the vyrhost and deployment tests as
#   source "${1:?usage: TEST REPO BUILD}/tests/scripts/vyrhost_env.sh" "$@"
# paths of the build, assertion helpers, the simulated adapters and
# in_namespace, which reruns the test inside ns_run.sh's namespace.
set -u
REPO=${1:?usage: $0 REPO BUILD}
BUILD=${2:?usage: $0 REPO BUILD}
VYRHOST=$BUILD/tools/vyrhost/vyrhost
failures=0
fail() { echo "FAIL: $*" >&2 && failures=$((failures + 1)); }
expect_eq() { [ "$1" = "$2" ] || fail "$3: got [$2], expected [$1]"; } # WANT GOT WHAT
finish() {
    [ "$failures" -eq 0 ] || { echo "$failures check(s) failed" >&2 && exit 1; }
    echo ok && exit 0
}
skip_without() { # exit 77 unless every PROGRAM is installed
    local p
    for p; do command -v "$p" >/dev/null || { echo "SKIP: $p is not installed (scripts/setup.sh)" && exit 77; }; done
}

# in_namespace [net]: reruns the test in a private mount/PID namespace (the
# tests make /dev/zdt entries and sysfs files), with "net" also a network
# namespace of its own with loopback up; inside, moves to its /tmp.
in_namespace() {
    if [ "${VYR_TEST_NAMESPACE:-}" != 1 ]; then
        [ "${1:-}" = net ] && exec "$REPO/tests/support/ns_run.sh" unshare --net \
            bash -c 'ip link set lo up && exec bash "$@"' - "$0" "$REPO" "$BUILD"
        exec "$REPO/tests/support/ns_run.sh" bash "$0" "$REPO" "$BUILD"
    fi
    cd /tmp || exit 1
}

# Three adapters: arx0 and arx1 write the same (std) header, tdg0 another
# (alt); each has an Ethernet interface.
setup_three_devices() {
    export ZDT_SIM_DEVICES="arx0,arcline,eth0;arx1,arcline,eth1;tdg0,tidegate,eth2"
    export PHYPROBE_SIM_HEADER__tdg0=alt
    zdt start >/dev/null || fail "zdt start"
    for i in 0 1 2; do mkdir -p /sys/class/net/eth$i && echo 1 >/sys/class/net/eth$i/type; done
}

# The collector settings most runs use: collect every 2 seconds, no service.
ONESHOT=(--set tarvik_update_interval_sec=2 --set tarvik_phyprobe_as_service=0)

# wait_exit PID SECONDS: waits for background process PID to end (killing it
# after SECONDS), EXIT_STATUS its status or "hung". Not in a subshell.
wait_exit() {
    for ((i = 0; i < $2 * 10; i++)); do
        [[ "$(ps -o stat= -p "$1")" =~ ^(Z.*)?$ ]] && { wait "$1"; EXIT_STATUS=$? && return; }
        sleep 0.1
    done
    kill -9 "$1" 2>/dev/null && wait "$1" 2>/dev/null
    EXIT_STATUS=hung
}
