#!/usr/bin/env bash
# Uses the library as another project does: installs a build into a temporary folder, builds programs
# against it through CMake and pkg-config, with the static and the shared library, and runs them.
# Also compiles every installed header alone and the programs that the README and SIMULATION.md print.
# Usage: consumer_test.sh BUILD_FOLDER
# shellcheck source-path=SCRIPTDIR
set -u
build=$(realpath "$1")
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
root=$(dirname "$here")
. "$here/shell_checks.sh"
. "$here/simulation_programs.sh"

work=$(mktemp -d "${TMPDIR:-/var/tmp}/orvane-consumer.XXXXXX")
trap 'rm -rf "$work"' EXIT
cd "$work" || exit 1
prefix=$work/prefix
sample=$root/README.md
bytes=$(wc -c <"$sample")
strict=(-std=c++20 -Wall -Wextra -Wpedantic -Werror)

compilers=()
for compiler in g++ clang++; do
  if command -v "$compiler" >/dev/null; then
    compilers+=("$compiler")
  else
    skip "compiling with $compiler" 'it is not installed'
  fi
done

check 'installation' cmake --install "$build" --prefix "$prefix"
pc_file=$(find "$prefix" -name orvane.pc)
libraries=$(dirname "$(dirname "$pc_file")")
export PKG_CONFIG_PATH=$libraries/pkgconfig
check 'pkg-config finds the package' pkg-config --exists orvane orvane-static
contains 'pkg-config --static names the dependencies' -luring "$(pkg-config --static --libs orvane)"

# Runs a program on the sample and looks at what it prints.
prints_size() { # what program
  local output
  output=$(LD_LIBRARY_PATH="$libraries" "$2" "$sample" 2>&1)
  contains "$1" "$bytes bytes" "$output"
}
# shellcheck disable=SC2317 # called through check
links_shared() { ldd "$1" | grep -q libOrvane; }
# shellcheck disable=SC2317
links_static() { ldd "$1" >ldd.out && ! grep -q libOrvane ldd.out; }

through_cmake() { # static or shared, BUILD_SHARED_LIBS
  local folder=$work/cmake-$1
  check "CMake, $1: configure" cmake -S "$root/examples" -B "$folder" -G Ninja \
    -DCMAKE_PREFIX_PATH="$prefix" -DBUILD_SHARED_LIBS="$2"
  check "CMake, $1: build" cmake --build "$folder"
  check "CMake, $1: links the right library" "links_$1" "$folder/read_file"
  prints_size "CMake, $1: read_file runs" "$folder/read_file"
  prints_size "CMake, $1: async_read runs" "$folder/async_read"
  prints_size "CMake, $1: cached_read runs" "$folder/cached_read"
  prints_size "CMake, $1: pre_read runs" "$folder/pre_read"
  check "CMake, $1: copy_lists runs" env LD_LIBRARY_PATH="$libraries" \
    "$folder/copy_lists" "$sample" "$folder/copy"
  check "CMake, $1: copy_lists copies" cmp "$sample" "$folder/copy"
}

through_pkg_config() { # static or shared, package, compiler
  local program=$work/pkg-$1-$3 flags
  read -ra flags <<<"$(pkg-config --cflags --libs "$2")"
  check "pkg-config, $1, $3: build" "$3" "${strict[@]}" "$root/examples/read_file.cpp" \
    "${flags[@]}" -o "$program"
  check "pkg-config, $1, $3: links the right library" "links_$1" "$program"
  prints_size "pkg-config, $1, $3: runs" "$program"
}

# Both explicit names in one project, and the component that does not exist.
named_targets() {
  mkdir -p named
  cat >named/CMakeLists.txt <<'PROJECT'
cmake_minimum_required(VERSION 3.25)
project(Named LANGUAGES CXX)
find_package(Orvane 0.1 REQUIRED COMPONENTS Static Shared)
foreach(kind IN ITEMS Static Shared)
  add_executable(named${kind} ${SOURCE})
  target_link_libraries(named${kind} PRIVATE Orvane::${kind})
endforeach()
PROJECT
  check 'CMake, explicit targets: configure' cmake -S named -B named/build -G Ninja \
    -DCMAKE_PREFIX_PATH="$prefix" -DSOURCE="$root/examples/read_file.cpp"
  check 'CMake, explicit targets: build' cmake --build named/build
  check 'CMake, Orvane::Static is static' links_static named/build/namedStatic
  check 'CMake, Orvane::Shared is shared' links_shared named/build/namedShared
  sed -i 's/Static Shared)/Nothing)/' named/CMakeLists.txt
  check 'CMake, an unknown component is refused' \
    fails cmake -S named -B named/other -G Ninja -DCMAKE_PREFIX_PATH="$prefix" -DSOURCE=none
}
# shellcheck disable=SC2317
fails() { ! "$@"; }

