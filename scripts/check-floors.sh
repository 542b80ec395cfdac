#!/usr/bin/env bash
# Holds the includes of the tree to its floors: a file includes only what is on its own floor or below it.
#
#   scripts/check-floors.sh [ROOT]
#
# A new file that no line of the table names is an error: put it on a floor first.
set -euo pipefail

# Floor, then patterns of paths below src/ without their suffix. The first line that matches counts.
# "contract" is the SDK: pure declarations over zym, which every floor may include. A pattern may name what isn't there
# yet: its floor is agreed before it is built.
floors='
0         zym/*
1         qor_common/* qor_utils/* qor_tracing/*
contract  process_manager/export/*
6         process_manager/module
3         process_manager/system_events_factory* process_manager/event* process_manager/filter*
3         process_manager/non_blocking/i_event_dispatcher
3         process_manager/interceptor_settings* process_manager/meta_info* process_manager/non_blocking/event_dispatcher*
4         process_manager/non_blocking/* process_manager/blocking/*
5         process_manager/interceptor process_manager/application* process_manager/*dump_writer*
2         process_manager/process_dumper/* process_manager/process_dumper*
2         process_manager/proc_* process_manager/procfs_* process_manager/kernel_setting* process_manager/process_description*
2         process_manager/tools* process_manager/interpreter* process_manager/elf_file*
2         process_manager/process_cache* process_manager/process_information* process_manager/process_control*
2         process_manager/process_snapshot*
2         process_manager/user_localization* process_manager/file_name_*
2         process_manager/process_manager* process_manager/process_memory* process_manager/process_module*
'

# Outside src/: trees that stand where a host stands. They include the SDK, the headers that the libraries export, and
# their own, and nothing else of src/. The other tests, fuzz/ and bench/ may see everything.
hosts='host tests/module tests/host tests/support tests/install examples'

cd "${1:-$(dirname "${BASH_SOURCE[0]}")/..}"

roots=()
for directory in src host tests fuzz bench examples; do
  if [[ -d $directory ]]; then roots+=("$directory"); fi
done

find "${roots[@]}" -type f \( -name '*.h' -o -name '*.cpp' \) -print | LC_ALL=C sort |
  FLOORS=$floors HOSTS=$hosts awk '
function fail(message) { print "floors: " message > "/dev/stderr"; failures++ }

function to_regex(pattern) {
  gsub(/\./, "[.]", pattern)
  gsub(/\*/, ".*", pattern)
  return "^" pattern "$"
}

# The floor of a file below src/, by the table; "" when no line names it.
function floor_of(path,    stem, i) {
  stem = path
  sub(/^src\//, "", stem)
  sub(/[.][a-z]+$/, "", stem)
  for (i = 1; i <= rules; i++) if (stem ~ regex[i]) return floor[i]
  return ""
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
  if (from ~ /^host\// && ("host/" name) in present) return "host/" name
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
    else if (host_of(from) == "host" && host_of(target) != "host") fail(at "includes \"" name "\"; host/ includes no test")
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
    for (j = 2; j <= words; j++) { floor[++rules] = word[1]; regex[rules] = to_regex(word[j]) }
  }
  host_count = split(ENVIRON["HOSTS"], host, " ")
}

{ file[++files] = $0; present[$0] = 1 }

END {
  for (i = 1; i <= files; i++) {
    path = file[i]
    if (path ~ /^src\// && floor_of(path) == "")
      fail(path ": is on no floor: name it in the table of scripts/check-floors.sh")

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
