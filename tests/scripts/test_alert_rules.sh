#!/usr/bin/env bash
# test_alert_rules.sh REPO BUILD
#
# promtool accepts the alert rules and their unit tests pass. Skipped (77)
# without promtool (Debian package prometheus).
set -u
REPO=${1:?usage: test_alert_rules.sh REPO BUILD}
command -v promtool >/dev/null || { echo "SKIP: promtool is not installed (scripts/setup.sh)"; exit 77; }
cd "$REPO/deploy/prometheus" || exit 1
promtool check rules vyrhost_rules.yml && promtool test rules vyrhost_rules_test.yml
