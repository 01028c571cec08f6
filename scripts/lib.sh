# Shared by the scripts: what they need, and getting it. Sourced, not run.
# shellcheck shell=bash

# shellcheck disable=SC2034 # used by the scripts
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)

note() { printf '%s\n' "$*"; }
fail() {
  printf '%s: %s\n' "$(basename "$0")" "$*" >&2
  exit 2
}

# Needs are collected first, so that everything that is missing is named or installed at once. Each
# is looked for by what it provides, never by package, so any system that has it will do.
wanted=()  # "kind name debian-package" lines

need_command() { wanted+=("command $1 $2"); }
need_module() { wanted+=("module $1 $2"); }

# What building the library takes.
need_library() {
  wanted+=("compiler a-C++-compiler g++")
  wanted+=("cmake CMake-3.25-or-newer cmake")
  need_command ninja ninja-build
  need_command pkg-config pkg-config
  need_module liburing liburing-dev
}

# And the tool.
need_build() {
  need_library
  need_module CLI11 libcli11-dev
  need_module fmt libfmt-dev
  need_module libxxhash libxxhash-dev
  need_module nlohmann_json nlohmann-json3-dev
  need_command xxhsum xxhash
}

need_tests() {
  need_build
  need_module gtest libgtest-dev
  need_module fuse3 libfuse3-dev
  need_command fusermount3 fuse3
  need_command patch patch
}

need_boost() { wanted+=("boost headers-of-Boost-1.81 libboost1.81-dev"); }

# The benchmarks, with those that the library is compared with.
need_bench() {
  need_build
  need_boost
  need_module libuv libuv1-dev
  need_module rocksdb librocksdb-dev
}

# The library, its tests, the tool and the benchmarks for Windows, and something to run them under.
need_windows() {
  need_build
  need_boost
  need_command x86_64-w64-mingw32-g++-posix g++-mingw-w64-x86-64-posix
  need_command clang++ clang
  wanted+=("googletest sources-of-GoogleTest googletest")
  wanted+=("wine wine64 wine64")
}

need_coverage() {
  need_tests
  need_command clang++ clang
  wanted+=("llvm llvm-cov-and-llvm-profdata llvm")
  wanted+=("profiling profiling-library-of-clang libclang-rt-dev")
}

# The program of LLVM that goes with the clang++ in use.
llvm_program() { clang++ -print-prog-name="$1" 2>/dev/null; }

has_cmake() {
  local version
  version=$(cmake --version 2>/dev/null | awk 'NR == 1 { print $3 }')
  [ -n "$version" ] && [ "$(printf '3.25\n%s\n' "$version" | sort -V | head -n 1)" = 3.25 ]
}

has_need() { # kind name
  case $1 in
    command) command -v "$2" >/dev/null ;;
    module) command -v pkg-config >/dev/null && pkg-config --exists "$2" ;;
    cmake) has_cmake ;;
    llvm) command -v "$(llvm_program llvm-cov)" "$(llvm_program llvm-profdata)" >/dev/null ;;
    profiling)
      [ -e "$(clang++ -print-file-name="libclang_rt.profile-$(uname -m).a" 2>/dev/null)" ] ||
        [ -e "$(clang++ -print-file-name=libclang_rt.profile.a 2>/dev/null)" ]
      ;;
    boost) [ -e /usr/include/boost/histogram.hpp ] ;;
    googletest) [ -e /usr/src/googletest/CMakeLists.txt ] ;;
    wine) command -v wine64 /usr/lib/wine/wine64 >/dev/null ;;
    compiler) command -v c++ >/dev/null || command -v g++ >/dev/null || command -v clang++ >/dev/null ;;
  esac
}

# Fills missing_names and missing_packages.
find_missing() {
  local kind name package
  missing_names=()
  missing_packages=()
  while read -r kind name package; do
    has_need "$kind" "$name" && continue
    [ "$kind" = module ] && name="$name (library)"
    missing_names+=("${name//-/ }")
    missing_packages+=("$package")
  done < <(printf '%s\n' "${wanted[@]}" | sort -u)
}

say_missing() {
  printf 'Missing:\n' >&2
  printf '  %s\n' "${missing_names[@]}" >&2
}

# Runs a command as root, through sudo when that is needed and there.
as_root() {
  if [ "$(id -u)" = 0 ]; then
    "$@"
  elif ! command -v sudo >/dev/null; then
    return 1
  elif [ -t 0 ]; then
    sudo "$@"
  else
    sudo -n "$@"
  fi
}

# Installs what is missing where there is apt-get; names it and exits 2 elsewhere.
get_needs() {
  find_missing
  [ ${#missing_names[@]} = 0 ] && return
  if ! command -v apt-get >/dev/null; then
    say_missing
    fail 'install these with the package manager of this system, then run again'
  fi
  note "Installing with apt-get: ${missing_packages[*]}"
  if ! as_root apt-get -q update ||
    ! as_root env DEBIAN_FRONTEND=noninteractive apt-get -q install -y --no-install-recommends \
      "${missing_packages[@]}"; then
    say_missing
    fail "could not install; as root: apt-get install ${missing_packages[*]}"
  fi
  find_missing
  [ ${#missing_names[@]} = 0 ] && return
  say_missing
  fail 'still missing after the installation'
}

# The thread sanitizer cannot place its memory where the kernel spreads mappings too widely. It says
# so, and the step is done again with fixed addresses.
under=() # what commands run under
misplaced() { [ ${#under[@]} = 0 ] && grep -q 'unexpected memory mapping' "$1"; }
fix_addresses() {
  note 'The thread sanitizer needs fixed addresses: once more, under setarch -R.'
  under=(setarch "$(uname -m)" -R)
}

# The 16 digits of a file's XXH3, by the system's xxhsum.
xxh3_of() { xxhsum -H3 - <"$1" | grep -oE '[0-9a-f]{16}' | head -n 1; }
