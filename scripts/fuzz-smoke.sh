#!/usr/bin/env bash
# Builds the libFuzzer targets of tests/fuzz with clang and runs each one briefly on a copy of
# its seed corpus (plus its kept regressions). Fails on the first crash, leak, timeout or
# sanitizer report. FUZZ_SECONDS (default 20) sets the time per target.
set -euo pipefail

root="$(cd "$(dirname "$0")/.." && pwd)"
build="${FUZZ_BUILD_DIR:-$root/build-fuzz}"
seconds="${FUZZ_SECONDS:-20}"

CC=clang CXX=clang++ cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DKESTRO_FUZZ=ON -DKESTRO_BUILD_TESTS=OFF -DKESTRO_BUILD_BENCHMARKS=OFF \
    -DKESTRO_BUILD_APPS=OFF >/dev/null

targets=()
for src in "$root"/tests/fuzz/*_fuzz.cc; do
    [ -e "$src" ] || continue
    targets+=("$(basename "$src" .cc)")
done
if [ ${#targets[@]} -eq 0 ]; then
    echo "fuzz-smoke: no fuzz targets"
    exit 0
fi
cmake --build "$build" -j2 --target "${targets[@]}"

work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT
for target in "${targets[@]}"; do
    corpus="$work/$target"
    mkdir -p "$corpus" "$work/$target-artifacts"
    for dir in "$root/tests/fuzz/corpus/$target" "$root/tests/fuzz/regressions/$target"; do
        if [ -d "$dir" ]; then cp -r "$dir"/. "$corpus"/; fi
    done
    echo "fuzz-smoke: $target for ${seconds}s"
    if ! "$build/tests/fuzz/$target" "$corpus" -max_total_time="$seconds" -timeout=5 \
        -rss_limit_mb=2048 -print_final_stats=1 \
        -artifact_prefix="$work/$target-artifacts/" >"$work/$target.log" 2>&1; then
        tail -n 60 "$work/$target.log"
        mkdir -p "$root/build-fuzz-artifacts"
        cp "$work/$target-artifacts"/* "$root/build-fuzz-artifacts/" 2>/dev/null || true
        echo "fuzz-smoke: $target FAILED (inputs kept in build-fuzz-artifacts/)"
        exit 1
    fi
    grep -E "stat::number_of_executed_runs" "$work/$target.log" || true
done
echo "fuzz-smoke: all targets passed"
