#!/usr/bin/env bash
# test_package.sh REPO BUILD
#
# scripts/package.sh builds the Debian packages (lintian finds no error, or
# the script fails); the runtime package holds vyrhost, the library under its
# soname, the unit, the compressed man page, the copyright file and the
# conffiles, and systemd accepts the unit; the -dev package holds the headers.
# Skipped (77) without dpkg-buildpackage, lintian or help2man, and in
# sanitizer builds (the packages are built with their own flags).
source "${1:?usage: $0 REPO BUILD}/tests/scripts/vyrhost_env.sh" "$@"
skip_without dpkg-buildpackage lintian help2man systemd-analyze
grep -q '^VYR_SANITIZE:STRING=.' "$BUILD/CMakeCache.txt" && exit 77
OUT=$BUILD/package-test
# debhelper gives the build a HOME of its own: keep ccache's cache across runs.
export CCACHE_DIR=${CCACHE_DIR:-$BUILD/package-ccache} CCACHE_BASEDIR=${CCACHE_BASEDIR:-$BUILD}
bash "$REPO/scripts/package.sh" "$OUT" >"$BUILD/package-test.log" 2>&1 ||
    { fail "package.sh: $(tail -20 "$BUILD/package-test.log")" && finish; }
deb=$(ls "$OUT"/vyrhost_*_*.deb)
expect_eq "./etc/default/vyrhost
./etc/vyrhost/vyrhost.conf
./lib/systemd/system/vyrhost.service
./usr/bin/vyrhost
./usr/lib/ARCH/libtarvik_provider.so.1 -> libtarvik_provider.so.1.0.0
./usr/lib/ARCH/libtarvik_provider.so.1.0.0
./usr/share/doc/vyrhost/README.md.gz
./usr/share/doc/vyrhost/copyright
./usr/share/doc/vyrhost/deploy.md.gz
./usr/share/man/man1/vyrhost.1.gz" "$(dpkg-deb -c "$deb" | awk '$1 !~ /^d/ {print $6 ($7 ? " " $7 " " $8 : "")}' |
    grep -v changelog | sed 's|/usr/lib/[^/]*/|/usr/lib/ARCH/|' | sort)" "files of $deb"
expect_eq "/etc/default/vyrhost
/etc/vyrhost/vyrhost.conf" "$(dpkg-deb -I "$deb" conffiles)" conffiles
dpkg-deb -c "$OUT"/libtarvik-provider-dev_*.deb | grep -q 'usr/include/vyr/vyr_event_provider.h' ||
    fail "the -dev package has no headers"
# systemd checks the unit; ExecStart must name an existing program, so it
# points at the unpacked one.
root=$OUT/root
dpkg-deb -x "$deb" "$root" && mkdir -p "$OUT/unit"
sed "s|/usr/bin/vyrhost|$root/usr/bin/vyrhost|" "$root/lib/systemd/system/vyrhost.service" >"$OUT/unit/vyrhost.service"
verify=$(systemd-analyze verify --man=no "$OUT/unit/vyrhost.service" 2>&1)
expect_eq "0 " "$? $verify" "systemd-analyze verify"
finish
