# End-to-end cases of the alarm outputs, sourced by scripts/e2e.sh after cases.sh (its helpers:
# start_container, cexec, arm_probe, expect_alarm, fail). Each case prints the alarms raised
# (received by the report task) against those delivered to each output.

E2E_CASES="$E2E_CASES outputs_full_disk outputs_file_deleted outputs_collector_down
           outputs_spool_restart outputs_syslog outputs_https"

# outputs_config KEY=VALUE...: the installed settings plus these (later lines win), counters
# logged every second; AGENT_CONFIG points agent_start at them.
outputs_config() {
  cp "$TARNWICK_PREFIX/etc/agent.properties" "$WORK/agent.properties"
  printf '%s\n' "status.interval_s = 1" "$@" >> "$WORK/agent.properties"
  export AGENT_CONFIG=$WORK/agent.properties
}

# counter NAME: the counter's value in the agent's latest status line (0 when absent).
counter() {
  local v
  v=$(grep 'Status: ' "$WORK/agent.log" 2>/dev/null | tail -1 \
      | grep -oE "(: |, )$1=[0-9]+" | head -1 | cut -d= -f2) || true
  echo "${v:-0}"
}
counter_at_least() { [ "$(counter "$1")" -ge "$2" ]; }
# all_delivered COUNTER: that output's delivered counter has caught up with the alarms raised.
all_delivered() {
  local raised
  raised=$(counter report.alarms.received)
  [ "$raised" -gt 0 ] && [ "$(counter "$1")" -ge "$raised" ]
}

# losses: the sum of every counter of alarms an output lost.
losses() {
  grep 'Status: ' "$WORK/agent.log" | tail -1 \
    | grep -oE 'report\.[a-z]+\.(spool\.(overflow|failed|corrupt)|rejected|lost\.[a-z_]+)=[0-9]+' \
    | cut -d= -f2 | awk '{s += $1} END {print s + 0}' || true
}

# settled_above N: the alarms received went past N and then stayed put for two seconds (inotify
# folds repeated events on one file together, so a burst of N writes raises fewer alarms).
settled_above() {
  local now last since
  now=$(counter report.alarms.received)
  [ "$now" -gt "$1" ] || return 1
  read -r last since < "$WORK/settled" 2>/dev/null || { last=-1; since=0; }
  if [ "$now" != "$last" ]; then
    echo "$now $SECONDS" > "$WORK/settled"
    return 1
  fi
  [ $((SECONDS - since)) -ge 2 ]
}

# protect_and_arm CONTAINER: an agent (with the settings made so far) protecting /etc/passwd of
# busybox containers, and CONTAINER started, its watch armed.
protect_and_arm() {
  write_policy "$WORK/policy.d" tarnwick/busybox false /etc/passwd
  agent_start "$WORK"
  start_container "$1" >/dev/null
  arm_probe "$1"
}

# raise_settled CONTAINER N [SECONDS]: raise_alarms, then wait (20 s) until they are all counted.
raise_settled() {
  local before
  before=$(counter report.alarms.received)
  raise_alarms "$1" "$2"
  wait_for "${3:-20}" settled_above "$before" || fail "no alarms raised"
}

# raise_alarms CONTAINER N: N appends to the container's protected /etc/passwd, 5 ms apart so
# that most of them become alarms of their own.
raise_alarms() {
  cexec "$1" "i=0; while [ \$i -lt $2 ]; do echo \"e2e\$i:x:1:1::/:/bin/false\" >> /etc/passwd; i=\$((i + 1)); usleep 5000; done"
}

# jsonl_valid FILE: every line is a JSON object and the file ends with a line break.
jsonl_valid() {
  local f=$1 bad
  [ -s "$f" ] || return 0
  [ "$(tail -c1 "$f" | od -An -tx1 | tr -d ' ')" = "0a" ] || return 1
  bad=$(jq -R 'try (fromjson | type) catch "bad"' "$f" | grep -vc '"object"' || true)
  [ "$bad" -eq 0 ]
}

