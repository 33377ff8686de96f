#!/usr/bin/env bash
# test_install.sh REPO BUILD
#
# `cmake --install` into a fresh prefix; a tiny host from outside the project
# builds with find_package and with pkg-config against what was installed, and
# the pkg-config one runs against the simulated adapters. The installed vyrhost
# loads the library of its own prefix and never one planted where a search
# could stray (beside the prefix, the working directory, LD_LIBRARY_PATH);
# without its own library it refuses. The normal build only (label "once").
source "${1:?usage: $0 REPO BUILD}/tests/scripts/vyrhost_env.sh" "$@"
WORK=$BUILD/install-test
PREFIX=$WORK/nest/prefix
if [ "${VYR_TEST_NAMESPACE:-}" != 1 ]; then
    rm -rf "$WORK" && mkdir -p "$WORK/nest/plant"
    cmake --install "$BUILD" --prefix "$PREFIX" >"$WORK/install.log" || { cat "$WORK/install.log" && exit 1; }
    # A project of its own finds the installed CMake package and links to it.
    { cmake -S "$REPO/tests/scripts/external_host" -B "$WORK/cmake-build" -DCMAKE_PREFIX_PATH="$PREFIX" &&
        cmake --build "$WORK/cmake-build"; } >"$WORK/cmake.log" 2>&1 ||
        fail "building the host with find_package: $(tail -20 "$WORK/cmake.log")"
    # Installed under another prefix than the configured one: the .pc file
    # finds its prefix from where it lies.
    flags=$(PKG_CONFIG_PATH=$PREFIX/lib/pkgconfig pkg-config --cflags --libs tarvik_provider) || fail "pkg-config"
    cc -std=c11 -Wall -Wextra -Werror "$REPO/tests/scripts/external_host/host.c" $flags \
        -Wl,-rpath,"$PREFIX/lib" -o "$WORK/host_pkgconfig" || fail "building the host with pkg-config flags: $flags"
    echo '#include <unistd.h>
__attribute__((constructor)) static void planted(void) { write(2, "PLANTED\n", 8); _exit(99); }' >"$WORK/planted.c"
    cc -shared -fPIC -o "$WORK/planted.so" "$WORK/planted.c" || fail "cannot build the planted library"
    name=$(basename "$PREFIX"/lib/libtarvik_provider.so.?)
    for dir in "$WORK" "$WORK/nest" "$WORK/nest/plant" "$PREFIX" "$PREFIX/bin"; do
        cp "$WORK/planted.so" "$dir/$name" && cp "$WORK/planted.so" "$dir/${name%.*}"
    done
    [ "$failures" -eq 0 ] || finish
    in_namespace
fi
setup_three_devices
"$WORK/host_pkgconfig" >host.txt 2>host.err
expect_eq "0 3" "$? $(grep -Eo '^event tarvik_event_[01] (arx0|arx1|tdg0)$' host.txt | sort -u | wc -l)" \
    "outside host: status, devices: $(cat host.txt host.err)"

cd "$WORK/nest/plant"
own=$(readlink -f "$PREFIX"/lib/libtarvik_provider.so.1)
LD_LIBRARY_PATH=$PWD "$PREFIX/bin/vyrhost" "${ONESHOT[@]}" --count 3 --log-level 6 >events.txt 2>err.txt
expect_eq "0 1 0 3" "$? $(grep -cF "[vyrhost] loaded $own" err.txt) $(grep -c PLANTED err.txt) $(wc -l <events.txt)" \
    "installed vyrhost: status, its own library loaded, planted ones not, events"
mv "$own" "$WORK/moved.so"
"$PREFIX/bin/vyrhost" "${ONESHOT[@]}" --count 3 >events.txt 2>err.txt
expect_eq "1 vyrhost: no provider library beside vyrhost (looked for $PREFIX/bin/../lib/libtarvik_provider.so.1); build the tarvik_provider target or name one with --library PATH" \
    "$? $(cat err.txt)" "refusal without its own library"
finish
