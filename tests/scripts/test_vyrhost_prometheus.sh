#!/usr/bin/env bash
# test_vyrhost_prometheus.sh REPO BUILD
#
# A real Prometheus server on loopback scrapes vyrhost every second; after
# two scrapes its HTTP API must hold a tarvik_ series of each simulated
# device. Skipped (status 77) where the Debian package prometheus is not
# installed; scripts/setup.sh installs it.
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

"$VYRHOST" "${ONESHOT[@]}" --poll 1 --listen 127.0.0.1:0 >/dev/null 2>vyrhost.err &
vyrhost=$!
target=""
for _ in $(seq 100); do
    target=$(sed -n 's|^vyrhost: serving Prometheus metrics at http://\([^/]*\)/metrics$|\1|p' vyrhost.err)
    [ -n "$target" ] && break
    sleep 0.1
done
[ -n "$target" ] || { fail "vyrhost did not start serving: $(cat vyrhost.err)"; finish; }

port=$(python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1",0)); print(s.getsockname()[1])')
cat >prometheus.yml <<EOF
global:
  scrape_interval: 1s
  scrape_timeout: 1s
scrape_configs:
  - job_name: vyrhost
    static_configs:
      - targets: ['$target']
EOF
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
    print(",".join(f"{k}={m[k]}" for k in sorted(m)), r["value"][1])'
}

# Two scrapes: two samples of vyrhost's poll counter in the server.
scrapes=0
deadline=$((SECONDS + 60))
while [ "$SECONDS" -lt "$deadline" ]; do
    scrapes=$(query 'count_over_time(vyrhost_polls_total[5m])' 2>/dev/null | awk '{print $2}')
    [ "${scrapes:-0}" -ge 2 ] 2>/dev/null && break
    sleep 0.5
done
[ "${scrapes:-0}" -ge 2 ] 2>/dev/null ||
    fail "Prometheus did not scrape vyrhost twice in 60 s: $(tail -5 prometheus.log)"

devices=$(query 'tarvik_raw_errors_lane_0' | sed -n 's/.*device=\([^,]*\),.*/\1/p' | sort | tr '\n' ' ')
expect_eq "arx0 arx1 tdg0 " "$devices" "devices of tarvik_raw_errors_lane_0 in Prometheus"
info=$(query 'tarvik_info{device="tdg0"}')
case "$info" in
*"cable_pn=ZDC-2210-01"*"job=vyrhost"*) ;;
*) fail "tarvik_info of tdg0 in Prometheus: $info" ;;
esac
up=$(query 'up{job="vyrhost"}' | awk '{print $2}')
expect_eq 1 "$up" "up{job=\"vyrhost\"}"

kill "$server"
wait_exit "$server" 30
kill -INT "$vyrhost"
wait_exit "$vyrhost" 30
expect_eq 0 "$EXIT_STATUS" "vyrhost's exit status"
finish