# event_ids FILE...: the sorted event ids of the alarm documents in FILEs (non-JSON lines skipped).
event_ids() { cat "$@" 2>/dev/null | jq -R -r 'fromjson? | .event_id // empty' | sort; }

free_port() {
  local p
  for _ in $(seq 100); do
    p=$((20000 + RANDOM % 40000))
    (exec 3<>"/dev/tcp/127.0.0.1/$p") 2>/dev/null || { echo "$p"; return 0; }
  done
  return 1
}
port_open() { (exec 3<>"/dev/tcp/127.0.0.1/$1") 2>/dev/null; }

# stop_pid FILE: ends the process whose pid FILE holds (a server this case started).
stop_pid() {
  local pid
  pid=$(cat "$1" 2>/dev/null) || return 0
  kill -TERM "$pid" 2>/dev/null || true
  wait_for 10 bash -c "! kill -0 $pid" || kill -KILL "$pid" 2>/dev/null || true
  rm -f "$1"
}

# A private nginx that writes the body of every POST /alarms to DIR/bodies.log; with tls, over
# https with the certificate DIR/cert.pem (key DIR/key.pem).
nginx_start() {  # nginx_start DIR PORT [tls]
  local dir=$1 port=$2 tls=${3:-} t scheme=http listen
  mkdir -p "$dir"
  listen="listen 127.0.0.1:$port;"
  if [ "$tls" = tls ]; then
    scheme=https
    listen="listen 127.0.0.1:$port ssl; ssl_certificate $dir/cert.pem; ssl_certificate_key $dir/key.pem;"
  fi
  {
    echo "daemon off; master_process off; worker_processes 1;"
    echo "pid $dir/nginx.pid; error_log $dir/error.log;"
    echo "events { worker_connections 64; }"
    echo "http {"
    for t in client_body proxy fastcgi uwsgi scgi; do echo "  ${t}_temp_path $dir/$t;"; done
    echo "  access_log off; log_format body escape=none '\$request_body';"
    echo "  server { $listen"
    echo "    client_max_body_size 64m; client_body_buffer_size 64m; client_body_in_single_buffer on;"
    echo "    location = /alarms { access_log $dir/bodies.log body; proxy_pass $scheme://127.0.0.1:$port/ok; }"
    echo "    location = /ok { return 200; } } }"
  } > "$dir/nginx.conf"
  nginx -p "$dir" -c "$dir/nginx.conf" -e "$dir/error.log" >> "$dir/nginx.out" 2>&1 &
  echo $! > "$dir/server.pid"
  wait_for 10 port_open "$port" || fail "nginx did not start: $(tail -3 "$dir/error.log")"
}

# A private rsyslogd with a TCP input, every message's text written to DIR/out.log.
rsyslog_start() {  # rsyslog_start DIR PORT
  local dir=$1 port=$2
  mkdir -p "$dir"
  cat > "$dir/rsyslog.conf" <<CONF
global(workDirectory="$dir" maxMessageSize="64k")
module(load="imtcp")
input(type="imtcp" address="127.0.0.1" port="$port")
template(name="text" type="string" string="%app-name% %msgid% %msg%\n")
action(type="omfile" file="$dir/out.log" template="text")
CONF
  rsyslogd -n -f "$dir/rsyslog.conf" -i "$dir/rsyslogd.pid" >> "$dir/rsyslogd.out" 2>&1 &
  echo $! > "$dir/server.pid"
  wait_for 10 port_open "$port" || fail "rsyslogd did not start: $(tail -3 "$dir/rsyslogd.out")"
}

# figures CASE OUTPUT=COUNT...: one line of figures for the report.
figures() {
  local name=$1; shift
  echo "   figures $name: raised $(counter report.alarms.received), $*, lost $(losses)"
}

