#!/usr/bin/env python3
"""Binary patches: applying one, the updater's own applier against Debian's bspatch on the same
patch file, run alternately, with wall time and peak memory; and, with --behind, the bytes that
users one and two releases behind fetch when a release carries patches from several previous ones.

usage: bench/patch.py [--rounds N] [--build-dir DIR] [--downloads DIR] [--old FILE --new FILE]
       bench/patch.py --behind [--rounds N] [--build-dir DIR] [--downloads DIR]

The pair, unless --old and --new name one: libmergedlo.so (69 MB) of Debian's libreoffice-core
u13 and u14, from the .deb files the link benchmark keeps in its download directory. The patch is
made once with the updater's own writer (it is Debian bsdiff's, byte for byte, only faster).

--behind takes Debian packages of which the archive holds three versions (CHAINS), publishes the
newest as version 12 with --previous naming the two before (and a patch cache, timed empty and
full), and counts what the updater fetches for installations of either, each patch applied by the
updater's applier to make sure it makes the new file.
"""
import argparse
import hashlib
import shutil
import statistics
import subprocess
import sys
import tempfile
import time
from pathlib import Path

import bench
import link

MEMBER = "./usr/lib/libreoffice/program/libmergedlo.so"
# Three versions each, oldest first: what bookworm, bookworm-updates and bookworm-security held
# on 25 November 2026. libreoffice-core has only two there.
CHAINS = {
    "libssl3": ["3.0.17-1~deb12u2", "3.0.20-1~deb12u2", "3.0.22-1~deb12u2"],
    "openssh-client": ["1:9.2p1-2+deb12u7", "1:9.2p1-2+deb12u9", "1:9.2p1-2+deb12u10"],
}


def build(build_dir):
    bench.run_checked(["cmake", "-S", str(bench.REPO), "-B", str(build_dir), "-G", "Ninja",
                       "-DCMAKE_BUILD_TYPE=Release", "-DORLIVO_BUILD_BENCH=ON"])
    bench.run_checked(["cmake", "--build", str(build_dir), "--target", "patchtool",
                       "update-publish"])
    return build_dir / "bench" / "patchtool", build_dir / "tools" / "update-publish"


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


def publish(publisher, files, version, root, options=(), launcher=()):
    """Seconds the publication took."""
    start = time.monotonic()
    bench.run_checked(list(launcher) + [str(publisher), "--force"] + list(options)
                      + [str(files), bench.CLIENT_TYPE, version, str(root)],
                      stdout=subprocess.DEVNULL)
    return time.monotonic() - start


def offered_patches(version_directory):
    """(install path, base MD5) -> patch path below the version directory, from the manifest."""
    patches, group = {}, None
    manifest = version_directory / (bench.CLIENT_TYPE + ".manifest")
    for line in manifest.read_text().splitlines():
        if line.startswith("["):
            group = line.strip("[]")
        elif group == "patches" and "=" in line:
            path, value = line.split("=", 1)
            _, _, base_md5, install_path = value.split("::", 3)
            patches[(install_path, base_md5)] = path
    return patches


def fetched(tool, installation, version_directory, work):
    """Bytes the updater fetches to update installation from the list in version_directory:
    the list and its manifest, then for each file that is not installed as listed the patch
    whose base is the installed copy, else the file as the mirror holds it."""
    listed = version_directory / (bench.CLIENT_TYPE + ".ini")
    total = sum(p.stat().st_size for p in version_directory.glob(bench.CLIENT_TYPE + ".*"))
    patches = offered_patches(version_directory)
    for entry in bench.read_product_list(listed):
        installed = installation / entry.install_path
        md5 = bench.file_md5(installed) if installed.is_file() else None
        if md5 == entry.installed_md5:
            continue
        patch = patches.get((entry.install_path, md5))
        if patch is None:
            total += entry.size
            continue
        total += (version_directory / patch).stat().st_size
        out = work / "patched"
        bench.run_checked([str(tool), "apply", str(installed), str(out),
                           str(version_directory / patch)])
        if bench.file_md5(out) != entry.installed_md5:
            sys.exit("%s: the patch does not make the new file" % entry.install_path)
        out.unlink()
    return total


