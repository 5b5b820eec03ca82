#!/usr/bin/env bash
# Kestro's main job: builds the development service and the demo hosts, starts the service on
# 127.0.0.1:3007 (unless one is already running there) and runs a demo against it until it ends
# (Ctrl+C): the windowed demo with the inspector when a display is available ($DISPLAY or
# $WAYLAND_DISPLAY), else the console demo. Arguments are passed to the demo (for the console
# demo, for example --rounds 5 or --verbose). KESTRO_DEMO=console picks the console demo.
set -euo pipefail
cd "$(dirname "$0")/.."
./scripts/setup.sh
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j"$(nproc)" --target kestro-devservice kestro-demo
windowed=""
if [ "${KESTRO_DEMO:-}" != console ] && [ -n "${DISPLAY:-}${WAYLAND_DISPLAY:-}" ] &&
    cmake --build build -j"$(nproc)" --target kestro-demo-window >/dev/null 2>&1; then
    windowed=./build/apps/demo_window/kestro-demo-window
fi

service=./build/apps/devservice/kestro-devservice
log=build/devservice.log
if "$service" health >/dev/null 2>&1; then
    echo "Using the development service already running on 127.0.0.1:3007."
else
    "$service" >"$log" 2>&1 &
    service_pid=$!
    trap 'kill "$service_pid" 2>/dev/null || true; wait "$service_pid" 2>/dev/null || true' EXIT
    for _ in $(seq 1 100); do
        "$service" health >/dev/null 2>&1 && break
        if ! kill -0 "$service_pid" 2>/dev/null; then
            echo "The development service did not start:" >&2
            cat "$log" >&2
            exit 1
        fi
        sleep 0.1
    done
    echo "Development service on http://127.0.0.1:3007 (its log: $log)."
fi
# The demo uploads with a key of the service's own ("demo", made on the first run).
key=$("$service" keys show demo 2>/dev/null || "$service" keys add demo)
echo "Dashboard: $("$service" dashboard)"
echo "Send the demo a command from another terminal:"
echo "  $service send <device-id> enable_break_point | disable_break_point | send_ping | open_kestro_sheet"
echo "  $service items    # what the service has received"
echo "The demo prints its device id and ready-made commands below. Ctrl+C stops it."
echo
# Not exec: the trap above stops the service when the demo ends.
if [ -n "$windowed" ]; then
    echo "Opening the windowed demo: Ctrl+Shift+K (or shaking the mouse) opens the inspector."
    KESTRO_API_KEY="$key" "$windowed" "$@"
else
    KESTRO_API_KEY="$key" ./build/apps/demo/kestro-demo "$@"
fi
