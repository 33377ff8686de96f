#!/usr/bin/env bash
# test_vyrhost_exporter.sh REPO BUILD
#
# vyrhost --listen as a Prometheus exporter, checked with real HTTP clients:
# the routes and headers curl sees, scrapes racing the polls never seeing a
# device set that is half old and half new, 1,100 idle connections under a
# 1,024-descriptor limit, and a port somebody else holds.
set -u
REPO=${1:?usage: test_vyrhost_exporter.sh REPO BUILD}
BUILD=${2:?usage: test_vyrhost_exporter.sh REPO BUILD}
if [ "${3:-}" != --inside ]; then
    exec "$REPO/tests/support/ns_run.sh" bash "$0" "$REPO" "$BUILD" --inside
fi
source "$REPO/tests/scripts/vyrhost_env.sh"
cd /tmp
setup_three_devices

# The limit systemd gives services; the flood below must not starve collection.
ulimit -Sn 1024
start_exporter "${ONESHOT[@]}" --poll 0.5 --format json || finish
case "$URL" in http://127.0.0.1:[1-9]*/metrics) ;; *) fail "URL $URL is not on loopback" ;; esac
base=${URL%/metrics}
for _ in $(seq 100); do
    curl -sf "$URL" >metrics.txt && grep -qx 'vyrhost_devices_ready 3' metrics.txt && break
    sleep 0.2
done
expect_contains metrics.txt "vyrhost_devices_ready 3" "three devices served"

curl -s -D headers.txt -o body.txt "$URL"
expect_eq "HTTP/1.1 200 OK" "$(head -1 headers.txt | tr -d '\r')" "status of /metrics"
expect_eq "Content-Type: text/plain; version=0.0.4; charset=utf-8" \
    "$(grep -i '^content-type:' headers.txt | tr -d '\r')" "media type of /metrics"
python3 "$SCRIPTS/check_exposition.py" body.txt >check.txt || fail "exposition: $(cat check.txt)"
expect_eq "200 vyrhost: the plug-in's Prometheus metrics are at /metrics" \
    "$(curl -s -w '%{http_code} ' -o root.txt "$base/" && tr -d '\n' <root.txt)" "GET /"
expect_eq 404 "$(curl -s -o /dev/null -w '%{http_code}' "$base/nothing")" "unknown path"
expect_eq 405 "$(curl -s -o /dev/null -w '%{http_code}' -X POST "$URL")" "POST"
expect_eq 200 "$(curl -s -o /dev/null -w '%{http_code}' -I "$URL")" "HEAD"

# Scrapes during polls every 0.5 s: each one is a whole poll, so every
# family of the devices has exactly as many samples as devices are ready.
python3 - "$URL" <<'PY' || fail "torn scrape"
import sys, time, urllib.request
url, deadline, polls = sys.argv[1], time.time() + 3, set()
while time.time() < deadline:
    lines = urllib.request.urlopen(url, timeout=5).read().decode().split("\n")
    n = int([l for l in lines if l.startswith("vyrhost_devices_ready ")][0].split()[1])
    count = [sum(l.startswith(p) for l in lines) for p in ("tarvik_info{", "tarvik_lanes{")]
    polls.update(l for l in lines if l.startswith("vyrhost_polls_total "))
    assert count == [n, n], (n, count, lines)
assert len(polls) >= 3, polls
PY

# 1,100 idle connections held for 15 s: scrapes still answered while they
# are held, both kinds of device still deliver after, and a line or two said.
python3 - "$URL" <<'PY' || fail "flood"
import resource, socket, sys, time, urllib.parse, urllib.request
resource.setrlimit(resource.RLIMIT_NOFILE, (2048, 2048))
url = sys.argv[1]
addr = urllib.parse.urlsplit(url)
held = [socket.create_connection((addr.hostname, addr.port), timeout=5) for _ in range(1100)]
end, served = time.time() + 15, 0
while time.time() < end:
    served += b"vyrhost_polls_total" in urllib.request.urlopen(url, timeout=5).read()
    time.sleep(1)
assert served >= 10, served
PY
lines=$(wc -l <vyrhost.out)
wait_lines vyrhost.out 20 $((lines + 6))
tail -n 6 vyrhost.out | grep -o '"device_name":"[a-z0-9]*"' | sort -u >after.txt
expect_eq 3 "$(wc -l <after.txt)" "devices delivering after the flood"
[ "$(wc -l <vyrhost.err)" -le 3 ] || fail "stderr during the flood: $(head -5 vyrhost.err)"

kill -INT "$VPID"
wait_exit "$VPID" 30
expect_eq 0 "$EXIT_STATUS" "exit status after SIGINT"
curl -s -o /dev/null "$URL" && fail "still serving after exit"

# Somebody else on the port: one line, status 1.
python3 -c 'import socket,time; s=socket.socket(); s.bind(("127.0.0.1",0)); s.listen(); print(s.getsockname()[1], flush=True); time.sleep(30)' >port.txt &
holder=$!
wait_lines port.txt 10 1
port=$(cat port.txt)
"$VYRHOST" "${ONESHOT[@]}" --listen "127.0.0.1:$port" >/dev/null 2>busy.txt
expect_eq 1 $? "status when the port is taken"
expect_eq "vyrhost: cannot listen on 127.0.0.1:$port: Address already in use" "$(cat busy.txt)" "port taken"
kill "$holder"
wait "$holder" 2>/dev/null
finish