case_outputs_full_disk() {
  local full=$WORK/full
  mkdir -p "$full"
  mount -t tmpfs -o size=1m tmpfs "$full"
  trap "case_cleanup; umount -l '$full' 2>/dev/null || true" EXIT
  export AGENT_ALARMS=$full/alarms.jsonl
  outputs_config
  write_policy "$WORK/policy.d" tarnwick/busybox false /etc/passwd
  agent_start "$WORK"
  local c=e2e-full-$$
  start_container "$c" >/dev/null
  arm_probe "$c"
  # No room left for a single alarm.
  dd if=/dev/zero of="$full/filler" bs=4k 2>/dev/null || true
  wait_for 5 counter_at_least report.alarms.received 1 || fail "no status line"
  raise_settled "$c" 600 30
  wait_for 10 counter_at_least report.file.attempts_failed 1 || fail "the full disk went unnoticed"
  jsonl_valid "$AGENT_ALARMS" || fail "a partial line stands in the alarm file while it is full"
  [ "$(counter report.alarms.written)" -lt "$(counter report.alarms.received)" ] \
    || fail "alarms counted as written into a full file"
  local waited=$(($(counter report.alarms.received) - $(counter report.alarms.written)))
  rm -f "$full/filler"
  wait_for 30 all_delivered report.alarms.written \
    || fail "written $(counter report.alarms.written) of $(counter report.alarms.received)"
  agent_stop
  jsonl_valid "$AGENT_ALARMS" || fail "alarm file has invalid lines after space returned"
  local lines
  lines=$(wc -l < "$AGENT_ALARMS")
  [ "$lines" -eq "$(counter report.alarms.received)" ] \
    || fail "$lines lines for $(counter report.alarms.received) alarms"
  [ "$(event_ids "$AGENT_ALARMS" | uniq -d | wc -l)" -eq 0 ] || fail "duplicate alarms"
  [ "$(losses)" -eq 0 ] || fail "alarms lost: $(losses)"
  figures full_disk "file $lines ($waited of them waited in the spool while the disk was full)"
}

case_outputs_file_deleted() {
  outputs_config
  write_policy "$WORK/policy.d" tarnwick/busybox false /etc/passwd
  agent_start "$WORK"
  local c=e2e-deleted-$$ t0 t1 before
  start_container "$c" >/dev/null
  arm_probe "$c"
  cp "$(ALARMS)" "$WORK/before-delete.jsonl"
  rm "$(ALARMS)"
  t0=$(date +%s%N)
  wait_for 5 test -e "$(ALARMS)" || fail "the deleted alarm file was not created again"
  t1=$(date +%s%N)
  echo "   deleted alarm file back after $(((t1 - t0) / 1000000)) ms"
  [ $(((t1 - t0) / 1000000)) -le 1200 ] || fail "took longer than a second"
  raise_settled "$c" 20
  before=$(counter report.alarms.received)
  # Rotated without SIGHUP: the new name gets the next alarms.
  wait_for 10 all_delivered report.alarms.written || fail "not written"
  mv "$(ALARMS)" "$WORK/rotated.jsonl"
  wait_for 5 test -e "$(ALARMS)" || fail "the moved alarm file was not created again"
  raise_alarms "$c" 20
  wait_for 20 settled_above "$before" || fail "no alarms raised"
  wait_for 10 all_delivered report.alarms.written || fail "not written"
  agent_stop
  local delivered
  delivered=$(event_ids "$WORK/before-delete.jsonl" "$WORK/rotated.jsonl" "$(ALARMS)" | uniq | wc -l)
  [ "$delivered" -eq "$(counter report.alarms.received)" ] \
    || fail "$delivered alarms in the files for $(counter report.alarms.received) raised"
  [ -s "$(ALARMS)" ] && [ -s "$WORK/rotated.jsonl" ] || fail "alarms missing after the deletion or the move"
  figures file_deleted "file $delivered"
}

