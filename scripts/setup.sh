#!/usr/bin/env bash
# Installs every Debian package Kestro needs to build, test and benchmark, and the npm packages
# of the dashboard's browser tests (tests/browser: Playwright without a browser of its own; the
# tests drive Debian's Chromium). Quick when everything is already there: it asks dpkg first and
# only runs apt when something is missing, and runs npm only when the lock file changed.
set -euo pipefail

PACKAGES=(
    cmake g++ make ninja-build pkg-config git ca-certificates openssl ccache iproute2
    clang clang-format libclang-rt-14-dev
    libcurl4-openssl-dev libssl-dev libbrotli-dev zlib1g-dev curl
    libsqlite3-dev sqlite3
    libboost1.81-dev libboost-json1.81-dev libboost-url1.81-dev
    libfmt-dev libicu-dev libsystemd-dev libavahi-client-dev
    libgtest-dev libgmock-dev libbenchmark-dev
    libspdlog-dev nlohmann-json3-dev
    libsdl2-dev libgl-dev libimgui-dev libstb-dev libfreetype-dev
    fonts-dejavu-core fonts-noto-color-emoji
    xvfb xauth libgl1-mesa-dri
    nodejs chromium
)

missing=()
for p in "${PACKAGES[@]}"; do
    if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
        missing+=("$p")
    fi
done

if [ ${#missing[@]} -ne 0 ]; then
    echo "setup: installing ${missing[*]}"
    SUDO=""
    if [ "$(id -u)" -ne 0 ]; then SUDO="sudo"; fi
    export DEBIAN_FRONTEND=noninteractive
    $SUDO apt-get update -qq
    $SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi

# npm ci again only when the lock file is newer than what it installed.
browser_tests="$(dirname "$0")/../tests/browser"
if [ ! -f "$browser_tests/node_modules/.package-lock.json" ] ||
    [ "$browser_tests/package-lock.json" -nt "$browser_tests/node_modules/.package-lock.json" ]; then
    echo "setup: installing the browser tests' npm packages"
    (cd "$browser_tests" && PLAYWRIGHT_SKIP_BROWSER_DOWNLOAD=1 npm ci --ignore-scripts --no-audit --no-fund)
fi
