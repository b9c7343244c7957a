#!/usr/bin/python3
"""Times updates with real releases over an emulated link: 20 Mbit/s, 40 ms of round trip.

usage: bench/link.py [--rounds N] [--only libreoffice,resume,many,mirrors,redirect] [--tiny] ...

Everything runs in a network namespace of its own: its loopback is throttled by tbf, and a
delaying relay (bench/relay.py) stands between every client and nginx, counting the bytes it
delivers. See bench/README.md, "On a real link".

Every round's files stay until the benchmark ends: on ext4 without a journal, making a file
passes over every inode freed in the last minute (six, once the new files dirty its block again),
so a round that followed the deletion of the last one's thousands of files would pay for it, as
no user's update does.
"""
import argparse
import dataclasses
import itertools
import os
import re
import shlex
import shutil
import signal
import statistics
import subprocess
import sys
import tempfile
import time
from pathlib import Path

import bench
from bench import CLIENT_TYPE, MIB, VERSION, log, run_checked

OLD_VERSION = str(int(VERSION) - 1)
PACKAGE = "libreoffice-core"
PACKAGE_VERSIONS = ["4:7.4.7-1+deb12u13", "4:7.4.7-1+deb12u14"]
RESUME_SIZE = 200 * MIB
# A fresh install of many small files (median 1.4 KB).
MANY_PACKAGE = "libreoffice-common=4:7.4.7-1+deb12u14"
# The same release on a mirror at the link's rate and on one at a tenth of it.
MIRRORS_RELEASE = bench.Release("mirrors", 20, 0, 2 * MIB)
SLOW_RATE = "2mbit"
MEDIUM_RATE = "6mbit"
SYSTEM_CAS = "/etc/ssl/certs/ca-certificates.crt"


# --- the link ------------------------------------------------------------------------------------

class Namespace:
    """A network namespace whose loopback is the link, until remove(). Without one (not root),
    launcher is empty and the loopback is not throttled."""

    def __init__(self, rate, delay_ms, use):
        self.name = None
        self.launcher = ()
        if not use:
            return
        self.name = "orlivo-bench-%d" % os.getpid()
        run_checked(["ip", "netns", "add", self.name])
        self.launcher = ("ip", "netns", "exec", self.name)
        try:
            run_checked(list(self.launcher) + ["ip", "link", "set", "lo", "mtu", "1500", "up"])
            # A burst below the MTU would drop every full-sized packet; the latency bounds the
            # queue.
            run_checked(list(self.launcher) + ["tc", "qdisc", "add", "dev", "lo", "root", "tbf",
                                               "rate", rate, "burst", "64kbit", "latency",
                                               "50ms"])
        except (OSError, subprocess.CalledProcessError):
            self.remove()
            raise

    def shaped_bytes(self):
        """Bytes the throttled loopback has carried so far, in either direction: the data with
        its TLS, HTTP and TCP/IP framing, the acknowledgements and the requests. 0 without a
        namespace."""
        if not self.name:
            return 0
        text = subprocess.run(list(self.launcher) + ["tc", "-s", "qdisc", "show", "dev", "lo"],
                              stdout=subprocess.PIPE, text=True).stdout
        found = re.search(r"Sent (\d+) bytes", text)
        return int(found.group(1)) if found else 0

    def remove(self):
        if self.name:
            # Whatever an interrupted run left inside was started by this benchmark.
            pids = subprocess.run(["ip", "netns", "pids", self.name], stdout=subprocess.PIPE,
                                  text=True).stdout.split()
            for pid in pids:
                try:
                    os.kill(int(pid), signal.SIGKILL)
                except OSError:
                    pass
            subprocess.run(["ip", "netns", "del", self.name], stderr=subprocess.DEVNULL)
            self.name = None


