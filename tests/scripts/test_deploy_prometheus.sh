#!/usr/bin/env bash
# test_deploy_prometheus.sh REPO BUILD
#
# A real Prometheus on loopback scrapes vyrhost (three simulated devices)
# every second with deploy/prometheus's rules loaded: every rule loads and
# evaluates healthy, and every query of deploy/grafana's dashboard (its
# variables set to all, $__rate_interval to 30s) returns data through the
# HTTP API. Skipped (77) where the prometheus package is missing.
set -u
REPO=${1:?usage: test_deploy_prometheus.sh REPO BUILD}
BUILD=${2:?usage: test_deploy_prometheus.sh REPO BUILD}
command -v prometheus >/dev/null || { echo "SKIP: prometheus is not installed (scripts/setup.sh)"; exit 77; }
# A private network namespace too: fixed ports on a loopback of our own.
[ "${3:-}" = --inside ] || exec "$REPO/tests/support/ns_run.sh" unshare --net \
    bash -c 'ip link set lo up && exec bash "$@"' - "$0" "$REPO" "$BUILD" --inside
source "$REPO/tests/scripts/vyrhost_env.sh"
cd /tmp
setup_three_devices

"$VYRHOST" "${ONESHOT[@]}" --poll 1 --listen 127.0.0.1:9464 >/dev/null 2>vyrhost.err &
vyrhost=$!
port=9090
cat >prometheus.yml <<EOT
global:
  scrape_interval: 1s
  scrape_timeout: 1s
  evaluation_interval: 1s
rule_files:
  - $REPO/deploy/prometheus/vyrhost_rules.yml
scrape_configs:
  - job_name: vyrhost
    static_configs:
      - targets: ['127.0.0.1:9464']
EOT
prometheus --config.file=prometheus.yml --storage.tsdb.path=/tmp/prometheus-data \
    --web.listen-address="127.0.0.1:$port" >prometheus.log 2>&1 &
server=$!

# api PATH [--data-urlencode ...]: the JSON answer of the HTTP API.
api() {
    local path=$1
    shift
    curl -sf "http://127.0.0.1:$port/api/v1/$path" "$@"
}
# Five scrapes, so that 30-second rates have points to work on.
deadline=$((SECONDS + 60))
until [ "$(api query --data-urlencode 'query=count_over_time(vyrhost_polls_total[1m])' 2>/dev/null |
    python3 -c 'import json,sys; r=json.load(sys.stdin)["data"]["result"]; print(r[0]["value"][1] if r else 0)' 2>/dev/null)" \
    -ge 5 ] 2>/dev/null; do
    [ "$SECONDS" -lt "$deadline" ] || { fail "no five scrapes in 60 s: $(tail -3 prometheus.log) $(cat vyrhost.err)"; break; }
    sleep 0.5
done

# Every dashboard query (and each variable's selector) with data.
python3 - "$REPO/deploy/grafana/tarvik.json" "http://127.0.0.1:$port/api/v1/query" <<'EOT' ||
import json, re, sys, urllib.parse, urllib.request
dash = json.load(open(sys.argv[1]))
exprs = [t["expr"] for p in dash["panels"] for t in p["targets"]]
exprs += [re.fullmatch(r"label_values\((.*), \w+\)", v["query"]["query"]).group(1)
          for v in dash["templating"]["list"] if v["type"] == "query"]
bad = 0
for e in exprs:
    q = e.replace("$instance", ".*").replace("$device", ".*").replace("$__rate_interval", "30s")
    url = sys.argv[2] + "?" + urllib.parse.urlencode({"query": q})
    result = json.load(urllib.request.urlopen(url))["data"]["result"]
    if not result:
        print("FAIL: no data for", q, file=sys.stderr)
        bad += 1
sys.exit(1 if bad else 0)
EOT
    fail "dashboard queries without data"
expect_eq "arx0 arx1 tdg0" "$(api query --data-urlencode 'query=tarvik_device_up' |
    python3 -c 'import json,sys; print(" ".join(sorted(r["metric"]["device"] for r in json.load(sys.stdin)["data"]["result"])))')" \
    "devices of tarvik_device_up"

# Every rule of the file loaded, evaluated and healthy.
rules=$(grep -c '^ *- alert:' "$REPO/deploy/prometheus/vyrhost_rules.yml")
health=$(api rules | python3 -c '
import json, sys
rules = [r for g in json.load(sys.stdin)["data"]["groups"] for r in g["rules"]]
print(len(rules), sorted({r["health"] for r in rules}))')
expect_eq "$rules ['ok']" "$health" "rules loaded and their health"

kill "$server"
wait_exit "$server" 30
kill -INT "$vyrhost"
wait_exit "$vyrhost" 30
expect_eq 0 "$EXIT_STATUS" "vyrhost's exit status"
finish
