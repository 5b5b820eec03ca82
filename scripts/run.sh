#!/usr/bin/env bash
# Kestro's main job: builds the SDK and runs the quickstart host, which logs through every
# call and prints each captured record as JSON.
set -euo pipefail
cd "$(dirname "$0")/.."
./scripts/setup.sh
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j"$(nproc)" --target quickstart
exec ./build/examples/quickstart/quickstart
