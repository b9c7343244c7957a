#!/bin/bash
# Runs the benchmark harnesses in their tiny modes and checks that they finished and printed a
# result for every workload. Timings are never judged here.
# usage: run_tiny.sh UPDATE-BINARY UPDATE-PUBLISH-BINARY WORK-DIRECTORY
set -euo pipefail
repo=$(cd "$(dirname "$0")/../.." && pwd)
out=$(/usr/bin/python3 "$repo/bench/bench.py" --tiny --update "$1" --publish "$2" --work "$3")
echo "$out"
for workload in big-http big-ftp resume-http small-http; do
    if ! grep -q "^| $workload | updater |" <<<"$out"; then
        echo "no result for $workload" >&2
        exit 1
    fi
done
# The link: a namespace needs root; without it the same contenders run on the plain loopback.
out=$(/usr/bin/python3 "$repo/bench/link.py" --tiny --update "$1" --publish "$2" --work "$3/link")
echo "$out"
for contender in "updater" "updater, whole files" "curl + md5sum + gzip -d + cp"; do
    if ! grep -qF "| $contender | " <<<"$out"; then
        echo "no link result for $contender" >&2
        exit 1
    fi
done
