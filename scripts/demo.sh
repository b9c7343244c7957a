#!/usr/bin/env bash
# Shows one update from start to end on this machine: scripts/demo.sh [build-dir]
#
# Builds the updater, publishes a small sample release (version 12, after a version 11 that is
# installed first) with update-publish, signed with a key pair made for the demo, serves it from two mirrors on 127.0.0.1 (nginx over HTTP,
# pyftpdlib over FTP) and answers the version query from a local UDP server. Then the real
# updater runs in the sample installation: in a window when there is a display, otherwise
# unattended (--nouser) with its log on the terminal. Every server stops when the script ends.
set -euo pipefail

repo=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
python=/usr/bin/python3 # Debian's, which has pyftpdlib
client_type=client_linux_amd64
previous_version=11
version=12
server_pids=()

log() { printf '\033[1m==> %s\033[0m\n' "$*" >&2; }

stop_servers() {
    local pid
    for pid in "${server_pids[@]}"; do
        kill "$pid" 2>/dev/null || true
    done
    for pid in "${server_pids[@]}"; do
        wait "$pid" 2>/dev/null || true
    done
    server_pids=()
}

free_port() {
    "$python" -c 'import socket; s = socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])'
}

# The support servers of the test suite bind a free port and print "ready <port>".
wait_for_ready() {
    local out=$1 tries
    for tries in $(seq 150); do
        if grep -q '^ready ' "$out" 2>/dev/null; then
            awk '/^ready /{print $2; exit}' "$out"
            return 0
        fi
        sleep 0.1
    done
    echo "server did not start, see $out" >&2
    return 1
}

wait_for_tcp() {
    local port=$1 tries
    for tries in $(seq 150); do
        "$python" -c "import socket; socket.create_connection(('127.0.0.1', $port), 1)" \
            2>/dev/null && return 0
        sleep 0.1
    done
    echo "nothing listens on port $port" >&2
    return 1
}

# The start_* functions run their server in the background and set started_port.
started_port=

# start_nginx ROOT WORKDIR: serves ROOT over HTTP.
start_nginx() {
    local root=$1 work=$2 port
    port=$(free_port)
    mkdir -p "$work"
    cat > "$work/nginx.conf" <<EOF
daemon off;
master_process off;
worker_processes 1;
pid $work/nginx.pid;
error_log $work/error.log warn;
events { worker_connections 64; }
http {
    default_type application/octet-stream;
    access_log $work/access.log;
    client_body_temp_path $work/body;
    proxy_temp_path $work/proxy;
    fastcgi_temp_path $work/fastcgi;
    uwsgi_temp_path $work/uwsgi;
    scgi_temp_path $work/scgi;
    server {
        listen 127.0.0.1:$port;
        root $root;
    }
}
EOF
    /usr/sbin/nginx -p "$work" -c "$work/nginx.conf" -e stderr > "$work/nginx.out" 2>&1 &
    server_pids+=($!)
    wait_for_tcp "$port"
    started_port=$port
}

# start_ftp ROOT WORKDIR: serves ROOT read-only to anonymous FTP.
start_ftp() {
    local root=$1 work=$2
    mkdir -p "$work"
    "$python" "$repo/tests/support/ftp_server.py" "$work/ftp.log" "$root" \
        > "$work/ftp.out" 2> "$work/ftp.err" &
    server_pids+=($!)
    started_port=$(wait_for_ready "$work/ftp.out")
}

# start_version_server VERSION WORKDIR: answers the update server's query.
start_version_server() {
    local announced=$1 work=$2 reply
    mkdir -p "$work"
    # "client,server,apps" versions; the updater takes the first.
    reply=$(printf '%s,1,1' "$announced" | od -An -tx1 | tr -d ' \n')
    "$python" "$repo/tests/support/udp_version_server.py" "$work/version.log" "$reply" \
        > "$work/version.out" 2> "$work/version.err" &
    server_pids+=($!)
    started_port=$(wait_for_ready "$work/version.out")
}

# write_mirrors_ini FILE URL...: one mirror per URL, tried in this order.
write_mirrors_ini() {
    local file=$1 i=0 url
    shift
    {
        echo "[mirrors]"
        echo "size=$#"
        for url in "$@"; do
            i=$((i + 1))
            echo "$i\\mirror=mirror$i"
        done
        i=0
        for url in "$@"; do
            i=$((i + 1))
            printf '\n[mirror%s]\nurl=%s\nretries=3\ntimeout=1\n' "$i" "$url"
        done
    } > "$file"
}

# write_update_ini FILE PORT: the version query goes to the local server.
write_update_ini() {
    printf '[update]\nserver=127.0.0.1:%s\n' "$2" > "$1"
}

