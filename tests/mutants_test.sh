#!/usr/bin/env bash
# Whether every mutant still fits the sources and says what scripts/mutants needs to know.
# Usage: tests/mutants_test.sh
set -uo pipefail
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
. "$here/shell_checks.sh"

# Whether what the patch says about scenarios can be read, and they are there.
# shellcheck disable=SC2317 # called by fits
scenarios_exist() { # patch
  local text name
  text=$(sed -n '/^--- /q; s/^Scenario//p' "$1")
  [ -n "$text" ] || return 0
  if ! [[ $text =~ ^:\ [A-Za-z]+(,[A-Za-z]+)*(\ seeds\ [1-9][0-9]*)?$ ]]; then
    echo "is not 'Scenario: NAME[,NAME] [seeds N]': Scenario$text"
    return 1
  fi
  text=${text#: }
  for name in $(printf '%s' "${text%% *}" | tr , ' '); do
    if ! grep -qE "^ORVANE_[A-Z_]*SCENARIO(_OF)?\($name," "$here"/sim/*.cpp; then
      echo "there is no scenario $name"
      return 1
    fi
  done
}

# shellcheck disable=SC2317 # called by check
fits() { # patch
  local field
  for field in 'Leaves out' 'Seen by a user as' 'Caught by'; do
    if ! sed '/^--- /q' "$1" | grep -qE "^$field: .+"; then
      echo "has no line '$field: ...'"
      return 1
    fi
  done
  scenarios_exist "$1" || return
  patch --batch --forward --fuzz=0 --dry-run -p1 -d "$here/.." -i "$1"
}

if command -v patch >/dev/null; then
  for mutant in "$here"/mutants/*.patch; do
    check "$(basename "$mutant" .patch) fits" fits "$mutant"
  done
else
  skip 'mutants fit' 'the command patch is not installed'
fi
finish
