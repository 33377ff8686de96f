#!/usr/bin/env bash
# test_demo.sh REPO BUILD
#
# The demo's own part (scripts/demo_inner.sh, what scripts/demo.sh runs after
# the build) ends by itself with status 0 within a minute and shows events of
# all three simulated devices in one-shot mode (table) and service mode (JSON).
source "${1:?usage: $0 REPO BUILD}/tests/scripts/vyrhost_env.sh" "$@"
OUT=$BUILD/test_demo.out
timeout 60 "$REPO/tests/support/ns_run.sh" bash "$REPO/scripts/demo_inner.sh" "$BUILD/tools/vyrhost/vyrhost" \
    >"$OUT" 2>&1 </dev/null || fail "demo ended with status $?: $(tail -20 "$OUT")"
for d in arx0 arx1 tdg0; do
    sed -n '/^== One-shot mode/,/^== Service mode/p' "$OUT" | grep -q "^$d  *tarvik_event_[01] " || fail "one-shot mode: no row of $d"
    sed -n '/^== Service mode/,/^== What you just saw/p' "$OUT" | grep -q "^{\"source\":.*\"device_name\":\"$d\"" ||
        fail "service mode: no JSON line of $d"
done
finish