build_updater() {
    local build=$1
    log "Installing what is missing and building in $build"
    "$repo/scripts/install-deps.sh"
    cmake -S "$repo" -B "$build" -G Ninja > /dev/null
    cmake --build "$build"
}

# make_releases UPDATER DIR: DIR/release-11 and DIR/release-12, files as they stand installed.
make_releases() {
    local updater=$1 dir=$2 old=$2/release-$previous_version new=$2/release-$version line
    mkdir -p "$old/lib" "$new/lib" "$new/sounds"

    cp "$updater" "$old/update"
    printf 'Orlivo %s\n' "$previous_version" > "$old/readme.txt"
    head -c 20000 /dev/urandom > "$old/lib/libvoice.so"
    printf 'codec tables of version %s\n' "$previous_version" > "$old/codec-old.dat"

    # The new updater differs from the running one, so the running one is renamed aside.
    { cat "$updater"; printf '\nOrlivo update %s\n' "$version"; } > "$new/update"
    for line in $(seq 400); do
        printf 'Orlivo %s release notes, line %s: better sound, fewer dropouts\n' "$version" "$line"
    done > "$new/readme.txt" # text: stored packed on the mirrors
    head -c 30000 /dev/urandom > "$new/lib/libvoice.so"
    head -c 8000 /dev/urandom > "$new/sounds/ring.wav"
    # codec-old.dat is gone in the new version: the updater deletes it.
}

# publish_release BUILD DIR: a key pair in DIR/keys and the mirror tree DIR/mirror/12, signed.
publish_release() {
    local build=$1 dir=$2
    "$build/tools/update-publish" --keygen "$dir/keys" >&2
    "$build/tools/update-publish" "$dir/release-$version" "$client_type" "$version" "$dir/mirror" \
        --previous "$dir/release-$previous_version" --sign "$dir/keys/update-secret.key" >&2
    "$build/tools/update-publish" --check "$dir/mirror/$version/$client_type.ini" \
        --key "$dir/keys/update-keys.pub" >&2
}

# prepare_demo BUILD DIR: releases, mirrors, servers and the installation in DIR/installation.
prepare_demo() {
    local build=$1 dir=$2 http ftp udp
    rm -rf "$dir"
    mkdir -p "$dir"
    log "Publishing version $previous_version and $version of $client_type"
    make_releases "$build/app/update" "$dir"
    publish_release "$build" "$dir"

    log "Starting the mirrors and the version server on 127.0.0.1"
    start_nginx "$dir/mirror" "$dir/servers/nginx"
    http=$started_port
    start_ftp "$dir/mirror" "$dir/servers/ftp"
    ftp=$started_port
    start_version_server "$version" "$dir/servers/version"
    udp=$started_port
    echo "   HTTP mirror  http://127.0.0.1:$http/" >&2
    echo "   FTP mirror   ftp://127.0.0.1:$ftp/" >&2
    echo "   version      udp 127.0.0.1:$udp answers $version" >&2

    log "Installing version $previous_version in $dir/installation"
    cp -a "$dir/release-$previous_version" "$dir/installation"
    # The installation trusts the publisher's key: no list is used before it verified the release.
    cp "$dir/keys/update-keys.pub" "$dir/installation/"
    write_mirrors_ini "$dir/installation/mirrors.ini" "http://127.0.0.1:$http/" "ftp://127.0.0.1:$ftp/"
    write_update_ini "$dir/installation/update.ini" "$udp"
}

# build_dir [DIR]: DIR, or the repository's build directory, made absolute, so that the servers
# find their files whatever directory they run in.
build_dir() {
    realpath -m "${1:-$repo/build}"
}

# start_demo BUILD: builds, starts the mirrors (stopped at exit) and lays out BUILD/demo.
start_demo() {
    build_updater "$1"
    trap stop_servers EXIT
    prepare_demo "$1" "$1/demo"
}

show_installation() {
    log "The installation now"
    (cd "$1" && find . -mindepth 1 -printf '%M %8s  %P\n' | sort -k3)
}

run_updater() {
    local install=$1
    if [ -n "${DISPLAY:-}" ]; then
        log "Starting the updater window: press \"Start Update\", close the window when done"
        "$install/update" || true
    else
        log "No display: running the updater unattended (--nouser); its log follows"
        "$install/update" --nouser || echo "updater exit status $?" >&2
    fi
}

main() {
    local build
    build=$(build_dir "${1:-}")
    local dir=$build/demo
    start_demo "$build"
    show_installation "$dir/installation"
    run_updater "$dir/installation"
    show_installation "$dir/installation"
    echo "(_old_update is the updater that was running; it is deleted at its next start.)" >&2
}

if [ "${BASH_SOURCE[0]}" = "$0" ]; then
    main "$@"
fi
