#!/usr/bin/env bash
# Takes docs/window.png, the updater window after the demo update with its details shown:
# scripts/screenshot.sh [build-dir]
#
# The demo's release, mirrors and installation (scripts/demo.sh) on a virtual X display: the
# window opens, "Details" and "Start Update" are pressed with xdotool, and once the update has
# finished ImageMagick's import takes the picture.
set -euo pipefail

source "$(dirname "${BASH_SOURCE[0]}")/demo.sh"

# capture_window INSTALLATION PNG: runs inside the virtual display (this script, called again).
capture_window() {
    local install=$1 png=$2 log=$1/../updater.log window tries
    "$install/update" 2> "$log" &
    local updater=$!
    window=$(xdotool search --sync --onlyvisible --name '^Orlivo Client Update$' | head -n 1)
    # "Start Update" has the focus: Tab to "Details", show the log, back, start.
    xdotool windowfocus --sync "$window" key Tab space shift+Tab space
    for tries in $(seq 600); do
        grep -q '^Update finished, version:' "$log" && break
        sleep 0.2
    done
    grep -q '^Update finished, version:' "$log" || { cat "$log" >&2; kill "$updater"; return 1; }
    sleep 0.5 # let the window paint its last lines
    import -window "$window" "$png"
    kill "$updater"
    wait "$updater" || true
}

main_screenshot() {
    local build
    build=$(build_dir "${1:-}")
    local dir=$build/demo
    start_demo "$build"
    mkdir -p "$repo/docs"
    log "Updating on a virtual display and taking docs/window.png"
    xvfb-run -a -s "-screen 0 800x600x24" \
        "$repo/scripts/screenshot.sh" --capture "$dir/installation" "$repo/docs/window.png"
    log "Wrote $repo/docs/window.png"
}

if [ "${1:-}" = "--capture" ]; then
    capture_window "$2" "$3"
else
    main_screenshot "$@"
fi
