#!/usr/bin/env bash
# Builds the example host agent, and the program that looks at the library's boundary, against an
# installed library: with CMake, and the example with pkg-config too. Runs each, and holds the
# example to what it should print.
#
#     embed.sh SOURCE_ROOT PREFIX LIBRARY_DIRECTORY SCRATCH COMPILER [FLAG...]
set -euo pipefail
root=$1 prefix=$2 library=$3 scratch=$4 compiler=$5
flags=("${@:6}")

expected='compute-1: VLAN 100 carries 1 VNI, for 1 port
RegionOne: syncInProgress
RegionOne: syncTimedOut
compute-1: no longer needs VLAN 100'

fail() {
  echo "$*" >&2
  exit 1
}

# The sources are copied, so that nothing is found beside them that is not installed.
rm -rf "$scratch"
mkdir -p "$scratch"
cp -R "$root/examples/embed" "$root/tests/packaging/boundary" "$scratch"
cd "$scratch"

with_cmake() {
  cmake -S "$1" -B "build-$1" -DCMAKE_BUILD_TYPE=Release -DCMAKE_PREFIX_PATH="$prefix" \
    -DCMAKE_CXX_COMPILER="$compiler" -DCMAKE_CXX_FLAGS="${flags[*]}" >configure.log 2>&1 ||
    fail "$1 does not configure: $(cat configure.log)"
  cmake --build "build-$1" >build.log 2>&1 || fail "$1 does not build: $(cat build.log)"
}

with_cmake embed
[ "$(build-embed/embed)" = "$expected" ] || fail "the example does not print what it should"
found=$(ldd build-embed/embed | awk '/libOpenStackSm/ { print $3 }')
[ "$(realpath "$(dirname "$found")")" = "$(realpath "$library")" ] ||
  fail "the example runs with another library than the installed one: $found"
echo "example with CMake: ok"

with_cmake boundary
build-boundary/boundary
echo "boundary: ok"

export PKG_CONFIG_PATH=$library/pkgconfig
read -ra compile_and_link < <(pkg-config --cflags --libs openstacksm)
"$compiler" -std=c++20 "${flags[@]}" embed/main.cpp -o embed-pkg-config "${compile_and_link[@]}"
[ "$(LD_LIBRARY_PATH=$library ./embed-pkg-config)" = "$expected" ] ||
  fail "the example, built with pkg-config, does not print what it should"
echo "example with pkg-config: ok"
