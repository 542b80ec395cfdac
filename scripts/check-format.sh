#!/usr/bin/env bash
# Holds every source file to .clang-format; with --fix it lays them out.
#
#   scripts/check-format.sh [--fix]
set -euo pipefail

cd "$(dirname "${BASH_SOURCE[0]}")/.."
mode=(--dry-run -Werror)
if [[ ${1:-} == --fix ]]; then mode=(-i); fi

find src host_kit host tests fuzz bench examples -type f \( -name '*.h' -o -name '*.cpp' \) -print0 |
  xargs -0 --no-run-if-empty -P "$(nproc)" -n 20 clang-format-14 "${mode[@]}" || {
    echo "check-format: lay the files out with ./dev format" >&2
    exit 1
  }
