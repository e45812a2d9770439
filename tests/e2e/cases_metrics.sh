# End-to-end cases of the metrics endpoint. Sourced by scripts/e2e.sh after cases.sh, whose
# helpers they use.

E2E_CASES="$E2E_CASES metrics_and_health"

# Settings with the endpoint on a free port of its own (the log names it).
metrics_config() {
  sed '/^metrics\./d; /^status.interval_s/d' "$TARNWICK_PREFIX/etc/agent.properties" \
    > "$WORK/agent.properties"
  printf 'metrics.enabled = true\nmetrics.address = 127.0.0.1\nmetrics.port = 0\n' \
    >> "$WORK/agent.properties"
  echo "status.interval_s = 1" >> "$WORK/agent.properties"
  echo "$WORK/agent.properties"
}

metrics_port() {
  grep -o 'Metrics endpoint listening on http://127.0.0.1:[0-9]*' "$WORK/agent.log" |
    tail -1 | sed 's/.*://'
}

scrape() { curl -s --max-time 5 "http://127.0.0.1:$METRICS_PORT$1"; }
# metric_at_least SAMPLE N: the scrape has the sample (name and labels) with a value >= N.
metric_at_least() {
  local value
  value=$(scrape /metrics | awk -v s="$1" '$1 == s { print $2 }')
  [ -n "$value" ] && [ "$value" -ge "$2" ]
}
metric_is() { [ "$(scrape /metrics | awk -v s="$1" '$1 == s { print $2 }')" = "$2" ]; }
health_is() { [ "$(scrape /healthz)" = "$1" ]; }
health_status() { curl -s -o /dev/null -w '%{http_code}' --max-time 5 "http://127.0.0.1:$METRICS_PORT/healthz"; }

case_metrics_and_health() {
  write_policy "$WORK/policy.d" tarnwick/busybox false /etc/passwd
  AGENT_CONFIG=$(metrics_config) AGENT_LOG_LEVEL=warning agent_start "$WORK"
  METRICS_PORT=$(metrics_port)
  [ -n "$METRICS_PORT" ] || fail "the log does not name the metrics port"
  local c=e2e-metrics-$$
  start_container "$c" >/dev/null
  arm_probe "$c"  # raises dockerfile_001 alarms
  wait_for 10 metric_at_least 'tarnwick_report_alarms_class_total{class="dockerfile_001"}' 1 ||
    fail "alarm class not counted: $(scrape /metrics | grep alarms_class)"
  wait_for 10 metric_is tarnwick_protected_containers 1 ||
    fail "protected containers: $(scrape /metrics | grep protected)"
  metric_is tarnwick_container_engine_connected 1 || fail "engine not connected"
  metric_is tarnwick_audit_available 1 || fail "audit not available"
  metric_at_least tarnwick_filenotify_watches_armed 1 || fail "no watch armed"
  wait_for 10 health_is ok || fail "healthz: $(scrape /healthz)"
  scrape /metrics > "$WORK/scrape.txt"
  promtool check metrics < "$WORK/scrape.txt" > "$WORK/promtool.out" 2>&1 ||
    fail "promtool: $(cat "$WORK/promtool.out")"
  # At warning level the status lines still show.
  wait_for 5 grep -q 'Status: ' "$WORK/agent.log" || fail "no status line at warning level"
  grep -q 'Status levels: .*container.engine.connected=1' "$WORK/agent.log" ||
    fail "no gauges in the status line"
  agent_stop
  AGENT_PID=
  mv "$WORK/agent.log" "$WORK/agent-first.log"  # the next start waits for its own lines

  # An engine that cannot be reached is what /healthz reports, with the reason.
  AGENT_CONFIG=$(metrics_config) agent_start "$WORK" --docker-socket "$WORK/no-engine.sock"
  METRICS_PORT=$(metrics_port)
  wait_for 10 health_is "degraded: engine unreachable" || fail "healthz: $(scrape /healthz)"
  [ "$(health_status)" = 503 ] || fail "healthz status $(health_status)"
  metric_is tarnwick_container_engine_connected 0 || fail "engine shown connected"
}