def behind(tool, publisher, downloads, rounds, work):
    """One row per package: bytes fetched and publishing times."""
    rows = []
    for package, versions in CHAINS.items():
        trees = []
        for version, deb in link.fetch_debs(downloads, package, versions):
            files = work / package / version.replace(":", "_")
            files.parent.mkdir(parents=True, exist_ok=True)
            link.unpack(deb, files, dereference=False)
            trees.append((version, files))
        (v10, older), (v11, old), (v12, new) = trees
        several, single = work / package / "several", work / package / "single"
        cache = work / package / "cache"
        bases = ["--previous", str(old), "--previous", str(older), "--patch-cache", str(cache)]
        cold, one_core, warm = [], [], []
        for round_number in range(rounds):
            shutil.rmtree(cache, ignore_errors=True)
            one_core.append(publish(publisher, new, "12", several, bases, ["taskset", "-c", "0"]))
            shutil.rmtree(cache, ignore_errors=True)
            cold.append(publish(publisher, new, "12", several, bases))
            warm.append(publish(publisher, new, "12", several, bases))
            bench.log("%s: published with two bases in %.1f s (%.1f s on one core), again from "
                      "the cache in %.1f s" % (package, cold[-1], one_core[-1], warm[-1]))
        publish(publisher, new, "12", single, ["--previous", str(old)])
        publish(publisher, new, "12", work / package / "whole")
        whole = fetched(tool, older, work / package / "whole" / "12", work)
        one = fetched(tool, old, several / "12", work)
        two = fetched(tool, older, several / "12", work)
        two_single = fetched(tool, older, single / "12", work)
        rows.append((package, "%s, %s -> %s" % (v10, v11, v12), whole, one, two, two_single,
                     cold, one_core, warm))
    return rows


def report_behind(rows):
    print("\n| package: 10, 11 -> 12 | whole files MB | one behind MB | two behind MB "
          "| two behind, one base MB | two / one behind |")
    print("|---|---|---|---|---|---|")
    for package, versions, whole, one, two, two_single, *_ in rows:
        print("| %s: %s | %.3f | %.3f | %.3f | %.3f | %.2f |"
              % (package, versions, whole / 1e6, one / 1e6, two / 1e6, two_single / 1e6,
                 two / one))
    print("\n| publishing 12 with two bases, min / median s | empty cache | empty cache, one core "
          "| full cache |")
    print("|---|---|---|---|")
    for package, *_, cold, one_core, warm in rows:
        print("| %s | %s |" % (package, " | ".join(
            "%.1f / %.1f" % (min(t), statistics.median(t)) for t in (cold, one_core, warm))))
    print("\n" + bench.machine_line())


def apply_pair(tool, args, work):
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
            bench.log("%-18s round %d: %.2f s" % (name, round_number + 1, results[name][-1][0]))

    print("\n| applier | median s | min s | max s | peak RSS MB | vs bspatch |")
    print("|---|---|---|---|---|---|")
    reference = statistics.median(s for s, _ in results["bspatch"])
    for name, runs in results.items():
        seconds = [s for s, _ in runs]
        print("| %s | %.2f | %.2f | %.2f | %.0f | %.2f |"
              % (name, statistics.median(seconds), min(seconds), max(seconds),
                 max(m for _, m in runs), statistics.median(seconds) / reference))


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--rounds", type=int, default=5)
    parser.add_argument("--build-dir", type=Path, default=bench.REPO / "build-bench")
    parser.add_argument("--downloads", type=Path,
                        default=bench.REPO / "build-bench" / "downloads")
    parser.add_argument("--old", type=Path)
    parser.add_argument("--new", type=Path)
    parser.add_argument("--behind", action="store_true")
    args = parser.parse_args()

    tool, publisher = build(args.build_dir)
    with tempfile.TemporaryDirectory() as scratch:
        if args.behind:
            report_behind(behind(tool, publisher, args.downloads, args.rounds, Path(scratch)))
        else:
            apply_pair(tool, args, Path(scratch))


if __name__ == "__main__":
    main()
