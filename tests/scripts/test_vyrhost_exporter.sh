#!/usr/bin/env bash
# test_vyrhost_exporter.sh REPO BUILD
#
# vyrhost --listen under a 1,024-descriptor limit, adapters collected every
# second: the routes curl sees; scrapes never half old and half new; a real
# Prometheus server (where the Debian package is installed) seeing clean
# scrapes with the same series and no churn; 1,100 idle connections; a device
# that vanishes going down alone; a port somebody else holds. Skipped (77)
# without the prometheus package.
source "${1:?usage: $0 REPO BUILD}/tests/scripts/vyrhost_env.sh" "$@"
skip_without prometheus promtool
in_namespace
setup_three_devices
ulimit -Sn 1024 # what systemd gives a service
"$VYRHOST" --listen 127.0.0.1:0 --set tarvik_update_interval_sec=1 --set tarvik_phyprobe_as_service=0 \
    --set tarvik_max_errors=1 --poll 1 --format json >vyrhost.out 2>vyrhost.err &
VPID=$!
for _ in $(seq 100); do
    URL=$(sed -n 's/^vyrhost: serving Prometheus metrics at \(http:[^ ]*\)$/\1/p' vyrhost.err)
    [ -n "$URL" ] && break || sleep 0.1
done
[ -n "$URL" ] || { fail "vyrhost did not start serving: $(cat vyrhost.err)"; finish; }
base=${URL%/metrics}
target=${base#http://}

curl -s -D headers.txt -o /dev/null "$URL"
expect_eq "HTTP/1.1 200 OK|Content-Type: text/plain; version=0.0.4; charset=utf-8" \
    "$(grep -i '^HTTP\|^content-type:' headers.txt | tr -d '\r' | paste -sd'|')" "status and media type of /metrics"
expect_eq "200 vyrhost: the plug-in's Prometheus metrics are at /metrics" \
    "$(curl -s -w '%{http_code} ' -o root.txt "$base/" && tr -d '\n' <root.txt)" "GET /"
expect_eq "404 405 200" "$(for a in "$base/nothing" "-X POST $URL" "-I $URL"; do
    curl -s -o /dev/null -w '%{http_code}\n' $a; done | xargs)" "404, POST, HEAD"

port=$(python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1",0)); print(s.getsockname()[1])')
echo "{global: {scrape_interval: 1s, evaluation_interval: 1s}, rule_files: ['$REPO/deploy/prometheus/vyrhost_rules.yml'],
    scrape_configs: [{job_name: v, static_configs: [{targets: ['$target']}]}]}" >prometheus.yml
prometheus --config.file=prometheus.yml --storage.tsdb.path=/tmp/prometheus-data \
    --web.listen-address="127.0.0.1:$port" >prometheus.log 2>&1 &
server=$!
# query EXPR: the server's answer as "labels value" lines, job and instance left out.
query() {
    curl -sf "http://127.0.0.1:$port/api/v1/query" --data-urlencode "query=$1" | jq -r '.data.result[] |
        ([.metric | del(.job, .instance, .__name__) | to_entries | sort_by(.key)[] | "\(.key)=\(.value)"] | join(",")) + " " + .value[1]'
}

# Twelve scrapes of our own, one a second: once all devices deliver, every
# scrape is clean, a whole poll (as many samples per family as devices
# ready) and holds the same series.
full=""
for i in $(seq 12); do
    curl -sf "$URL" >scrape.$i.txt || fail "scrape $i"
    [ -z "$full" ] && grep -qx 'vyrhost_devices_ready 3' scrape.$i.txt && full=$i
    n=$(sed -n 's/^vyrhost_devices_ready //p' scrape.$i.txt)
    expect_eq "$n $n" "$(grep -c '^tarvik_info{' scrape.$i.txt) $(grep -c '^tarvik_lanes{' scrape.$i.txt)" "scrape $i is one poll"
    sleep 1
done
[ -n "$full" ] && [ "$full" -le 6 ] || fail "all three devices first delivered in scrape ${full:-never}"
python3 "$SCRIPTS/check_exposition.py" --same-series $(seq -f scrape.%g.txt "${full:-1}" 12) >check.txt ||
    fail "scrapes: $(cat check.txt)"
