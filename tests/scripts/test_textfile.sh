#!/usr/bin/env bash
# test_textfile.sh REPO BUILD
#
# vyrhost --textfile rewrites its file 20 times a second; the real
# node_exporter reads the directory (--collector.textfile.directory): its
# /metrics carries the tarvik_ series of every simulated device and
# node_textfile_scrape_error 0. Skipped (77) without
# prometheus-node-exporter.
source "${1:?usage: $0 REPO BUILD}/tests/scripts/vyrhost_env.sh" "$@"
skip_without prometheus-node-exporter
in_namespace net
setup_three_devices
mkdir textfiles
"$VYRHOST" "${ONESHOT[@]}" --poll 0.05 --textfile textfiles/tarvik.prom 2>vyrhost.err &
vyrhost=$!
prometheus-node-exporter --collector.disable-defaults --collector.textfile \
    --collector.textfile.directory=/tmp/textfiles --web.listen-address=127.0.0.1:9100 >node_exporter.log 2>&1 &
exporter=$!
for _ in $(seq 150); do
    curl -sf http://127.0.0.1:9100/metrics >metrics.txt && [ "$(grep -c '^tarvik_device_up{.*} 1$' metrics.txt)" = 3 ] && break
    sleep 0.2
done
expect_eq 3 "$(grep -c '^tarvik_device_up{.*} 1$' metrics.txt)" "devices up in node_exporter's /metrics"
grep -qx 'node_textfile_scrape_error 0' metrics.txt || fail "textfile collector: $(grep textfile metrics.txt)"
kill "$exporter" && wait_exit "$exporter" 30
kill -INT "$vyrhost" && wait_exit "$vyrhost" 30
expect_eq "0 " "$EXIT_STATUS $(cat vyrhost.err)" "vyrhost's exit status and complaints"
finish
