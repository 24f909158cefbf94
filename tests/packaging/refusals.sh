#!/usr/bin/env bash
# What building and packing say when something is missing: packages that nobody here may install, and
# programs that packing needs. Runs the scripts with a PATH of stubs.
#
#     refusals.sh SOURCE_ROOT CMAKE SCRATCH
set -euo pipefail
root=$1 cmake=$2 scratch=$3

fail() {
  echo "$*" >&2
  exit 1
}

# A PATH with these programs alone; those named NAME=TEXT are scripts.
path_with() {
  rm -rf "$scratch"
  mkdir -p "$scratch"
  for program in "$@"; do
    if [[ $program == *=* ]]; then
      printf '#!/bin/bash\n%s\n' "${program#*=}" >"$scratch/${program%%=*}"
      chmod +x "$scratch/${program%%=*}"
    else
      ln -s "$(command -v "$program")" "$scratch/$program"
    fi
  done
}
install_dependencies() {
  PATH=$scratch /bin/bash "$root/packaging/install-build-dependencies" "$@" 2>&1
}

user='id=if [ "$1" = -u ]; then echo 1000; else echo somebody; fi'
nothing_installed='dpkg-query=exit 1'
all_installed='dpkg-query=printf installed'

path_with "$user" "$all_installed" apt-get='echo called; exit 1'
output=$(install_dependencies) || fail "with all packages installed: $output"
[ -z "$output" ] || fail "with all packages installed it prints: $output"

path_with "$user" "$nothing_installed" apt-get='echo called'
! output=$(install_dependencies extra) || fail "without sudo it succeeds"
grep -q 'no sudo' <<<"$output" && grep -q 'apt-get install .*g++ .*extra$' <<<"$output" ||
  fail "without sudo it does not say what to run: $output"
! grep -q called <<<"$output" || fail "without sudo it calls apt-get"

path_with "$user" "$nothing_installed" apt-get='echo called' sudo='exit 1'
! output=$(install_dependencies) || fail "with a sudo that refuses it succeeds"
grep -q 'does not let somebody install' <<<"$output" || fail "of a sudo that refuses it says: $output"
! grep -q called <<<"$output" || fail "with a sudo that refuses it calls apt-get"

path_with "$user" "$nothing_installed" apt-get='printf "called %s\n" "$*" >&2' env install=: rm=: \
  sudo='[ "$1" = --validate ] || "$@"'
output=$(install_dependencies extra) || fail "with sudo: $output"
grep -q 'called install .*g++ .*extra$' <<<"$output" || fail "with sudo it installs: $output"

path_with "$user"
! output=$(install_dependencies) || fail "without apt-get it succeeds"
grep -q 'no apt-get' <<<"$output" || fail "without apt-get it says: $output"

# find_program also looks in the system's folders, so these are left out.
tools=(dpkg-shlibdeps=: dpkg-deb=: file=: gzip=:)
packing() {
  PATH=$scratch "$cmake" -DCMAKE_FIND_USE_CMAKE_SYSTEM_PATH=OFF \
    -P "$root/packaging/package_tools.cmake" 2>&1
}
path_with "${tools[@]}"
output=$(packing) || fail "with all programs, packing is refused: $output"
for missing in dpkg-shlibdeps dpkg-deb file gzip; do
  path_with "${tools[@]}"
  rm "$scratch/$missing"
  ! output=$(packing) || fail "without $missing, packing is not refused"
  tr '\n' ' ' <<<"$output" | tr -s ' ' | grep -q "the program $missing is missing" ||
    fail "without $missing it says: $output"
done
echo "all refusals are explained"
