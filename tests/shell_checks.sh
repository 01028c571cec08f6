# Checks for tests written in shell: one line per check, a summary as GoogleTest prints it. Sourced.
# shellcheck shell=bash

passed=0
failed=0
skipped=0

ok() {
  printf 'ok - %s\n' "$*"
  passed=$((passed + 1))
}
not_ok() {
  printf 'not ok - %s\n' "$*"
  failed=$((failed + 1))
}
skip() { # what reason
  printf 'skipped - %s (%s)\n' "$1" "$2"
  skipped=$((skipped + 1))
}

# Runs a command; the check passes when the command does. Output is shown when it does not.
check() { # what command...
  local what=$1 output
  shift
  if output=$("$@" 2>&1); then
    ok "$what"
  else
    not_ok "$what"
    [ -z "$output" ] || printf '%s\n' "$output" | head -n 40 | sed 's/^/  /'
  fi
}
equal() { # what expected actual
  if [ "$2" = "$3" ]; then
    ok "$1"
  else
    not_ok "$1: expected '$2', got '$3'"
  fi
}
contains() { # what part text
  case $3 in
    *"$2"*) ok "$1" ;;
    *) not_ok "$1: '$2' is not in '$3'" ;;
  esac
}

# "1 test", "2 tests".
tests() { if [ "$1" = 1 ]; then printf '1 test'; else printf '%d tests' "$1"; fi; }

# Prints the summary and ends the script.
finish() {
  printf '[  PASSED  ] %s.\n' "$(tests $passed)"
  [ $skipped = 0 ] || printf '[  SKIPPED ] %s, listed above.\n' "$(tests $skipped)"
  [ $failed = 0 ] || printf '[  FAILED  ] %s, listed above:\n' "$(tests $failed)"
  [ $failed = 0 ] && [ $passed != 0 ]
  exit
}
