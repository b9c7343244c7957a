#!/usr/bin/env python3
"""Binary patches of real Debian files: Debian's bsdiff and bspatch against the updater's bsdiff
writer and applier and its executable-aware format, with sizes, wall time and peak memory; and,
with --behind, the bytes that users one and two releases behind fetch when a release carries
patches from several previous ones.

usage: bench/patch.py [--rounds N] [--only NAMES] [--build-dir DIR] [--downloads DIR]
       bench/patch.py --behind [--rounds N] [--build-dir DIR] [--downloads DIR]

The pairs (old and new version of one file, from two .deb files that `apt-get download` fetches
once into the download directory):
- libmergedlo.so (69 MB) and libcuilo.so (3.4 MB) of libreoffice-core u13 to u14: the pair the
  project measures its patches on, a large library and a nearly unchanged one;
- libcrypto.so.3 of libssl3 3.0.20 to 3.0.22: a security update of a library that every native
  client bundles or links;
- postgres of postgresql-15 15.18 to 15.20: a point release of a large executable (PIE), not a
  library.
Each applier runs --rounds times, alternately, and must make the new file byte for byte.

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

LIBREOFFICE = ("libreoffice-core", "4:7.4.7-1+deb12u13", "4:7.4.7-1+deb12u14")
PAIRS = {
    "libmergedlo.so": LIBREOFFICE + ("./usr/lib/libreoffice/program/libmergedlo.so",),
    "libcuilo.so": LIBREOFFICE + ("./usr/lib/libreoffice/program/libcuilo.so",),
    "libcrypto.so.3": ("libssl3", "3.0.20-1~deb12u2", "3.0.22-1~deb12u2",
                       "./usr/lib/x86_64-linux-gnu/libcrypto.so.3"),
    "postgres": ("postgresql-15", "15.18-0+deb12u1", "15.20-0+deb12u1",
                 "./usr/lib/postgresql/15/bin/postgres"),
}
# Three versions each, oldest first: what bookworm, bookworm-updates and bookworm-security held
# on 25 November 2026. libreoffice-core has only two there.
CHAINS = {
    "libssl3": ["3.0.17-1~deb12u2", "3.0.20-1~deb12u2", "3.0.22-1~deb12u2"],
    "openssh-client": ["1:9.2p1-2+deb12u7", "1:9.2p1-2+deb12u9", "1:9.2p1-2+deb12u10"],
}


def build(build_dir):
    bench.run_checked(["cmake", "-S", str(bench.REPO), "-B", str(build_dir), "-G", "Ninja",
                       "-DCMAKE_BUILD_TYPE=Release", "-DORLIVO_BUILD_BENCH=ON"])
    bench.run_checked(["cmake", "--build", str(build_dir), "--target", "patchtool", "patchapply",
                       "update-publish"])
    return (build_dir / "bench" / "patchtool", build_dir / "bench" / "patchapply",
            build_dir / "tools" / "update-publish")


def extract(deb, member, target):
    """One file out of a .deb, by dpkg-deb and tar."""
    target.mkdir(parents=True)
    tar = subprocess.Popen(["dpkg-deb", "--fsys-tarfile", str(deb)], stdout=subprocess.PIPE)
    subprocess.run(["tar", "-x", "-C", str(target), member], stdin=tar.stdout, check=True)
    tar.wait()
    return target / member


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


def fetched(applier, installation, version_directory, work):
    """Bytes the updater fetches to update installation from the list in version_directory:
    the list and its manifest, then for each file that is not installed as listed the patch
    whose base is the installed copy, else the file as the mirror holds it."""
    listed = version_directory / (bench.CLIENT_TYPE + ".ini")
    # The list and its manifest; the glob also matches the folders of subdirectories.
    total = sum(p.stat().st_size for p in version_directory.glob(bench.CLIENT_TYPE + ".*")
                if p.is_file())
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
        bench.run_checked([str(applier), str(installed), str(out),
                           str(version_directory / patch)])
        if bench.file_md5(out) != entry.installed_md5:
            sys.exit("%s: the patch does not make the new file" % entry.install_path)
        out.unlink()
    return total


def behind(applier, publisher, downloads, rounds, work):
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
        whole = fetched(applier, older, work / package / "whole" / "12", work)
        one = fetched(applier, old, several / "12", work)
        two = fetched(applier, older, several / "12", work)
        two_single = fetched(applier, older, single / "12", work)
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


def xz_size(path):
    packed = subprocess.run(["xz", "-9", "-T1", "-c", str(path)], stdout=subprocess.PIPE,
                            check=True).stdout
    return len(packed)


def measure(name, tool, applier, downloads, work, rounds):
    package, old_version, new_version, member = PAIRS[name]
    (_, old_deb), (_, new_deb) = link.fetch_debs(downloads, package, [old_version, new_version])
    old = extract(old_deb, member, work / name / "old")
    new = extract(new_deb, member, work / name / "new")
    patches = {"Debian bsdiff": work / name / "debian", "ours, bsdiff format": work / name / "ours",
               "ours, executable-aware": work / name / "executable"}
    makers = {"Debian bsdiff": ["bsdiff"], "ours, bsdiff format": [str(tool), "diff"],
              "ours, executable-aware": [str(tool), "xdiff"]}
    made = {}
    for kind, command in makers.items():
        made[kind] = timed(command + [str(old), str(new), str(patches[kind])])
        bench.log("%s %s: %d B in %.1f s" % (name, kind, patches[kind].stat().st_size,
                                            made[kind][0]))
    if patches["Debian bsdiff"].read_bytes() != patches["ours, bsdiff format"].read_bytes():
        sys.exit("%s: our bsdiff patch differs from Debian's" % name)
    appliers = {"bspatch": (["bspatch"], "Debian bsdiff"),
                "ours on bsdiff": ([str(applier)], "Debian bsdiff"),
                "ours on executable-aware": ([str(applier)], "ours, executable-aware")}
    applied = {applier: [] for applier in appliers}
    wanted = md5(new)
    for round_number in range(rounds):
        for applier, (command, kind) in appliers.items():
            out = work / name / "out"
            out.unlink(missing_ok=True)
            applied[applier].append(timed(command + [str(old), str(out), str(patches[kind])]))
            if md5(out) != wanted:
                sys.exit("%s: %s did not make the new file" % (name, applier))
        bench.log("%s apply round %d: %s" % (name, round_number + 1, ", ".join(
            "%s %.2f s" % (a, runs[-1][0]) for a, runs in applied.items())))
    sizes = {kind: path.stat().st_size for kind, path in patches.items()}
    return {"new": new.stat().st_size, "xz": xz_size(new), "sizes": sizes, "made": made,
            "applied": applied}


def report(results):
    print("\n| file | new B | Debian bsdiff B | ours, bsdiff format B | ours, executable-aware B "
          "| executable-aware / bsdiff | xz -9 of new B |")
    print("|---|---|---|---|---|---|---|")
    for name, r in results.items():
        s = r["sizes"]
        print("| %s | %d | %d | %d | %d | %.3f | %d |"
              % (name, r["new"], s["Debian bsdiff"], s["ours, bsdiff format"],
                 s["ours, executable-aware"],
                 s["ours, executable-aware"] / s["Debian bsdiff"], r["xz"]))
    print("\n| file | making with | s | peak RSS MB |")
    print("|---|---|---|---|")
    for name, r in results.items():
        for kind, (seconds, peak) in r["made"].items():
            print("| %s | %s | %.1f | %.0f |" % (name, kind, seconds, peak))
    print("\n| file | applier | median s | min s | peak RSS MB | median / bspatch's |")
    print("|---|---|---|---|---|---|")
    for name, r in results.items():
        reference = statistics.median(s for s, _ in r["applied"]["bspatch"])
        for applier, runs in r["applied"].items():
            seconds = [s for s, _ in runs]
            print("| %s | %s | %.2f | %.2f | %.0f | %.2f |"
                  % (name, applier, statistics.median(seconds), min(seconds),
                     max(m for _, m in runs), statistics.median(seconds) / reference))


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--rounds", type=int, default=5)
    parser.add_argument("--build-dir", type=Path, default=bench.REPO / "build-bench")
    parser.add_argument("--downloads", type=Path,
                        default=bench.REPO / "build-bench" / "downloads")
    parser.add_argument("--only", default=",".join(PAIRS),
                        help="comma-separated names of the pairs (default: all)")
    parser.add_argument("--behind", action="store_true")
    args = parser.parse_args()

    tool, applier, publisher = build(args.build_dir)
    with tempfile.TemporaryDirectory() as scratch:
        if args.behind:
            report_behind(behind(applier, publisher, args.downloads, args.rounds, Path(scratch)))
        else:
            downloads = args.downloads.resolve()
            report({name: measure(name, tool, applier, downloads, Path(scratch), args.rounds)
                    for name in args.only.split(",")})


if __name__ == "__main__":
    main()
