#!/usr/bin/env bash
# Builds and runs every test: once in a normal build (in a network namespace that has only
# loopback, where the machine allows one), once under AddressSanitizer +
# UndefinedBehaviorSanitizer, and the concurrent tests once more under ThreadSanitizer; checks
# that another CMake project can use the installed package and the source tree; and fuzzes
# briefly. Any failure or sanitizer report fails the run.
set -euo pipefail
cd "$(dirname "$0")/.."
./scripts/setup.sh

JOBS=$(nproc)
export CTEST_OUTPUT_ON_FAILURE=1
export ASAN_OPTIONS="abort_on_error=1:detect_leaks=1:strict_string_checks=1"
export UBSAN_OPTIONS="halt_on_error=1:print_stacktrace=1"
export TSAN_OPTIONS="halt_on_error=1:second_deadlock_stack=1"
# Tests talk only to servers they start on loopback (each test program also sets these itself).
export KESTRO_DEV_HOST=127.0.0.1 KESTRO_PROD_HOST=127.0.0.1
# A compiler cache shared by the build directories, so that the package check's
# add_subdirectory build takes the normal build's objects instead of compiling them again (and
# a second run of this command takes most of everything).
if command -v ccache >/dev/null; then
    export CMAKE_C_COMPILER_LAUNCHER="${CMAKE_C_COMPILER_LAUNCHER:-ccache}"
    export CMAKE_CXX_COMPILER_LAUNCHER="${CMAKE_CXX_COMPILER_LAUNCHER:-ccache}"
    export CCACHE_NOHASHDIR=1  # the same source and flags hit from any build directory
fi
start=$(date +%s)

stage() { echo; echo "=== $* ($(( $(date +%s) - start ))s)"; }

# Debug information is line tables only (-g1): enough for stack traces and sanitizer reports,
# and about a third less compile time on the Boost.Beast-heavy sources. The AddressSanitizer
# build is unoptimised: it compiles in less than half the time of -O1 and the tests still run
# in about a minute.
stage "normal build"
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DCMAKE_CXX_FLAGS_RELWITHDEBINFO="-O2 -g1 -DNDEBUG" -DKESTRO_BUILD_BENCHMARKS=ON >/dev/null
cmake --build build -j"$JOBS"
# In a network namespace of their own, with only loopback (up), the tests show that they need
# nothing else; where the machine allows no namespace they run as they are.
if unshare -rn sh -c 'ip link set lo up' 2>/dev/null; then
    stage "tests (in a network namespace with only loopback)"
    unshare -rn sh -c "ip link set lo up && exec ctest --test-dir build -j$JOBS --timeout 300"
else
    stage "tests (no network namespace can be made here: run without one)"
    ctest --test-dir build -j"$JOBS" --timeout 300
fi

stage "package: installed, and through add_subdirectory"
./scripts/check-package.sh build

# The windowed demo under Xvfb walks the inspector and writes its screens as PNGs, each checked
# to be a drawn window (about 10 s).
stage "inspector screenshots under Xvfb"
./scripts/screenshots.sh build/screenshots build

stage "AddressSanitizer + UndefinedBehaviorSanitizer build"
cmake -S . -B build-asan -G Ninja -DCMAKE_BUILD_TYPE=Debug -DCMAKE_CXX_FLAGS_DEBUG="-O0 -g1" \
    -DKESTRO_SANITIZE=ON -DKESTRO_BUILD_BENCHMARKS=OFF -DKESTRO_BUILD_APPS=OFF >/dev/null
cmake --build build-asan -j"$JOBS"
stage "tests under AddressSanitizer + UndefinedBehaviorSanitizer"
ctest --test-dir build-asan -j"$JOBS" --timeout 600

stage "ThreadSanitizer build (concurrent tests)"
cmake -S . -B build-tsan -G Ninja -DCMAKE_BUILD_TYPE=Debug -DCMAKE_CXX_FLAGS_DEBUG="-O1 -g1" \
    -DKESTRO_TSAN=ON -DKESTRO_BUILD_BENCHMARKS=OFF -DKESTRO_BUILD_APPS=OFF >/dev/null
cmake --build build-tsan -j"$JOBS" --target concurrent_tests
stage "concurrent tests under ThreadSanitizer"
ctest --test-dir build-tsan -j"$JOBS" -L concurrent --timeout 600

if [ -x scripts/fuzz-smoke.sh ]; then
    stage "bounded fuzzing"
    ./scripts/fuzz-smoke.sh
fi

stage "all tests passed"
