#!/usr/bin/env bash
# package.sh [OUTDIR]: builds the Debian packages (vyrhost and
# libtarvik-provider-dev) into OUTDIR (default build-package/) with
# dpkg-buildpackage, then runs lintian over them. The build works on a copy
# of the tree (the files git knows, committed or not) with deploy/debian as
# its debian/ folder, so the checkout itself stays untouched.
set -euo pipefail
REPO=$(cd "$(dirname "$0")/.." && pwd)
OUT=$(mkdir -p "${1:-$REPO/build-package}" && cd "${1:-$REPO/build-package}" && pwd)
VERSION=$(dpkg-parsechangelog -l "$REPO/deploy/debian/changelog" -S Version)
SRC=$OUT/tarvik-provider-$VERSION

rm -rf "$SRC" "$OUT"/*.deb "$OUT"/*.ddeb "$OUT"/*.changes "$OUT"/*.buildinfo
mkdir -p "$SRC"
if git -C "$REPO" rev-parse --git-dir >/dev/null 2>&1; then
    git -C "$REPO" ls-files -z --cached --others --exclude-standard |
        (cd "$REPO" && xargs -0 cp --parents -t "$SRC" 2>/dev/null || true)
else
    tar -C "$REPO" --exclude='./build*' -cf - . | tar -C "$SRC" -xf -
fi
rm -rf "$SRC/debian"
cp -r "$REPO/deploy/debian" "$SRC/debian"
cp "$REPO/deploy/systemd/vyrhost.service" "$SRC/debian/vyrhost.service"

export DEB_BUILD_OPTIONS="${DEB_BUILD_OPTIONS:-parallel=2}"
(cd "$SRC" && dpkg-buildpackage -b -us -uc) >"$OUT/build.log" 2>&1 || {
    tail -40 "$OUT/build.log" >&2
    echo "package.sh: dpkg-buildpackage failed; the whole log is $OUT/build.log" >&2
    exit 1
}
rm -rf "$SRC"
lintian --fail-on error "$OUT"/*.changes
ls "$OUT"/*.deb
