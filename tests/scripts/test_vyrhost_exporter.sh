#!/usr/bin/env bash
# test_vyrhost_exporter.sh REPO BUILD
#
# vyrhost --listen as a Prometheus exporter, checked with real HTTP clients:
# the routes and headers curl sees, promtool and the strict exposition check
# on what /metrics serves, and scrapes racing the polls never seeing a device
# set that is half old and half new.
set -u
REPO=${1:?usage: test_vyrhost_exporter.sh REPO BUILD}
BUILD=${2:?usage: test_vyrhost_exporter.sh REPO BUILD}
if [ "${3:-}" != --inside ]; then
    exec "$REPO/tests/support/ns_run.sh" bash "$0" "$REPO" "$BUILD" --inside
fi
source "$REPO/tests/scripts/vyrhost_env.sh"
cd /tmp
setup_three_devices

# Port 0: the system picks a free port and vyrhost says which.
"$VYRHOST" "${ONESHOT[@]}" --poll 0.5 --listen 127.0.0.1:0 >stdout.txt 2>stderr.txt &
pid=$!
url=""
for _ in $(seq 100); do
    url=$(sed -n 's/^vyrhost: serving Prometheus metrics at \(http:[^ ]*\)$/\1/p' stderr.txt)
    [ -n "$url" ] && break
    sleep 0.1
done
[ -n "$url" ] || fail "no 'serving Prometheus metrics at' line: $(cat stderr.txt)"
base=${url%/metrics}
case "$url" in http://127.0.0.1:[1-9]*/metrics) ;; *) fail "URL $url is not on loopback" ;; esac

# Wait for the first poll that has all three devices.
for _ in $(seq 100); do
    curl -sf "$url" >metrics.txt && grep -qx 'vyrhost_devices_ready 3' metrics.txt && break
    sleep 0.2
done
expect_contains metrics.txt "vyrhost_devices_ready 3" "three devices served"

curl -s -D headers.txt -o body.txt "$url"
expect_eq "HTTP/1.1 200 OK" "$(head -1 headers.txt | tr -d '\r')" "status of /metrics"
expect_eq "Content-Type: text/plain; version=0.0.4; charset=utf-8" \
    "$(grep -i '^content-type:' headers.txt | tr -d '\r')" "media type of /metrics"
python3 "$SCRIPTS/check_exposition.py" body.txt >check.txt || fail "exposition: $(cat check.txt)"
for d in arx0 arx1 tdg0; do
    expect_contains body.txt "tarvik_timestamp{device=\"$d\"} " "series of $d"
done
grep -Eq '^tarvik_timestamp\{[^}]*\} [0-9]+ [0-9]+$' body.txt &&
    fail "samples carry timestamps without --timestamps"
if command -v promtool >/dev/null; then
    promtool check metrics <body.txt >promtool.txt 2>&1 || fail "promtool check metrics: $(cat promtool.txt)"
else
    echo "note: promtool not installed (Debian package prometheus); skipped its check"
fi

expect_eq "200 vyrhost: the plug-in's Prometheus metrics are at /metrics" \
    "$(curl -s -w '%{http_code} ' -o root.txt "$base/" && cat root.txt | tr -d '\n')" "GET /"
expect_eq 404 "$(curl -s -o /dev/null -w '%{http_code}' "$base/nothing")" "unknown path"
expect_eq 405 "$(curl -s -o /dev/null -w '%{http_code}' -X POST "$url")" "POST"
expect_eq 200 "$(curl -s -o /dev/null -w '%{http_code}' -I "$url")" "HEAD"

# Scrapes during polls every 0.5 s: each one is a whole poll, so every
# family of the devices has exactly as many samples as devices are ready.
python3 - "$url" <<'EOF' || fail "torn scrape"
import sys, time, urllib.request
url, deadline, scrapes, polls = sys.argv[1], time.time() + 4, 0, set()
while time.time() < deadline:
    text = urllib.request.urlopen(url, timeout=5).read().decode()
    lines = text.split("\n")
    n = int([l for l in lines if l.startswith("vyrhost_devices_ready ")][0].split()[1])
    info = [l for l in lines if l.startswith("tarvik_info{")]
    stamps = [l for l in lines if l.startswith("tarvik_timestamp{")]
    polls.update(l for l in lines if l.startswith("vyrhost_polls_total "))
    if not (len(info) == n == len(stamps)):
        print(f"scrape {scrapes}: {n} ready, {len(info)} info, {len(stamps)} timestamps\n{text}")
        sys.exit(1)
    scrapes += 1
if len(polls) < 4:
    print(f"only {len(polls)} polls seen in {scrapes} scrapes")
    sys.exit(1)
EOF

kill -INT "$pid"
wait_exit "$pid" 30
expect_eq 0 "$EXIT_STATUS" "exit status after SIGINT"
[ -s stdout.txt ] && fail "--listen without --format printed: $(head -c 300 stdout.txt)"
curl -s -o /dev/null "$url" && fail "still serving after exit"

# --timestamps: the block's time, in milliseconds, on every device sample.
"$VYRHOST" "${ONESHOT[@]}" --format prometheus --timestamps --count 3 >stamped.txt 2>/dev/null
grep -E '^tarvik_timestamp\{device="arx0"\} [0-9]+ [0-9]{13}$' stamped.txt >/dev/null ||
    fail "--timestamps: $(grep '^tarvik_timestamp' stamped.txt)"

# Somebody else on the port: a plain refusal, status 1.
python3 -c 'import socket,time; s=socket.socket(); s.bind(("127.0.0.1",0)); s.listen(); print(s.getsockname()[1], flush=True); time.sleep(30)' >port.txt &
holder=$!
wait_lines port.txt 10 1
port=$(cat port.txt)
"$VYRHOST" "${ONESHOT[@]}" --listen "127.0.0.1:$port" >/dev/null 2>busy.txt
expect_eq 1 $? "status when the port is taken"
expect_contains busy.txt "vyrhost: cannot listen on 127.0.0.1:$port (address in use, or not an address of this machine?)" "port taken"
kill "$holder"
wait "$holder" 2>/dev/null

finish
