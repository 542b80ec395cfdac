#!/usr/bin/env bash
# What scripts/check-floors.sh must refuse, each in a small tree of its own, beside one that it must accept.
set -euo pipefail

script=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)/scripts/check-floors.sh
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
failures=0

# put PATH INCLUDE...: a file of the tree that includes these, each in quotes.
put() {
  local path=$work/tree/$1 name
  shift
  mkdir -p "$(dirname "$path")"
  : >"$path"
  for name in "$@"; do echo "#include \"$name\"" >>"$path"; done
}

# One file on each floor, with includes downwards.
good_tree() {
  rm -rf "$work/tree"
  put src/zym/result.h
  put src/qor_common/export/qor_common/thread.h zym/result.h
  put src/process_manager/export/process_manager/types.h zym/result.h
  put src/process_manager/procfs/proc_file.h process_manager/types.h qor_common/thread.h
  put src/process_manager/interception/event.h process_manager/procfs/proc_file.h
  put src/process_manager/non_blocking/poll_loop.h process_manager/interception/event.h
  put src/process_manager/facade/interceptor.h process_manager/non_blocking/poll_loop.h
  put src/process_manager/module.cpp process_manager/facade/interceptor.h
  put host_kit/bootstrap.h process_manager/types.h qor_common/thread.h
  put host/host.h host_kit/bootstrap.h
}

# expect NAME TEXT: the script refuses the tree and says TEXT; without TEXT it accepts the tree.
expect() {
  local output status=0
  output=$("$script" "$work/tree" 2>&1) || status=$?
  if [[ -z ${2:-} && $status -ne 0 ]] || [[ -n ${2:-} && ($status -eq 0 || $output != *"$2"*) ]]; then
    echo "FAILED: $1; it said (status $status): $output" >&2
    failures=$((failures + 1))
  else
    echo "ok: $1"
  fi
}

good_tree
expect "a tree in order is accepted"

put src/process_manager/procfs/proc_file.h process_manager/interception/event.h
expect "an include upwards" 'is on floor 2 and includes "process_manager/interception/event.h" of floor 3'

good_tree
put src/process_manager/new_room/new_thing.h
expect "a folder outside the floors" "src/process_manager/new_room/new_thing.h: its folder is on no floor"

good_tree
put src/process_manager/new_thing.h
expect "a file in no room" "src/process_manager/new_thing.h: lies in no room"

good_tree
put src/qor_common/export/qor_common/thread.h process_manager/procfs/proc_file.h
expect "a service that includes the module" 'is on floor 1 and includes "process_manager/procfs/proc_file.h" of floor 2'

good_tree
put src/process_manager/export/process_manager/types.h qor_common/thread.h
expect "a contract that stands on more than zym" "the contract stands on zym alone"

good_tree
put host/host.h process_manager/procfs/proc_file.h
expect "a host that includes what is private" "sees zym and exported headers only"

good_tree
put host/failure.h
put host_kit/bootstrap.h host/failure.h
expect "a kit that includes a host" "the kit knows no host"

good_tree
put src/process_manager/export/process_manager/types.h process_manager/services/settings.h
put src/process_manager/export/process_manager/services/settings.h process_manager/types.h
expect "a circle" "circle of includes"

good_tree
put src/zym/result.h ../zym/result.h
expect "a relative path" "by a relative path"

[[ $failures -eq 0 ]]
