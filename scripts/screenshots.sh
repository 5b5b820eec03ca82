#!/usr/bin/env bash
# Runs the windowed demo under Xvfb against a development service of its own, walks the
# inspector (settings, the list, a JSON response's details from the top with the answer's
# timings and scrolled to its body, a custom event's payload) and writes
# one PNG per screen into the given folder (default build/screenshots). Each PNG is then checked
# to be a drawn window: enough distinct colours and enough pixels away from the background.
#
#   scripts/screenshots.sh [OUT_DIR] [BUILD_DIR]
#
# Needs xvfb-run (Debian's xvfb) and the targets kestro-devservice and kestro-demo-window.
set -euo pipefail
cd "$(dirname "$0")/.."
out=${1:-build/screenshots}
build=${2:-build}
service=$build/apps/devservice/kestro-devservice
demo=$build/apps/demo_window/kestro-demo-window
for f in "$service" "$demo"; do
    [ -x "$f" ] || { echo "screenshots: $f is not built" >&2; exit 1; }
done
command -v xvfb-run >/dev/null || { echo "screenshots: xvfb-run is missing (apt-get install xvfb)" >&2; exit 1; }

work=$(mktemp -d)
service_pid=""
cleanup() {
    if [ -n "$service_pid" ]; then kill "$service_pid" 2>/dev/null || true; wait "$service_pid" 2>/dev/null || true; fi
    rm -rf "$work"
}
trap cleanup EXIT

# A service on a free loopback port, its data in the temporary folder.
"$service" --port 0 --data-dir "$work/service" --quiet >"$work/service.log" 2>&1 &
service_pid=$!
port=""
for _ in $(seq 1 100); do
    port=$(sed -n 's|.*listening on http://127\.0\.0\.1:\([0-9]*\).*|\1|p' "$work/service.log" | head -1)
    [ -n "$port" ] && break
    kill -0 "$service_pid" 2>/dev/null || break
    sleep 0.1
done
if [ -z "$port" ]; then
    echo "screenshots: the development service did not start" >&2
    cat "$work/service.log" >&2
    exit 1
fi

# The demo uploads and links with a key the service knows (it refuses any other).
key=$("$service" --port "$port" --data-dir "$work/service" keys add screenshots)

rm -rf "$out"
mkdir -p "$out"
# The demo keeps its items in the temporary folder; the tour ends by itself (60 s at most).
KESTRO_HOME="$work/home" KESTRO_DEV_HOST="127.0.0.1:$port" KESTRO_API_KEY="$key" \
    timeout 120 xvfb-run -a -s "-screen 0 1280x900x24" "$demo" --screenshots "$out" \
    >"$work/demo.log" 2>&1 || { cat "$work/demo.log" >&2; echo "screenshots: the demo failed" >&2; exit 1; }
grep "screenshot" "$work/demo.log" || true

# A drawn window, not a blank one: at least 64 distinct colours and at least 5% of the pixels
# away from the most common colour (the background). PNGs are read with the standard library.
python3 - "$out"/*.png <<'PY'
import struct, sys, zlib

def pixels(path):
    data = open(path, 'rb').read()
    assert data[:8] == b'\x89PNG\r\n\x1a\n', 'not a PNG'
    pos, idat = 8, b''
    while pos < len(data):
        length, kind = struct.unpack('>I4s', data[pos:pos + 8])
        body = data[pos + 8:pos + 8 + length]
        if kind == b'IHDR':
            width, height, depth, colour = struct.unpack('>IIBB', body[:10])
            assert depth == 8 and colour == 6, 'expected 8-bit RGBA'
        elif kind == b'IDAT':
            idat += body
        pos += 12 + length
    raw, stride, bpp = zlib.decompress(idat), width * 4, 4
    rows, prev = [], bytearray(stride)
    for y in range(height):
        f, line = raw[y * (stride + 1)], bytearray(raw[y * (stride + 1) + 1:(y + 1) * (stride + 1)])
        for i in range(stride):
            a = line[i - bpp] if i >= bpp else 0
            b, c = prev[i], prev[i - bpp] if i >= bpp else 0
            if f == 1: line[i] = (line[i] + a) & 255
            elif f == 2: line[i] = (line[i] + b) & 255
            elif f == 3: line[i] = (line[i] + (a + b) // 2) & 255
            elif f == 4:
                p = a + b - c; pa, pb, pc = abs(p - a), abs(p - b), abs(p - c)
                line[i] = (line[i] + (a if pa <= pb and pa <= pc else b if pb <= pc else c)) & 255
        rows.append(bytes(line)); prev = line
    return width, height, rows

failed = False
for path in sys.argv[1:]:
    w, h, rows = pixels(path)
    counts = {}
    for row in rows:
        for i in range(0, len(row), 4 * 3):  # every third pixel is plenty
            key = row[i:i + 3]
            counts[key] = counts.get(key, 0) + 1
    total = sum(counts.values())
    drawn = 1 - max(counts.values()) / total
    ok = len(counts) >= 64 and drawn >= 0.05
    failed |= not ok
    print(f"{path}: {w}x{h}, {len(counts)} colours, {drawn:.0%} drawn: {'ok' if ok else 'BLANK?'}")
sys.exit(1 if failed or len(sys.argv) < 6 else 0)
PY
