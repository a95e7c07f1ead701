# Shared by the guest scripts (sourced; the harness names it in $FSIC_SCENARIO_CHECKS):
# what a scenario leaves behind, and the announcement of its steps.

# What is left in /tmp and mounted under it, not counting the build tree that the harness
# shares at its own path when it lives under /tmp.
tmp_entries() {
  local n=0 e
  for e in /tmp/* /tmp/.[!.]* /tmp/..?*; do
    [[ -e $e || -L $e ]] || continue
    [[ -n ${BUILD_DIR:-} && $BUILD_DIR/ == "$e"/* ]] && continue
    n=$((n + 1))
  done
  echo "$n"
}
tmp_mounts() {
  awk -v b="${BUILD_DIR:-}" '$2 ~ "^/tmp/" && $2 != b { n++ } END { print n + 0 }' /proc/self/mounts
}

# udevadm settle, tried again when it fails: udevadm can lose a race with udevd closing
# its control connection ("Failed to wait for daemon to reply: Broken pipe") while the
# queue drains all the same. The last try's error is shown.
settle() {
  local i
  for i in 1 2; do
    udevadm settle --timeout=60 2>/dev/null && return 0
    sleep 0.2
  done
  udevadm settle --timeout=60
}

# Each step is announced on stdout and stderr alike, so that error lines can be told
# apart.
step() { echo "== $*"; echo "== $*" >&2; }

# The loop devices attached, the mounts under /tmp and the entries in /tmp.
afterwards() {
  local name file loops=()
  while read -r name file; do loops+=("$name $file"); done < <(losetup -n -l -O NAME,BACK-FILE | sort)
  echo "-- loop devices attached: ${loops[*]:-none}"
  echo "-- mounts under /tmp: $(tmp_mounts)"
  echo "-- entries in /tmp: $(tmp_entries)"
}
