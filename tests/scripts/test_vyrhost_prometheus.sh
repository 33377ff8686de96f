#!/usr/bin/env bash
# test_vyrhost_prometheus.sh REPO BUILD
#
# A real Prometheus server on loopback scrapes vyrhost every second while the
# adapters are collected every second: every scrape is clean and, once all
# devices deliver, holds the same series; the server sees no series churn;
# tarvik_device_up drops to 0 for a device that goes away while the others
# stay 1. Skipped (status 77) where the Debian package prometheus is missing.
set -u
REPO=${1:?usage: test_vyrhost_prometheus.sh REPO BUILD}
BUILD=${2:?usage: test_vyrhost_prometheus.sh REPO BUILD}
if ! command -v prometheus >/dev/null; then
    echo "SKIP: the prometheus server is not installed (Debian package prometheus, see scripts/setup.sh)"
    exit 77
fi
if [ "${3:-}" != --inside ]; then
    exec "$REPO/tests/support/ns_run.sh" bash "$0" "$REPO" "$BUILD" --inside
fi
source "$REPO/tests/scripts/vyrhost_env.sh"
cd /tmp
setup_three_devices
start_exporter --set tarvik_update_interval_sec=1 --set tarvik_phyprobe_as_service=0 \
    --set tarvik_max_errors=1 --poll 1 || finish

port=$(python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1",0)); print(s.getsockname()[1])')
target=${URL#http://}
cat >prometheus.yml <<EOT
global: {scrape_interval: 1s, scrape_timeout: 1s}
scrape_configs: [{job_name: vyrhost, static_configs: [{targets: ['${target%/metrics}']}]}]
EOT
prometheus --config.file=prometheus.yml --storage.tsdb.path=/tmp/prometheus-data \
    --web.listen-address="127.0.0.1:$port" >prometheus.log 2>&1 &
server=$!

# query EXPR: the API's result vector as "labels value" lines.
query() {
    curl -sf "http://127.0.0.1:$port/api/v1/query" --data-urlencode "query=$1" |
        python3 -c '
import json, sys
for r in json.load(sys.stdin)["data"]["result"]:
    m = r["metric"]
    print(",".join(f"{k}={m[k]}" for k in sorted(m) if k not in ("job", "instance", "__name__")), r["value"][1])'
}

# Twelve scrapes of our own beside the server's, one a second.
full=""
for i in $(seq 12); do
    curl -sf "$URL" >scrape.$i.txt || fail "scrape $i"
    [ -z "$full" ] && grep -qx 'vyrhost_devices_ready 3' scrape.$i.txt && full=$i
    sleep 1
done
[ -n "$full" ] && [ "$full" -le 6 ] || fail "all three devices first delivered in scrape ${full:-never}"
python3 "$SCRIPTS/check_exposition.py" --same-series $(seq -f scrape.%g.txt "${full:-1}" 12) >check.txt ||
    fail "scrapes: $(cat check.txt)"
python3 "$SCRIPTS/check_exposition.py" scrape.1.txt >check.txt || fail "first scrape: $(cat check.txt)"
polls=$(sed -n 's/^vyrhost_polls_total //p' scrape.12.txt)
[ "${polls:-0}" -ge 10 ] || fail "only ${polls:-0} polls"

# Every series the server ever saw is still there: nothing churned.
named='label_replace({job="vyrhost"}, "name", "$1", "__name__", "(.*)")'
ever=$(query "count(count_over_time($named[5m:500ms]))" | awk '{print $NF}')
now=$(query 'count({job="vyrhost"})' | awk '{print $NF}')
[ -n "$now" ] && [ "$ever" = "$now" ] || fail "series seen: $ever, present: $now"
expect_eq "device=arx0,interface=eth0 1
device=arx1,interface=eth1 1
device=tdg0,interface=eth2 1" "$(query tarvik_device_up | sort)" "tarvik_device_up in Prometheus"
expect_eq "arx0 0,arx0 1,arx0 2,arx0 3,arx1 0,arx1 1,arx1 2,arx1 3,tdg0 0,tdg0 1," \
    "$(query tarvik_raw_errors_total | sed 's/device=\([^,]*\),interface=[^,]*,lane=\([0-9]*\) .*/\1 \2/' |
        sort | tr '\n' ,)" "lanes of tarvik_raw_errors_total"

# tdg0 goes away: its tool no longer finds it.
rm /dev/zdt/tdg0
deadline=$((SECONDS + 30))
until [ "$(query 'tarvik_device_up{device="tdg0"}' | awk '{print $2}')" = 0 ] ||
    [ "$SECONDS" -ge "$deadline" ]; do sleep 0.5; done
expect_eq "device=arx0,interface=eth0 1
device=arx1,interface=eth1 1
device=tdg0,interface=eth2 0" "$(query tarvik_device_up | sort)" "tarvik_device_up after tdg0 vanished"

kill "$server"
wait_exit "$server" 30
kill -INT "$VPID"
wait_exit "$VPID" 30
expect_eq 0 "$EXIT_STATUS" "vyrhost's exit status"
finish
