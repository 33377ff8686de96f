#!/usr/bin/env bash
# test_demo.sh REPO BUILD
#
# The demo's own part (scripts/demo_inner.sh, what scripts/demo.sh runs after
# the build) ends by itself with status 0 within a minute and shows events of
# all three simulated devices in one-shot mode (table) and service mode (JSON).
source "${1:?usage: $0 REPO BUILD}/tests/scripts/vyrhost_env.sh" "$@"
OUT=$BUILD/test_demo.out
timeout 60 "$REPO/tests/support/ns_run.sh" bash "$REPO/scripts/demo_inner.sh" \
    "$BUILD/tools/vyrhost/vyrhost" >"$OUT" 2>&1 </dev/null || fail "demo ended with status $?: $(tail -20 "$OUT")"

table=$(sed -n '/^== One-shot mode/,/^== Service mode/p' "$OUT")
json=$(sed -n '/^== Service mode/,/^== What you just saw/p' "$OUT")
[ "$(grep -c '^poll [0-9]* at .*: 3 devices ready$' <<<"$table")" -ge 2 ] ||
    fail "one-shot mode: fewer than two polls with three devices"
for d in arx0 arx1 tdg0; do
    grep -q "^$d  *tarvik_event_[01] " <<<"$table" || fail "one-shot mode: no row of $d"
    grep -q "^{\"source\":\"[^\"]*:tarvik\",\"block_time\":[0-9]*,\"device_name\":\"$d\"" <<<"$json" ||
        fail "service mode: no JSON line of $d"
done
grep -q '^On a server with the adapters' "$OUT" || fail "no closing explanation"

[ "$failures" -eq 0 ] || cat "$OUT" >&2
finish
