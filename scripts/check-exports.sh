#!/usr/bin/env bash
# Holds the dynamic symbols of the module to the three entries of a host.
#
#   scripts/check-exports.sh [FILE]     FILE: the module, by default the one of the release build
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
module=${1:-$root/build/release/bin/libprocess_manager.so}

if [[ ! -e $module ]]; then
  echo "check-exports: $module: not there; build it first (./dev test)" >&2
  exit 1
fi

wanted=$(printf '%s\n' zymCanUnloadModule zymCreateObject zymGetObjectFactory)
# A version node of the linker's script is a defined symbol too, of type A; a versioned name carries "@@node".
symbols=$(nm -D --defined-only "$module")
found=$(awk '$2 != "A" { sub(/@.*/, "", $3); print $3 }' <<<"$symbols" | LC_ALL=C sort)

if [[ $found != "$wanted" ]]; then
  echo "check-exports: $module exports other names than the three entries (< wanted, > found):" >&2
  diff <(echo "$wanted") <(echo "$found") >&2 || true
  exit 1
fi

soname=$(readelf -d "$module" | sed -n 's/.*(SONAME).*\[\(.*\)\]/\1/p')
if [[ $soname != libprocess_manager.so ]]; then
  echo "check-exports: $module: the shared object's name is '$soname', not libprocess_manager.so" >&2
  exit 1
fi
# A unique symbol pins the module in the process: dlclose would succeed and unload nothing.
if readelf -sW "$module" | awk '$5 == "UNIQUE" { found = 1 } END { exit !found }'; then
  echo "check-exports: $module has STB_GNU_UNIQUE symbols; build it with -fno-gnu-unique" >&2
  exit 1
fi
echo "exports: three entries, nothing else"