class Link:
    """nginx on a Unix socket serving the mirrors' root, behind the relay's loopback port. Only
    the relay's client side crosses the throttled loopback, so every byte is paid for once."""

    def __init__(self, root, work, namespace, delay_ms, tls=None, rate=None,
                 requests=bench.KEEPALIVE_REQUESTS, http2=True, redirect=None):
        """tls: (certificate, key) makes nginx speak HTTPS, with HTTP/2 by ALPN unless http2 is
        false; rate (bytes a second) holds this mirror below the link's rate; requests: how many
        a connection carries before nginx ends it; redirect: a URL every request is sent on to,
        its path appended."""
        self.processes = []
        self.scheme = "https" if tls else "http"
        self.launcher = list(namespace.launcher)
        # A short path: Unix socket names are limited to 108 bytes.
        self.socket_dir = Path(tempfile.mkdtemp(prefix="orlivo-link-"))
        sock = self.socket_dir / "mirror.sock"
        work.mkdir(parents=True, exist_ok=True)
        config = work / "nginx.conf"
        listen = "unix:%s" % sock
        if tls:
            # TLS 1.3 as Debian's own nginx.conf has it (and nginx's default since 1.23.4); the
            # compiled default of Debian 12's nginx 1.22 stops at 1.2, a round trip more.
            listen += (" ssl%s; ssl_certificate %s; ssl_certificate_key %s;"
                       " ssl_protocols TLSv1.2 TLSv1.3" % ((" http2" if http2 else "",) + tls))
        if redirect:
            listen += "; return 302 %s$request_uri" % redirect.rstrip("/")
        config.write_text(bench.NGINX_CONFIG.format(work=work, listen=listen, root=root,
                                                    requests=requests))
        nginx = self.start(["/usr/sbin/nginx", "-p", str(work), "-c", str(config), "-e", "stderr"],
                           stderr=subprocess.DEVNULL)
        bench.wait_for_server(sock, nginx)
        self.relay = self.start(["/usr/bin/python3", str(Path(__file__).parent / "relay.py"),
                                 str(delay_ms), str(sock)] + ([str(rate)] if rate else []),
                                stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
        words = self.relay.stdout.readline().split()
        if len(words) != 2 or words[0] != "ready":
            raise RuntimeError("the relay did not start")
        self.port = int(words[1])

    def start(self, command, **kwargs):
        process = subprocess.Popen(self.launcher + command, **kwargs)
        self.processes.append(process)
        return process

    def url(self, mirror):
        return "%s://127.0.0.1:%d/%s/" % (self.scheme, self.port, mirror)

    def delivered(self):
        """Bytes the relay has delivered to clients so far."""
        self.relay.stdin.write("\n")
        self.relay.stdin.flush()
        return int(self.relay.stdout.readline().split()[0])

    def fade(self, seconds, rate):
        """Full speed for seconds from now, then rate (bytes a second)."""
        self.relay.stdin.write("fade %.3f %d\n" % (seconds, rate))
        self.relay.stdin.flush()

    def stop(self):
        for process in reversed(self.processes):
            if process.poll() is None:
                process.terminate()
            try:
                process.wait(timeout=10)
            except subprocess.TimeoutExpired:
                process.kill()
                process.wait()
        shutil.rmtree(self.socket_dir, ignore_errors=True)


class Mirror:
    """One mirror tree below the link's root, as bench.py's contenders ask for it."""

    def __init__(self, link, name):
        self.link, self.name = link, name

    def url(self, protocol):
        return self.link.url(self.name)


# --- releases ------------------------------------------------------------------------------------

def fetch_debs(downloads, package=PACKAGE, versions=PACKAGE_VERSIONS):
    """The versions of the package as .deb files, downloaded once into downloads."""
    downloads.mkdir(parents=True, exist_ok=True)
    cached = {deb_version(d): d for d in downloads.glob(package + "_*.deb")}
    wanted = versions
    if not all(v in cached for v in wanted):
        listed = subprocess.run(["apt-cache", "madison", package], stdout=subprocess.PIPE,
                                text=True, check=True).stdout
        available = [line.split("|")[1].strip() for line in listed.splitlines()]
        if not all(v in available for v in wanted):
            # Superseded versions leave the archive: the newest tell the same story.
            newest = sorted(set(available), key=VersionKey, reverse=True)[:len(versions)]
            wanted = list(reversed(newest))
            log("%s %s are gone; using %s" % (package, " ".join(versions), " ".join(wanted)))
        for v in wanted:
            if v not in cached:
                run_checked(["apt-get", "download", "-q", "%s=%s" % (package, v)], cwd=downloads)
        cached = {deb_version(d): d for d in downloads.glob(package + "_*.deb")}
    return [(v, cached[v]) for v in wanted]


def deb_version(path):
    return subprocess.run(["dpkg-deb", "-f", str(path), "Version"], stdout=subprocess.PIPE,
                          text=True, check=True).stdout.strip()


class VersionKey:
    def __init__(self, version):
        self.version = version

    def __lt__(self, other):
        return subprocess.run(["dpkg", "--compare-versions", self.version, "lt",
                               other.version]).returncode == 0


def unpack(deb, files, dereference):
    """The package's files as a release. Links that leave the tree (or lead nowhere) point
    into the system the package is installed on, not into the release: they are dropped. The
    others are published as what they point to, by the publisher when it can."""
    run_checked(["dpkg-deb", "-x", str(deb), str(files)])
    dropped = []
    for path in sorted(files.rglob("*")):
        if not path.is_symlink():
            continue
        target = path.resolve()
        if not target.exists() or files.resolve() not in target.parents:
            dropped.append(str(path.relative_to(files)))
            path.unlink()
        elif not dereference:
            path.unlink()
            if target.is_dir():
                shutil.copytree(target, path, symlinks=False)
            else:
                shutil.copy2(target, path)
    return dropped


def changed_files(old, new):
    """Install paths of the new release whose content the old one does not have."""
    changed = []
    for path in sorted(new.rglob("*")):
        if path.is_file():
            rel = path.relative_to(new)
            before = old / rel
            if not before.is_file() or bench.file_md5(before) != bench.file_md5(path):
                changed.append(str(rel))
    return changed


def bsdiff_reference(old, new, changed, scratch):
    """Bytes of Debian bsdiff's patches for the changed files (whole files when new)."""
    total = 0
    scratch.mkdir(parents=True, exist_ok=True)
    for rel in changed:
        if not (old / rel).is_file():
            total += (new / rel).stat().st_size
            continue
        patch = scratch / "patch"
        run_checked(["bsdiff", str(old / rel), str(new / rel), str(patch)])
        total += patch.stat().st_size
        patch.unlink()
    return total


@dataclasses.dataclass
class Update:
    """Two consecutive releases published for the link, and what a peer needs to know."""
    name: str
    old_files: Path
    new_files: Path
    mirrors: Path
    changed: list
    reference: int        # bsdiff's patches plus the list; None without bsdiff
    notes: list


def publish(publisher, files, version, mirror, options, previous=None):
    command = [publisher] + options + [str(files), CLIENT_TYPE, version, str(mirror)]
    if previous:
        command += ["--previous", str(previous)]
    run_checked(command, stdout=subprocess.DEVNULL)


def prepare_update(name, root, key, make_trees, publisher, options, reference_cache=None):
    """Publishes old as OLD_VERSION and new as VERSION twice: with --previous (patches, once the
    publisher makes them) and without (whole files only), and the new changed files for zsync.
    A work directory kept from an earlier run with the same key and options is reused."""
    stamp = root / "stamp"
    made_as = "%s %s\n" % (key, " ".join(options))
    notes_file = root / "notes"
    old, new, mirrors = root / "old", root / "new", root / "mirrors"
    if not stamp.exists() or stamp.read_text() != made_as:
        shutil.rmtree(root, ignore_errors=True)
        root.mkdir(parents=True)
        notes = make_trees(old, new)
        publish(publisher, old, OLD_VERSION, mirrors / "patched", options)
        publish(publisher, new, VERSION, mirrors / "patched", options, previous=old)
        publish(publisher, new, VERSION, mirrors / "whole", options)
        notes_file.write_text("".join(n + "\n" for n in notes))
        stamp.write_text(made_as)
    changed = changed_files(old, new)
    zsync = mirrors / "zsync"
    if not zsync.exists() and shutil.which("zsyncmake"):
        for rel in changed:
            target = zsync / rel
            target.parent.mkdir(parents=True, exist_ok=True)
            shutil.copy2(new / rel, target)
            # -Z: the .gz files among them are fetched as they are, not rebuilt from inside.
            run_checked(["zsyncmake", "-Z", "-u", target.name, "-o", "%s.zsync" % target.name,
                         target.name], cwd=target.parent, stdout=subprocess.DEVNULL)
    listing = sum(p.stat().st_size for p in (mirrors / "patched" / VERSION).glob(CLIENT_TYPE + ".*")
                  if p.is_file())
    if reference_cache and reference_cache.exists():
        patches = int(reference_cache.read_text())
    elif not shutil.which("bsdiff"):
        log("no bsdiff: no reference")
        patches = None
    else:
        log("%s: bsdiff of %d changed files" % (name, len(changed)))
        patches = bsdiff_reference(old, new, changed, root / "scratch")
        if reference_cache:
            reference_cache.write_text("%d\n" % patches)
    return Update(name, old, new, mirrors, changed,
                  patches + listing if patches is not None else None,
                  notes_file.read_text().splitlines())


def debian_trees(debs, dereference):
    def make(old, new):
        (old_version, old_deb), (new_version, new_deb) = debs
        notes = ["%s %s -> %s" % (PACKAGE, old_version, new_version)]
        dropped = set()
        for deb, files in ((old_deb, old), (new_deb, new)):
            dropped.update(unpack(deb, files, dereference))
        if dropped:
            notes.append("links leaving the package, dropped: " + ", ".join(sorted(dropped)))
        notes.append("other links: %s" % ("published with --dereference" if dereference
                                           else "copied as what they point to"))
        return notes
    return make


def synthetic_trees(old, new):
    """A few files, two of them changed slightly: the tiny run."""
    old.mkdir()
    bench.make_release(bench.Release("tiny-link", 2, 4, 256 * 1024), old)
    shutil.copytree(old, new)
    for rel in ("asset-0000.pak", "lib/00/module-0001.so"):
        data = bytearray((new / rel).read_bytes())
        data[1000:1100] = os.urandom(100)
        (new / rel).write_bytes(bytes(data))
    return ["synthetic: 6 files of 256 KiB, 2 changed"]


# --- contenders ----------------------------------------------------------------------------------

def updater(mirror):
    def run(ctx, update, entries, rnd):
        workload = bench.Workload(update.name, None, "http")
        return bench.run_updater(dataclasses.replace(ctx, servers=Mirror(ctx.link, mirror)),
                                 workload, rnd)
    return run


def run_curl(ctx, update, entries, rnd):
    """The changed files whole, as the list names them (packed ones packed), then unpacked."""
    workload = bench.Workload(update.name, None, "http")
    return bench.run_curl(dataclasses.replace(ctx, servers=Mirror(ctx.link, "whole")), workload,
                          entries, rnd)


def run_zsync(ctx, update, entries, rnd):
    """zsync of each changed file with the installed one as seed, then copied into place."""
    base = ctx.link.url("zsync")
    steps = ["set -e"]
    for e in entries:
        target = rnd.stage / e.install_path
        target.parent.mkdir(parents=True, exist_ok=True)
        steps.append("zsync -q -i %s -o %s %s" % (
            shlex.quote(str(rnd.install / e.install_path)), shlex.quote(str(target)),
            shlex.quote(base + e.install_path + ".zsync")))
    steps += ["cd %s" % rnd.stage, "find . -name '*.zs-old' -delete", "cp -r . %s/" % rnd.install]
    return bench.measure(["/bin/bash", "-c", "\n".join(steps)], rnd, launcher=ctx.launcher)


# name, the tool it needs, how it runs
CONTENDERS = [("updater", None, updater("patched")),
              ("updater, whole files", None, updater("whole")),
              ("curl + md5sum + gzip -d + cp", "curl", run_curl),
              ("zsync + cp", "zsync", run_zsync)]


@dataclasses.dataclass
class LinkContext(bench.Context):
    link: Link = None
    namespace: Namespace = None
    rate: str = None
    publisher: str = None
    baseline: str = None
    contenders: str = None


def run_update(ctx, update, rounds):
    entries = bench.read_product_list(update.mirrors / "whole" / VERSION / (CLIENT_TYPE + ".ini"))
    changed = set(update.changed)
    changed_entries = [e for e in entries if e.install_path in changed]
    runners = [(n, f) for n, tool, f in CONTENDERS if not tool or shutil.which(tool)]
    results = {name: [] for name, _ in runners}
    runs = ctx.work / "runs"
    runs.mkdir(exist_ok=True)
    bench.spread_directories(runs)
    for r in range(rounds):
        order = runners[r % len(runners):] + runners[:r % len(runners)]
        for name, runner in order:
            label = "%s-%d-%d" % (update.name, list(results).index(name), r)
            rnd = bench.Round(ctx.work, label, r == 0)
            shutil.rmtree(rnd.install)
            shutil.copytree(update.old_files, rnd.install, symlinks=True)
            before = ctx.link.delivered()
            result = runner(ctx, update, changed_entries, rnd)
            result.received = ctx.link.delivered() - before
            bench.verify_installation(rnd.install, update.new_files)
            results[name].append(result)
            log("%-12s %-30s round %d: %6.2f s, %6.2f MB" % (update.name, name, r + 1,
                                                           result.seconds, result.received / 1e6))
            # Left in place, as every round is: see the module's note on the disk.
    return results


def resume_case(ctx, size):
    """Kills the updater once half of a large file has arrived; the next run should fetch only
    the rest."""
    root = ctx.work / "releases" / "resume"
    files, mirror = root / "files", ctx.work / "releases" / "mirrors" / "resume"
    stamp = root / ("stamp-%d" % size)
    if not stamp.exists():
        shutil.rmtree(root, ignore_errors=True)
        shutil.rmtree(mirror, ignore_errors=True)
        files.mkdir(parents=True)
        with open(files / "voice-data.pak", "wb") as f:
            for _ in range(size // MIB):
                f.write(os.urandom(MIB))
        publish(ctx.publisher, files, VERSION, mirror, [])
        stamp.touch()
    rnd = bench.Round(ctx.work, "resume", True)
    workload = bench.Workload("resume", None, "http")
    run_ctx = dataclasses.replace(ctx, servers=Mirror(ctx.link, "resume"))
    command, env = bench.updater_command(run_ctx, workload, rnd)
    process = subprocess.Popen(list(ctx.launcher) + command, env=env, cwd=rnd.dir,
                               stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    try:
        partial = 0
        while partial < size // 2:
            if process.poll() is not None:
                raise RuntimeError("the updater ended (%d) before half of the file arrived"
                                   % process.returncode)
            time.sleep(0.02)
            partial = max((p.stat().st_size for p in rnd.tmp.rglob("*") if p.is_file()),
                          default=0)
    finally:
        if process.poll() is None:
            process.send_signal(signal.SIGKILL)
        process.wait()
    partial = max((p.stat().st_size for p in rnd.tmp.rglob("*") if p.is_file()), default=0)
    remembered = "[current]" in (rnd.install / "update.ini").read_text()
    # The killed run's transfer must not be counted for the next one.
    before = ctx.link.delivered()
    for _ in range(50):
        time.sleep(0.2)
        settled, before = before, ctx.link.delivered()
        if settled == before:
            break
    result = bench.measure(command, rnd, env=env, stamps=bench.UPDATER_PHASES,
                           launcher=ctx.launcher)
    result.received = ctx.link.delivered() - before
    bench.verify_installation(rnd.install, files)
    rnd.remove()
    log("resume: killed at %.1f MB of %.1f MB (working directory %s); the next run: %.2f s, "
        "%.2f MB" % (partial / 1e6, size / 1e6, "remembered" if remembered else "forgotten",
                     result.seconds, result.received / 1e6))
    return partial, size, result


# --- many small files, uneven mirrors -------------------------------------------------------------

def rate_bytes(rate):
    """tc's "20mbit" in bytes a second."""
    number, unit = re.fullmatch(r"([\d.]+)([km]?)bit", rate).groups()
    return float(number) * {"": 1, "k": 1e3, "m": 1e6}[unit] / 8


def fetch_many_deb(downloads, package):
    """The .deb of package ("NAME=VERSION"), downloaded once."""
    name, version = package.split("=", 1)
    downloads.mkdir(parents=True, exist_ok=True)
    for deb in downloads.glob(name + "_*.deb"):
        if deb_version(deb) == version:
            return deb
    run_checked(["apt-get", "download", "-q", package], cwd=downloads)
    return next(d for d in downloads.glob(name + "_*.deb") if deb_version(d) == version)


def prepare_many(work, publisher, deb, dereference, options):
    root = work / "releases" / ("many-" + deb.stem)
    stamp = root / "stamp"
    if not stamp.exists():
        shutil.rmtree(root, ignore_errors=True)
        root.mkdir(parents=True)
        unpack(deb, root / "files", dereference)
        publish(publisher, root / "files", VERSION, root / "mirror" / "many", options)
        stamp.touch()
    return root


def make_test_ca(directory):
    """A certificate for 127.0.0.1, its own CA, and the system's CAs with it in one bundle."""
    directory.mkdir(parents=True, exist_ok=True)
    cert, key, bundle = directory / "server.pem", directory / "server.key", directory / "cas.pem"
    run_checked(["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt",
                 "ec_paramgen_curve:prime256v1", "-nodes", "-days", "2", "-subj", "/CN=127.0.0.1",
                 "-addext", "subjectAltName=IP:127.0.0.1", "-keyout", str(key), "-out", str(cert)],
                stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    bundle.write_bytes(Path(SYSTEM_CAS).read_bytes() + cert.read_bytes())
    return (str(cert), str(key)), bundle


def trusting(launcher, bundle):
    """launcher, in a mount namespace of its own where the system's CA bundle also holds the
    test CA: every contender trusts it as it trusts any CA, with nothing to configure."""
    return list(launcher) + ["unshare", "-m", "--propagation", "private", "/bin/sh", "-c",
                             'mount --bind "$0" %s && exec "$@"' % SYSTEM_CAS, str(bundle)]


def updater_in(rnd, update_bin, urls):
    """The updater with default settings: mirrors.ini naming urls in order, no streams key."""
    shutil.copy2(update_bin, rnd.install / "update")
    (rnd.install / "mirrors.ini").write_text(
        "[mirrors]\nsize=%d\n" % len(urls)
        + "".join("%d\\mirror=m%d\n" % (i + 1, i) for i in range(len(urls)))
        + "".join("\n[m%d]\nurl=%s\n" % (i, u) for i, u in enumerate(urls)))
    (rnd.install / "update.ini").write_text("[update]\n")
    runtime = rnd.dir / "runtime"
    runtime.mkdir(mode=0o700)
    env = dict(os.environ, QT_QPA_PLATFORM="offscreen", TMPDIR=str(rnd.tmp),
               XDG_RUNTIME_DIR=str(runtime), LC_ALL="C.UTF-8", LANG="C.UTF-8")
    return [str(rnd.install / "update"), "--nouser", CLIENT_TYPE, VERSION], env


def run_updater_at(ctx, launcher, urls, rnd, update_bin=None):
    command, env = updater_in(rnd, update_bin or ctx.update_bin, urls)
    return bench.measure(command, rnd, env=env, stamps=bench.UPDATER_PHASES, launcher=launcher)


def run_curl_at(launcher, base, entries, rnd, options):
    config = rnd.dir / "curl.config"
    config.write_text("".join('url = "%s%s"\noutput = "%s"\n' % (base, e.remote_path,
                                                                 rnd.stage / e.staged_path)
                              for e in entries))
    fetch = ("curl --silent --show-error --fail --create-dirs --parallel %s --config %s"
             % (options, config))
    return bench.measure(bench.peer_script(entries, rnd, fetch), rnd, launcher=launcher)


def run_aria2_at(launcher, bases, entries, rnd):
    """aria2c -j16; with several mirrors each file lists them all and its adaptive selector
    chooses."""
    lines = []
    for e in entries:
        target = rnd.stage / e.staged_path
        lines += ["\t".join(b + e.remote_path for b in bases), "  dir=%s" % target.parent,
                  "  out=%s" % target.name, "  checksum=md5=%s" % e.md5]
    inputs = rnd.dir / "aria2.input"
    inputs.write_text("\n".join(lines) + "\n")
    fetch = ("aria2c -q -j16 -x1 -s1 --uri-selector=adaptive --file-allocation=none "
             "--allow-overwrite=true --auto-file-renaming=false --summary-interval=0 "
             "--input-file=%s" % inputs)
    return bench.measure(bench.peer_script(entries, rnd, fetch, check=False), rnd,
                         launcher=launcher)


def link_contenders(ctx, launcher, links, entries, https):
    """name, how it runs; links[0] is the mirror the single-mirror contenders use."""
    base = links[0].url("many")
    found = []
    found.append(("updater", lambda rnd: run_updater_at(ctx, launcher, [base], rnd)))
    if ctx.baseline:
        found.append(("updater before", lambda rnd: run_updater_at(ctx, launcher, [base], rnd,
                                                                  ctx.baseline)))
    for n in (4, 16):
        found.append(("curl --parallel %d, HTTP/1.1" % n, lambda rnd, n=n: run_curl_at(
            launcher, base, entries, rnd, "--http1.1 --parallel-max %d" % n)))
    if https:
        found.append(("curl --parallel 100, HTTP/2", lambda rnd: run_curl_at(
            launcher, base, entries, rnd, "--http2 --parallel-max 100")))
    if shutil.which("aria2c"):
        found.append(("aria2c -j16", lambda rnd: run_aria2_at(launcher, [base], entries, rnd)))
    return found


def time_contenders(ctx, label, contenders, rounds, release_files, links):
    if ctx.contenders:
        contenders = [(n, f) for n, f in contenders if re.fullmatch(ctx.contenders, n)]
    results = {name: [] for name, _ in contenders}
    runs = ctx.work / "runs"
    runs.mkdir(exist_ok=True)
    for r in range(rounds):
        order = contenders[r % len(contenders):] + contenders[:r % len(contenders)]
        for name, runner in order:
            rnd = bench.Round(ctx.work, "%s-%d-%d" % (label.replace(" ", "-"),
                                                      list(results).index(name), r), r == 0)
            before = sum(link.delivered() for link in links)
            shaped = ctx.namespace.shaped_bytes()
            result = runner(rnd)
            result.received = sum(link.delivered() for link in links) - before
            shaped = ctx.namespace.shaped_bytes() - shaped
            bench.verify_installation(rnd.install, release_files)
            results[name].append(result)
            # What the link could not have carried faster, whoever had used it.
            wire = " (%.2f s on the wire)" % (shaped / rate_bytes(ctx.rate)) if shaped else ""
            log("%-28s %-32s round %d: %6.2f s, %6.2f MB%s" % (label, name, r + 1,
                                                              result.seconds,
                                                              result.received / 1e6, wire))
            logs = ctx.work / "logs"
            logs.mkdir(exist_ok=True)
            shutil.copy2(rnd.dir / "stderr.log", logs / (rnd.dir.name + ".log"))
            # Left in place, as every round is: see the module's note on the disk.
    return results


def many_case(ctx, namespace, root, args, tls, bundle):
    """The fresh install over one mirror, over HTTPS (HTTP/2) and plain HTTP, at each delay."""
    files = root / "files"
    entries = bench.read_product_list(root / "mirror" / "many" / VERSION / (CLIENT_TYPE + ".ini"))
    size = sum(e.size for e in entries)
    tables = []
    for delay in args.delays:
        for https in (s == "https" for s in args.many_schemes.split(",")):
            link = Link(root / "mirror", ctx.work / "nginx-many", namespace, delay,
                        tls=tls if https else None, requests=args.keepalive_requests)
            try:
                launcher = trusting(namespace.launcher, bundle) if https else namespace.launcher
                contenders = link_contenders(ctx, launcher, [link], entries, https)
                label = "many %s %s %d ms" % (args.many_package.split("=")[0], link.scheme,
                                              2 * delay)
                results = time_contenders(ctx, label, contenders, args.rounds, files, [link])
            finally:
                link.stop()
            tables.append((label, len(entries), size, results))
    return tables


def mirrors_case(ctx, namespace, served, name, files, args, tls, bundle):
    """Two mirrors of one release, at the link's rate and at SLOW_RATE, each listed first; three,
    the slowest first and a third at MEDIUM_RATE second; and a mirror listed first that drops to
    SLOW_RATE halfway, the fast one second. Each mirror serves the directory served, where the
    release lies in name/; files holds what it installs."""
    tables = []
    for delay, https in itertools.product(args.delays,
                                          (s == "https" for s in args.mirrors_schemes.split(","))):
        tls_now = tls if https else None
        fast = Link(served, ctx.work / "nginx-fast", namespace, delay, tls=tls_now)
        slow = Link(served, ctx.work / "nginx-slow", namespace, delay, tls=tls_now,
                    rate=rate_bytes(SLOW_RATE))
        medium = Link(served, ctx.work / "nginx-medium", namespace, delay, tls=tls_now,
                      rate=rate_bytes(MEDIUM_RATE))
        fading = Link(served, ctx.work / "nginx-fading", namespace, delay, tls=tls_now)
        try:
            urls = [fast.url(name), slow.url(name)]
            entries = bench.read_product_list(served / name / VERSION / (CLIENT_TYPE + ".ini"))
            launcher = trusting(namespace.launcher, bundle) if https else namespace.launcher
            # Half the time the link needs for the release.
            half = sum(e.size for e in entries) / rate_bytes(args.rate) / 2

            def slowing_first(rnd):
                fading.fade(half, rate_bytes(SLOW_RATE))
                return run_updater_at(ctx, launcher, [fading.url(name), urls[0]], rnd)
            contenders = [
                ("updater, fast mirror alone",
                 lambda rnd: run_updater_at(ctx, launcher, urls[:1], rnd)),
                ("updater, fast first", lambda rnd: run_updater_at(ctx, launcher, urls, rnd)),
                ("updater, slow first",
                 lambda rnd: run_updater_at(ctx, launcher, urls[::-1], rnd)),
                ("updater, three mirrors, slowest first",
                 lambda rnd: run_updater_at(ctx, launcher, [urls[1], medium.url(name),
                                                            urls[0]], rnd)),
                ("updater, first slows halfway", slowing_first)]
            if shutil.which("aria2c"):
                contenders.append(("aria2c -j16, both mirrors",
                                   lambda rnd: run_aria2_at(launcher, urls, entries, rnd)))
            label = "mirrors %s%s%d ms" % ("many " if name == "many" else "",
                                           "https " if https else "", 2 * delay)
            results = time_contenders(ctx, label, contenders, args.rounds, files,
                                      [fast, slow, medium, fading])
        finally:
            for link in (fast, slow, medium, fading):
                link.stop()
        tables.append((label, len(entries), sum(e.size for e in entries), results))
    return tables


def redirect_case(ctx, namespace, root, args, tls, bundle):
    """The many workload's release from an HTTP/2 mirror that redirects every request to an HTTPS
    server without HTTP/2 on the same link (a download redirector in front of plain mirrors),
    beside that server reached directly."""
    entries = bench.read_product_list(root / "mirror" / "many" / VERSION / (CLIENT_TYPE + ".ini"))
    tables = []
    for delay in args.delays:
        target = Link(root / "mirror", ctx.work / "nginx-target", namespace, delay, tls=tls,
                      http2=False)
        front = Link(root / "mirror", ctx.work / "nginx-front", namespace, delay, tls=tls,
                     redirect="https://127.0.0.1:%d" % target.port)
        try:
            launcher = trusting(namespace.launcher, bundle)
            contenders = [("updater, redirected", lambda rnd: run_updater_at(
                              ctx, launcher, [front.url("many")], rnd)),
                          ("updater, HTTP/1.1 server directly", lambda rnd: run_updater_at(
                              ctx, launcher, [target.url("many")], rnd))]
            if ctx.baseline:
                contenders.append(("updater before, redirected", lambda rnd: run_updater_at(
                    ctx, launcher, [front.url("many")], rnd, ctx.baseline)))
            label = "redirect %s %d ms" % (args.many_package.split("=")[0], 2 * delay)
            results = time_contenders(ctx, label, contenders, args.rounds, root / "files",
                                      [front, target])
        finally:
            front.stop()
            target.stop()
        tables.append((label, len(entries), sum(e.size for e in entries), results))
    return tables


def report_link_tables(tables, rate):
    for label, count, size, results in tables:
        limit = size / rate_bytes(rate)
        print()
        print("%s: %d files, %.1f MB on the mirror; the link's limit (bytes / rate) %.2f s"
              % (label, count, size / 1e6, limit))
        print()
        print("| contender | median s | min s | median / limit | updater's download s |")
        print("|---|---|---|---|---|")
        for name, ms in results.items():
            times = [m.seconds for m in ms]
            downloads = [m.phases["Download finished."] for m in ms
                         if "Download finished." in m.phases]
            print("| %s | %.2f | %.2f | %.2f | %s |" % (
                name, statistics.median(times), min(times), statistics.median(times) / limit,
                "%.2f" % statistics.median(downloads) if downloads else ""))


# --- reporting -----------------------------------------------------------------------------------

def report_update(update, results):
    print()
    print("%s: %d changed files; bsdiff's patches plus the list: %s MB" % (
        update.name, len(update.changed),
        "%.3f" % (update.reference / 1e6) if update.reference else "n/a"))
    for note in update.notes:
        print("  " + note)
    print()
    print("| contender | median s | min s | max s | MB received | bytes / bsdiff + list "
          "| time / updater with whole files |")
    print("|---|---|---|---|---|---|---|")
    whole = results.get("updater, whole files")
    whole_time = statistics.median(m.seconds for m in whole) if whole else None
    for name, ms in results.items():
        times = [m.seconds for m in ms]
        received = statistics.median(m.received for m in ms)
        median = statistics.median(times)
        print("| %s | %.2f | %.2f | %.2f | %.3f | %s | %s |" % (
            name, median, min(times), max(times), received / 1e6,
            "%.1f" % (received / update.reference) if update.reference else "n/a",
            "%.2f" % (median / whole_time) if whole_time else ""))
    print()
    print("Updater phases (median seconds):")
    for name, ms in results.items():
        if name.startswith("updater"):
            print("  " + bench.phase_lines(bench.Workload(name, None, "http"), ms))


def report_resume(resume):
    partial, size, result = resume
    missing = size - partial
    print()
    print(bench.phase_lines(bench.Workload("resume, the next run", None, "http"), [result]))
    print()
    print("| resume | killed at MB | missing MB | next run MB received | next run s "
          "| received / (missing + 1 MiB) |")
    print("|---|---|---|---|---|---|")
    print("| %d MiB file | %.1f | %.1f | %.1f | %.2f | %.2f |" % (
        size // MIB, partial / 1e6, missing / 1e6, result.received / 1e6, result.seconds,
        result.received / (missing + MIB)))


# --- setup ---------------------------------------------------------------------------------------

def parse_arguments():
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("--rounds", type=int, default=3)
    parser.add_argument("--only",
                        help="comma-separated: libreoffice, resume, many, mirrors, redirect")
    parser.add_argument("--tiny", action="store_true",
                        help="a few synthetic files and a 4 MiB resume, one round")
    parser.add_argument("--build-dir", type=Path, default=bench.REPO / "build-bench")
    parser.add_argument("--downloads", type=Path,
                        help="where the .deb files are kept (default: BUILD-DIR/downloads)")
    parser.add_argument("--update", type=Path, help="use this update binary, build nothing")
    parser.add_argument("--publish", type=Path, help="use this update-publish binary")
    parser.add_argument("--publish-option", action="append", default=[],
                        help="passed to every publish, e.g. --publish-option=--compress=zstd")
    parser.add_argument("--rate", default="20mbit")
    parser.add_argument("--delay-ms", type=int, default=20, help="held in each direction")
    parser.add_argument("--baseline-update", type=Path,
                        help="an earlier update binary, timed beside this one in many")
    parser.add_argument("--many-delays", default="20,50",
                        help="ms held in each direction for the many, mirrors and redirect "
                        "workloads")
    parser.add_argument("--many-package", default=MANY_PACKAGE,
                        help="the Debian package (NAME=VERSION) whose files the many workload "
                        "installs")
    parser.add_argument("--many-schemes", default="https,http",
                        help="which of the many workload's mirrors to time")
    parser.add_argument("--mirrors-schemes", default="http",
                        help="comma-separated: http, https (HTTP/2)")
    parser.add_argument("--mirrors-release", choices=["large", "many"], default="large",
                        help="what the mirrors workload fetches: 20 files of 2 MiB, or the many "
                             "workload's release")
    parser.add_argument("--keepalive-requests", type=int, default=bench.KEEPALIVE_REQUESTS,
                        help="requests per connection of the many workload's nginx (its own "
                             "default: 1000)")
    parser.add_argument("--contenders",
                        help="time only the contenders whose name this regular expression matches")
    parser.add_argument("--work", type=Path, help="work directory (default: a fresh one)")
    parser.add_argument("--keep", action="store_true",
                        help="keep the published releases in --work for the next run")
    return parser.parse_args()


def make_namespace(args):
    if os.geteuid() != 0 or not shutil.which("ip") or not shutil.which("tc"):
        log("not root, or no ip and tc: no namespace, the loopback is not throttled")
        return Namespace(None, None, False)
    try:
        return Namespace(args.rate, args.delay_ms, True)
    except (OSError, subprocess.CalledProcessError):
        if not args.tiny:
            raise
        # The smoke run checks the harness, not the link.
        log("no namespace could be made: the loopback is not throttled")
        return Namespace(None, None, False)


def stop_on_sigterm():
    def stop(signum, frame):
        raise KeyboardInterrupt
    signal.signal(signal.SIGTERM, stop)


def main():
    args = parse_arguments()
    stop_on_sigterm()
    if args.tiny:
        args.rounds = 1
    if args.update and args.publish:
        update_bin, publisher = args.update, args.publish
    else:
        update_bin, publisher = bench.build(args.build_dir)
    publisher = str(publisher.resolve())
    work = (args.work or Path(os.environ.get("TMPDIR", "/tmp")) / ("orlivo-link-%d" % os.getpid()))
    work = work.resolve()
    work.mkdir(parents=True, exist_ok=True)
    # The smoke run leaves out the workloads that need a large download or many minutes.
    names = (args.only.split(",") if args.only else
             ["libreoffice", "resume"] + ([] if args.tiny else ["many", "mirrors"]))
    args.delays = [int(d) for d in args.many_delays.split(",")]
    dereference = bench.publisher_offers(publisher, "--dereference")
    options = list(args.publish_option) + (["--dereference"] if dereference else [])
    bench.log(bench.machine_line())
    namespace = link = None
    update = results = resume = None
    tables = []
    try:
        if "libreoffice" in names:
            if args.tiny:
                update = prepare_update("tiny", work / "releases" / "tiny", "tiny",
                                        synthetic_trees, publisher, options)
            else:
                downloads = (args.downloads or args.build_dir / "downloads").resolve()
                debs = fetch_debs(downloads)
                key = "-".join(v.replace(":", "_") for v, _ in debs)
                update = prepare_update("libreoffice", work / "releases" / "libreoffice", key,
                                        debian_trees(debs, dereference), publisher, options,
                                        reference_cache=downloads / ("bsdiff-%s.size" % key))
            mirrors = work / "releases" / "mirrors"
            mirrors.mkdir(parents=True, exist_ok=True)
            for name in ("patched", "whole", "zsync"):
                (mirrors / name).unlink(missing_ok=True)
                (mirrors / name).symlink_to(update.mirrors / name)
        (work / "releases" / "mirrors").mkdir(parents=True, exist_ok=True)
        namespace = make_namespace(args)
        use_namespace = namespace.name is not None
        link = Link(work / "releases" / "mirrors", work / "nginx", namespace, args.delay_ms)
        ctx = LinkContext(Path(update_bin).resolve(), work, launcher=namespace.launcher,
                          link=link, namespace=namespace, rate=args.rate, publisher=publisher,
                          baseline=str(args.baseline_update.resolve()) if args.baseline_update
                          else None, contenders=args.contenders)
        if update:
            results = run_update(ctx, update, args.rounds)
        if {"many", "mirrors", "redirect"} & set(names):
            tls, bundle = make_test_ca(work / "ca")
        many_mirrors = "mirrors" in names and args.mirrors_release == "many"
        if {"many", "redirect"} & set(names) or many_mirrors:
            deb = fetch_many_deb((args.downloads or args.build_dir / "downloads").resolve(),
                                 args.many_package)
            many = prepare_many(work, publisher, deb, dereference, options)
        if "many" in names:
            tables += many_case(ctx, namespace, many, args, tls, bundle)
        if "redirect" in names:
            tables += redirect_case(ctx, namespace, many, args, tls, bundle)
        if many_mirrors:
            tables += mirrors_case(ctx, namespace, many / "mirror", "many", many / "files", args,
                                   tls, bundle)
        elif "mirrors" in names:
            release = bench.prepare_release(MIRRORS_RELEASE, work, publisher)
            tables += mirrors_case(ctx, namespace, release, "mirror", release / "files", args, tls,
                                   bundle)
        if "resume" in names:
            if use_namespace:
                resume = resume_case(ctx, 4 * MIB if args.tiny else RESUME_SIZE)
            else:
                log("resume skipped: without the throttled link nothing can be caught halfway")
    finally:
        if link:
            link.stop()
        if namespace:
            namespace.remove()
        shutil.rmtree(work / "runs", ignore_errors=True)
        if not args.keep:
            shutil.rmtree(work, ignore_errors=True)
    if update:
        report_update(update, results)
    if resume:
        report_resume(resume)
    report_link_tables(tables, args.rate)
    print("\nlink: %s, %d ms each way; machine: %s" % (args.rate, args.delay_ms,
                                                        bench.machine_line()))


if __name__ == "__main__":
    main()
