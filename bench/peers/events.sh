#!/usr/bin/env bash
# What it costs to watch 20,000 short processes: pmhost beside what a user would pick instead, and the floor.
#
#   bench/peers/events.sh [REPETITIONS]
#
# For each watcher: its own processor time during a storm of `posix_spawn` of /bin/true from two workers, as a
# share of the floor of the same run that reads whole records; how many of the executions it told with the true
# path; its memory before the storm and at its most. Run as root on a quiet machine: others that run on it make
# every figure larger, the floors too. Watchers that aren't installed are named and left out. The lines go to the
# file that BENCH_TABLE names, too.
set -euo pipefail

here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
root=$(cd "$here/../.." && pwd)
build=${BUILD:-$root/build/release}
repetitions=${1:-3}
processes=${PROCESSES:-20000}
table=${BENCH_TABLE:-/dev/null}
out=$(mktemp -d)
trap 'rm -rf "$out"' EXIT
set -m # a watcher in the background must not inherit an ignored SIGINT

if [[ $EUID -ne 0 ]]; then
  echo "events.sh: the proc connector needs CAP_NET_ADMIN: run as root" >&2
  exit 1
fi

# Processor time of the threads of a process, in hundredths of a second; with a name, of the threads of that name.
processor_time() { # PID [THREAD]
  local task
  for task in "/proc/$1/task"/*; do
    if [[ -z ${2:-} || $(cat "$task/comm" 2>/dev/null) == "$2" ]]; then cat "$task/stat" 2>/dev/null || true; fi
  done | awk '{ sub(/.*\) /, ""); sum += $12 + $13 } END { print sum + 0 }'
}
seconds() { awk -v hundredths="$1" 'BEGIN { printf "%.2f", hundredths / 100 }'; }
mebibytes() { awk -v field="$2:" '$1 == field { print int($2 / 1024) }' "/proc/$1/status"; }

# A watcher is ready when it tells of a process that runs after it: a marker is spawned until it shows. Those that
# tell nothing before they end get a second.
wait_ready() { # PID
  local pid=$1 i
  for ((i = 0; i < 20; ++i)); do
    kill -0 "$pid" 2>/dev/null || return 1
    /bin/echo >/dev/null
    if [[ -s $out/watched ]]; then return 0; fi
    sleep 0.05
  done
}

# The floor that reads whole records, of this repetition.
floor=0

# watch NAME COUNT-COMMAND COMMAND...: prints a line of results.
watch() {
  local name=$1 count=$2
  shift 2
  if ! command -v "$1" >/dev/null; then
    printf '%-28s not installed\n' "$name" | tee -a "$table"
    return
  fi
  : >"$out/watched"
  "$@" >"$out/watched" 2>"$out/errors" &
  local pid=$! before after last storm used rest threads="" told thread
  wait_ready "$pid" || {
    printf '%-28s failed: %s\n' "$name" "$(head -n 1 "$out/errors")" | tee -a "$table"
    return
  }
  rest=$(mebibytes "$pid" VmRSS)
  before=$(processor_time "$pid")
  storm=$("$build/bench/peers/storm" "$processes" 2)
  # What is still in flight belongs to the storm: done when the time used stands still.
  last=x
  after=$(processor_time "$pid")
  while [[ $after != "$last" ]]; do
    last=$after
    sleep 0.3
    after=$(processor_time "$pid")
  done
  used=$((after - before))
  if [[ $name == "floor: whole records" ]]; then floor=$used; fi
  for thread in vornPrcMonPoll vornPrcMonProc; do
    if [[ $name == pmhost* ]]; then threads+="  $thread $(seconds "$(processor_time "$pid" "$thread")")"; fi
  done
  local peak
  peak=$(mebibytes "$pid" VmHWM)
  kill -INT "$pid"
  wait "$pid" 2>/dev/null || true
  told=$(eval "$count" <"$out/watched")
  awk -v name="$name" -v used="$used" -v told="$told" -v n="$processes" -v rest="$rest" -v peak="$peak" \
    -v floor="$floor" -v storm="$storm" -v threads="$threads" 'BEGIN {
      ratio = floor > 0 ? sprintf("%5.2f of the floor", used / floor) : ""
      printf "%-28s %6.2f s  %-18s path told of %5.1f %%  memory %d MiB, at most %d  [%s]%s\n",
        name, used / 100, ratio, 100 * told / n, rest, peak, storm, threads }' | tee -a "$table"
}

paths_of_floor="sed -n 's/.* paths=\([0-9]*\).*/\1/p'"
paths_of_pmhost="grep '\"event\":\"create_process\"' | grep '\"from_exec\":true' | grep -c '\"image_path\":\"[^\"]*/true\"' || true"

for ((r = 1; r <= repetitions; ++r)); do
  echo "--- storm of $processes processes, run $r of $repetitions" | tee -a "$table"
  watch "floor: whole records" "$paths_of_floor" "$build/bench/peers/connector_floor" record
  watch "floor: exe and cmdline" "$paths_of_floor" "$build/bench/peers/connector_floor" read
  watch "floor: receive" "echo 0" "$build/bench/peers/connector_floor"
  watch "pmhost watch --json" "$paths_of_pmhost" "$build/bin/pmhost" watch --json
  watch "pmhost watch --full --json" "$paths_of_pmhost" "$build/bin/pmhost" watch --full --json
  watch "forkstat (all three)" "grep -c 'exec.*/bin/true' || true" forkstat -e fork,exec,exit
  if command -v extrace >/dev/null; then watch "extrace" "grep -c '/bin/true' || true" stdbuf -oL extrace -f; fi
done
