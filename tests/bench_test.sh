#!/usr/bin/env bash
# Tests the benchmark program from outside: that what it measures runs, not how fast.
# Usage: bench_test.sh ORVANE_BENCH [LAUNCHER]
# With a LAUNCHER, which runs the program of another system.
# shellcheck source-path=SCRIPTDIR
set -u
bench=("$(realpath "$1")")
[ $# = 1 ] || bench=("$(realpath "$2")" "${bench[@]}")
. "$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)/shell_checks.sh"

work=$(mktemp -d "${TMPDIR:-/var/tmp}/orvane-bench.XXXXXX")
trap 'rm -rf "$work"' EXIT
cd "$work" || exit 1

# Fills code, out and err.
orvane_bench() {
  "${bench[@]}" "$@" >out.txt 2>err.txt
  code=$?
  out=$(tr -d '\r' <out.txt)
  err=$(tr -d '\r' <err.txt)
}
short=(--memory-folder '' --file-mib 512 --rounds 1 --seconds 0.001)

orvane_bench --list "${short[@]}"
equal 'the works are listed' 0 $code
contains 'reads among them' 'random 4 KiB reads, 61 in flight' "$out"
contains 'figures too' 'an idle cache' "$out"

# Every kind of work once; those that take long by their nature are left out.
pattern='random|sequential 1 MiB reads|hits of 64 KiB in 16|hits of 4 KiB in 16 MiB, 61|blocks of 64 KiB|threads|1024 blocks|through 16 blocks'
orvane_bench "${short[@]}" --filter "$pattern" --json results.json
equal 'a short run ends well' 0 $code
case $out in
  *'did not run'*) not_ok "a contender did not run: $(grep 'did not run' out.txt | head -n 3)" ;;
  *) ok 'every contender runs' ;;
esac
contains 'there are aims' 'aims met' "$out"
contains 'the results are written' '"works"' "$(head -c 4000000 results.json)"

orvane_bench "${short[@]}" --filter 'hits of 64 KiB in 16' --only orvane --passes 2
equal 'passes of one contender' 0 $code
contains 'their items are counted' '512 items by orvane' "$out"

cat >figures.json <<'END'
[{"name": "of others", "values": [{"name": "value", "unit": "calls", "value": 2.5}]}]
END
orvane_bench "${short[@]}" --filter 'of others' --figures figures.json
contains 'figures of others are shown' 'value: 2.5 calls' "$out"
printf '{' >figures.json
orvane_bench "${short[@]}" --figures figures.json --list
equal 'a file that is not JSON is an error' 1 $code
contains 'with a reason' 'orvane_bench: ' "$err"

orvane_bench --list --folder missing
equal 'a folder that is missing is an error' 1 $code
contains 'that names the file' 'cannot write missing' "$err"
orvane_bench --rounds 0
if [ $code != 0 ]; then ok 'no rounds are refused'; else not_ok 'no rounds were accepted'; fi
equal 'no file is left' '' "$(find . -name 'orvane-bench-*')"
finish
