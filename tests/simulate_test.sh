#!/usr/bin/env bash
# Runs the scenarios of the simulator: seeded schedules with faults by chance, some seeds twice, and
# with each call of the host and each allocation failing in turn.
# Usage: simulate_test.sh ORVANE_SIMULATE SEEDS [LAUNCHER]
# With a LAUNCHER, which runs the program of another system, less of what is the same on all of them.
# ORVANE_SIMULATED_SEEDS overrules SEEDS, the schedules per scenario.
# shellcheck source-path=SCRIPTDIR
set -u
program=("$(realpath "$1")")
[ $# = 2 ] || program=("$(realpath "$3")" "${program[@]}")
seeds=${ORVANE_SIMULATED_SEEDS:-$2}
. "$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)/shell_checks.sh"

few=$((seeds / 40 + 1))
check "$seeds schedules per scenario" "${program[@]}" --seeds "$seeds"
check "$few seeds per scenario run the same twice" "${program[@]}" --mode twice --seed 100000 --seeds "$few"
if [ "$seeds" -ge 100 ]; then
  which=()
  [ $# = 2 ] || which=(--scenario "$("${program[@]}" --list | awk '/\(small\)/ { print $1 }' | paste -sd ,)")
  check 'each call of the host fails' "${program[@]}" --mode each-call --seeds 1 "${which[@]}"
  check 'each allocation fails' "${program[@]}" --mode each-allocation --seeds 1 "${which[@]}"
  check 'small scenarios, all schedules with a preemption' \
    "${program[@]}" --mode all-schedules --preemptions 1 --seeds 1
fi
finish
