#!/usr/bin/env bash
# The benchmark in one command on a fresh Debian 12 machine: installs what is missing (the
# project's packages, then the peers and measuring tools), builds in Release and runs
# bench/bench.py with the given options, or with --link first, bench/link.py (updates over an
# emulated link, as root), or with --patch first, bench/patch.py (binary patches of real Debian
# files against bsdiff and bspatch; with --behind, what users one and two releases behind fetch),
# with the options after it. See bench/README.md.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh

extras=(aria2 curl time linux-perf zsync bsdiff iproute2)
missing=()
for p in "${extras[@]}"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
    sudo=""
    [ "$(id -u)" -ne 0 ] && sudo="sudo"
    DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi
if [ "${1:-}" = "--link" ]; then
    shift
    exec /usr/bin/python3 bench/link.py "$@"
fi
if [ "${1:-}" = "--patch" ]; then
    shift
    exec /usr/bin/python3 bench/patch.py "$@"
fi
exec /usr/bin/python3 bench/bench.py "$@"
