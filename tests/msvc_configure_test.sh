#!/usr/bin/env bash
# Looks at a build for Windows by a compiler with Microsoft's command line, without building it: clang
# stands for that compiler, and CMake writes down the commands. Usage: msvc_configure_test.sh
# shellcheck source-path=SCRIPTDIR
set -u
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
. "$root/tests/shell_checks.sh"

work=$(mktemp -d "${TMPDIR:-/var/tmp}/orvane-msvc.XXXXXX")
trap 'rm -rf "$work"' EXIT
cd "$work" || exit 1

compiler=$(command -v clang++) || {
  skip 'a compiler with the command line of Microsoft' 'clang is not installed'
  exit 0
}
# By this name it takes that command line.
ln -s "$(realpath "$compiler")" clang-cl
# CMake looks into a library of one object.
cat >archive <<'END'
#!/bin/sh
for word; do
  case $word in
    /out:*) library=${word#*:} ;;
    *.obj) object=$word ;;
  esac
done
cp "$object" "$library"
END
chmod +x archive
cat >toolchain.cmake <<END
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR AMD64)
set(CMAKE_CXX_COMPILER $work/clang-cl)
set(CMAKE_AR $work/archive)
foreach(unused IN ITEMS LINKER MT RC_COMPILER)
  set(CMAKE_\${unused} $(command -v true))
endforeach()
set(CMAKE_TRY_COMPILE_TARGET_TYPE STATIC_LIBRARY)
END

configure() { # folder options...
  local folder=$1
  shift
  check "configuration ${*:-by default}" cmake -S "$root" -B "$folder" -G Ninja \
    -DCMAKE_TOOLCHAIN_FILE="$work/toolchain.cmake" -DCMAKE_BUILD_TYPE=Release \
    -DORVANE_BUILD_TESTS=OFF -DORVANE_BUILD_TOOLS=OFF "$@"
  commands=$(ninja -C "$folder" -t commands | grep -E '\.cpp( |$)')
}

# Of the commands, those that have the option, and the number of all.
with() { grep -cE -- " $1( |\$)" <<<"$commands"; }

configure build
all=$(grep -c . <<<"$commands")
check 'there are sources to compile' test "$all" -gt 100
equal 'no warning options of other compilers' 0 "$(with '-W[a-z][^ ]*')"
equal 'warnings of this one' "$all" "$(with /W4)"
equal 'the language as standardised' "$all" "$(with /permissive-)"
equal 'sources are UTF-8' "$all" "$(with /utf-8)"
equal 'C++20' "$all" "$(with '[-/]std:c\+\+20')"
equal 'warnings are errors here' "$all" "$(with /WX)"
configure lenient -DORVANE_WARNINGS_AS_ERRORS=OFF
equal 'warnings are none where that was asked for' 0 "$(with /WX)"

# Each file is made by one rule, or ninja refuses; the names differ in more than their case.
check 'the build is sound' ninja -C build -n
made=$(ninja -C build -t targets all | sed -nE 's,^source/([^/]*\.(lib|dll)):.*,\1,p' | sort)
equal 'the libraries' 'Orvane.dll Orvane.lib OrvaneStatic.lib' "$(tr '\n' ' ' <<<"$made" | sed 's/ $//')"
finish