python3 "$SCRIPTS/check_exposition.py" scrape.1.txt >check.txt || fail "first scrape: $(cat check.txt)"
[ "$(sed -n 's/^vyrhost_polls_total //p' scrape.12.txt)" -ge 10 ] || fail "fewer than 10 polls"
up="device=arx0,interface=eth0 1
device=arx1,interface=eth1 1
device=tdg0,interface=eth2"
# Every series the server ever saw is still there: nothing churned.
named='label_replace({job="v"}, "name", "$1", "__name__", "(.*)")'
ever=$(query "count(count_over_time($named[5m:500ms]))" | awk '{print $NF}')
now=$(query 'count({job="v"})' | awk '{print $NF}')
[ -n "$now" ] && [ "$ever" = "$now" ] || fail "series seen: $ever, present: $now"
expect_eq "$up 1" "$(query tarvik_device_up | sort)" "tarvik_device_up in Prometheus"
# Every query of deploy/grafana's dashboard (and each variable's selector,
# variables set to all) has data; every rule loaded and healthy.
while read -r q; do
    [ -n "$(query "$q")" ] || fail "no data for the dashboard's $q"
done < <(jq -r '.panels[].targets[].expr, (.templating.list[] | select(.type == "query") |
    .query.query | capture("label_values\\((?<e>.*), \\w+\\)").e)' "$REPO/deploy/grafana/tarvik.json" |
    sed 's/\$instance/.*/g; s/\$device/.*/g; s/\$__rate_interval/30s/g')
expect_eq "$(grep -c '^ *- alert:' "$REPO/deploy/prometheus/vyrhost_rules.yml") ok" "$(curl -sf "http://127.0.0.1:$port/api/v1/rules" |
    jq -r '[.data.groups[].rules[]] | "\(length) \(map(.health) | unique | join(","))"')" "rules loaded and their health"

# 1,100 idle connections held for 15 s: scrapes still answered meanwhile,
# all devices still deliver after, and a line or two said about it.
python3 - "$URL" <<'PY' || fail "flood"
import resource, socket, sys, time, urllib.parse, urllib.request
resource.setrlimit(resource.RLIMIT_NOFILE, (2048, 2048))
addr = urllib.parse.urlsplit(sys.argv[1])
held = [socket.create_connection((addr.hostname, addr.port), timeout=5) for _ in range(1100)]
end, served = time.time() + 15, 0
while time.time() < end:
    served += b"vyrhost_polls_total" in urllib.request.urlopen(sys.argv[1], timeout=5).read()
    time.sleep(1)
assert served >= 10, served
PY
lines=$(wc -l <vyrhost.out)
wait_lines vyrhost.out 20 $((lines + 6)) || fail "no events after the flood"
expect_eq 3 "$(tail -n 6 vyrhost.out | grep -o '"device_name":"[a-z0-9]*"' | sort -u | wc -l)" "devices after the flood"
[ "$(wc -l <vyrhost.err)" -le 3 ] || fail "stderr during the flood: $(head -5 vyrhost.err)"

# tdg0 vanishes: its tool no longer finds it; it alone goes down.
rm /dev/zdt/tdg0
for _ in $(seq 60); do
    curl -sf "$URL" | grep -q '^tarvik_device_up{device="tdg0",interface="eth2"} 0$' && break
    sleep 0.5
done
expect_eq "$up 0" "$(curl -sf "$URL" | sed -n 's/^tarvik_device_up{device="\([^"]*\)",interface="\([^"]*\)"} /device=\1,interface=\2 /p')" \
    "tarvik_device_up after tdg0 vanished"
# Somebody else on the port: one line, status 1.
"$VYRHOST" "${ONESHOT[@]}" --listen "$target" >/dev/null 2>busy.txt
expect_eq "1 vyrhost: cannot listen on $target: Address already in use" "$? $(cat busy.txt)" "port taken"
kill "$server" && wait_exit "$server" 30
kill -INT "$VPID"
wait_exit "$VPID" 30
expect_eq 0 "$EXIT_STATUS" "exit status after SIGINT"
curl -s -o /dev/null "$URL" && fail "still serving after exit"

finish
