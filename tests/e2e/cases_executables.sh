# End-to-end cases of executables dropped into a container the ways attackers and package
# managers really do it, on a Debian 12 image built from Debian's packages. Sourced by
# scripts/e2e.sh after cases.sh (helpers from there and from scripts/lib/agent-run.sh).

E2E_CASES="$E2E_CASES packages_installed names_links_and_climbs short_lived_executables
           rules_repaired"

DEBIAN_IMAGE=${DEBIAN_IMAGE:-tarnwick/debian12:latest}
DEB_DIR=${TARNWICK_CACHE:-/var/cache/tarnwick}/debs

elf_alarm() {  # elf_alarm CONTAINER PATH
  echo ".event_classid == \"dockerfile_002\" and .container_name == \"$1\" and .file_info[0].file_path == \"$2\""
}

# start_debian NAME [docker run options]: a long-sleeping Debian container; prints its id.
start_debian() {
  local name=$1; shift
  echo "$name" >> "$WORK/containers"
  docker run -d --network none --name "$name" "$@" "$DEBIAN_IMAGE" sleep 600
}

# protect_debian: ELF drops forbidden, /etc/passwd protected (for arm_probe).
protect_debian() {
  write_policy "$WORK/policy.d" tarnwick/debian12 true /etc/passwd
  agent_start "$WORK"
}

# sha_in CONTAINER PATH: the file's SHA-256 as the container computes it.
sha_in() { docker exec "$1" sha256sum "$2" | cut -d' ' -f1; }

# alarm_field FILTER JQ-PATH: the field of the first alarm matching FILTER.
alarm_field() { jq -r "select($1) | $2" "$(ALARMS)" | head -n 1; }

