#!/usr/bin/env bash
# Package test (root): builds the Debian package from a build tree, installs it on this machine,
# checks its files, conffiles, dependencies and systemd unit, runs the agent the way the unit
# does (same command line, same capability set, no new privileges) against a busybox container
# and sees its alarms, rotates the alarm file with the package's logrotate snippet, upgrades
# over itself keeping a changed conffile, purges, and checks that nothing is left.
# The machine is left as it was found: an agent installed by `cmake --install`, and state or
# log directories of earlier runs, are moved aside for the test and put back afterwards.
#   tests/package/package-test.sh [BUILD_DIR]   (default build/)
set -euo pipefail
cd "$(dirname "$0")/../.."
BUILD_DIR=$(cd "${1:-build}" && pwd)
[ "$(id -u)" -eq 0 ] || { echo "package test: needs root" >&2; exit 1; }
if dpkg-query -W -f='${Status}' tarnwick 2>/dev/null | grep -q installed; then
  echo "package test: a tarnwick package is installed here; not touching it" >&2
  exit 1
fi

# shellcheck source=scripts/lib/agent-run.sh
source scripts/lib/agent-run.sh
PREFIX=/usr/local/tarnwick
UNIT_NAME=tarnwick-agent.service
UNIT=/lib/systemd/system/$UNIT_NAME
CONFFILES="$PREFIX/etc/agent.properties $PREFIX/etc/policy.d/10001.json /etc/logrotate.d/tarnwick"
# Everything the package or its scripts may create outside its own file list.
LEFTOVERS="$PREFIX /var/lib/tarnwick /var/log/tarnwick /run/tarnwick /etc/logrotate.d/tarnwick $UNIT"
WORK=$(mktemp -d /tmp/tarnwick-package.XXXXXX)
CONTAINER=tarnwick-package-$$
STEP=""

step() { STEP=$*; echo "-- $*"; }
fail() { echo "package test FAILED at '$STEP': $*" >&2; exit 1; }
expect() {
  local what=$1; shift
  "$@" >/dev/null 2>&1 || fail "$what"
}

# Moves what an earlier install left aside, and puts it back on the way out.
mkdir -p "$WORK/saved"
for p in $LEFTOVERS; do
  [ -e "$p" ] || continue
  mkdir -p "$WORK/saved$(dirname "$p")"
  mv "$p" "$WORK/saved$p"
done

cleanup() {
  local rc=$? p
  docker rm -f "$CONTAINER" >/dev/null 2>&1 || true
  agent_stop
  [ "$rc" -eq 0 ] || cp -r /var/log/tarnwick "$WORK/log" 2>/dev/null || true
  dpkg --purge tarnwick >/dev/null 2>&1 || true
  for p in $LEFTOVERS; do
    [ -e "$WORK/saved$p" ] || continue
    rm -rf "$p"
    mkdir -p "$(dirname "$p")"
    mv "$WORK/saved$p" "$p"
  done
  if [ "$rc" -eq 0 ]; then rm -rf "$WORK"; else echo "package test: work kept in $WORK" >&2; fi
}
trap cleanup EXIT

step "build the package"
(cd "$BUILD_DIR" && cpack -G DEB >"$WORK/cpack.log" 2>&1) || { cat "$WORK/cpack.log"; fail "cpack"; }
DEB=$(ls "$BUILD_DIR"/tarnwick_*_amd64.deb)
dpkg-deb -f "$DEB" Package Version Architecture Depends | sed 's/^/   /'
depends=$(dpkg-deb -f "$DEB" Depends)
for lib in libpoco libjsoncpp libssl libaudit libc6 libstdc++; do
  expect "Depends names $lib" grep -q "$lib" <<<"$depends"
done
dpkg-deb --ctrl-tarfile "$DEB" | tar -xO ./conffiles >"$WORK/conffiles"
expect "conffiles are the settings, the sample policy and the logrotate snippet" \
  diff <(tr ' ' '\n' <<<"$CONFFILES") "$WORK/conffiles"

