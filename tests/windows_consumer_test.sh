#!/usr/bin/env bash
# Uses the library for Windows as another project does: installs a build into a temporary folder,
# builds the examples against it with the static library and with the DLL, and the programs that
# SIMULATION.md prints, and runs them under Wine.
# Usage: windows_consumer_test.sh BUILD_FOLDER
# shellcheck source-path=SCRIPTDIR
set -u
build=$(realpath "$1")
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
root=$(dirname "$here")
. "$here/shell_checks.sh"
. "$here/simulation_programs.sh"

work=$(mktemp -d "${TMPDIR:-/var/tmp}/orvane-windows.XXXXXX")
trap 'rm -rf "$work"' EXIT
cd "$work" || exit 1
prefix=$work/prefix
sample=$root/README.md
bytes=$(wc -c <"$sample")

check 'installation' cmake --install "$build" --prefix "$prefix"
check 'the DLL is installed' test -e "$prefix/bin/libOrvane.dll"
check 'its import library is installed' test -e "$prefix/lib/libOrvane.dll.a"

runs() { # what program
  local output
  output=$("$root/scripts/wine" "$2" "$sample" 2>&1 | tr -d '\r')
  contains "$1" "$bytes bytes" "$output"
}
# shellcheck disable=SC2317 # called through check
needs_dll() { x86_64-w64-mingw32-objdump -p "$1" | grep -q 'DLL Name: libOrvane.dll'; }
# shellcheck disable=SC2317
needs_no_dll() { [ -e "$1" ] && ! needs_dll "$1"; }

for kind in static shared; do
  folder=$work/$kind
  shared=OFF
  [ $kind = static ] || shared=ON
  check "$kind: configure" cmake -S "$root/examples" -B "$folder" -G Ninja \
    -DCMAKE_TOOLCHAIN_FILE="$root/cmake/toolchains/mingw-w64.cmake" \
    -DCMAKE_FIND_ROOT_PATH="$prefix" -DBUILD_SHARED_LIBS=$shared -DCMAKE_BUILD_TYPE=Release
  check "$kind: build" cmake --build "$folder"
  if [ $kind = shared ]; then
    check 'shared: the program takes the DLL' needs_dll "$folder/read_file.exe"
    cp "$prefix"/bin/*.dll "$folder"
  else
    check 'static: the program is by itself' needs_no_dll "$folder/read_file.exe"
  fi
  for program in read_file async_read cached_read pre_read; do
    runs "$kind: $program runs" "$folder/$program.exe"
  done
done

# What the library throws is caught, and with the package's manifest names are UTF-8.
exceptions_and_names() { # kind shared
  local folder=$work/caught-$1 output name='Größe 文件.txt'
  mkdir -p "$folder"
  cat >"$folder/CMakeLists.txt" <<'END'
cmake_minimum_required(VERSION 3.25)
project(caught LANGUAGES CXX)
find_package(Orvane REQUIRED)
add_executable(caught caught.cpp)
target_link_libraries(caught PRIVATE Orvane::Orvane)
orvane_use_utf8(caught)
END
  cat >"$folder/caught.cpp" <<'END'
#include <iostream>

#include "Orvane.h"

int main(int argc, char** argv) {
  if (argc < 2) return 2;
  Orvane::OSServices::Init();
  try {
    Orvane::OSServices::Init();
  } catch (const char* text) {
    std::cout << "caught: " << text << '\n';
  }
  auto* const file = Orvane::NativeFileSysInterface::NewNativeFileSource(argv[1]);
  file->Open(/*forRead=*/true, /*forWrite=*/false, /*create=*/false);
  auto* const block = Orvane::PhysMemInterface::Allocate(4096);
  std::uint64_t bytes = 0;
  file->Read(/*offset=*/0, block, &bytes);
  std::cout << bytes << " bytes\n";
  block->DecRef(__FILE__, __func__, __LINE__);
  file->DecRef(__FILE__, __func__, __LINE__);
}
END
  check "$1: configure a program that catches" cmake -S "$folder" -B "$folder/build" -G Ninja \
    -DCMAKE_TOOLCHAIN_FILE="$root/cmake/toolchains/mingw-w64.cmake" \
    -DCMAKE_FIND_ROOT_PATH="$prefix" -DBUILD_SHARED_LIBS="$2" -DCMAKE_BUILD_TYPE=Release
  check "$1: build it" cmake --build "$folder/build"
  [ "$1" = static ] || cp "$prefix"/bin/*.dll "$folder/build"
  printf 'seven..' >"$work/$name"
  output=$("$root/scripts/wine" "$folder/build/caught.exe" "$name" 2>&1 | tr -d '\r')
  contains "$1: what the library throws arrives" 'caught: OSServices Already Initialized' "$output"
  contains "$1: with the manifest of the package, a name is UTF-8" '7 bytes' "$output"
}
exceptions_and_names static OFF
exceptions_and_names shared ON

# The program of docs/SIMULATION.md finds its mistake; with the line that the page prints it has none.
simulator() {
  local folder=$work/simulator output
  mkdir -p "$folder"
  simulation_programs "$root/docs/SIMULATION.md" "$folder"
  check 'SIMULATION.md: configure' cmake -S "$folder" -B "$folder/build" -G Ninja \
    -DCMAKE_TOOLCHAIN_FILE="$root/cmake/toolchains/mingw-w64.cmake" \
    -DCMAKE_FIND_ROOT_PATH="$prefix" -DCMAKE_BUILD_TYPE=Release \
    -DCMAKE_CXX_FLAGS='-Wall -Wextra -Wpedantic -Werror'
  check 'SIMULATION.md: the program compiles as printed' cmake --build "$folder/build"
  output=$("$root/scripts/wine" "$folder/build/wrong.exe" 2>&1)
  equal 'SIMULATION.md: the program finds its mistake' 1 $?
  contains 'SIMULATION.md: ... and says which' ' shows ' "$output"
  output=$("$root/scripts/wine" "$folder/build/right.exe" 2>&1)
  equal 'SIMULATION.md: the corrected program has none' 0 $?
  contains 'SIMULATION.md: ... in all runs' 'nothing found in 1000 runs' "$output"
}
if [ -n "$(find "$prefix" -name OrvaneSimulatorTargets.cmake)" ]; then
  simulator
else
  skip 'the simulator' 'it was left out of the build'
fi
finish