case_packages_installed() {
  protect_debian
  local c=e2e-dpkg-$$ cid
  cid=$(start_debian "$c" -v "$DEB_DIR:/debs:ro")
  wait_for 20 audit_rule_present "$cid" || fail "no audit rule for $c"
  docker exec "$c" sh -c 'dpkg -i /debs/*.deb' > "$WORK/dpkg.out" 2>&1 || { cat "$WORK/dpkg.out"; fail "dpkg -i failed"; }
  # Every owner-executable ELF file the packages installed, with its digest inside the container.
  docker exec "$c" sh -c '
    # Under merged /usr, /bin/x is /usr/bin/x: the alarm names the file the name resolves to.
    for deb in /debs/*.deb; do dpkg -L "$(dpkg-deb -f "$deb" Package)"; done |
    while read -r f; do readlink -f "$f"; done | sort -u |
    while read -r f; do
      [ -f "$f" ] && [ ! -L "$f" ] || continue
      case "$(stat -c %A "$f")" in ???x*) ;; *) continue ;; esac
      [ "$(head -c 4 "$f" | od -An -tx1 | tr -d " ")" = 7f454c46 ] || continue
      sha256sum "$f"
    done' > "$WORK/expected"
  local total missing=0 wrong=0 f sha
  total=$(wc -l < "$WORK/expected")
  [ "$total" -ge 5 ] || fail "only $total executables installed?"
  while read -r sha f; do
    if ! wait_for 20 has_alarm "$(ALARMS)" "$(elf_alarm "$c" "$f")"; then
      echo "   not reported: $f" >&2; missing=$((missing + 1)); continue
    fi
    # Any of its alarms may carry the final content; the last write is what counts.
    if ! jq -r "select($(elf_alarm "$c" "$f")) | .file_info[0].file_sha256" "$(ALARMS)" | grep -qx "$sha"; then
      echo "   wrong digest: $f" >&2; wrong=$((wrong + 1))
    fi
    [ "$(alarm_field "$(elf_alarm "$c" "$f")" .process_info[0].process_container_id)" = "$cid" ] ||
      { echo "   no writer container: $f" >&2; wrong=$((wrong + 1)); }
  done < "$WORK/expected"
  echo "   $((total - missing)) of $total installed executables reported under their final name"
  [ "$missing" -eq 0 ] && [ "$wrong" -eq 0 ] || fail "$missing missing, $wrong wrong"
}

case_names_links_and_climbs() {
  protect_debian
  local c=e2e-names-$$ cid ls_sha true_sha agent_sha
  cid=$(start_debian "$c")
  wait_for 20 audit_rule_present "$cid" || fail "no audit rule for $c"
  ls_sha=$(sha_in "$c" /usr/bin/ls)
  true_sha=$(sha_in "$c" /usr/bin/true)
  agent_sha=$(sha256sum "$TARNWICK_PREFIX/bin/tarnwick-agent" | cut -d' ' -f1)
  docker exec "$c" sh -c 'cp /usr/bin/ls /root/tool && mv /root/tool /usr/bin/tool'
  expect_alarm "mv into /usr/bin" "$(elf_alarm "$c" /usr/bin/tool)"
  docker exec "$c" ln /usr/bin/true /usr/local/bin/hardlink
  expect_alarm "hard link" "$(elf_alarm "$c" /usr/local/bin/hardlink)"
  docker exec "$c" install -m755 /usr/bin/true /usr/local/bin/installed
  expect_alarm "install -m755" "$(elf_alarm "$c" /usr/local/bin/installed)"
  [ "$(alarm_field "$(elf_alarm "$c" /usr/local/bin/installed)" .file_info[0].file_sha256)" = "$true_sha" ] ||
    fail "install: digest is not that of the installed file"
  # Each name is looked at once it is reported: a name renamed on within microseconds is gone
  # by then and yields nothing, so the two moves wait for each other's alarm.
  docker exec "$c" mv /usr/bin/true /usr/bin/true.away
  expect_alarm "renamed away" "$(elf_alarm "$c" /usr/bin/true.away)"
  docker exec "$c" mv /usr/bin/true.away /usr/bin/true
  wait_for 20 alarms_above "$(elf_alarm "$c" /usr/bin/true)" 0 || fail "renamed back"
  # A relative name climbing above the root stays in the container, as the kernel keeps it.
  docker exec -w / "$c" cp /usr/bin/ls ../../../../tmp/climbed
  expect_alarm "relative climb" "$(elf_alarm "$c" /tmp/climbed)"
  [ "$(alarm_field "$(elf_alarm "$c" /tmp/climbed)" .file_info[0].file_sha256)" = "$ls_sha" ] ||
    fail "climb: digest is not the container's file"
  # Absolute links are the container's: judged by the container's target, never the host's.
  docker exec "$c" ln -s "$TARNWICK_PREFIX/bin/tarnwick-agent" /usr/bin/evil-host
  docker exec "$c" ln -s /usr/bin/ls /usr/bin/evil
  wait_for 20 alarms_above ".container_name == \"$c\" and .file_info[0].file_path == \"/usr/bin/ls\"" 0 ||
    fail "link to the container's ls not judged by its target"
  [ "$(alarm_field ".file_info[0].file_path == \"/usr/bin/ls\"" .file_info[0].file_sha256)" = "$ls_sha" ] ||
    fail "link: digest is not the container's ls"
  expect_none "host file through a link" ".file_info[0].file_sha256 == \"$agent_sha\""
  expect_none "a path with .." '.file_info[0].file_path | test("\\.\\.")'
  [ "$(alarm_field "$(elf_alarm "$c" /tmp/climbed)" .process_info[0].process_container_id)" = "$cid" ] ||
    fail "cp's container not named"
}

case_short_lived_executables() {
  protect_debian
  local c=e2e-short-$$ cid true_sha i got=0
  cid=$(start_debian "$c")
  wait_for 20 audit_rule_present "$cid" || fail "no audit rule for $c"
  true_sha=$(sha_in "$c" /usr/bin/true)
  # Written, run and deleted within about 100 ms, by writers that are gone at once.
  docker exec "$c" sh -c 'for i in 0 1 2 3 4 5 6 7 8 9; do
      cp /usr/bin/true /tmp/short$i && /tmp/short$i && sleep 0.1 && rm /tmp/short$i; done'
  for i in 0 1 2 3 4 5 6 7 8 9; do
    wait_for 10 has_alarm "$(ALARMS)" "$(elf_alarm "$c" /tmp/short$i)" || continue
    [ "$(alarm_field "$(elf_alarm "$c" /tmp/short$i)" .file_info[0].file_sha256)" = "$true_sha" ] || continue
    [ "$(alarm_field "$(elf_alarm "$c" /tmp/short$i)" .process_info[0].process_container_id)" = "$cid" ] || continue
    got=$((got + 1))
  done
  echo "   $got of 10 executables living 100 ms reported with their digest and container"
  [ "$got" -eq 10 ] || fail "short-lived executables missed"
}

case_rules_repaired() {
  protect_debian
  local c=e2e-repair-$$ cid start elapsed
  cid=$(start_debian "$c")
  wait_for 20 audit_rule_present "$cid" || fail "no audit rule for $c"
  start=$(date +%s%N)
  auditctl -D >/dev/null
  wait_for 10 audit_rule_present "$cid" || fail "rule not added again"
  elapsed=$(( ($(date +%s%N) - start) / 1000000 ))
  echo "   rule back ${elapsed} ms after auditctl -D"
  [ "$elapsed" -le 5000 ] || fail "repaired after ${elapsed} ms"
  grep -q "removed behind the agent's back" "$WORK/agent.log" || fail "no warning logged"
  docker exec "$c" cp /usr/bin/true /usr/local/bin/after-repair
  expect_alarm "drop after the repair" "$(elf_alarm "$c" /usr/local/bin/after-repair)"
}