step "install it"
dpkg -i "$DEB" </dev/null >"$WORK/dpkg.log" 2>&1 || { cat "$WORK/dpkg.log"; fail "dpkg -i"; }
expect "the agent is executable" test -x "$PREFIX/bin/tarnwick-agent"
for f in lib/libsdk.so lib/libframework.so module/libdockerfile_module.so \
  module/libcontainer_module.so module/libfilenotify_module.so \
  module/libprocess_collect_module.so module/libdata_comm_module.so; do
  expect "$PREFIX/$f installed" test -f "$PREFIX/$f"
done
for f in $CONFFILES "$UNIT"; do expect "$f installed" test -f "$f"; done
for f in "$PREFIX/bin/tarnwick-agent" "$PREFIX"/module/*.so; do
  expect "$f finds every library it needs" bash -c "! ldd '$f' | grep -q 'not found'"
done
for d in /var/lib/tarnwick /var/log/tarnwick; do
  expect "$d created, root only" test "$(stat -c '%a %U' "$d")" = "750 root"
done
systemd-analyze verify "$UNIT" >"$WORK/verify.log" 2>&1 || { cat "$WORK/verify.log"; fail "systemd-analyze verify"; }
expect "systemd-analyze verify says nothing" test ! -s "$WORK/verify.log"
expect "logrotate reads the snippet" logrotate -d -s "$WORK/logrotate.state" /etc/logrotate.d/tarnwick

step "run the agent as the unit does, against a busybox container"
bash scripts/dockerd.sh start >/dev/null
bash scripts/dockerd.sh image >/dev/null
# The unit's command line and capability set, as systemd would apply them to a root service.
exec_start=$(sed -n 's/^ExecStart=//p' "$UNIT")
caps=$(sed -n 's/^CapabilityBoundingSet=//p' "$UNIT")
bounding=-all$(for c in $caps; do printf ',+%s' "$(tr '[:upper:]' '[:lower:]' <<<"${c#CAP_}")"; done)
expect "NoNewPrivileges" grep -qx 'NoNewPrivileges=yes' "$UNIT"
mkdir -p /run/tarnwick # RuntimeDirectory=
# The installed policy protects /etc/passwd (in the container's image) and /etc/hosts (which
# Docker mounts in) of busybox containers and forbids executables in them: a changed conffile,
# which the upgrade below must keep.
write_policy "$PREFIX/etc/policy.d" "tarnwick/busybox" true /etc/passwd /etc/hosts
cp "$PREFIX/etc/policy.d/10001.json" "$WORK/policy.changed"
for option in ProtectSystem=strict PrivateTmp=yes ProtectKernelTunables=yes; do
  expect "$option" grep -qx "$option" "$UNIT"
done
# The unit's mount namespace, as systemd builds it: a slave of the host's (containers' root
# file systems mounted later still show up), everything read-only but the service's own
# directories, /proc/sys read-only, a private /tmp.
# shellcheck disable=SC2016
unshare --mount --propagation slave -- bash -c '
  set -e
  for d in /var/lib/tarnwick /var/log/tarnwick /run/tarnwick /proc/sys; do mount --bind "$d" "$d"; done
  for m in / /var/lib/docker /proc/sys; do
    ! mountpoint -q "$m" || mount -o remount,bind,ro "$m"
  done
  mount -t tmpfs -o mode=1777 tmpfs /tmp
  umask 0027
  exec setpriv --inh-caps=-all --bounding-set="$1" --no-new-privs -- $2' \
  unit "$bounding" "$exec_start" >"$WORK/agent.out" 2>&1 &
AGENT_PID=$!
wait_for 30 grep -q "Agent started" /var/log/tarnwick/agent.log ||
  { tail -n 30 /var/log/tarnwick/agent.log "$WORK/agent.out"; fail "agent did not start"; }
expect "pid file written" test "$(cat /run/tarnwick/agent.pid)" = "$AGENT_PID"
expect "the agent runs the unit's command line" \
  test "$(tr '\0' ' ' <"/proc/$AGENT_PID/cmdline")" = "$exec_start "
expect "the agent's view of the system is read-only outside its directories" \
  bash -c "! nsenter -t $AGENT_PID -m touch $PREFIX/etc/probe"
want=0
for c in $caps; do
  want=$((want | 1 << $(grep -E "define\s+$c\s" /usr/include/linux/capability.h | awk '{print $3}')))
done
have=$((16#$(sed -n 's/^CapEff:\s*//p' "/proc/$AGENT_PID/status")))
expect "the agent holds exactly the unit's capabilities" test "$have" -eq "$want"

