#!/usr/bin/env bash
# test_textfile.sh REPO BUILD
#
# vyrhost --textfile rewrites its file 20 times a second; the real
# node_exporter reads the directory (--collector.textfile.directory): its
# /metrics carries the tarvik_ series of every simulated device and, scrape
# after scrape, node_textfile_scrape_error 0; direct reads of the file never
# see a part of one. Skipped (77) without prometheus-node-exporter.
source "${1:?usage: $0 REPO BUILD}/tests/scripts/vyrhost_env.sh" "$@"
skip_without prometheus-node-exporter
in_namespace net
setup_three_devices
mkdir textfiles

"$VYRHOST" "${ONESHOT[@]}" --poll 0.05 --textfile textfiles/tarvik.prom 2>vyrhost.err &
vyrhost=$!
prometheus-node-exporter --collector.disable-defaults --collector.textfile \
    --collector.textfile.directory=/tmp/textfiles --web.listen-address=127.0.0.1:9100 \
    >node_exporter.log 2>&1 &
exporter=$!

deadline=$((SECONDS + 30))
until curl -sf http://127.0.0.1:9100/metrics >metrics.txt &&
    [ "$(grep -c '^tarvik_device_up{.*} 1$' metrics.txt)" = 3 ]; do
    [ "$SECONDS" -lt "$deadline" ] || { fail "no three devices up in 30 s: $(cat vyrhost.err node_exporter.log)"; break; }
    sleep 0.2
done
expect_eq 12 "$(grep -oE '^tarvik_(device_up|info|raw_errors_total|fec_hist_bin_total)\{.*device="(arx0|arx1|tdg0)"' metrics.txt |
    sed 's/{.*device=/ /' | sort -u | wc -l)" "families of every device in node_exporter's /metrics"
expect_contains metrics.txt 'node_textfile_scrape_error 0' "node_exporter's textfile collector"

# While vyrhost goes on rewriting: 50 scrapes without a textfile error, 200
# reads of whole files, all ending in vyrhost's last family.
lines=$(wc -l <textfiles/tarvik.prom)
for i in $(seq 50); do
    curl -sf http://127.0.0.1:9100/metrics >scrape.txt
    grep -qx 'node_textfile_scrape_error 0' scrape.txt || { fail "scrape $i: $(grep textfile scrape.txt)"; break; }
done
for i in $(seq 200); do
    cat textfiles/tarvik.prom >read.txt
    [ "$(wc -l <read.txt)" = "$lines" ] && tail -1 read.txt | grep -qE '^vyrhost_log_messages_total\{level="warning"\} [0-9]+$' ||
        { fail "read $i saw a partial file: $(tail -2 read.txt)"; break; }
done

kill "$exporter"
wait_exit "$exporter" 30
kill -INT "$vyrhost"
wait_exit "$vyrhost" 30
expect_eq 0 "$EXIT_STATUS" "vyrhost's exit status"
expect_eq "" "$(cat vyrhost.err)" "vyrhost's complaints"
finish