# collector_then_outage HTTP-DIR PORT CONTAINER: an agent sending to a local HTTP collector,
# a protected container whose first alarms reached it, then the collector stopped.
collector_then_outage() {
  local http=$1 port=$2 c=$3
  nginx_start "$http" "$port"
  outputs_config "report.http.url = http://127.0.0.1:$port/alarms" "report.http.retry_max_ms = 2000"
  protect_and_arm "$c"
  wait_for 10 all_delivered report.http.delivered || fail "collector did not get the first alarms"
  stop_pid "$http/server.pid"
}

case_outputs_collector_down() {
  local http=$WORK/http port c=e2e-collector-$$ before
  port=$(free_port) || fail "no free port"
  trap "case_cleanup; stop_pid '$http/server.pid'" EXIT
  collector_then_outage "$http" "$port" "$c"
  before=$(counter report.alarms.received)
  # Alarms raised all through a 10 s outage.
  cexec "$c" 'i=0; while [ $i -lt 50 ]; do echo "down$i:x:1:1::/:/bin/false" >> /etc/passwd; i=$((i + 1)); sleep 0.2; done'
  wait_for 10 settled_above "$before" || fail "no alarms raised"
  [ "$(counter report.http.delivered)" -lt "$(counter report.alarms.received)" ] \
    || fail "alarms counted as delivered to a stopped collector"
  local waited=$(($(counter report.alarms.received) - $(counter report.http.delivered)))
  nginx_start "$http" "$port"
  wait_for 30 all_delivered report.http.delivered \
    || fail "delivered $(counter report.http.delivered) of $(counter report.alarms.received)"
  agent_stop
  local got want
  got=$(event_ids "$http/bodies.log" | uniq | wc -l)
  want=$(event_ids "$(ALARMS)" | wc -l)
  [ "$got" -eq "$want" ] && [ "$want" -eq "$(counter report.alarms.received)" ] \
    || fail "collector has $got alarms, the file $want, raised $(counter report.alarms.received)"
  diff <(event_ids "$http/bodies.log" | uniq) <(event_ids "$(ALARMS)") >/dev/null \
    || fail "collector and file hold different alarms"
  # A refused connection leaves nothing in doubt: each alarm reaches the collector once.
  [ "$(event_ids "$http/bodies.log" | uniq -d | wc -l)" -eq 0 ] || fail "alarms sent twice"
  figures collector_down "file $want, http $got ($waited waited in the spool for the collector)"
}

# has_all_ids WANT GOT: every event id in file WANT is also in file GOT.
has_all_ids() { [ -z "$(comm -23 <(event_ids "$1" | uniq) <(event_ids "$2" | uniq))" ]; }

case_outputs_spool_restart() {
  local http=$WORK/http port c=e2e-restart-$$
  port=$(free_port) || fail "no free port"
  trap "case_cleanup; stop_pid '$http/server.pid'" EXIT
  collector_then_outage "$http" "$port" "$c"
  raise_settled "$c" 30
  local waiting=$(($(counter report.alarms.received) - $(counter report.http.delivered)))
  # The agent stops while the collector is down, and starts again before it returns.
  agent_stop
  grep -q "stay spooled" "$WORK/agent.log" || fail "the shutdown did not say what stays spooled"
  cp "$(ALARMS)" "$WORK/first-run.jsonl"
  mv "$WORK/agent.log" "$WORK/agent.first-run.log"
  agent_start "$WORK"
  grep -q "from an earlier run are delivered first" "$WORK/agent.log" || fail "spool not picked up"
  nginx_start "$http" "$port"
  wait_for 30 has_all_ids "$WORK/first-run.jsonl" "$http/bodies.log" \
    || fail "alarms spooled before the restart never reached the collector"
  agent_stop
  local raised got
  raised=$(event_ids "$WORK/first-run.jsonl" | wc -l)
  got=$(event_ids "$http/bodies.log" | uniq | wc -l)
  echo "   figures spool_restart: raised $raised before the restart, $waiting of them spooled" \
       "across it, http $got"
}

