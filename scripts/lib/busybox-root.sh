# shellcheck shell=bash
# busybox_root DIR: lays out in DIR the root filesystem of the busybox test image, from
# Debian's busybox-static. Used by dockerd.sh and podman.sh, so both engines run the same image.
# Source this file; it sets no shell options of its own. Returns 1 with a message on failure.
busybox_root() {
  local root=$1 busybox=/bin/busybox
  [ -x "$busybox" ] || { echo "$busybox missing (apt-get install busybox-static)" >&2; return 1; }
  # The image has no libc: only a static busybox runs in it.
  # ldd fails on a static binary, so its status says nothing under pipefail; read its words.
  local linkage
  linkage=$(ldd "$busybox" 2>&1 || true)
  [[ "$linkage" == *"not a dynamic executable"* ]] ||
    { echo "$busybox is not statically linked (install busybox-static)" >&2; return 1; }
  mkdir -p "$root/bin" "$root/sbin" "$root/usr/bin" "$root/usr/sbin" "$root/etc" \
    "$root/root" "$root/tmp" "$root/proc" "$root/sys" "$root/dev"
  chmod 1777 "$root/tmp"
  cp "$busybox" "$root/bin/busybox"
  # Applet links the way busybox itself lays them out, made inside the root.
  chroot "$root" /bin/busybox --install -s
  printf 'root:x:0:0:root:/root:/bin/sh\nnobody:x:65534:65534:nobody:/nonexistent:/bin/false\n' \
    > "$root/etc/passwd"
  printf 'root:x:0:\nnogroup:x:65534:\n' > "$root/etc/group"
  printf 'root:*:19000:0:99999:7:::\nnobody:*:19000:0:99999:7:::\n' > "$root/etc/shadow"
  chmod 640 "$root/etc/shadow"
}
