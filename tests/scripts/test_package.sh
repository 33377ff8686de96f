#!/usr/bin/env bash
# test_package.sh REPO BUILD
#
# scripts/package.sh builds the Debian packages (lintian finds no error, or
# the script fails); the runtime package holds vyrhost, the library under its
# soname, the unit, the compressed man page, the copyright file and the
# conffiles; the copyright file carries LICENSE; systemd accepts the unit.
# Skipped (77) without dpkg-buildpackage, lintian or help2man.
source "${1:?usage: $0 REPO BUILD}/tests/scripts/vyrhost_env.sh" "$@"
skip_without dpkg-buildpackage lintian help2man systemd-analyze
# The packages are built with their own flags: once per suite run is enough.
grep -q '^VYR_SANITIZE:STRING=.' "$BUILD/CMakeCache.txt" 2>/dev/null &&
    { echo "SKIP: a sanitizer build; the normal build's run checks the packages"; exit 77; }
OUT=$BUILD/package-test
# debhelper gives the build a HOME of its own: keep ccache's cache across runs.
export CCACHE_DIR=${CCACHE_DIR:-$BUILD/package-ccache} CCACHE_BASEDIR=${CCACHE_BASEDIR:-$BUILD}
bash "$REPO/scripts/package.sh" "$OUT" >"$BUILD/package-test.log" 2>&1 ||
    { fail "package.sh: $(tail -20 "$BUILD/package-test.log")"; finish; }
deb=$(ls "$OUT"/vyrhost_*_*.deb)
dpkg-deb -c "$deb" | awk '{print $6 ($7 ? " " $7 " " $8 : "")}' >"$OUT/contents"
for want in ./usr/bin/vyrhost ./lib/systemd/system/vyrhost.service \
    ./usr/share/man/man1/vyrhost.1.gz ./usr/share/doc/vyrhost/copyright \
    ./etc/vyrhost/vyrhost.conf ./etc/default/vyrhost; do
    grep -qx -- "$want" "$OUT/contents" || fail "$want not in $deb"
done
grep -qE '^\./usr/lib/[^/]+/libtarvik_provider\.so\.1 -> libtarvik_provider\.so\.1\.0\.0$' "$OUT/contents" ||
    fail "no soname link in $deb: $(grep libtarvik "$OUT/contents")"
grep -q 'libtarvik_provider\.so$' "$OUT/contents" && fail "the runtime package holds the development link"
dpkg-deb -c "$OUT"/libtarvik-provider-dev_*.deb | grep -q 'usr/include/vyr/vyr_event_provider.h' ||
    fail "the -dev package has no headers"
expect_eq "/etc/default/vyrhost
/etc/vyrhost/vyrhost.conf" "$(dpkg-deb -I "$deb" conffiles)" conffiles

root=$OUT/root
dpkg-deb -x "$deb" "$root"
expect_eq libtarvik_provider.so.1 \
    "$(objdump -p "$root"/usr/lib/*/libtarvik_provider.so.1 | awk '/SONAME/ {print $2}')" soname
# Every line of the license text, re-indented, is in the copyright file.
sed -n '/^Permission/,$p' "$REPO/LICENSE" | sed 's/^$/./; s/^/ /' >"$OUT/license"
[ "$(grep -cxF -f "$OUT/license" "$root/usr/share/doc/vyrhost/copyright")" = "$(wc -l <"$OUT/license")" ] ||
    fail "the copyright file does not carry LICENSE"

# systemd checks the unit; ExecStart must name an existing program, so it
# points at the unpacked one.
mkdir -p "$OUT/unit"
sed "s|/usr/bin/vyrhost|$root/usr/bin/vyrhost|" "$root/lib/systemd/system/vyrhost.service" \
    >"$OUT/unit/vyrhost.service"
verify=$(systemd-analyze verify --man=no "$OUT/unit/vyrhost.service" 2>&1)
expect_eq "0 " "$? $verify" "systemd-analyze verify"
finish
