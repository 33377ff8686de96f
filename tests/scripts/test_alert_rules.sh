#!/usr/bin/env bash
# test_alert_rules.sh REPO BUILD
#
# promtool accepts the alert rules and their unit tests pass. Skipped (77)
# without promtool (Debian package prometheus).
source "${1:?usage: $0 REPO BUILD}/tests/scripts/vyrhost_env.sh" "$@"
skip_without promtool
cd "$REPO/deploy/prometheus" || exit 1
promtool check rules vyrhost_rules.yml && promtool test rules vyrhost_rules_test.yml
