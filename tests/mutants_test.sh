#!/usr/bin/env bash
# Whether every mutant still fits the sources and says what scripts/mutants needs to know.
# Usage: tests/mutants_test.sh
set -uo pipefail
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
. "$here/shell_checks.sh"

# shellcheck disable=SC2317 # called by check
fits() { # patch
  local field
  for field in 'Leaves out' 'Seen by a user as' 'Caught by'; do
    if ! sed '/^--- /q' "$1" | grep -qE "^$field: .+"; then
      echo "has no line '$field: ...'"
      return 1
    fi
  done
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
