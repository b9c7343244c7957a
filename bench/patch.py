#!/usr/bin/env python3
"""Applying a binary patch: the updater's own applier against Debian's bspatch on the same patch
file, run alternately, with wall time and peak memory.

usage: bench/patch.py [--rounds N] [--build-dir DIR] [--downloads DIR] [--old FILE --new FILE]

The pair, unless --old and --new name one: libmergedlo.so (69 MB) of Debian's libreoffice-core
u13 and u14, from the .deb files the link benchmark keeps in its download directory. The patch is
made once with the updater's own writer (it is Debian bsdiff's, byte for byte, only faster).
"""
import argparse
import hashlib
import statistics
import subprocess
import sys
import tempfile
from pathlib import Path

import bench

MEMBER = "./usr/lib/libreoffice/program/libmergedlo.so"


def build(build_dir):
    bench.run_checked(["cmake", "-S", str(bench.REPO), "-B", str(build_dir), "-G", "Ninja",
                       "-DCMAKE_BUILD_TYPE=Release", "-DORLIVO_BUILD_BENCH=ON"])
    bench.run_checked(["cmake", "--build", str(build_dir), "--target", "patchtool"])
    return build_dir / "bench" / "patchtool"


def extract(deb, work, name):
    """The library out of one .deb, by dpkg-deb and tar."""
    target = work / name
    target.mkdir()
    tar = subprocess.Popen(["dpkg-deb", "--fsys-tarfile", str(deb)], stdout=subprocess.PIPE)
    subprocess.run(["tar", "-x", "-C", str(target), MEMBER], stdin=tar.stdout, check=True)
    tar.wait()
    return target / MEMBER


def timed(command):
    """Wall seconds and peak RSS in MB of one run, by GNU time."""
    result = subprocess.run([bench.GNU_TIME, "-f", "%e %M"] + command, capture_output=True,
                            text=True, check=True)
    seconds, kilobytes = result.stderr.split()[-2:]
    return float(seconds), int(kilobytes) / 1024


def md5(path):
    return hashlib.md5(path.read_bytes()).hexdigest()


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--rounds", type=int, default=5)
    parser.add_argument("--build-dir", type=Path, default=bench.REPO / "build-bench")
    parser.add_argument("--downloads", type=Path,
                        default=bench.REPO / "build-bench" / "downloads")
    parser.add_argument("--old", type=Path)
    parser.add_argument("--new", type=Path)
    args = parser.parse_args()

    tool = build(args.build_dir)
    with tempfile.TemporaryDirectory() as scratch:
        work = Path(scratch)
        old, new = args.old, args.new
        if not (old and new):
            debs = sorted(args.downloads.glob("libreoffice-core_*.deb"))
            if len(debs) < 2:
                sys.exit("no pair: run bench/run.sh --link once, or give --old and --new")
            old, new = extract(debs[-2], work, "old"), extract(debs[-1], work, "new")
        patch = work / "patch"
        made, _ = timed([str(tool), "diff", str(old), str(new), str(patch)])
        bench.log("patch of %.1f MB from %.1f MB made in %.1f s"
                  % (patch.stat().st_size / 1e6, new.stat().st_size / 1e6, made))
        contenders = {"bspatch": ["bspatch"], "updater's applier": [str(tool), "apply"]}
        results = {name: [] for name in contenders}
        for round_number in range(args.rounds):
            for name, command in contenders.items():
                out = work / "out"
                out.unlink(missing_ok=True)
                results[name].append(timed(command + [str(old), str(out), str(patch)]))
                if md5(out) != md5(new):
                    sys.exit("%s did not make the new file" % name)
                bench.log("%-18s round %d: %.2f s" % (name, round_number + 1,
                                                        results[name][-1][0]))

    print("\n| applier | median s | min s | max s | peak RSS MB | vs bspatch |")
    print("|---|---|---|---|---|---|")
    reference = statistics.median(s for s, _ in results["bspatch"])
    for name, runs in results.items():
        seconds = [s for s, _ in runs]
        print("| %s | %.2f | %.2f | %.2f | %.0f | %.2f |"
              % (name, statistics.median(seconds), min(seconds), max(seconds),
                 max(m for _, m in runs), statistics.median(seconds) / reference))


if __name__ == "__main__":
    main()
