# The programs of docs/SIMULATION.md as a project of their own. Sourced.
# shellcheck shell=bash

# Writes wrong.cpp, the program as it is printed, right.cpp, with the line that the page gives for the
# wrong one, and the CMakeLists.txt that builds both.
simulation_programs() { # page folder
  local folder=$2
  awk -v folder="$folder" '
    /^```/ { file = $0 == "```" ? "" : folder "/simulation" ++count "." substr($0, 4); next }
    file { print >file }' "$1"
  mv "$folder/simulation1.cpp" "$folder/wrong.cpp"
  awk 'FNR == NR { right = right $0 "\n"; next } /\/\/ wrong:/ { printf "%s", right; next } { print }' \
    "$folder/simulation2.cpp" "$folder/wrong.cpp" >"$folder/right.cpp"
  check 'SIMULATION.md: one line is corrected' test \
    "$(diff "$folder/wrong.cpp" "$folder/right.cpp" | grep -c '^[<>]')" = 2
  {
    printf 'cmake_minimum_required(VERSION 3.25)\nproject(Player LANGUAGES CXX)\n'
    sed 's/player_test/wrong/g' "$folder/simulation3.cmake"
    sed 's/player_test/right/g' "$folder/simulation3.cmake"
  } >"$folder/CMakeLists.txt"
}
