# End-to-end cases for protected files as the container sees them: links that point out of
# the container, Docker's own bind-mounted files, -v binds and named volumes, directories on
# the way moved and re-made, and the kernel's watch limit. Sourced by scripts/e2e.sh after
# tests/e2e/cases.sh, whose helpers they use.

E2E_CASES="$E2E_CASES link_baked_into_image link_planted_in_container docker_mounted_files
           bind_and_volume_files parent_directory_moved watch_limit_recovers"

# watched_inodes PID: "ino:<hex> sdev:<hex>" of every inotify watch the process holds.
watched_inodes() {
  local pid=$1 fd
  for fd in /proc/"$pid"/fd/*; do
    [ "$(readlink "$fd" 2>/dev/null)" = "anon_inode:inotify" ] || continue
    grep '^inotify' /proc/"$pid"/fdinfo/"${fd##*/}" 2>/dev/null |
      sed -E 's/.* (ino:[0-9a-f]+) (sdev:[0-9a-f]+) .*/\1 \2/' || true
  done
}

# inode_key PATH: the same "ino: sdev:" form for a host file (the kernel's device encoding).
inode_key() {
  local ino dev major minor
  read -r ino dev < <(stat -L -c '%i %d' "$1")
  major=$(( (dev >> 8) & 0xfff ))
  minor=$(( (dev & 0xff) | ((dev >> 12) & 0xfff00) ))
  printf 'ino:%x sdev:%x\n' "$ino" $(( (major << 20) | minor ))
}

# host_file_unwatched PID PATH: the process holds no inotify watch on the host file PATH.
host_file_unwatched() {
  local key
  key=$(inode_key "$2")
  if watched_inodes "$1" | grep -qxF "$key"; then
    fail "the agent watches the host file $2 ($key)"
  fi
}

# host_file_watched PID PATH
host_file_watched() { watched_inodes "$1" | grep -qxF "$(inode_key "$2")"; }

# count_alarms CONTAINER PATH OP
count_alarms() { alarms_matching "$(ALARMS)" "$(user_alarm "$1" "$2" "$3")"; }

# expect_more DESCRIPTION CONTAINER PATH OP BEFORE: a new alarm beyond BEFORE arrives.
expect_more() {
  wait_for 20 alarms_above "$(user_alarm "$2" "$3" "$4")" "$5" || fail "no new alarm: $1"
}

