#!/usr/bin/env bash
# Tests the command-line tool from outside. Usage: tool_test.sh TOOL [LAUNCHER]
# With a LAUNCHER, which runs the tool of another system, without what is made with means of this one.
# shellcheck source-path=SCRIPTDIR
set -u
tool=$(realpath "$1")
launcher=()
[ $# = 1 ] || launcher=("$(realpath "$2")")
. "$(dirname "${BASH_SOURCE[0]}")/shell_checks.sh"

work=$(mktemp -d "${TMPDIR:-/var/tmp}/orvane-tool.XXXXXX")
mounted=
# shellcheck disable=SC2317 # called by the trap
clean_up() {
  [ -z "$mounted" ] || umount "$mounted"
  rm -rf "$work"
}
trap clean_up EXIT
cd "$work" || exit 1

as_nobody=() # or the command that runs the tool as another user

# Runs the tool; fills code, out and err.
orvane() {
  if [ ${#as_nobody[@]} = 0 ]; then
    "${launcher[@]}" "$tool" "$@" >"$work/out" 2>"$work/err"
  else
    "${as_nobody[@]}" "$work/tool" "$@" >"$work/out" 2>"$work/err"
  fi
  code=$?
  out=$(tr -d '\r' <"$work/out")
  err=$(tr -d '\r' <"$work/err")
}
# A field of the JSON object in out.
field() { printf '%s' "$out" | sed -E "s/.*\"$1\":\"?([^\",}]*).*/\1/"; }
xxh3_of() { xxhsum -H3 - <"$1" | grep -oE '[0-9a-f]{16}' | head -n 1; }

sizes() {
  local size
  for size in 0 1 4095 4096 4097 1048577 5243003; do
    head -c "$size" /dev/urandom >source
    rm -f copy
    orvane copy source copy --verify --json --block 64K
    equal "copy of $size bytes succeeds" "0 true" "$code $(field verified)"
    check "copy of $size bytes is exact" cmp source copy
    equal "checksum of $size bytes is xxhsum's" "$(xxh3_of source)" "$(field xxh3)"
    orvane read copy --json
    equal "read of $size bytes" "0 $size $(xxh3_of source)" "$code $(field bytes) $(field xxh3)"
    orvane read copy --sync --block 64K --json
    equal "synchronous read of $size bytes" "0 $(xxh3_of source)" "$code $(field xxh3)"
  done
}

writes() {
  local depth first
  orvane write generated --size 5243003 --seed 7 --json
  equal 'write succeeds' 0 "$code"
  equal 'write makes the exact size' 5243003 "$(stat -c %s generated)"
  equal 'checksum of write is that of the file' "$(xxh3_of generated)" "$(field xxh3)"
  first=$(field xxh3)
  for depth in 1 61; do
    orvane write generated --size 5243003 --seed 7 --block 4K --depth "$depth" --json
    equal "content does not depend on block and depth $depth" "$first" "$(field xxh3)"
    orvane read generated --block 4K --depth "$depth" --json
    equal "read with depth $depth" "$first" "$(field xxh3)"
  done
  orvane write generated --size 5243003 --seed 8 --json
  check 'another seed, another content' test "$first" != "$(field xxh3)"
  orvane write generated --size 10 --json
  equal 'a longer file is replaced' "0 10" "$code $(stat -c %s generated)"
  head -c 20000 /dev/urandom >source
  head -c 90000 /dev/urandom >copy
  orvane copy source copy
  check 'a copy replaces a longer file' cmp source copy
}

# How many blocks of a cache, 64K each, a file of 5243003 bytes has.
blocks=81

cached_sizes() {
  local size options
  for size in 0 1 4095 4097 1048577 5243003; do
    head -c "$size" /dev/urandom >source
    # Too few blocks, pieces that fit nothing, pre-reads, one at a time and many in flight.
    for options in '' '--block-size 4K --blocks 3 --block 10000' '--pre-read 1M --block 12345 --depth 3' \
      '--sync --block 777K --blocks 2' '--sync --block 99999 --block-size 8K --pre-read 100K --rate 50'; do
      # shellcheck disable=SC2086 # options are words
      orvane read source --cached $options --passes 2 --json
      equal "cached read of $size bytes, ${options:-as it is}" "0 $size $(xxh3_of source)" \
        "$code $(field bytes) $(field xxh3)"
    done
  done
}

# A field of the pass with this number.
field_of_pass() { # number field
  local passes=${out#*\"passes\":}
  printf '%s' "$passes" | grep -o '{[^{}]*}' | sed -n "$1p" | sed -E "s/.*\"$2\":([^,}]*).*/\1/"
}
counts_of_pass() { # number: hits, misses, direct reads, pre-reads
  printf '%s %s %s %s' "$(field_of_pass "$1" hits)" "$(field_of_pass "$1" misses)" \
    "$(field_of_pass "$1" direct_reads)" "$(field_of_pass "$1" pre_reads)"
}

# Of two numbers; says so when they are none.
sum() { if [[ $1,$2 =~ ^[0-9]+,[0-9]+$ ]]; then echo $(($1 + $2)); else echo "no numbers: $1, $2"; fi; }

cached_counts() {
  local options hits misses
  head -c 5243003 /dev/urandom >source
  for options in '--sync --block 64K' '--block 64K' '--block 1M --depth 2'; do
    # shellcheck disable=SC2086
    orvane read source --cached --block-size 64K --blocks 100 $options --passes 2 --json
    equal "cold read misses every block, $options" "0 $blocks $blocks 0" "$(counts_of_pass 1)"
    equal "warm read misses none, $options" "$blocks 0 0 0" "$(counts_of_pass 2)"
    equal "the last pass is the result, $options" "$blocks 0" "$(field hits) $(field misses)"
  done
  orvane read source --cached --block-size 64K --blocks 20 --sync --block 64K --passes 2 --json
  equal 'too few blocks: the second read misses every block too' "0 $blocks $blocks 0" \
    "$(counts_of_pass 2)"
  for options in '--sync --block 64K' '--block 64K --depth 4'; do
    # shellcheck disable=SC2086
    orvane read source --cached --block-size 64K --blocks 100 --pre-read 1M $options --json
    hits=$(field hits)
    misses=$(field misses)
    equal "pre-reads: each block is a hit or a miss, $options" "$blocks" "$(sum "$hits" "$misses")"
    equal "pre-reads: misses are read, $options" "$misses" "$(field direct_reads)"
    check "pre-reads: blocks are read ahead, $options" test "$(field pre_reads)" -gt 0
    check "pre-reads: blocks read ahead are hits, $options" test "$hits" -gt 0
  done
  orvane read source --cached --blocks 100 --pre-read 1M --rate 500 --json
  equal 'JSON says what the cache was' 'true 65536 100 1048576 500' \
    "$(field cached) $(field block_size) $(field blocks) $(field pre_read) $(field rate)"
  orvane read source --json
  equal 'JSON of a read without a cache' 'false' "$(field cached)"
  check 'no counts without a cache' test "$out" = "${out#*hits}"
  orvane read source --sync --passes 3 --json
  equal 'passes without a cache' "0 3 $(xxh3_of source)" \
    "$code $(grep -o '"seconds"' <<<"${out#*passes}" | wc -l) $(field xxh3)"
  orvane read source --cached --blocks 100 --block 64K --passes 2
  contains 'text: the counts of a cold pass' \
    "hits 0, misses $blocks, direct_reads $blocks, pre_reads 0" "$(grep '^passes 1 ' <<<"$out")"
  contains 'text: the counts of a warm pass' \
    "hits $blocks, misses 0, direct_reads 0, pre_reads 0" "$(grep '^passes 2 ' <<<"$out")"
}

cached_copies() {
  local size
  for size in 0 1 4097 5243003; do
    head -c "$size" /dev/urandom >source
    rm -f copy
    orvane copy source copy --cached --pre-read 512K --block 100K --verify --json
    equal "copy of $size bytes through a cache succeeds" "0 true" "$code $(field verified)"
    check "copy of $size bytes through a cache is exact" cmp source copy
    equal "copy of $size bytes through a cache: checksum" "$(xxh3_of source)" "$(field xxh3)"
  done
  orvane copy source copy --cached --pre-read 512K --block 64K --json
  equal 'copy through a cache: each block is a hit or a miss' "$blocks" \
    "$(sum "$(field hits)" "$(field misses)")"
  orvane copy source copy --cached --block-size 4K --blocks 2 --depth 61 --block 4K
  check 'copy through a cache that is too small is exact' cmp source copy
}

# A command line that is refused: exit code 2 and the cause, in text and in JSON.
refuses() { # what cause arguments...
  local what=$1 cause=$2
  shift 2
  orvane "$@"
  equal "$what: exit code" 2 "$code"
  contains "$what: names the cause" "$cause" "$err"
  orvane "$@" --json
  equal "$what: exit code in JSON" 2 "$(field exit_code)"
}

cached_errors() {
  head -c 10000 /dev/urandom >source
  refuses 'odd block size' '5000 is not a multiple of the page size' \
    read source --cached --block-size 5000
  refuses 'odd block size in a copy' '5000 is not a multiple of the page size' \
    copy source refused --cached --block-size 5000
  check 'a refused copy makes no file' test ! -e refused
  refuses 'block size 0' 'between one page and 1G' read source --cached --block-size 0
  refuses 'block size 2G' 'between one page and 1G' read source --cached --block-size 2G
  refuses 'no blocks' '--blocks' read source --cached --blocks 0
  refuses 'no passes' '--passes' read source --passes 0
  refuses 'rate 0' '--rate' read source --cached --pre-read 64K --rate 0
  refuses 'window larger than the cache' 'do not fit into 16 blocks of 64.0 KiB' \
    read source --cached --blocks 16 --pre-read 2M
  refuses 'more than half of the memory' 'half of the main memory' \
    read source --cached --block-size 1G --blocks 100000
  refuses 'blocks without a cache' '--blocks requires --cached' read source --blocks 10
  refuses 'pre-reads without a cache' '--pre-read requires --cached' copy source copy --pre-read 1M
  refuses 'rate without pre-reads' '--rate requires --pre-read' read source --cached --rate 100
  refuses 'a cache for a write' '--cached' write copy --size 10 --cached
  orvane read missing --cached
  fails_with 'missing file, cached' 3 missing 'no such file'
  [ ${#launcher[@]} = 0 ] || return
  # An address space that holds the tool, and not the cache.
  if (ulimit -v 500000 && "$tool" read source --json >out 2>err) 2>/dev/null; then
    (
      ulimit -v 500000
      "$tool" read source --cached --blocks 8192 --json >out 2>err
      echo $? >code
    )
    code=$(cat code)
    err=$(cat err)
    fails_with 'memory short for a cache' 1 '8192 blocks of 64.0 KiB' 'not enough memory'
  else
    skip 'memory short for a cache' 'the tool itself does not run with little memory'
  fi
}

names() {
  local name
  local names=('with two  spaces' 'Größe 日本.bin' "single 'quotes'")
  [ ${#launcher[@]} != 0 ] || names+=('double "quotes"')
  head -c 10000 /dev/urandom >source
  for name in "${names[@]}"; do
    orvane copy source "$name" --verify --json
    equal "name '$name'" 0 "$code"
    check "copy to '$name'" cmp source "$name"
  done
  orvane copy source ./-dash
  equal 'name with a leading dash, as ./-dash' 0 "$code"
  orvane read --json -- -dash
  equal 'name with a leading dash, behind --' "0 $(xxh3_of source)" "$code $(field xxh3)"
}

# What every failure has: an exit code, the file and the cause in the message.
fails_with() { # what code file cause
  equal "$1: exit code" "$2" "$code"
  contains "$1: names the file" "$3" "$err"
  contains "$1: names the cause" "$4" "$err"
}

errors() {
  head -c 10000 /dev/urandom >source
  mkdir -p folder
  orvane read missing
  fails_with 'missing file' 3 missing 'no such file'
  orvane copy missing copy
  fails_with 'missing source' 3 missing 'no such file'
  orvane read folder
  fails_with 'directory to read' 3 folder 'directory'
  orvane copy source folder
  fails_with 'directory to write' 3 folder 'directory'
  orvane copy source nowhere/copy
  fails_with 'no parent directory' 3 nowhere/copy "no such directory 'nowhere'"
  orvane copy source source/copy
  fails_with 'parent is a file' 3 source/copy "'source' is not a directory"
  orvane copy source source
  fails_with 'onto itself' 2 source 'the same file'
  ln -s source link
  orvane copy source link
  fails_with 'onto itself through a link' 2 source 'the same file'
  equal 'the file refused as its own copy is intact' 10000 "$(stat -c %s source)"
  if [ ${#launcher[@]} = 0 ]; then
    mkfifo pipe
    orvane read pipe
    fails_with 'pipe' 3 pipe 'not a regular file'
    ln -s nowhere dangling
    orvane copy source dangling
    fails_with 'a name that leads nowhere' 3 dangling 'File exists'
    check 'a name that leads nowhere stays as it is' test -L dangling -a ! -e nowhere
  fi
  orvane read
  equal 'no file: exit code' 2 "$code"
  orvane read source --depth 62
  equal 'too many in flight: exit code' 2 "$code"
  orvane read source --block 12Q
  equal 'unreadable size: exit code' 2 "$code"
  orvane read source --block 1G --depth 61
  if [ "$code" = 0 ]; then
    skip 'too much memory' 'this machine has more than 122 GiB'
  else
    fails_with 'too much memory' 2 '61 blocks' 'half of the main memory'
  fi
  orvane --help
  equal 'help: exit code' 0 "$code"
  contains 'help lists the exit codes' '130' "$out"
}

permissions() {
  head -c 10000 /dev/urandom >locked
  chmod 000 locked
  as_nobody=()
  if [ "$(id -u)" = 0 ]; then
    # Root may do everything: a copy of the tool runs as somebody else.
    as_nobody=(setpriv --reuid=65534 --regid=65534 --clear-groups)
    chmod 755 "$work"
    cp "$tool" "$work/tool"
  fi
  if [ ${#as_nobody[@]} = 0 ] || "${as_nobody[@]}" "$work/tool" --version >/dev/null 2>&1; then
    orvane read locked
    fails_with 'no permission to read' 3 locked 'Permission denied'
    orvane copy source locked
    fails_with 'no permission to write' 3 locked 'Permission denied'
    orvane copy source newcomer
    [ ${#as_nobody[@]} = 0 ] || fails_with 'folder without permission' 3 newcomer 'Permission denied'
  else
    skip 'no permission' 'cannot become another user'
  fi
  as_nobody=()
  if [ "$(id -u)" = 0 ]; then
    mkdir -p readonly
    if mount -t tmpfs -o ro,size=64k tmpfs readonly 2>"$work/err"; then
      mounted=$work/readonly
      orvane copy source readonly/copy
      fails_with 'read-only file system' 3 readonly/copy 'Read-only file system'
      umount readonly
      mounted=
    else
      skip 'read-only file system' "no mount possible: $(cat "$work/err")"
    fi
  else
    skip 'read-only file system' 'needs root and the right to mount'
  fi
  head -c 10000 /dev/urandom >private
  chmod 600 private
  rm -f copy
  orvane copy private copy
  equal 'a new copy is as private as its source' 600 "$(stat -c %a copy)"
}


full_disk() {
  head -c 3000000 /dev/urandom >source
  mkdir -p small
  if [ "$(id -u)" = 0 ] && mount -t tmpfs -o size=1m tmpfs small 2>"$work/err"; then
    mounted=$work/small
    orvane copy source small/copy --block 64K
    fails_with 'full disk' 1 small/copy 'no space left'
    check 'full disk: the incomplete copy is removed' test ! -e small/copy
    head -c 1000 /dev/urandom >small/copy
    orvane copy source small/copy --block 64K
    fails_with 'full disk, existing file' 1 small/copy 'is incomplete'
    check 'full disk: an existing file is left' test -e small/copy
    rm small/copy
    orvane write small/file --size 3M --json
    equal 'full disk: JSON names the file' small/file "$(field file)"
    umount small
    mounted=
  else
    skip 'full disk' 'needs root and the right to mount'
  fi
  # Without privileges: a limit on the size of files.
  (
    ulimit -f 1000
    "$tool" copy source limited --json >out 2>err
    echo $? >code
  )
  code=$(cat code)
  err=$(cat err)
  fails_with 'file size limit' 1 limited 'File too large'
  check 'file size limit: the incomplete copy is removed' test ! -e limited
}

# Starts the tool, waits for a file or a moment, sends a signal; fills code, out and err.
interrupt() { # signal file-to-wait-for arguments...
  local signal=$1 awaited=$2 pid tries=0
  shift 2
  set -m # or the shell starts it with the signal ignored
  "$tool" "$@" >"$work/out" 2>"$work/err" &
  pid=$!
  set +m
  until [ -s "$awaited" ] || [ $tries = 200 ]; do
    sleep 0.05
    tries=$((tries + 1))
  done
  sleep 0.3
  kill -s "$signal" "$pid"
  tries=0
  while kill -0 "$pid" 2>/dev/null && [ $tries -lt 600 ]; do
    sleep 0.05
    tries=$((tries + 1))
  done
  kill -s KILL "$pid" 2>/dev/null # hung; the exit code tells
  wait "$pid"
  code=$?
  out=$(cat "$work/out")
  err=$(cat "$work/err")
}

interruptions() {
  # Holes: as long as one likes, at no cost.
  truncate -s 512G holes
  rm -f copy
  interrupt INT copy copy holes copy --json
  equal 'Ctrl-C in a copy: exit code' 130 "$code"
  check 'Ctrl-C in a copy: the incomplete copy is removed' test ! -e copy
  equal 'Ctrl-C in a copy: JSON names the file' copy "$(field file)"
  head -c 100 /dev/urandom >copy
  interrupt TERM copy copy holes copy
  fails_with 'termination of a copy onto a file' 130 copy 'is incomplete'
  check 'termination of a copy: an existing file is left' test -e copy
  rm copy
  interrupt INT holes read holes --depth 61
  equal 'Ctrl-C in a read: exit code' 130 "$code"
  interrupt INT holes read holes --sync
  equal 'Ctrl-C in a synchronous read: exit code' 130 "$code"
  interrupt INT holes read holes --cached --depth 61 --json
  equal 'Ctrl-C in a cached read: exit code' 130 "$code"
  equal 'Ctrl-C in a cached read: JSON names the file' holes "$(field file)"
  interrupt INT holes read holes --cached --pre-read 16M --block 64K
  equal 'Ctrl-C in a cached read with pre-reads: exit code' 130 "$code"
  interrupt INT holes read holes --cached --pre-read 16M --block 64K --sync
  equal 'Ctrl-C in a synchronous cached read with pre-reads: exit code' 130 "$code"
  interrupt TERM holes read holes --cached --blocks 2 --block 3M --sync
  equal 'termination of a synchronous cached read: exit code' 130 "$code"
  interrupt INT copy copy holes copy --cached --pre-read 4M
  equal 'Ctrl-C in a cached copy: exit code' 130 "$code"
  check 'Ctrl-C in a cached copy: the incomplete copy is removed' test ! -e copy
  interrupt INT written write written --size 200G
  equal 'Ctrl-C in a write: exit code' 130 "$code"
  check 'Ctrl-C in a write: the incomplete file is removed' test ! -e written
  rm holes
}

# The JSON of a success and of a failure, read by a real parser where there is one.
json() {
  head -c 1000 /dev/urandom >source
  if ! command -v python3 >/dev/null; then
    skip 'JSON by a parser' 'python3 is not installed'
    return
  fi
  local parse='import json,sys; d=json.load(sys.stdin); print(*[d[k] for k in sys.argv[1:]])'
  orvane read source --json
  equal 'JSON of a success' "read source 1000 False" \
    "$(python3 -c "$parse" command file bytes sync <<<"$out")"
  # What JSON has to escape; a launcher might take it for its own.
  local missing='mi"ss\ing'
  [ ${#launcher[@]} = 0 ] || missing='mi\ss\ing'
  orvane read "$missing" --json
  equal 'JSON of a failure' "cannot read $missing no such file 3" \
    "$(python3 -c "$parse" error file cause exit_code <<<"$out")"
  orvane copy --json
  equal 'JSON of wrong usage' 2 "$(python3 -c "$parse" exit_code <<<"$out")"
  [ ${#launcher[@]} = 0 ] || return
  cp source "$(printf 'not-utf8-\377')"
  orvane read "$(printf 'not-utf8-\377')" --json
  equal 'JSON with a name that is not UTF-8' 1000 "$(python3 -c "$parse" bytes <<<"$out")"
}

progress() {
  truncate -s 3G holes
  orvane read holes --quiet --json
  equal 'quiet: nothing on standard error' '' "$err"
  if ! command -v script >/dev/null; then
    skip 'progress on a terminal' 'the command script is not installed'
  else
    script -qec "'$tool' read holes" /dev/null >"$work/out" 2>&1
    contains 'progress on a terminal' 'MB/s' "$(tr '\r' '\n' <"$work/out" | grep 'left' | tail -n 1)"
  fi
  rm holes
}

# Every byte of a large file, through the cache and past it.
gigabyte() {
  local sum
  orvane write large --size 1G --seed 3 --json
  equal 'a gigabyte is written' "0 1073741824" "$code $(stat -c %s large)"
  sum=$(xxh3_of large)
  equal 'its checksum' "$sum" "$(field xxh3)"
  orvane copy large copy --json
  check 'a gigabyte is copied' cmp large copy
  rm copy
  orvane copy large copy --cached --pre-read 8M --verify --json
  check 'a gigabyte is copied through the cache' cmp large copy
  rm copy
  orvane read large --json
  equal 'a gigabyte is read' "0 $sum" "$code $(field xxh3)"
  orvane read large --cached --pre-read 8M --json
  equal 'a gigabyte is read through the cache' "0 $sum" "$code $(field xxh3)"
  check 'blocks are read ahead' test "$(field pre_reads)" -gt 0
  rm large
}

sizes
writes
cached_sizes
cached_counts
cached_copies
names
cached_errors
errors
json
if [ ${#launcher[@]} != 0 ]; then
  gigabyte
  finish
fi
permissions
full_disk
interruptions
progress
finish
