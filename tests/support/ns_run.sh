#!/usr/bin/env bash
# ns_run.sh COMMAND [ARGS...]
#
# Runs COMMAND inside a private mount + PID namespace whose /dev, /tmp and
# /sys/class are fresh tmpfs mounts, so tests can create /dev/zdt entries,
# collection files and sysfs attributes without the host ever seeing them.
# The simulated zdt and phyprobe come first on PATH. COMMAND's exit status is
# passed through; 77 means the namespace could not be made.
set -u

SELF=$(readlink -f -- "${BASH_SOURCE[0]}")
REPO=$(cd -- "$(dirname -- "$SELF")/../.." && pwd)

if [ "${1:-}" = "--inside" ]; then
    shift
    # PID 1 of the new namespace: build the private view, then run the command
    # as a child so this shell reaps orphans (killed services leave some).
    set -e
    fail() { echo "ns_run.sh: $*" >&2; exit 77; }
    is_tmpfs() { [ "$(stat -f -c %T -- "$1")" = tmpfs ]; }

    # The old /dev stays reachable under a tmpfs on /mnt while /dev is replaced.
    mount -t tmpfs -o mode=755 ns_run_mnt /mnt || fail "cannot mount a tmpfs on /mnt"
    mkdir /mnt/olddev
    mount --bind /dev /mnt/olddev || fail "cannot bind the old /dev"
    mount -t tmpfs -o mode=755,nosuid ns_run_dev /dev || fail "cannot mount a tmpfs on /dev"
    # /dev is devtmpfs, whose contents are shared by every mount of it: never
    # create anything there unless the tmpfs really is in place.
    is_tmpfs /dev || fail "/dev is not a tmpfs after mounting one"
    for node in null zero urandom random tty full; do
        : >"/dev/$node"
        mount --bind "/mnt/olddev/$node" "/dev/$node" || fail "cannot bind /dev/$node"
    done
    ln -s /proc/self/fd /dev/fd
    for fd in 0:stdin 1:stdout 2:stderr; do ln -s "/proc/self/fd/${fd%:*}" "/dev/${fd#*:}"; done
    mkdir /dev/shm
    mount -t tmpfs -o mode=1777,nosuid,nodev ns_run_shm /dev/shm || fail "cannot mount /dev/shm"
    mkdir /dev/zdt
    umount /mnt/olddev
    umount /mnt

    # A checkout or build under /tmp (a clone in /tmp/x, say) would vanish
    # under the fresh /tmp: hold each such top directory on /mnt meanwhile and
    # bind it back at the same path.
    keep=()
    for path in "$REPO" "$PWD" "$(readlink -f -- "$(command -v -- "$1" || echo "$1")")"; do
        case $path in /tmp/?*) keep+=("/tmp/$(cut -d/ -f3 <<<"$path")") ;; esac
    done
    mapfile -t keep < <(printf '%s\n' ${keep[@]+"${keep[@]}"} | sort -u | sed '/^$/d')
    mount -t tmpfs -o mode=755 ns_run_keep /mnt || fail "cannot mount a tmpfs on /mnt"
    for i in "${!keep[@]}"; do
        mkdir "/mnt/$i"
        mount --bind "${keep[$i]}" "/mnt/$i" || fail "cannot hold ${keep[$i]}"
    done
    mount -t tmpfs -o mode=1777 ns_run_tmp /tmp || fail "cannot mount a tmpfs on /tmp"
    for i in "${!keep[@]}"; do
        mkdir -p "${keep[$i]}"
        mount --bind "/mnt/$i" "${keep[$i]}" || fail "cannot bind ${keep[$i]} back"
        umount "/mnt/$i"
    done
    umount /mnt
    mount -t tmpfs -o mode=755 ns_run_sysclass /sys/class || fail "cannot mount a tmpfs on /sys/class"
    is_tmpfs /tmp && is_tmpfs /sys/class || fail "/tmp or /sys/class is not a tmpfs"
    mkdir /sys/class/net /sys/class/infiniband
    set +e

    export PATH="$REPO/tools/sim:$PATH"
    export VYR_TEST_NAMESPACE=1
    # In the foreground, so the command keeps this shell's standard input
    # (or none at all); orphans are reaped by this shell while it waits.
    "$@"
    exit $?
fi

# Without root or unshare (util-linux) the probe fails: the test is skipped.
if ! probe=$(unshare --mount --pid --fork --mount-proc --propagation private true 2>&1 </dev/null); then
    echo "ns_run.sh: cannot create a private mount+PID namespace: $probe" >&2
    exit 77
fi
# --kill-child: when a test runner kills us, PID 1 inside dies and the kernel
# ends every process of the namespace with it.
exec unshare --mount --pid --fork --mount-proc --propagation private --kill-child \
    bash "$SELF" --inside "$@"
