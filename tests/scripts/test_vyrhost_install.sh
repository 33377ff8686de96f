#!/usr/bin/env bash
# test_vyrhost_install.sh REPO BUILD
#
# vyrhost installed into a prefix loads the library of its own prefix and
# never one planted where a search could stray: beside the prefix, where the
# build tree's relative path leads from the installed program, the working
# directory and LD_LIBRARY_PATH. Without its own library it refuses.
source "${1:?usage: $0 REPO BUILD}/tests/scripts/vyrhost_env.sh" "$@"
WORK=$BUILD/vyrhost-install-test
if [ "${VYR_TEST_NAMESPACE:-}" != 1 ]; then
    rm -rf "$WORK" && mkdir -p "$WORK/nest/plant"
    cmake --install "$BUILD" --prefix "$WORK/nest/prefix" >"$WORK/install.log" 2>&1 ||
        { echo "FAIL: cmake --install: $(tail -5 "$WORK/install.log")"; exit 1; }
    in_namespace
fi
PREFIX=$WORK/nest/prefix
name=$(basename "$(ls "$PREFIX"/lib*/libtarvik_provider.so.? | head -1)")
own=$(readlink -f "$PREFIX"/lib*/"$name")
printf '#include <unistd.h>\n__attribute__((constructor)) static void planted(void) { write(2, "PLANTED\\n", 8); _exit(99); }\n' >"$WORK/planted.c"
cc -shared -fPIC -o "$WORK/planted.so" "$WORK/planted.c" || fail "cannot build the planted library"
for dir in "$WORK" "$WORK/nest" "$WORK/nest/plant" "$PREFIX" "$PREFIX/bin" /tmp; do
    cp "$WORK/planted.so" "$dir/$name"
    cp "$WORK/planted.so" "$dir/${name%.*}"
done

cd "$WORK/nest/plant"
setup_three_devices
LD_LIBRARY_PATH=$WORK/nest/plant "$PREFIX/bin/vyrhost" "${ONESHOT[@]}" --count 3 --log-level 6 \
    >events.txt 2>err.txt
expect_eq 0 $? "status of the installed vyrhost"
expect_contains err.txt "[vyrhost] loaded $own" "the installed vyrhost loads its own library"
grep -q PLANTED err.txt && fail "a planted library was loaded"
expect_eq 3 "$(wc -l <events.txt)" "events of the installed vyrhost"

mv "$own" "$WORK/moved.so"
"$PREFIX/bin/vyrhost" "${ONESHOT[@]}" --count 3 >events.txt 2>err.txt
expect_eq 1 $? "status without its own library"
expect_eq "vyrhost: no provider library beside vyrhost (looked for $PREFIX/bin/../$(dirname "${own#"$PREFIX/"}")/$name); build the tarvik_provider target or name one with --library PATH" \
    "$(cat err.txt)" "refusal without its own library"
finish
