#!/usr/bin/env bash
# Builds the project and runs the whole test suite: scripts/test.sh [build-dir] [extra cmake args]
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build}
shift || true
scripts/install-deps.sh
cmake -S . -B "$build" -G Ninja "$@"
cmake --build "$build"
cd "$build"
ctest --output-on-failure -j 2
