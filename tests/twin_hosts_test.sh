#!/usr/bin/env bash
# The hosts are twins: the same files, the same public functions in the same order, and no question
# for the host anywhere else. Usage: twin_hosts_test.sh
# shellcheck source-path=SCRIPTDIR
set -u
cd "$(dirname "${BASH_SOURCE[0]}")/.." || exit 1
. tests/shell_checks.sh

services=source/OSServices

# What one host has and the other one does not, each with its reason.
only_on_linux=(
  AsyncPortThreads # for kernels without io_uring
)
only_on_windows=(
  HostHeaders # windows.h, with what keeps it from defining more than is wanted
)
# The one port that each host is meant to have has the name of its mechanism where there are two.
linux_name() { if [ "$1" = AsyncPort ]; then echo AsyncPortUring; else echo "$1"; fi; }

# Public functions that only one host has, each with its reason.
only_public_on_linux=(
  HostFile::IsUnbuffered  # a file system may refuse unbuffered transfers
  HostFile::StartMayBlock # and may be a process that lets the caller wait
  HostFile::GetDescriptor # the host's word for a handle
  OutcomeForHostResult    # one number is the error or the count
  ToHostVector            # runs of memory; the other host takes pages
  MTThread::Terminate # joins: what has ended is kept until somebody asks
)
only_public_on_windows=(
  AsyncPort::GetCounts # two kinds of calls move data; tests ask which was used
  HostFile::OpeningFor # the other host decides while it opens
  HostFile::GetHandle
  HostFile::GetSize # asked beforehand: the host has no number for some offsets
  OutcomeForHostError # the error and the count are two numbers
  StartedForHostError # a start may fail by itself
)

# Other members that only one host defines.
only_defined_on_linux=(
  AsyncPort::MakeRing AsyncPort::TryTransfer # a ring has to be had first
  AsyncPort::GetEntry AsyncPort::TakeEntry AsyncPort::SubmitAndSleep # and is filled and emptied
  AsyncPort::QueueTransfer AsyncPort::QueueWakeRead # by entries
  MTSemaphore::TryTake MTSemaphore::WaitForOne # the other host has these
  MTCritSec::EnterTaken # a word to sleep on; the other host has the whole section
  MTThread::ApplyAffinity MTThread::ApplyPriority MTThread::LetGoOfThread # steps of a longer way
)
only_defined_on_windows=(
  AsyncPort::Start AsyncPort::TakeSlot # one call each, of the host
  MTSemaphore::~MTSemaphore # a handle to close
  MTCritSec::~MTCritSec # and a section
)

files_of() { # host, and files that are left out
  local host=$1 file name
  shift
  for file in "$services/$host"/*; do
    name=$(basename "$file")
    name=${name/UringLinux./Linux.}
    name=${name/$host./.}
    [[ " $* " == *" ${name%%.*} "* ]] || echo "$name"
  done | sort
}

# The functions of the public parts of the classes of a header, and those outside of classes:
# "Class::Function", the host's name left out.
public_functions() { # header host
  sed -E "s/Uring$2/$2/g; s/$2([^a-z]|\$)/\\1/g" "$1" | awk '
    /^ *\/\// { next }
    /^(class|struct) [A-Za-z]+.*[^;]$/ { class = $2; sub(/:.*/, "", class); public = ($1 == "struct") }
    /^};/ { class = "" }
    /^ (public|protected|private):/ { public = ($1 == "public:") }
    /\(/ {
      if (class != "" && !public) next
      if (class != "" && $0 !~ /^  [A-Za-z~]/) next
      if (class == "" && $0 !~ /^[A-Za-z]/) next
      text = $0
      sub(/\(.*/, "", text)
      sub(/.*[ *&]/, "", text)
      if (text ~ /^~?[A-Za-z][A-Za-z0-9]*$/) print (class == "" ? "" : class "::") text
    }'
}

# The functions that a source file defines outside of classes, in their order.
defined_functions() { # file host
  sed -E "s/Uring$2/$2/g; s/$2([^a-z]|\$)/\\1/g" "$1" | awk '
    /^(namespace|class|struct|using|#|\/\/)/ { next }
    { sub(/^template <.*> /, "") }
    # A constant has its value or its semicolon on the line.
    /^[^(]*=/ || /;$/ { next }
    /^[A-Za-z].*\(/ {
      text = $0
      sub(/\(.*/, "", text)
      sub(/.*[ *&]/, "", text)
      if (text ~ /^[A-Za-z:~0-9]+$/) print text
    }'
}

# What of these functions belongs to a class.
members() { grep :: | sort -u; }

without() { # lines
  grep -Fxv -f <(printf '%s\n' "$@")
}

in_both() { # list list: the lines of the first that the second has
  grep -Fx -f <(printf '%s\n' "$2") <<<"$1"
}

same_files() {
  equal 'both hosts have the same files' "$(files_of Linux "${only_on_linux[@]}")" \
    "$(files_of Win "${only_on_windows[@]}")"
}

same_functions() {
  local file name linux windows
  for file in "$services"/Win/*Win.h; do
    name=$(basename "$file" Win.h)
    [[ " ${only_on_windows[*]} " == *" $name "* ]] && continue
    linux=$services/Linux/$(linux_name "$name")Linux.h
    equal "$name.h: the same public functions in the same order" \
      "$(public_functions "$linux" Linux | without "${only_public_on_linux[@]}")" \
      "$(public_functions "$file" Win | without "${only_public_on_windows[@]}")"
  done
  for file in "$services"/Win/*Win.cpp; do
    name=$(basename "$file" Win.cpp)
    linux=$(defined_functions "$services/Linux/$(linux_name "$name")Linux.cpp" Linux)
    windows=$(defined_functions "$file" Win)
    check "$name.cpp: defines functions" test -n "$windows"
    equal "$name.cpp: both define the same members" \
      "$(members <<<"$linux" | without "${only_public_on_linux[@]}" "${only_defined_on_linux[@]}")" \
      "$(members <<<"$windows" | without "${only_public_on_windows[@]}" "${only_defined_on_windows[@]}")"
    equal "$name.cpp: what both define is in the same order" "$(in_both "$linux" "$windows")" \
      "$(in_both "$windows" "$linux")"
  done
  equal 'OSServicesHost.h: the same public functions' \
    "$(public_functions public_include/Linux/OSServicesHost.h Linux)" \
    "$(public_functions public_include/Win/OSServicesHost.h Win)"
}

differences_are_told() {
  local file
  for file in "$services"/{Linux,Win}/*.h; do
    [ "$(basename "$file")" = HostHeadersWin.h ] && continue
    check "$(basename "$file") says how it differs from the other host" \
      grep -qi 'differences from the other host' <(tr '\n' ' ' <"$file" | sed 's#// ##g')
  done
}

# Which host it is, the build says by choosing the folder.
no_conditionals() {
  local conditionals='_WIN32|_WIN64|WIN32_LEAN|__linux|__gnu_linux|__unix|__APPLE|__ANDROID|__FreeBSD'
  conditionals="$conditionals|__MINGW|_MSC_VER|__CYGWIN|__GLIBC__|__has_include"
  equal 'no question for the host outside of the host folders and Export.h' '' "$(
    grep -rnE "$conditionals" \
      source public_include tools tests benchmarks examples --include='*.h' --include='*.cpp' |
      grep -vE '/(Linux|Win)/|^public_include/Export.h:'
  )"
}

same_files
same_functions
differences_are_told
no_conditionals
finish
