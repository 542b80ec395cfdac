#!/usr/bin/env bash
# Holds the includes of the tree to its floors: a file includes only what is on its own floor or below it.
#
#   scripts/check-floors.sh [ROOT]
#
# A file in a folder that no line of the table names is an error: give the folder a floor first.
set -euo pipefail

# One line for each folder below src/: its floor and its name. What lies deeper is a folder of its own.
# "contract" is the SDK, with all that lies below it: pure declarations over zym, which every floor may include.
floors='
0         zym
1         qor_common
1         qor_common/export/qor_common
1         qor_utils
1         qor_utils/export/qor_utils
contract  process_manager/export/process_manager
contract  process_manager/export/process_manager/services
2         process_manager/procfs
2         process_manager/process_cache
2         process_manager/process
2         process_manager/memory
2         process_manager/meta_info
3         process_manager/interception
4         process_manager/non_blocking
5         process_manager/facade
6         process_manager
'

# Outside src/: trees that stand where a host stands. They include the SDK, the headers that the libraries export, and
# their own, and nothing else of src/. The other tests, fuzz/ and bench/ may see everything.
hosts='host_kit host tests/module tests/host tests/host_kit tests/support tests/install examples'

cd "${1:-$(dirname "${BASH_SOURCE[0]}")/..}"

roots=()
for directory in src host_kit host tests fuzz bench examples; do
  if [[ -d $directory ]]; then roots+=("$directory"); fi
done

find "${roots[@]}" -type f \( -name '*.h' -o -name '*.cpp' \) -print | LC_ALL=C sort |
  FLOORS=$floors HOSTS=$hosts awk '
function fail(message) { print "floors: " message > "/dev/stderr"; failures++ }

# The floor of a file below src/: that of its folder; "" when no line names it.
function floor_of(path) {
  sub(/^src\//, "", path)
  sub(/\/[^\/]*$/, "", path)
  return floor[path]
}

function host_of(path,    i) {
  for (i = 1; i <= host_count; i++) if (index(path, host[i] "/") == 1) return host[i]
  return ""
}

function folder_of(path) { sub(/[^\/]*$/, "", path); return path }
function part_of(name) { return substr(name, 1, index(name, "/") - 1) }

# The file that an include names, as the include directories of the build find it.
function resolve(name, from,    part) {
  part = part_of(name)
  if (("src/" part "/export/" name) in present) return "src/" part "/export/" name
  if (("src/" name) in present) return "src/" name
  if (name in present) return name
  # Outside src/ a file may name what lies beside it.
  if (from !~ /^src\// && (folder_of(from) name) in present) return folder_of(from) name
  if (from ~ /^(tests|bench)\// && ("tests/" name) in present) return "tests/" name
  return ""
}

function check(from, line, name, quoted,    target, mine, theirs, at) {
  at = from ":" line ": "
  if (name ~ /^[.][.]?\// || name ~ /\/[.][.]?\//) {
    fail(at "includes \"" name "\" by a relative path; write it from src/ on")
    return
  }
  target = resolve(name, from)
  if (target == "") {
    if (quoted) {
      fail(at "includes \"" name "\", which is no file of this tree; write it from src/ on, and what is outside in <>")
    } else if ((mine = floor_of(from)) ~ /^(0|contract)$/ && from ~ /^src\// &&
               name ~ /^(boost|gtest|gmock|libmnl|prometheus|rapidjson|CLI)/) {
      fail(at "includes <" name ">; this floor is built on the C++ library and the kernel alone")
    }
    return
  }
  if (target !~ /^src\//) {
    if (from ~ /^src\//) fail(at "includes \"" name "\" of " target "; src/ knows nothing outside of itself")
    else if (from ~ /^host_kit\// && target !~ /^host_kit\//) fail(at "includes \"" name "\"; the kit knows no host")
    else if (from ~ /^host\// && target !~ /^host(_kit)?\//) fail(at "includes \"" name "\"; host/ includes no test")
    return
  }
  if (from !~ /^src\//) {
    if (host_of(from) != "" && target !~ /^src\/zym\// && target !~ /^src\/[a-z_]+\/export\//)
      fail(at "includes \"" name "\" (" target "); what stands outside sees zym and exported headers only")
    return
  }
  mine = floor_of(from)
  theirs = floor_of(target)
  if (mine == "" || theirs == "") return  # said once for the file itself
  if (mine == "contract") {
    if (theirs != "contract" && theirs != "0") fail(at "includes \"" name "\"; the contract stands on zym alone")
  } else if (theirs == "contract") {
    if (mine == "0") fail(at "includes \"" name "\"; zym does not know the module")
  } else if (theirs + 0 > mine + 0) {
    fail(at "is on floor " mine " and includes \"" name "\" of floor " theirs)
  }
  if (target ~ /[.]h$/ && from ~ /[.]h$/) edges[from] = edges[from] " " target
}

# Headers that include each other in a circle, on one floor too.
function visit(file,    list, n, i) {
  state[file] = 1
  trail[++depth] = file
  n = split(edges[file], list, " ")
  for (i = 1; i <= n; i++) {
    if (state[list[i]] == 1) fail("circle of includes: " list[i] " is included by " file " and leads back to it")
    else if (state[list[i]] == 0) visit(list[i])
  }
  depth--
  state[file] = 2
}

BEGIN {
  lines = split(ENVIRON["FLOORS"], line_of, "\n")
  for (i = 1; i <= lines; i++) {
    words = split(line_of[i], word, " ")
    if (words == 2) floor[word[2]] = word[1]
  }
  host_count = split(ENVIRON["HOSTS"], host, " ")
}

{ file[++files] = $0; present[$0] = 1 }

END {
  for (i = 1; i <= files; i++) {
    path = file[i]
    if (path ~ /^src\// && floor_of(path) == "")
      fail(path ": its folder is on no floor: name it in the table of scripts/check-floors.sh")

    if (path ~ /^src\/process_manager\/[^\/]*$/ && path !~ /\/module[.][a-z]+$/)
      fail(path ": lies in no room; beside the rooms there is only the entry")

    # One spelling must mean one file.
    if (path ~ /^src\/[a-z_]+\/export\/.*[.]h$/) {
      name = path
      sub(/^src\/[a-z_]+\/export\//, "", name)
      if (("src/" name) in present) fail("\"" name "\" is two files: src/" name " and " path)
      if (name in owner) fail("\"" name "\" is two files: " owner[name] " and " path)
      owner[name] = path
    }

    number = 0
    while ((getline text < path) > 0) {
      number++
      if (text !~ /^[ \t]*#[ \t]*include[ \t]*["<]/) continue
      quoted = text ~ /include[ \t]*"/
      sub(/^[^"<]*["<]/, "", text)
      sub(/[">].*$/, "", text)
      includes++
      check(path, number, text, quoted)
    }
    close(path)
  }
  for (i = 1; i <= files; i++) if (state[file[i]] == 0) visit(file[i])
  if (failures) {
    print "floors: " failures " include(s) or file(s) out of place" > "/dev/stderr"
    exit 1
  }
  print "floors: " includes + 0 " includes of " files " files are in order"
}'
