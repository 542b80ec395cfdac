#!/usr/bin/env bash
# Runs shellcheck over every script of the tree.
set -euo pipefail

cd "$(dirname "${BASH_SOURCE[0]}")/.."
find . -path ./build -prune -o -path ./.git -prune -o -type f -name '*.sh' -print0 |
  xargs -0 shellcheck dev .ci/run
