#!/usr/bin/python3
"""Times a whole update by the real `update` binary against what a user could do instead.

usage: bench/bench.py [--rounds N] [--only big-http,small-http,...] [--tiny] [--keep] ...

Every workload is published with update-publish, served from nginx (HTTP) and pyftpdlib (FTP) on
127.0.0.1, and fetched, checked and installed by each contender in turn, several rounds each.
See bench/README.md.
"""
import argparse
import dataclasses
import hashlib
import os
import random
import shutil
import statistics
import subprocess
import sys
import threading
import time
from pathlib import Path

REPO = Path(__file__).resolve().parent.parent
CLIENT_TYPE = "client_linux_amd64"
VERSION = "12"
GNU_TIME = "/usr/bin/time"
MIB = 1024 * 1024


# --- workloads ----------------------------------------------------------------------------------

@dataclasses.dataclass
class Release:
    """The files of one published release: how many, how large, how many compress."""
    name: str
    top_files: int        # incompressible files at the top level, installed as they are
    sub_files: int        # compressible files in subdirectories, published gzip-packed
    file_size: int
    compress: str = None  # update-publish --compress, when not its default


@dataclasses.dataclass
class Workload:
    name: str
    release: Release
    protocol: str         # "http" or "ftp"
    resume: bool = False  # everything already downloaded: verification and install only
    socks: bool = False   # through a SOCKS5 proxy (microsocks) on loopback