CID=$(docker run -d --name "$CONTAINER" "$BUSYBOX_IMAGE" sleep 600)
wait_for 30 audit_rule_present "$CID" || fail "no audit rule for the container"
# The installed settings log at information level: the protected files' inotify watches (the
# two files, or their directories until they are armed) tell that they are watched.
inotify_watches() { cat /proc/"$AGENT_PID"/fdinfo/* 2>/dev/null | grep -c '^inotify wd:'; }
wait_for 30 test "$(inotify_watches)" -ge 2 || fail "protected files not watched"
docker exec "$CONTAINER" sh -c 'echo "intruder:x:0:0::/root:/bin/sh" >> /etc/passwd'
# Seeing /etc/hosts where the container sees it goes through /proc/<pid>/root: CAP_SYS_PTRACE.
docker exec "$CONTAINER" sh -c 'echo "10.9.9.9 collector" >> /etc/hosts'
# An executable only its owner (not root) may read: hashing it takes CAP_DAC_READ_SEARCH.
docker exec -u 1000 "$CONTAINER" sh -c 'umask 077; cp /bin/busybox /tmp/dropped'
ALARMS=/var/log/tarnwick/alarms.jsonl
wait_for 30 has_alarm "$ALARMS" '.event_classid == "dockerfile_001" and .file_info[0].file_path == "/etc/passwd"' ||
  fail "no dockerfile_001 alarm for /etc/passwd"
wait_for 30 has_alarm "$ALARMS" '.event_classid == "dockerfile_001" and .file_info[0].file_path == "/etc/hosts"' ||
  fail "no dockerfile_001 alarm for /etc/hosts"
wait_for 30 has_alarm "$ALARMS" '.event_classid == "dockerfile_002" and (.file_info[0].file_sha256 | length) == 64' ||
  fail "no dockerfile_002 alarm with the hash of /tmp/dropped"
alarm_summary "$ALARMS" | sed 's/^/   /'
if grep -Ei "not permitted|permission denied" /var/log/tarnwick/agent.log; then
  fail "the agent lacked a permission"
fi

step "rotate the alarm file with the package's logrotate snippet"
logrotate -f -s "$WORK/logrotate.state" /etc/logrotate.d/tarnwick
expect "alarm file rotated" test -s "$ALARMS.1"
wait_for 10 grep -q "Log file reopened on SIGHUP" /var/log/tarnwick/agent.log ||
  fail "the snippet's SIGHUP did not reach the agent"
docker exec "$CONTAINER" sh -c 'echo "second:x:0:0::/root:/bin/sh" >> /etc/passwd'
wait_for 30 has_alarm "$ALARMS" '.event_classid == "dockerfile_001"' ||
  fail "no alarm in the new alarm file"
docker rm -f "$CONTAINER" >/dev/null
agent_stop
expect "the agent exits 0 on SIGTERM" test "$AGENT_RC" -eq 0
expect "no audit rule left" test "$(audit_cid_rules)" -eq 0
expect "the agent's audit-rule ledger is in the state directory" test -f /var/lib/tarnwick/audit-rules.json

step "upgrade over itself"
dpkg -i "$DEB" </dev/null >"$WORK/dpkg.log" 2>&1 || { cat "$WORK/dpkg.log"; fail "dpkg -i (upgrade)"; }
expect "the changed policy survived the upgrade" cmp "$WORK/policy.changed" "$PREFIX/etc/policy.d/10001.json"
expect "the state survived the upgrade" test -f /var/lib/tarnwick/audit-rules.json

step "purge"
dpkg --purge tarnwick </dev/null >"$WORK/dpkg.log" 2>&1 || { cat "$WORK/dpkg.log"; fail "dpkg --purge"; }
expect "no longer installed" bash -c "! dpkg-query -W -f='\${Status}' tarnwick 2>/dev/null | grep -q installed"
for p in $LEFTOVERS; do
  expect "$p removed" test ! -e "$p"
done
left=$(find /etc/systemd /var/lib/systemd -name '*tarnwick*' 2>/dev/null || true)
expect "no trace of the unit's enablement left ($left)" test -z "$left"
echo "package test: passed"
