#!/usr/bin/env bash
# Runs clang-tidy over src/, host_kit/ and host/.
#
#   scripts/check-tidy.sh BUILD_DIRECTORY [--all]
#
# A file that was clean is not read again until it, a file it includes, .clang-tidy or its flags change: what it was
# made of is remembered in build/tidy. Without --all the run starts no new file after TIDY_SECONDS (240), the files
# that changed last coming first, and says how many it left for the next run.
set -euo pipefail

cd "$(dirname "${BASH_SOURCE[0]}")/.."
build=${1:?usage: check-tidy.sh BUILD_DIRECTORY [--all]}
limit=${TIDY_SECONDS:-240}
if [[ ${2:-} == --all ]]; then limit=86400; fi
state=$PWD/build/tidy
mkdir -p "$state"

# The dependencies of each object, as the compiler wrote them and ninja keeps them, say what a file was made of.
ninja -C "$build" -t deps 2>/dev/null >"$state/deps" || : >"$state/deps"

# Clang stops at options and precompiled headers that GCC alone knows. Warnings are the compiler's to give; here they would come twice.
sed -E 's/ -(fno-gnu-unique|fpch-preprocess|Wno-tsan|Werror)( |")/ \2/g; s/ -Winvalid-pch -include [^ ]*cmake_pch[.]hxx//g; s/"command": "[^"]*ccache /"command": "/' \
  "$build/compile_commands.json" >"$state/compile_commands.json"

list=$(mktemp -d)
trap 'rm -rf "$list"' EXIT

# Newest first: what is being worked on is looked at even when the time is short.
find src host_kit host -name '*.cpp' -printf '%T@ %p\n' | sort -rn | cut -d' ' -f2- >"$list/files"
export build state list started=$EPOCHSECONDS limit

tidy_one() {
  local file=$1 key stamp
  # Every file of the tree that the object was made from, by content. A file that was never built has no list.
  key=$(
    {
      cat .clang-tidy
      awk -v want="$PWD/$file" -v tree="$PWD/" '
        /^[^ ]/ { n = 0; hit = 0; next }
        /^ / { sub(/^ +/, ""); d[++n] = $0; if ($0 == want) hit = 1; next }
        /^$/ { if (hit) for (i = 1; i <= n; i++) if (index(d[i], tree) == 1) print d[i]; n = 0; hit = 0 }
      ' "$state/deps" | sort -u | xargs --no-run-if-empty sha256sum
      sha256sum "$file"
    } | sha256sum | cut -d' ' -f1
  )
  stamp=$state/$(echo "$file" | tr / +)
  if [[ -f $stamp && $(<"$stamp") == "$key" ]]; then
    echo "$file" >>"$list/known"
    return 0
  fi
  if ((EPOCHSECONDS - started > limit)); then
    echo "$file" >>"$list/left"
    return 0
  fi
  if clang-tidy-14 --quiet -p "$state" "$file" >"$list/$$.out" 2>"$list/$$.err"; then
    echo "$key" >"$stamp"
    echo "$file" >>"$list/clean"
  else
    echo "$file" >>"$list/dirty"
    cat "$list/$$.out"
    if ! grep -q 'error:' "$list/$$.out"; then cat "$list/$$.err"; fi
  fi
}
export -f tidy_one
touch "$list"/{known,left,clean,dirty}
# shellcheck disable=SC2016  # expanded by the inner shell
xargs -P "$(nproc)" -n 1 bash -c 'tidy_one "$1"' tidy <"$list/files"

count() { wc -l <"$list/$1"; }
echo "clang-tidy: $(count clean) files clean, $(count known) known to be, $(count dirty) with findings, $(count left) left for the next run"
[[ ! -s $list/dirty ]]
