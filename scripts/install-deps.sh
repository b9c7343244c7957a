#!/usr/bin/env bash
# Installs what building, testing and the demo need on Debian 12. Safe to run again.
set -euo pipefail

packages=(
    cmake ninja-build g++ pkg-config
    qt6-base-dev qt6-tools-dev qt6-tools-dev-tools qt6-l10n-tools libgl-dev
    libcurl4-openssl-dev libssl-dev zlib1g-dev
    nginx-light python3 python3-pyftpdlib tinyproxy microsocks openssl ca-certificates
    xvfb xauth xdotool imagemagick fonts-dejavu-core time
    libzstd-dev libdivsufsort-dev libbz2-dev liblzma-dev libzydis-dev clang
    minisign bsdiff zstd zsync iproute2 systemd
)

missing=()
for p in "${packages[@]}"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0

sudo=""
[ "$(id -u)" -ne 0 ] && sudo="sudo"
$sudo apt-get update -qq
DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