# As a build without the shared library installs it, but for the library.
static_alone() {
  cp -a "$prefix" alone
  find alone -name 'OrvaneSharedTargets*.cmake' -delete
  check 'CMake, without the shared library: configure' \
    cmake -S "$root/examples" -B alone/static -G Ninja -DCMAKE_PREFIX_PATH="$work/alone"
  check 'CMake, without the shared library: BUILD_SHARED_LIBS is refused' fails \
    cmake -S "$root/examples" -B alone/shared -G Ninja -DCMAKE_PREFIX_PATH="$work/alone" \
    -DBUILD_SHARED_LIBS=ON
  contains 'CMake, without the shared library: ... and says why' \
    'it was built without the shared library' \
    "$(cmake alone/shared -DBUILD_SHARED_LIBS=ON 2>&1 | tr -s ' \n' ' ')"
}

# As a folder of another project.
as_subfolder() {
  mkdir -p subfolder
  cat >subfolder/CMakeLists.txt <<'PROJECT'
cmake_minimum_required(VERSION 3.25)
project(Subfolder LANGUAGES CXX)
add_subdirectory(${ORVANE} orvane)
add_executable(program ${ORVANE}/examples/read_file.cpp)
target_link_libraries(program PRIVATE Orvane::Orvane)
PROJECT
  check 'CMake, add_subdirectory: configure' cmake -S subfolder -B subfolder/build -G Ninja \
    -DORVANE="$root"
  check 'CMake, add_subdirectory: no tests or tools of the library' \
    test ! -e subfolder/build/orvane/tools
  check 'CMake, add_subdirectory: build' cmake --build subfolder/build --target program
  prints_size 'CMake, add_subdirectory: runs' subfolder/build/program
}

headers() { # compiler
  local header
  for header in "$prefix"/include/Orvane/*.h; do
    check "$(basename "$header") compiles alone, $1" "$1" "${strict[@]}" -fsyntax-only \
      -x c++ -include "$header" -I "$prefix/include/Orvane" /dev/null
  done
}

# Whether a program is that of an example, but for the comment on top.
# shellcheck disable=SC2317 # called through check
same_program() { # file example
  sed '1,/^#include/{/^\/\//d}' "$root/examples/$2.cpp" | diff - "$1"
}

readme() { # compiler
  local number program flags
  awk '/^```cpp$/ { file = "readme" ++count ".cpp"; next } /^```$/ { file = "" } file { print >file }' \
    "$root/README.md"
  read -ra flags <<<"$(pkg-config --cflags --libs orvane-static)"
  check 'program 1 of the README is examples/read_file.cpp' same_program readme1.cpp read_file
  check 'program 2 of the README is examples/cached_read.cpp' same_program readme2.cpp cached_read
  for number in 1 2; do
    program=$work/readme$number-$1
    check "program $number of the README compiles as printed, $1" "$1" "${strict[@]}" \
      "readme$number.cpp" "${flags[@]}" -o "$program"
    prints_size "program $number of the README runs, $1" "$program"
  done
}

# The program of docs/SIMULATION.md finds its mistake; with the line that the page prints it has none.
simulator() {
  local folder=$work/simulator output
  mkdir -p "$folder"
  simulation_programs "$root/docs/SIMULATION.md" "$folder"
  check 'SIMULATION.md: configure' cmake -S "$folder" -B "$folder/build" -G Ninja \
    -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_BUILD_TYPE=Release \
    -DCMAKE_CXX_FLAGS='-Wall -Wextra -Wpedantic -Werror'
  check 'SIMULATION.md: the program compiles as printed' cmake --build "$folder/build"
  output=$("$folder/build/wrong" 2>&1)
  equal 'SIMULATION.md: the program finds its mistake' 1 $?
  contains 'SIMULATION.md: ... and says which' ' shows ' "$output"
  contains 'SIMULATION.md: ... and how often threads are switched' ' switches of threads' "$output"
  output=$("$folder/build/right" 2>&1)
  equal 'SIMULATION.md: the corrected program has none' 0 $?
  contains 'SIMULATION.md: ... in all runs' 'nothing found in 1000 runs' "$output"
}

check 'every public header is installed' test \
  "$(find "$root/public_include" -maxdepth 1 -name '*.h' | wc -l)" -lt \
  "$(find "$prefix/include/Orvane" -maxdepth 1 -name '*.h' | wc -l)"
check 'headers lie flat' test -z "$(find "$prefix/include/Orvane" -mindepth 1 -type d)"
through_cmake static OFF
through_cmake shared ON
named_targets
static_alone
as_subfolder
if [ -n "$(find "$prefix" -name OrvaneSimulatorTargets.cmake)" ]; then
  simulator
else
  skip 'the simulator' 'it was left out of the build'
fi
for compiler in "${compilers[@]}"; do
  through_pkg_config static orvane-static "$compiler"
  through_pkg_config shared orvane "$compiler"
  headers "$compiler"
  readme "$compiler"
done
finish
