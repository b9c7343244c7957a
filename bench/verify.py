#!/usr/bin/env python3
"""The verification of an update in which every installed file changed: how long the updater
takes from "Download file list retrieved." to "Verification of N file(s) complete", with the page
cache dropped before each run (as root; otherwise warm), for one or more updater binaries taken in
turn. Release 11 is installed, release 12 (the same names, each file one byte longer, published
without packing or patches) is served over HTTP on 127.0.0.1; each run is stopped once it has
verified.

usage: bench/verify.py --update BIN [--update BIN ...] --publish PUBLISH
       [--files N] [--size BYTES] [--rounds N] [--work DIR]
"""
import argparse
import os
import shutil
import socket
import statistics
import subprocess
import time
from pathlib import Path

CLIENT = "client_linux_amd64"


def make_releases(work, files, size, publisher):
    for version, extra in ((11, 0), (12, 1)):
        data = work / ("release-%d" % version) / "data"
        data.mkdir(parents=True)
        for i in range(files):
            (data / ("f%d.bin" % i)).write_bytes(os.urandom(size + extra))
    subprocess.run([publisher, "--pack", "none", work / "release-12", CLIENT, "12",
                    work / "mirror"], check=True, stdout=subprocess.DEVNULL)


def drop_caches():
    subprocess.run(["sync"], check=True)
    try:
        Path("/proc/sys/vm/drop_caches").write_text("3\n")
        return True
    except OSError:
        return False


def verification_seconds(updater, work, port):
    install = work / "installation"
    shutil.rmtree(install, ignore_errors=True)
    shutil.copytree(work / "release-11", install)
    shutil.copy(updater, install / "update")
    (install / "mirrors.ini").write_text(
        "[mirrors]\nsize=1\n1\\mirror=m1\n\n[m1]\nurl=http://127.0.0.1:%d/\n" % port)
    for stale in work.glob("orlivo_temp_*"):
        shutil.rmtree(stale)
    drop_caches()
    process = subprocess.Popen([install / "update", "--nouser", CLIENT, "12"], cwd=install,
                               stderr=subprocess.PIPE, text=True, env=dict(os.environ, TMPDIR=work))
    start = None
    for line in process.stderr:
        if line.startswith("Download file list retrieved"):
            start = time.monotonic()
        elif line.startswith("Verification of"):
            elapsed = time.monotonic() - start
            process.kill()
            process.wait()
            return elapsed
    raise RuntimeError("%s ended before its verification" % updater)


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--update", type=Path, action="append", required=True)
    parser.add_argument("--publish", type=Path, required=True)
    parser.add_argument("--files", type=int, default=300)
    parser.add_argument("--size", type=int, default=1_000_000)
    parser.add_argument("--rounds", type=int, default=3)
    parser.add_argument("--work", type=Path, default=Path("/var/tmp/orlivo-bench-verify"))
    args = parser.parse_args()

    shutil.rmtree(args.work, ignore_errors=True)
    make_releases(args.work, args.files, args.size, args.publish.resolve())
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        port = probe.getsockname()[1]
    server = subprocess.Popen(["python3", "-m", "http.server", str(port), "--bind", "127.0.0.1",
                               "-d", args.work / "mirror"],
                              stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    times = {updater: [] for updater in args.update}
    try:
        time.sleep(0.5)
        for _ in range(args.rounds):
            for updater in args.update:
                times[updater].append(verification_seconds(updater.resolve(), args.work, port))
    finally:
        server.kill()
        shutil.rmtree(args.work, ignore_errors=True)
    print("page cache %s; %d files of %d bytes, every one changed"
          % ("dropped" if drop_caches() else "warm (not root)", args.files, args.size))
    print("| updater | min s | median s |\n|---|---|---|")
    for updater, seconds in times.items():
        print("| %s | %.3f | %.3f |" % (updater, min(seconds), statistics.median(seconds)))


if __name__ == "__main__":
    main()
