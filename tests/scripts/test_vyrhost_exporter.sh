#!/usr/bin/env bash
# test_vyrhost_exporter.sh REPO BUILD
#
# vyrhost --listen, adapters collected every second: status and media type
# of /metrics, a scrape promtool finds clean, a real Prometheus server
# scraping it, a port somebody else holds, SIGINT.
# Skipped (77) without the prometheus package.
source "${1:?usage: $0 REPO BUILD}/tests/scripts/vyrhost_env.sh" "$@"
skip_without prometheus promtool
in_namespace
setup_three_devices
"$VYRHOST" --listen 127.0.0.1:0 --set tarvik_update_interval_sec=1 --set tarvik_phyprobe_as_service=0 \
    --poll 1 --format json >vyrhost.out 2>vyrhost.err &
VPID=$!
for _ in $(seq 100); do
    URL=$(sed -n 's/^vyrhost: serving Prometheus metrics at \(http:[^ ]*\)$/\1/p' vyrhost.err)
    [ -n "$URL" ] && break || sleep 0.1
done
[ -n "$URL" ] || { fail "vyrhost did not start serving: $(cat vyrhost.err)" && finish; }
base=${URL%/metrics}
target=${base#http://}

curl -s -D headers.txt -o /dev/null "$URL"
expect_eq "HTTP/1.1 200 OK|Content-Type: text/plain; version=0.0.4; charset=utf-8" \
    "$(grep -i '^HTTP\|^content-type:' headers.txt | tr -d '\r' | paste -sd'|')" "status and media type of /metrics"

port=$(python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1",0)); print(s.getsockname()[1])')
echo "{global: {scrape_interval: 1s, evaluation_interval: 1s},
    scrape_configs: [{job_name: v, static_configs: [{targets: ['$target']}]}]}" >prometheus.yml
prometheus --config.file=prometheus.yml --storage.tsdb.path=/tmp/prometheus-data \
    --web.listen-address="127.0.0.1:$port" >prometheus.log 2>&1 &
server=$!
up() { curl -sf "http://127.0.0.1:$port/api/v1/query?query=tarvik_device_up" |
    jq -r '[.data.result[] | "\(.metric.device)=\(.value[1])"] | sort | join(" ")'; }
for _ in $(seq 60); do [ "$(up)" = "arx0=1 arx1=1 tdg0=1" ] && break || sleep 0.5; done
expect_eq "arx0=1 arx1=1 tdg0=1" "$(up)" "tarvik_device_up in Prometheus"
curl -sf "$URL" >scrape.txt && promtool check metrics <scrape.txt >check.txt 2>&1 || fail "scrape: $(cat check.txt)"

"$VYRHOST" "${ONESHOT[@]}" --listen "$target" >/dev/null 2>busy.txt
expect_eq "1 vyrhost: cannot listen on $target: Address already in use" "$? $(cat busy.txt)" "port taken"
kill "$server" && wait_exit "$server" 30
kill -INT "$VPID"
wait_exit "$VPID" 30
expect_eq 0 "$EXIT_STATUS" "exit status after SIGINT"
curl -s -o /dev/null "$URL" && fail "still serving after exit"
finish