def workloads(tiny, zstd):
    """zstd: the publisher can pack with zstd, and the big workload is published that way too."""
    if tiny:
        big = Release("big", 2, 2, 300 * 1024)
        small = Release("small", 10, 10, 8 * 1024)
    else:
        big = Release("big", 20, 20, 1024 * MIB // 40)
        small = Release("small", 1000, 2000, 8 * 1024)
    chosen = [Workload("big-http", big, "http"),
              Workload("big-ftp", big, "ftp"),
              Workload("small-http", small, "http"),
              Workload("resume-http", big, "http", resume=True)]
    if zstd:
        big_zstd = dataclasses.replace(big, name="big-zstd", compress="zstd")
        chosen.append(Workload("big-zstd-http", big_zstd, "http"))
    return chosen


def extra_workloads():
    """Run only when named with --only: the big workload's gigabyte in four files, to see that
    memory does not grow with the size of a file; the small workload through a SOCKS5 proxy that
    relays without TCP_NODELAY, as simple proxies do."""
    return [Workload("huge-http", Release("huge", 2, 2, 256 * MIB), "http"),
            Workload("small-http-socks", Release("small", 1000, 2000, 8 * 1024), "http",
                     socks=True)]


def text_pool():
    """Source of compressible content: log-like lines, as libraries and data files hold."""
    rng = random.Random(7)
    words = ["module", "symbol", "voice", "codec", "frame", "buffer", "channel", "packet"]
    lines = []
    while sum(map(len, lines)) < MIB:
        lines.append("%08x %s.%s_%d = %d\n" % (rng.getrandbits(32), rng.choice(words),
                                              rng.choice(words), rng.randrange(100),
                                              rng.randrange(10000)))
    return "".join(lines).encode()


def compressible_bytes(size, rng, pool):
    """Half random, half text: packing saves about a third, as with real binaries."""
    out = bytearray()
    while len(out) < size:
        out += os.urandom(4096)
        start = rng.randrange(len(pool) - 4096)
        out += pool[start:start + 4096]
    return bytes(out[:size])


def make_release(release, directory):
    rng = random.Random(release.name)
    pool = text_pool()
    for i in range(release.top_files):
        (directory / ("asset-%04d.pak" % i)).write_bytes(os.urandom(release.file_size))
    for i in range(release.sub_files):
        path = directory / "lib" / ("%02d" % (i // 100)) / ("module-%04d.so" % i)
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_bytes(compressible_bytes(release.file_size, rng, pool))


def prepare_release(release, work, publisher):
    """Makes and publishes a release once; a work directory kept from an earlier run is reused."""
    root = work / "releases" / release.name
    stamp = root / ("stamp-%d-%d-%d" % (release.top_files, release.sub_files, release.file_size))
    if not stamp.exists():
        shutil.rmtree(root, ignore_errors=True)
        (root / "files").mkdir(parents=True)
        log("making release %s" % release.name)
        make_release(release, root / "files")
        options = ["--compress", release.compress] if release.compress else []
        run_checked([publisher] + options + [str(root / "files"), CLIENT_TYPE, VERSION,
                                             str(root / "mirror")])
        stamp.touch()
    return root


# --- the product list, as the peers read it ------------------------------------------------------

@dataclasses.dataclass
class Entry:
    section: str
    name: str
    md5: str
    size: int
    install_path: str
    packed: bool
    installed_md5: str

    @property
    def remote_path(self):
        return "%s/%s/%s" % (VERSION, self.section, self.name)

    @property
    def zstd(self):
        return self.packed and self.name.endswith(".zst")

    @property
    def staged_path(self):
        """Where the peers keep the download: the installed path, with the packing's suffix
        while packed."""
        return self.install_path + ((".zst" if self.zstd else ".gz") if self.packed else "")


def read_product_list(path):
    entries, section = [], None
    for line in path.read_text().splitlines():
        if line.startswith("["):
            section = line.strip("[]")
        elif "=" in line and section != "delete":
            name, value = line.split("=", 1)
            fields = value.split("::")
            packed = len(fields) == 5 and fields[4] != ""
            install = fields[4] if packed else name
            entries.append(Entry(section, name, fields[0], int(fields[1]), install,
                                 packed and fields[0] != fields[2],
                                 fields[2] if len(fields) == 5 else fields[0]))
    return entries


# --- servers -------------------------------------------------------------------------------------

# Requests a connection carries before nginx ends it: more than any workload makes, unless a run
# asks for nginx's own default (1000), which real mirrors keep.
KEEPALIVE_REQUESTS = 100000
NGINX_CONFIG = """daemon off;
master_process off;
worker_processes 1;
pid {work}/nginx.pid;
error_log {work}/error.log warn;
events {{ worker_connections 512; }}
http {{
    default_type application/octet-stream;
    access_log off;
    client_body_temp_path {work}/body;
    proxy_temp_path {work}/proxy;
    fastcgi_temp_path {work}/fastcgi;
    uwsgi_temp_path {work}/uwsgi;
    scgi_temp_path {work}/scgi;
    sendfile on;
    keepalive_requests {requests};
    keepalive_timeout 120s;
    server {{
        listen {listen};
        root {root};
        # As the README has publishers do: lists and manifests compressed for those who ask.
        location ~ \\.(ini|manifest)$ {{
            gzip on;
            gzip_types *;
        }}
    }}
}}
"""


def free_port():
    import socket
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def wait_for_server(address, process):
    """Until the server that process runs accepts connections at address: a loopback port, or
    the path of a Unix socket."""
    import socket
    family = socket.AF_INET if isinstance(address, int) else socket.AF_UNIX
    target = ("127.0.0.1", address) if isinstance(address, int) else str(address)
    for _ in range(200):
        if process.poll() is not None:
            raise RuntimeError("server exited early")
        try:
            with socket.socket(family) as probe:
                probe.settimeout(1)
                probe.connect(target)
            return
        except OSError:
            time.sleep(0.05)
    raise RuntimeError("server did not come up on %s" % address)


class Servers:
    """nginx and pyftpdlib serving one mirror root on loopback ports, until stop()."""

    def __init__(self, root, work):
        self.processes = []
        self.http_port = self.start_nginx(root, work / "nginx")
        self.ftp_port = self.start_ftp(root, work / "ftp") if have_pyftpdlib() else None
        self.socks_port = None

    def start_nginx(self, root, work):
        work.mkdir(parents=True, exist_ok=True)
        port = free_port()
        config = work / "nginx.conf"
        config.write_text(NGINX_CONFIG.format(work=work, listen="127.0.0.1:%d" % port, root=root,
                                              requests=KEEPALIVE_REQUESTS))
        process = subprocess.Popen(["/usr/sbin/nginx", "-p", str(work), "-c", str(config),
                                    "-e", "stderr"], stderr=subprocess.DEVNULL)
        self.processes.append(process)
        wait_for_server(port, process)
        return port

    def start_ftp(self, root, work):
        work.mkdir(parents=True, exist_ok=True)
        script = REPO / "tests" / "support" / "ftp_server.py"
        process = subprocess.Popen(["/usr/bin/python3", str(script), str(work / "ftp.log"),
                                    str(root)], stdout=subprocess.PIPE, text=True)
        self.processes.append(process)
        words = process.stdout.readline().split()
        if len(words) != 2 or words[0] != "ready":
            raise RuntimeError("FTP server did not start")
        return int(words[1])

    def url(self, protocol):
        port = self.http_port if protocol == "http" else self.ftp_port
        return "%s://127.0.0.1:%d/" % (protocol, port)

    def socks_url(self):
        """microsocks on loopback, started at the first call."""
        if self.socks_port is None:
            self.socks_port = free_port()
            self.processes.append(subprocess.Popen(
                ["microsocks", "-i", "127.0.0.1", "-p", str(self.socks_port)],
                stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL))
            wait_for_server(self.socks_port, self.processes[-1])
        return "socks5://127.0.0.1:%d" % self.socks_port

    def stop(self):
        for process in self.processes:
            process.terminate()
            process.wait()


def have_pyftpdlib():
    return subprocess.run(["/usr/bin/python3", "-c", "import pyftpdlib"],
                          stderr=subprocess.DEVNULL).returncode == 0


# --- measuring one run ---------------------------------------------------------------------------

@dataclasses.dataclass
class Measurement:
    seconds: float
    rss_kb: int = None
    phases: dict = dataclasses.field(default_factory=dict)


def measure(command, rnd, cwd=None, env=None, stamps=(), launcher=()):
    """Runs command under GNU time; returns its wall time, peak RSS and when each line of stamps
    first appeared on its standard error (seconds from the start). Its standard error is kept in
    the round's directory. launcher goes before the command (a network namespace to run in)."""
    time_file = rnd.dir / "time.out"
    command = list(launcher) + command
    wrapped = [GNU_TIME, "-f", "%M", "-o", str(time_file)] + command if has_gnu_time() else command
    seen, lines = {}, []
    sync_disks()
    start = time.monotonic()
    process = subprocess.Popen(wrapped, cwd=cwd or rnd.dir, env=env, stdout=subprocess.DEVNULL,
                               stderr=subprocess.PIPE)

    def read_stderr():
        for raw in process.stderr:
            line = raw.decode(errors="replace").rstrip("\n")
            lines.append("%8.3f %s" % (time.monotonic() - start, line))
            for stamp in stamps:
                if stamp not in seen and line.startswith(stamp):
                    seen[stamp] = time.monotonic() - start

    reader = threading.Thread(target=read_stderr)
    reader.start()
    status = process.wait()
    seconds = time.monotonic() - start
    reader.join()
    (rnd.dir / "stderr.log").write_text("\n".join(lines) + "\n")
    if status != 0:
        raise RuntimeError("%s exited with %d:\n%s" % (command[0], status, "\n".join(lines[-20:])))
    rss = int(time_file.read_text().split()[-1]) if has_gnu_time() else None
    return Measurement(seconds, rss, seen)


def has_gnu_time():
    return os.access(GNU_TIME, os.X_OK)


def sync_disks():
    """Writes from the previous run must not be flushed on the next one's time."""
    os.sync()


# --- contenders ----------------------------------------------------------------------------------

UPDATER_PHASES = ["Download file list retrieved.", "Verification of", "Download finished.",
                  "Copy updated files...", "Updated files copied", "Temporary files removed."]


def spread_directories(path):
    """Asks ext4 to place the directories made in path in block groups of their own, as it does
    for top-level ones. Without a journal, ext4 skips inodes freed in the last minutes when it
    makes a file, scanning past them one by one: thousands of files deleted by one contender
    would make the next one that creates files in the same group pay several times over."""
    import fcntl
    import struct
    get_flags, set_flags, topdir = 0x80086601, 0x40086602, 0x00020000
    try:
        fd = os.open(path, os.O_RDONLY)
        try:
            flags = struct.unpack("l", fcntl.ioctl(fd, get_flags, struct.pack("l", 0)))[0]
            fcntl.ioctl(fd, set_flags, struct.pack("l", flags | topdir))
        finally:
            os.close(fd)
    except OSError:
        pass  # another file system: nothing to spread


class Round:
    """A private directory for one contender's run: installation, TMPDIR, staging."""

    def __init__(self, work, label, first):
        self.dir = work / "runs" / label
        self.first = first
        shutil.rmtree(self.dir, ignore_errors=True)
        self.install = self.dir / "install"
        self.tmp = self.dir / "tmp"
        self.stage = self.dir / "stage"
        for d in (self.install, self.tmp, self.stage):
            d.mkdir(parents=True)

    def remove(self):
        shutil.rmtree(self.dir, ignore_errors=True)


def updater_command(ctx, workload, rnd, update_bin=None):
    """Sets up the installation in rnd for the updater (update_bin, by default the one timed);
    returns its command line and environment."""
    shutil.copy2(update_bin or ctx.update_bin, rnd.install / "update")
    (rnd.install / "mirrors.ini").write_text(
        "[mirrors]\nsize=1\n1\\mirror=bench\n\n[bench]\nurl=%s\n" % ctx.servers.url(workload.protocol))
    update_ini = "[update]\nstreams=4\n"
    if workload.socks:
        update_ini += "proxy=%s\n" % ctx.servers.socks_url()
    if workload.resume:
        working = rnd.tmp / "orlivo_temp_0"
        shutil.copytree(ctx.mirror / VERSION, working)
        update_ini += "\n[current]\nversion=%s\ndir=%s\ntype=%s\n" % (VERSION, working, CLIENT_TYPE)
    (rnd.install / "update.ini").write_text(update_ini)
    runtime = rnd.dir / "runtime"
    runtime.mkdir(mode=0o700)
    env = dict(os.environ, QT_QPA_PLATFORM="offscreen", TMPDIR=str(rnd.tmp),
               XDG_RUNTIME_DIR=str(runtime), LC_ALL="C.UTF-8", LANG="C.UTF-8")
    return [str(rnd.install / "update"), "--nouser", CLIENT_TYPE, VERSION], env


def run_updater(ctx, workload, rnd, update_bin=None):
    command, env = updater_command(ctx, workload, rnd, update_bin)
    if ctx.perf_dir and rnd.first and not update_bin:
        command = ["perf", "record", "-q", "-g", "-F", "499", "-o",
                   str(ctx.perf_dir / ("%s.perf.data" % workload.name))] + command
    result = measure(command, rnd, env=env, stamps=UPDATER_PHASES, launcher=ctx.launcher)
    if any(rnd.tmp.glob("orlivo_temp_*")):
        raise RuntimeError("the updater left its working directory behind")
    return result


def run_baseline(ctx, workload, entries, rnd):
    return run_updater(ctx, workload, rnd, ctx.baseline_bin)


def peer_script(entries, rnd, fetch, check=True):
    """One shell pipeline: fetch, check (unless the fetch did), unpack in place, copy into the
    installation."""
    packed = rnd.dir / "packed.list"
    packed.write_text("".join(e.staged_path + "\n" for e in entries if e.packed and not e.zstd))
    zstd_packed = rnd.dir / "zstd-packed.list"
    zstd_packed.write_text("".join(e.staged_path + "\n" for e in entries if e.zstd))
    steps = ["set -e", fetch, "cd %s" % rnd.stage]
    if check:
        sums = rnd.dir / "sums.md5"
        sums.write_text("".join("%s  %s\n" % (e.md5, e.staged_path) for e in entries))
        steps.append("md5sum --quiet --strict -c %s" % sums)
    steps += ["xargs -d '\\n' -r gzip -d < %s" % packed,
              "xargs -d '\\n' -r zstd -d -q --rm < %s" % zstd_packed, "cp -r . %s/" % rnd.install]
    return ["/bin/bash", "-c", "\n".join(steps)]


def run_curl(ctx, workload, entries, rnd):
    base = ctx.servers.url(workload.protocol)
    config = rnd.dir / "curl.config"
    config.write_text("".join('url = "%s%s"\noutput = "%s"\n' % (base, e.remote_path,
                                                                 rnd.stage / e.staged_path)
                              for e in entries)
                      + 'url = "%s%s/%s.ini"\noutput = "%s/list.ini"\n' % (base, VERSION,
                                                                           CLIENT_TYPE, rnd.dir))
    fetch = ("curl --silent --show-error --fail --parallel --parallel-max 4 --create-dirs "
             "--config %s" % config)
    if workload.socks:
        fetch += " --proxy %s" % ctx.servers.socks_url()
    return measure(peer_script(entries, rnd, fetch), rnd, launcher=ctx.launcher)


def run_aria2(ctx, workload, entries, rnd):
    base = ctx.servers.url(workload.protocol)
    inputs = rnd.dir / "aria2.input"
    lines = []
    for e in entries:
        target = rnd.stage / e.staged_path
        lines += ["%s%s" % (base, e.remote_path), "  dir=%s" % target.parent,
                  "  out=%s" % target.name, "  checksum=md5=%s" % e.md5]
    lines += ["%s%s/%s.ini" % (base, VERSION, CLIENT_TYPE), "  dir=%s" % rnd.dir, "  out=list.ini"]
    inputs.write_text("\n".join(lines) + "\n")
    # aria2c 1.36 reusing an FTP control connection waits 60 s per file for a "226" that
    # pyftpdlib has already sent; a connection per file is how it works at all.
    fetch = ("aria2c -q -j4 -x1 -s1 --file-allocation=none --allow-overwrite=true "
             "--auto-file-renaming=false --summary-interval=0 --ftp-reuse-connection=false "
             "--input-file=%s" % inputs)
    return measure(peer_script(entries, rnd, fetch, check=False), rnd, launcher=ctx.launcher)


def run_md5sum(ctx, workload, entries, rnd):
    sums = rnd.dir / "sums.md5"
    sums.write_text("".join("%s  %s/%s\n" % (e.md5, e.section, e.name) for e in entries))
    return measure(["md5sum", "--quiet", "--strict", "-c", str(sums)], rnd, cwd=ctx.mirror / VERSION)


def run_installer(ctx, workload, entries, rnd):
    """The install half of the curl pipeline over files already in place."""
    for e in entries:
        target = rnd.stage / e.staged_path
        target.parent.mkdir(parents=True, exist_ok=True)
        shutil.copyfile(ctx.mirror / e.remote_path, target)
    return measure(peer_script(entries, rnd, "true"), rnd)


def contenders(workload, baseline):
    """Interleaved round by round, so that both binaries meet the disk in the same states."""
    updaters = [("updater", run_updater)] + ([("updater before", run_baseline)] if baseline else [])
    if workload.resume:
        return updaters + [("md5sum -c + gzip -d + cp", run_installer), ("md5sum", run_md5sum)]
    # aria2c speaks no SOCKS.
    return updaters + [("curl + md5sum + gzip -d + cp", run_curl)] + (
        [] if workload.socks else [("aria2c + gzip -d + cp", run_aria2)])


def available(name, protocol, servers):
    if protocol == "ftp" and servers.ftp_port is None:
        return False
    tool = name.split()[0]
    return tool == "updater" or shutil.which(tool) is not None


# --- checking what a contender installed ----------------------------------------------------------

def verify_installation(install, release_files):
    for path in release_files.rglob("*"):
        if path.is_file():
            installed = install / path.relative_to(release_files)
            if not installed.is_file() or file_md5(installed) != file_md5(path):
                raise RuntimeError("%s is missing or wrong" % installed)


def file_md5(path):
    digest = hashlib.md5()
    with open(path, "rb") as f:
        for block in iter(lambda: f.read(MIB), b""):
            digest.update(block)
    return digest.hexdigest()


# --- running and reporting -----------------------------------------------------------------------

@dataclasses.dataclass
class Context:
    update_bin: Path
    work: Path
    servers: Servers = None
    mirror: Path = None
    perf_dir: Path = None
    launcher: tuple = ()
    baseline_bin: Path = None


def run_workload(ctx, workload, rounds):
    root = ctx.work / "releases" / workload.release.name
    entries = read_product_list(ctx.mirror / VERSION / (CLIENT_TYPE + ".ini"))
    runners = [(n, f) for n, f in contenders(workload, ctx.baseline_bin)
               if available(n, workload.protocol, ctx.servers)]
    results = {name: [] for name, _ in runners}
    runs = ctx.work / "runs"
    runs.mkdir(exist_ok=True)
    spread_directories(runs)
    # Many small files: deleted only once the workload is done (see spread_directories). Large
    # files go at once, so that their pages are never written back during a later run.
    many_files = len(entries) > 100
    finished = []
    for r in range(rounds):
        # Rotated, so that no contender always runs right after the same other one.
        order = runners[r % len(runners):] + runners[:r % len(runners)]
        for name, runner in order:
            label = "-".join(name.split()[:2]) if name.startswith("updater") else name.split()[0]
            rnd = Round(ctx.work, "%s-%s-%d" % (workload.name, label, r), r == 0)
            if runner is run_updater:
                result = runner(ctx, workload, rnd)
            else:
                result = runner(ctx, workload, entries, rnd)
            if name != "md5sum":
                verify_installation(rnd.install, root / "files")
            results[name].append(result)
            log("%-12s %-30s round %d: %6.2f s" % (workload.name, name, r + 1, result.seconds))
            finished.append(rnd)
            if not many_files:
                rnd.remove()
    for rnd in finished:
        rnd.remove()
    return results, sum(e.size for e in entries)


def summarize(workload, results, payload):
    rows = []
    peers = {n: statistics.median(m.seconds for m in ms) for n, ms in results.items()
             if not n.startswith("updater") and n != "md5sum"}
    best = min(peers.values()) if peers else None
    for name, ms in results.items():
        times = [m.seconds for m in ms]
        rss = [m.rss_kb for m in ms if m.rss_kb is not None]
        median = statistics.median(times)
        ratio = "%.2f" % (median / best) if name.startswith("updater") and best else ""
        rows.append("| %s | %s | %.2f | %.2f | %.2f | %s | %.0f | %s |" % (
            workload.name, name, median, min(times), max(times),
            "%.1f" % (max(rss) / 1024) if rss else "n/a", payload / median / 1e6, ratio))
    return rows


def phase_span(measurements, begin, end):
    """Median seconds from the log line begin (None: the start) to end (None: the exit)."""
    spans = []
    for m in measurements:
        t0 = m.phases.get(begin, 0.0) if begin else 0.0
        t1 = m.phases.get(end, m.seconds) if end else m.seconds
        spans.append(t1 - t0)
    return statistics.median(spans)


INSTALL_PHASE = ("Copy updated files...", "Updated files copied")


def phase_lines(workload, measurements):
    """Where the updater's time went, from the moments its log lines appeared."""
    marks = [("start, list", None, "Download file list retrieved."),
             ("verification", "Download file list retrieved.", "Verification of"),
             ("download", "Verification of", "Download finished."),
             ("install",) + INSTALL_PHASE,
             ("clean-up, exit", "Updated files copied", None)]
    cells = ["%s %.2f" % (label, phase_span(measurements, begin, end))
             for label, begin, end in marks]
    return "%s: %s" % (workload.name, ", ".join(cells))


def verification_line(results, payload):
    updater = results.get("updater", [])
    md5 = results.get("md5sum", [])
    if not updater or not md5:
        return None
    spans = [m.phases["Verification of"] - m.phases["Download file list retrieved."]
             for m in updater]
    ours = payload / statistics.median(spans) / 1e6
    theirs = payload / statistics.median(m.seconds for m in md5) / 1e6
    return ("resume verification: updater %.0f MB/s, md5sum %.0f MB/s (%.0f%%)"
            % (ours, theirs, 100 * ours / theirs))


def report(all_results):
    print()
    print("| workload | contender | median s | min s | max s | peak RSS MB | MB/s | vs best peer |")
    print("|---|---|---|---|---|---|---|---|")
    for workload, (results, payload) in all_results:
        for row in summarize(workload, results, payload):
            print(row)
    print()
    print("Updater phases (median seconds):")
    for workload, (results, payload) in all_results:
        for name, measurements in results.items():
            if name.startswith("updater"):
                print("  %s%s" % ("" if name == "updater" else "(%s) " % name,
                                  phase_lines(workload, measurements)))
    for workload, (results, payload) in all_results:
        if workload.resume:
            line = verification_line(results, payload)
            if line:
                print("  " + line)
    installs = {w.name: phase_span(r["updater"], *INSTALL_PHASE)
                for w, (r, _) in all_results if r.get("updater")}
    if "big-http" in installs and "big-zstd-http" in installs:
        print("  install phase, zstd against gzip: %.2f s / %.2f s = %.2f"
              % (installs["big-zstd-http"], installs["big-http"],
                 installs["big-zstd-http"] / installs["big-http"]))


def machine_line():
    model = next((l.split(":", 1)[1].strip() for l in open("/proc/cpuinfo")
                  if l.startswith("model name")), "unknown CPU")
    mem = next(int(l.split()[1]) for l in open("/proc/meminfo") if l.startswith("MemTotal"))
    return "%d cores, %.1f GB RAM, %s; load %s" % (os.cpu_count(), mem / 1e6, model,
                                                  " ".join(open("/proc/loadavg").read().split()[:3]))


# --- setup ---------------------------------------------------------------------------------------

def build(build_dir):
    run_checked(["cmake", "-S", str(REPO), "-B", str(build_dir), "-G", "Ninja",
                 "-DCMAKE_BUILD_TYPE=Release"])
    run_checked(["cmake", "--build", str(build_dir), "--target", "update", "update-publish"])
    return build_dir / "app" / "update", build_dir / "tools" / "update-publish"


def publisher_offers(publisher, option):
    result = subprocess.run([publisher, "--help"], stdout=subprocess.PIPE,
                            stderr=subprocess.STDOUT, text=True)
    return option in result.stdout


def run_checked(command, **kwargs):
    subprocess.run(command, check=True, **kwargs)


def log(text):
    print("bench: " + text, file=sys.stderr, flush=True)


def parse_arguments():
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("--rounds", type=int, default=3)
    parser.add_argument("--only", help="comma-separated workload names")
    parser.add_argument("--tiny", action="store_true",
                        help="a few small files, one round, nothing installed: a smoke test")
    parser.add_argument("--build-dir", type=Path, default=REPO / "build-bench")
    parser.add_argument("--update", type=Path, help="use this update binary, build nothing")
    parser.add_argument("--publish", type=Path, help="use this update-publish binary")
    parser.add_argument("--baseline-update", type=Path,
                        help="an earlier update binary, timed beside this one")
    parser.add_argument("--work", type=Path, help="work directory (default: a fresh one)")
    parser.add_argument("--keep", action="store_true",
                        help="keep the generated releases in --work for the next run")
    parser.add_argument("--perf", type=Path, help="record the updater's first rounds here")
    return parser.parse_args()


def main():
    args = parse_arguments()
    if args.tiny:
        args.rounds = 1
    if args.update and args.publish:
        update_bin, publisher = args.update, args.publish
    else:
        update_bin, publisher = build(args.build_dir)
    work = (args.work or Path(os.environ.get("TMPDIR", "/tmp")) / ("orlivo-bench-%d" % os.getpid()))
    work = work.resolve()
    work.mkdir(parents=True, exist_ok=True)
    ctx = Context(update_bin.resolve(), work, perf_dir=args.perf,
                  baseline_bin=args.baseline_update.resolve() if args.baseline_update else None)
    if args.perf:
        args.perf.mkdir(parents=True, exist_ok=True)
    names = args.only.split(",") if args.only else None
    zstd = publisher_offers(str(publisher), "--compress")
    if not zstd and (not names or "big-zstd-http" in names):
        log("big-zstd-http skipped: update-publish offers no --compress")
    chosen = [w for w in workloads(args.tiny, zstd) if not names or w.name in names]
    chosen += [w for w in extra_workloads() if names and w.name in names]
    log(machine_line())
    all_results = []
    try:
        for release in {w.release.name: w.release for w in chosen}.values():
            root = prepare_release(release, work, str(publisher))
            ctx.mirror = root / "mirror"
            ctx.servers = Servers(ctx.mirror, work / "servers" / release.name)
            try:
                for workload in (w for w in chosen if w.release is release):
                    all_results.append((workload, run_workload(ctx, workload, args.rounds)))
            finally:
                ctx.servers.stop()
    finally:
        shutil.rmtree(work / "runs", ignore_errors=True)
        if not args.keep:
            shutil.rmtree(work, ignore_errors=True)
    report(all_results)
    print("\nmachine: " + machine_line())


if __name__ == "__main__":
    main()
