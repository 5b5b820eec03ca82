#!/usr/bin/env bash
# Checks that another CMake project can use Kestro both ways the README gives, with the small
# project in tests/package:
#   1. the installed package: the already-built tree (first argument, default build) is
#      installed into a fresh temporary prefix, and the project finds it with
#      find_package(Kestro), builds against it and runs;
#   2. add_subdirectory: the project adds the source tree and builds what its program needs.
# The project also links every library Kestro exports, so that an exported library whose
# dependencies the package does not find fails here.
set -euo pipefail

root="$(cd "$(dirname "$0")/.." && pwd)"
build="${1:-$root/build}"
work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT
export KESTRO_HOME="$work/home"  # where the consumer's facade keeps its settings

echo "package: installing $build into a temporary prefix"
cmake --install "$build" --prefix "$work/prefix" >/dev/null
cmake -S "$root/tests/package" -B "$work/installed" -G Ninja -DCMAKE_PREFIX_PATH="$work/prefix" \
    >/dev/null
cmake --build "$work/installed" >/dev/null
"$work/installed/consumer"
"$work/installed/consumer_every_target"

echo "package: the source tree through add_subdirectory"
# The build type and flags of the normal build, so that a compiler cache (CMAKE_CXX_COMPILER_LAUNCHER
# in the environment) serves the libraries from that build.
cmake -S "$root/tests/package" -B "$work/subdirectory" -G Ninja -DKESTRO_SOURCE_DIR="$root" \
    -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_CXX_FLAGS_RELWITHDEBINFO="-O2 -g1 -DNDEBUG" >/dev/null
cmake --build "$work/subdirectory" --target consumer >/dev/null
"$work/subdirectory/consumer"
