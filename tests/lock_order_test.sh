#!/usr/bin/env bash
# Compares the order in which simulated runs enter the locks of the library with the table of locks in
# docs/ARCHITECTURE.md: each pair is allowed by the table, and each class of the table is met.
# Usage: lock_order_test.sh ORVANE_SIMULATE SEEDS [LAUNCHER]
# With a LAUNCHER, which runs the program of another system.
# shellcheck source-path=SCRIPTDIR
set -u
program=("$(realpath "$1")")
[ $# = 2 ] || program=("$(realpath "$3")" "${program[@]}")
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
. "$here/shell_checks.sh"

work=$(mktemp -d "${TMPDIR:-/var/tmp}/orvane-locks.XXXXXX")
trap 'rm -rf "$work"' EXIT
cd "$work" || exit 1

# The table as lines "rank class class...", spaces in a class as underscores. Those that are entered
# in the order in which they stand have a comma between them.
awk -F ' *[|] *' '
  /^## / { locks = ($0 == "## Locks") }
  locks && /^\|/ && $2 != "rank" && $2 !~ /^-/ {
    sub(/^ +/, "", $4)
    gsub(/ /, "_", $4)
    gsub(/,_/, ", ", $4)
    gsub(/;_/, " ; ", $4)
    print ($3 ~ /Linux|Win::/ ? "host" : $2), $4
  }' "$here/../docs/ARCHITECTURE.md" >table

check 'the table can be read' test "$(grep -c '^[1-9]' table)" -ge 5
"${program[@]}" --lock-order --seeds "$2" >order
check 'the simulator runs' test $? = 0
tr -d '\r' <order | grep -E '^[a-z-]+( [a-z-]+)*( -> .*)?$' | sed 's/ -> /->/; s/ /_/g; s/->/ /' >seen

# "ok" or "not ok" and what it is about, one line each.
awk '
  function why(outer, inner) {
    if ((outer, inner) in follows) return ""
    if (!(outer in known) || !(inner in known)) return "a class is in no row of the table"
    if (!(outer in place)) return "a leaf enters something that does not stand behind it"
    if (!(inner in place) || place[outer] < place[inner]) return ""
    return "the table has them the other way round"
  }
  FNR == NR {
    previous = ""
    for (k = 2; k <= NF; ++k) {
      if ($k == ";") { previous = ""; continue }
      class = $k
      sub(/,$/, "", class)
      if (class == "–") continue
      known[class] = 1
      if ($1 == "host") hosts[class] = 1
      if ($1 ~ /^[0-9]/ && !(class in place)) place[class] = ++places
      if (previous != "") follows[previous, class] = 1
      previous = ($k ~ /,$/) ? class : ""
    }
    next
  }
  NF == 1 { met[$1] = 1 }
  NF == 2 {
    reason = why($1, $2)
    print (reason == "" ? "ok" : "not ok"), $1 " -> " $2, reason
  }
  END {
    for (class in known) {
      if (class in hosts) continue
      print ((class in met) ? "ok" : "not ok"), class, "is met"
    }
  }' table seen >verdicts

while read -r line; do
  case $line in
    'ok '*) ok "${line#ok }" ;;
    *) not_ok "${line#not ok }" ;;
  esac
done < <(tr _ ' ' <verdicts)
finish
