#!/usr/bin/env bash
# Installs every Debian package Kestro needs to build, test and benchmark.
# Quick when everything is already there: it asks dpkg first and only runs apt when something
# is missing.
set -euo pipefail

PACKAGES=(
    cmake g++ make ninja-build pkg-config git ca-certificates openssl ccache iproute2
    clang clang-format libclang-rt-14-dev
    libcurl4-openssl-dev libssl-dev libbrotli-dev zlib1g-dev
    libsqlite3-dev sqlite3
    libboost1.81-dev libboost-json1.81-dev libboost-url1.81-dev
    libfmt-dev libicu-dev libsystemd-dev libavahi-client-dev
    libgtest-dev libgmock-dev libbenchmark-dev
    libspdlog-dev nlohmann-json3-dev
    libsdl2-dev libgl-dev libimgui-dev
)

missing=()
for p in "${PACKAGES[@]}"; do
    if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
        missing+=("$p")
    fi
done

if [ ${#missing[@]} -eq 0 ]; then
    exit 0
fi

echo "setup: installing ${missing[*]}"
SUDO=""
if [ "$(id -u)" -ne 0 ]; then SUDO="sudo"; fi
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -qq
$SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}"