# root_inotify_watches: inotify watches held by root's processes (the limit is per user).
root_inotify_watches() {
  local dir total=0 n
  for dir in /proc/[0-9]*; do
    [ "$(stat -c %u "$dir" 2>/dev/null)" = 0 ] || continue
    n=$(cat "$dir"/fdinfo/* 2>/dev/null | grep -c '^inotify' || true)
    total=$((total + ${n:-0}))
  done
  echo "$total"
}

# A status line with the file-notify coverage every second.
fast_status_config() {
  sed 's/^status.interval_s *=.*//' "$TARNWICK_PREFIX/etc/agent.properties" > "$WORK/agent.properties"
  echo "status.interval_s = 1" >> "$WORK/agent.properties"
  echo "$WORK/agent.properties"
}

case_link_baked_into_image() {
  # An image whose /etc/passwd is an absolute link to /etc/shadow: resolved on the host it
  # would name the host's shadow file.
  local base=e2e-bake-$$ c=e2e-baked-$$ image=tarnwick/busybox-linked:e2e-$$
  echo "$base" >> "$WORK/containers"
  docker run --name "$base" "$BUSYBOX_IMAGE" \
    sh -c 'echo "root:x:0:0::/root:/bin/sh" > /etc/shadow && ln -sf /etc/shadow /etc/passwd'
  docker commit "$base" "$image" >/dev/null
  # The containers go first: an image still in use would only lose its name.
  trap 'case_cleanup; docker rmi -f "'"$image"'" >/dev/null 2>&1 || true' EXIT
  write_policy "$WORK/policy.d" tarnwick/busybox false /etc/passwd /etc/group
  agent_start "$WORK"
  start_container "$c" "$image" >/dev/null
  cexec "$c" 'chmod 640 /etc/group'
  expect_alarm "group armed" "$(user_alarm "$c" /etc/group 1)"
  wait_for 20 grep -q "watch on .*/etc/passwd armed on the file" "$WORK/agent.log" \
    || fail "/etc/passwd never armed"
  host_file_unwatched "$AGENT_PID" /etc/shadow
  cexec "$c" 'echo "e2e:x:5:5::/:/bin/false" >> /etc/passwd'
  expect_alarm "write through the baked link" "$(user_alarm "$c" /etc/passwd 2)"
  cexec "$c" 'chmod 640 /etc/passwd'
  expect_alarm "attributes through the link" "$(user_alarm "$c" /etc/passwd 1)"
  host_file_unwatched "$AGENT_PID" /etc/shadow
}

case_link_planted_in_container() {
  write_policy "$WORK/policy.d" tarnwick/busybox false /etc/passwd /etc/group
  agent_start "$WORK"
  local c=e2e-planted-$$ before
  start_container "$c" >/dev/null
  arm_probe "$c"
  # An absolute link and a relative one that climbs far above the root: both mean the
  # container's /etc/shadow, never the host's.
  cexec "$c" 'echo "root:x:0:0::/root:/bin/sh" > /etc/shadow; ln -sf /etc/shadow /etc/passwd'
  cexec "$c" 'ln -sf ../../../../../../../../etc/shadow /etc/group'
  wait_for 20 has_alarm "$(ALARMS)" ".container_name == \"$c\" and .file_info[0].file_path == \"/etc/group\" and (.file_info[0].file_operation == 0 or .file_info[0].file_operation == 4)" \
    || fail "no alarm for the link planted at /etc/group"
  wait_for 20 grep -q "watch on .*/etc/group armed on the file" "$WORK/agent.log" || fail "group not re-armed"
  host_file_unwatched "$AGENT_PID" /etc/shadow
  before=$(count_alarms "$c" /etc/passwd 2)
  cexec "$c" 'echo "e2e:x:5:5::/:/bin/false" >> /etc/passwd'
  expect_more "write through the planted link" "$c" /etc/passwd 2 "$before"
  before=$(count_alarms "$c" /etc/group 2)
  cexec "$c" 'echo "e2e:x:6:" >> /etc/shadow'
  expect_more "write to the relative link's target" "$c" /etc/group 2 "$before"
  host_file_unwatched "$AGENT_PID" /etc/shadow
}

case_docker_mounted_files() {
  write_policy "$WORK/policy.d" tarnwick/busybox false /etc/passwd /etc/hosts /etc/resolv.conf /etc/hostname
  agent_start "$WORK"
  local c=e2e-hosts-$$ hosts
  start_container "$c" >/dev/null
  arm_probe "$c"
  hosts=$(docker inspect -f '{{.HostsPath}}' "$c")
  # The watch sits on the file Docker mounts over /etc/hosts, not the image's hidden one.
  wait_for 20 host_file_watched "$AGENT_PID" "$hosts" || fail "the container's hosts file ($hosts) is not watched"
  cexec "$c" 'echo "10.9.8.7 e2e-name" >> /etc/hosts'
  expect_alarm "/etc/hosts edited" "$(user_alarm "$c" /etc/hosts 2)"
  cexec "$c" 'echo "options ndots:2" >> /etc/resolv.conf'
  expect_alarm "/etc/resolv.conf edited" "$(user_alarm "$c" /etc/resolv.conf 2)"
  cexec "$c" 'chmod 600 /etc/hostname'
  expect_alarm "/etc/hostname attributes" "$(user_alarm "$c" /etc/hostname 1)"
}

case_bind_and_volume_files() {
  local c=e2e-mounts-$$ volume=e2e-vol-$$ before
  trap 'docker rm -f "'"$c"'" >/dev/null 2>&1; docker volume rm -f "'"$volume"'" >/dev/null 2>&1 || true; case_cleanup' EXIT
  mkdir -p "$WORK/conf"
  echo "listen 80" > "$WORK/conf/app.conf"
  write_policy "$WORK/policy.d" tarnwick/busybox false /etc/passwd /etc/app.conf /data/db.conf
  agent_start "$WORK"
  docker volume create "$volume" >/dev/null
  echo "$c" >> "$WORK/containers"
  docker run -d --name "$c" -v "$WORK/conf/app.conf:/etc/app.conf" -v "$volume:/data" \
    "$BUSYBOX_IMAGE" sleep 600 >/dev/null
  arm_probe "$c"
  cexec "$c" 'echo "listen 8080" >> /etc/app.conf'
  expect_alarm "-v mounted file edited" "$(user_alarm "$c" /etc/app.conf 2)"
  cexec "$c" 'echo "db=1" > /data/db.conf'
  expect_alarm "file created on the named volume" "$(user_alarm "$c" /data/db.conf 0)"
  before=$(count_alarms "$c" /data/db.conf 2)
  cexec "$c" 'echo "db=2" >> /data/db.conf'
  expect_more "file on the named volume edited" "$c" /data/db.conf 2 "$before"
}

case_parent_directory_moved() {
  write_policy "$WORK/policy.d" tarnwick/busybox false /etc/passwd /srv/app/conf/app.conf
  agent_start "$WORK"
  local c=e2e-parent-$$ before
  start_container "$c" >/dev/null
  arm_probe "$c"
  cexec "$c" 'mkdir -p /srv/app/conf && echo one > /srv/app/conf/app.conf'
  expect_alarm "created in directories made after the start" "$(user_alarm "$c" /srv/app/conf/app.conf 0)"
  # A directory two levels above the file is moved away: the file is gone from its path.
  cexec "$c" 'mv /srv/app /srv/app.old'
  expect_alarm "grandparent moved away" "$(user_alarm "$c" /srv/app/conf/app.conf 4)"
  before=$(count_alarms "$c" /srv/app/conf/app.conf 0)
  cexec "$c" 'mkdir -p /srv/app/conf && echo two > /srv/app/conf/app.conf'
  expect_more "re-created under re-made directories" "$c" /srv/app/conf/app.conf 0 "$before"
  before=$(count_alarms "$c" /srv/app/conf/app.conf 2)
  cexec "$c" 'echo old >> /srv/app.old/conf/app.conf; echo three >> /srv/app/conf/app.conf'
  expect_more "the new file is followed" "$c" /srv/app/conf/app.conf 2 "$before"
  [ "$(count_alarms "$c" /srv/app/conf/app.conf 2)" -eq $((before + 1)) ] \
    || fail "the moved-away file is still reported"
  # The whole tree is swapped for a prepared one in one rename.
  cexec "$c" 'mkdir -p /srv/new/conf && echo four > /srv/new/conf/app.conf && rm -rf /srv/app && mv /srv/new /srv/app'
  before=$(count_alarms "$c" /srv/app/conf/app.conf 2)
  cexec "$c" 'echo five >> /srv/app/conf/app.conf'
  expect_more "the swapped-in tree is followed" "$c" /srv/app/conf/app.conf 2 "$before"
  wait_for 5 grep -q "watch on .*/srv/app/conf/app.conf armed on the file" "$WORK/agent.log" ||
    fail "no re-arm logged"
}

case_watch_limit_recovers() {
  local sysctl=fs.inotify.max_user_watches orig c=e2e-limit-$$ used
  orig=$(sysctl -n "$sysctl")
  trap 'sysctl -qw "'"$sysctl"'='"$orig"'"; case_cleanup' EXIT
  write_policy "$WORK/policy.d" tarnwick/busybox false /etc/passwd /etc/group /etc/hosts /etc/e2e-a /etc/e2e-b
  AGENT_CONFIG=$(fast_status_config) agent_start "$WORK"
  # Room for a couple more of root's watches, fewer than the container's paths need.
  used=$(root_inotify_watches)
  sysctl -qw "$sysctl=$((used + 2))"
  start_container "$c" >/dev/null
  wait_for 30 grep -q "coverage gap in .* the kernel refuses watches" "$WORK/agent.log" \
    || fail "no coverage gap logged at the limit"
  wait_for 10 grep -Eq "Status filenotify.coverage: .* [0-9a-f]{12} [0-4]/5" "$WORK/agent.log" \
    || fail "the gap is not in the status output"
  sysctl -qw "$sysctl=$orig"
  wait_for 30 grep -q "coverage gap in .* closed: 5 of 5" "$WORK/agent.log" \
    || fail "coverage did not come back after the limit was raised"
  wait_for 10 grep -Eq "Status filenotify.coverage: .* [0-9a-f]{12} 5/5" "$WORK/agent.log" \
    || fail "full coverage is not in the status output"
  arm_probe "$c"
  cexec "$c" 'touch /etc/e2e-a'
  expect_alarm "created after recovery" "$(user_alarm "$c" /etc/e2e-a 0)"
  wait_for 10 grep -Eq "filenotify.coverage.gap_opened=[1-9]" "$WORK/agent.log" || fail "gap not counted"
}