case_outputs_syslog() {
  command -v rsyslogd >/dev/null || fail "rsyslogd not installed (Debian package rsyslog)"
  local logs=$WORK/rsyslog port c=e2e-syslog-$$ before
  port=$(free_port) || fail "no free port"
  trap "case_cleanup; stop_pid '$logs/server.pid'" EXIT
  rsyslog_start "$logs" "$port"
  outputs_config "report.syslog.target = tcp:127.0.0.1:$port"
  protect_and_arm "$c"
  raise_settled "$c" 30
  wait_for 10 all_delivered report.syslog.delivered || fail "not sent"
  # rsyslogd restarted while alarms are raised: they follow on a new connection.
  stop_pid "$logs/server.pid"
  before=$(counter report.alarms.received)
  raise_alarms "$c" 30
  wait_for 20 settled_above "$before" || fail "no alarms raised while rsyslogd was down"
  rsyslog_start "$logs" "$port"
  wait_for 30 all_delivered report.syslog.delivered \
    || fail "sent $(counter report.syslog.delivered) of $(counter report.alarms.received)"
  wait_for 10 bash -c "[ \$(grep -c '^tarnwick alarm {' '$logs/out.log') -ge $(counter report.alarms.received) ]" || true
  agent_stop
  local got want
  got=$(sed -n 's/^tarnwick alarm //p' "$logs/out.log" | event_ids | uniq | wc -l)
  want=$(event_ids "$(ALARMS)" | wc -l)
  [ "$got" -eq "$want" ] && [ "$want" -eq "$(counter report.alarms.received)" ] \
    || fail "rsyslog has $got alarms, the file $want, raised $(counter report.alarms.received)"
  # rsyslogd was stopped between deliveries, so nothing was in flight: each alarm arrives once.
  [ "$(sed -n 's/^tarnwick alarm //p' "$logs/out.log" | event_ids | uniq -d | wc -l)" -eq 0 ] \
    || fail "alarms written twice to rsyslog"
  figures syslog "file $want, syslog $got"
}

# An https collector whose certificate is self-signed: without it as the agent's CA file the
# collector is an impostor and gets nothing (the alarms wait in the spool); trusted after a
# restart, it gets every one of them.
case_outputs_https() {
  local http=$WORK/https port c=e2e-https-$$
  port=$(free_port) || fail "no free port"
  trap "case_cleanup; stop_pid '$http/server.pid'" EXIT
  mkdir -p "$http"
  openssl req -x509 -newkey rsa:2048 -nodes -days 1 -subj /CN=127.0.0.1 \
    -addext subjectAltName=IP:127.0.0.1 -keyout "$http/key.pem" -out "$http/cert.pem" \
    >/dev/null 2>&1 || fail "openssl could not make a certificate"
  nginx_start "$http" "$port" tls
  outputs_config "report.http.url = https://127.0.0.1:$port/alarms" "report.http.retry_max_ms = 1000"
  protect_and_arm "$c"
  raise_settled "$c" 10
  wait_for 10 grep -qi "certificate" "$WORK/agent.log" \
    || fail "no word of the collector's certificate in the log"
  [ "$(counter report.http.delivered)" -eq 0 ] && [ ! -s "$http/bodies.log" ] \
    || fail "alarms went to a collector whose certificate nobody trusts"
  agent_stop
  cp "$(ALARMS)" "$WORK/untrusted.jsonl"
  mv "$WORK/agent.log" "$WORK/agent.untrusted.log"
  outputs_config "report.http.url = https://127.0.0.1:$port/alarms" \
    "report.http.ca_file = $http/cert.pem"
  agent_start "$WORK"
  wait_for 30 has_all_ids "$WORK/untrusted.jsonl" "$http/bodies.log" \
    || fail "alarms spooled for the untrusted collector never reached it once trusted"
  agent_stop
  echo "   figures https: $(event_ids "$WORK/untrusted.jsonl" | wc -l) alarms held back," \
       "$(event_ids "$http/bodies.log" | uniq | wc -l) delivered once trusted"
}
