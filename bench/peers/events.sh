#!/usr/bin/env bash
# What it costs to watch 20,000 short processes: pmhost beside what a user would pick instead, and the floor.
#
#   bench/peers/events.sh [REPETITIONS]
#
# For each watcher: its own processor time during a storm of `posix_spawn` of /bin/true from two workers, and how
# many of the executions it told with the true path. Run as root on a quiet machine; every figure stands beside
# the floor of the same run. Watchers that aren't installed are named and left out.
set -euo pipefail

here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
root=$(cd "$here/../.." && pwd)
build=${BUILD:-$root/build/release}
repetitions=${1:-3}
processes=${PROCESSES:-20000}
out=$(mktemp -d)
trap 'rm -rf "$out"' EXIT
set -m # a watcher in the background must not inherit an ignored SIGINT

# Processor time of a process, seconds.
processor_time() { awk -v hz="$(getconf CLK_TCK)" '{ sub(/.*\) /, ""); print ($12 + $13) / hz }' "/proc/$1/stat"; }

# A watcher is ready when it tells of a process that runs after it: a marker is spawned until it shows.
wait_ready() { # PID
  local pid=$1 i
  for ((i = 0; i < 200; ++i)); do
    kill -0 "$pid" 2>/dev/null || return 1
    /bin/echo >/dev/null
    if [[ -s $out/watched ]] || ((i > 20)); then return 0; fi
    sleep 0.05
  done
}

# watch NAME COUNT-COMMAND COMMAND...: prints a line of results.
watch() {
  local name=$1 count=$2
  shift 2
  if ! command -v "$1" >/dev/null; then
    printf '%-28s not installed\n' "$name"
    return
  fi
  : >"$out/watched"
  "$@" >"$out/watched" 2>"$out/errors" &
  local pid=$! before after storm
  wait_ready "$pid" || { printf '%-28s failed: %s\n' "$name" "$(head -n 1 "$out/errors")"; return; }
  before=$(processor_time "$pid")
  storm=$("$build/bench/peers/storm" "$processes" 2)
  # What is still in flight belongs to the storm: done when the time used stands still.
  local last=x
  after=$(processor_time "$pid")
  while [[ $after != "$last" ]]; do
    last=$after
    sleep 0.3
    after=$(processor_time "$pid")
  done
  local rss
  rss=$(awk '/^VmHWM/ {print int($2 / 1024)}' "/proc/$pid/status")
  kill -INT "$pid"
  wait "$pid" 2>/dev/null || true
  local told
  told=$(eval "$count" <"$out/watched")
  awk -v name="$name" -v used="$(awk "BEGIN{print $after - $before}")" -v told="$told" -v n="$processes" \
    -v rss="$rss" -v storm="$storm" 'BEGIN {
      printf "%-28s %6.2f s of its own   path told of %5.1f %%   peak %3d MiB   [%s]\n", name, used, 100 * told / n, rss, storm }'
}

for ((r = 1; r <= repetitions; ++r)); do
  echo "--- run $r of $repetitions"
  watch "floor: receive" "echo 0" "$build/bench/peers/connector_floor"
  watch "floor: exe and cmdline" "sed -n 's/.*paths=\([0-9]*\).*/\1/p'" "$build/bench/peers/connector_floor" read
  watch "pmhost watch --json" "grep '\"from_exec\":true' | grep -c '\"image_path\":\"[^\"]*/true\"' || true" \
    "$build/bin/pmhost" watch --json
  watch "pmhost watch --full --json" "grep '\"from_exec\":true' | grep -c '\"image_path\":\"[^\"]*/true\"' || true" \
    "$build/bin/pmhost" watch --full --json
  watch "forkstat (all three)" "grep -c 'exec.*/bin/true' || true" forkstat -e fork,exec,exit
  watch "extrace" "grep -c '/bin/true' || true" stdbuf -oL extrace -f
done
