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

# One target's run; on a failure it prints the end of its log and keeps the inputs.
run_target() {
    local target=$1 corpus="$work/$1"
    mkdir -p "$corpus" "$work/$target-artifacts"
    for dir in "$root/tests/fuzz/corpus/$target" "$root/tests/fuzz/regressions/$target"; do
        if [ -d "$dir" ]; then cp -r "$dir"/. "$corpus"/; fi
    done
    if ! "$build/tests/fuzz/$target" "$corpus" -max_total_time="$seconds" -timeout=5 \
        -rss_limit_mb=2048 -print_final_stats=1 \
        -artifact_prefix="$work/$target-artifacts/" >"$work/$target.log" 2>&1; then
        tail -n 60 "$work/$target.log"
        mkdir -p "$root/build-fuzz-artifacts"
        cp "$work/$target-artifacts"/* "$root/build-fuzz-artifacts/" 2>/dev/null || true
        echo "fuzz-smoke: $target FAILED (inputs kept in build-fuzz-artifacts/)"
        return 1
    fi
    echo "fuzz-smoke: $target passed after" \
        "$(sed -n 's/^stat::number_of_executed_units: *//p' "$work/$target.log") inputs"
}

# The targets run two at a time (one per core), each for the full time; each writes its
# outcome to a file, read when all have ended.
parallel="${FUZZ_JOBS:-2}"
for target in "${targets[@]}"; do
    while [ "$(jobs -rp | wc -l)" -ge "$parallel" ]; do wait -n || true; done
    echo "fuzz-smoke: $target for ${seconds}s"
    (if run_target "$target"; then status=0; else status=1; fi
     echo "$status" >"$work/$target.status") &
done
wait
for target in "${targets[@]}"; do
    if [ "$(cat "$work/$target.status" 2>/dev/null)" != 0 ]; then
        echo "fuzz-smoke: $target failed"
        exit 1
    fi
done
echo "fuzz-smoke: all targets passed"
