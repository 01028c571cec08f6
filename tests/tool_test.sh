#!/usr/bin/env bash
# Tests the command-line tool from outside. Usage: tool_test.sh TOOL
# shellcheck source-path=SCRIPTDIR
set -u
tool=$(realpath "$1")
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
    "$tool" "$@" >"$work/out" 2>"$work/err"
  else
    "${as_nobody[@]}" "$work/tool" "$@" >"$work/out" 2>"$work/err"
  fi
  code=$?
  out=$(cat "$work/out")
  err=$(cat "$work/err")
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

names() {
  local name
  head -c 10000 /dev/urandom >source
  for name in 'with two  spaces' 'Größe 日本.bin' "quote's \"double\""; do
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
  mkfifo pipe
  orvane read pipe
  fails_with 'pipe' 3 pipe 'not a regular file'
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
  orvane read 'mi"ss\ing' --json
  equal 'JSON of a failure' 'cannot read mi"ss\ing no such file 3' \
    "$(python3 -c "$parse" error file cause exit_code <<<"$out")"
  orvane copy --json
  equal 'JSON of wrong usage' 2 "$(python3 -c "$parse" exit_code <<<"$out")"
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

sizes
writes
names
errors
permissions
full_disk
interruptions
json
progress
finish
