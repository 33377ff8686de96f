#!/usr/bin/env bash
# test_install.sh REPO BUILD
#
# `cmake --install` into a fresh prefix, then a tiny host from outside the
# project built against what was installed, once with pkg-config and once
# with find_package, and run against the simulated adapters.
set -u
REPO=${1:?usage: test_install.sh REPO BUILD}
BUILD=${2:?usage: test_install.sh REPO BUILD}
WORK=$BUILD/install-test

if [ "${3:-}" = --run ]; then
    source "$REPO/tests/scripts/vyrhost_env.sh"
    cd /tmp
    setup_three_devices
    for host in "$WORK/host_pkgconfig" "$WORK/cmake-build/external_host"; do
        "$host" >host.txt 2>host.err
        expect_eq 0 $? "status of $host"
        grep -Eq '^schema tarvik [0-9a-f]{32}$' host.txt || fail "$host: no schema line: $(cat host.txt)"
        for d in arx0 arx1 tdg0; do
            grep -q "^event tarvik_event_[01] $d$" host.txt || fail "$host: no event of $d: $(cat host.txt)"
        done
    done
    finish
fi

failures=0
fail() {
    echo "FAIL: $*" >&2
    failures=$((failures + 1))
}
rm -rf "$WORK"
mkdir -p "$WORK"
PREFIX=$WORK/prefix
cmake --install "$BUILD" --prefix "$PREFIX" >"$WORK/install.log" || { cat "$WORK/install.log"; exit 1; }
for f in lib/libtarvik_provider.so lib/libtarvik_provider.so.1 bin/vyrhost \
    include/vyr/vyr_event_provider.h include/vyr/vyr_serializer.h include/vyr/vyr_logger.h \
    lib/pkgconfig/tarvik_provider.pc lib/cmake/tarvik_provider/tarvik_providerConfig.cmake \
    lib/cmake/tarvik_provider/tarvik_providerConfigVersion.cmake \
    lib/cmake/tarvik_provider/tarvik_providerTargets.cmake; do
    [ -e "$PREFIX/$f" ] || fail "not installed: $f"
done

# A sanitizer build installs an instrumented library; the host must match it.
sanitize=$(sed -n 's/^VYR_SANITIZE:STRING=//p' "$BUILD/CMakeCache.txt")
case "$sanitize" in
address) SANFLAGS="-fsanitize=address,undefined" ;;
thread) SANFLAGS="-fsanitize=thread" ;;
*) SANFLAGS="" ;;
esac

# The tree was installed under another prefix than the configured one: the
# .pc file finds its prefix from where it lies.
export PKG_CONFIG_PATH=$PREFIX/lib/pkgconfig
flags=$(pkg-config --cflags --libs tarvik_provider) || fail "pkg-config tarvik_provider"
cc -std=c11 -Wall -Wextra -Werror $SANFLAGS "$REPO/tests/scripts/external_host/host.c" $flags \
    -Wl,-rpath,"$PREFIX/lib" -o "$WORK/host_pkgconfig" || fail "building the host with pkg-config flags: $flags"

cmake -S "$REPO/tests/scripts/external_host" -B "$WORK/cmake-build" -DCMAKE_PREFIX_PATH="$PREFIX" \
    -DCMAKE_C_FLAGS="$SANFLAGS" -DCMAKE_EXE_LINKER_FLAGS="$SANFLAGS" >"$WORK/cmake.log" 2>&1 &&
    cmake --build "$WORK/cmake-build" >>"$WORK/cmake.log" 2>&1 ||
    fail "building the host with find_package: $(tail -20 "$WORK/cmake.log")"

if [ "$failures" -ne 0 ]; then
    echo "$failures check(s) failed" >&2
    exit 1
fi
exec "$REPO/tests/support/ns_run.sh" bash "$0" "$REPO" "$BUILD" --run
