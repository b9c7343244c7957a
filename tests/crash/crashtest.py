#!/usr/bin/env python3
"""Kills the real updater (SIGKILL) at random moments of its download, staging or switch from 11 to
12 (nginx on 127.0.0.1, rate-limited; every other run over HTTPS, its requests multiplexed on one
HTTP/2 connection): every file must stay whole, old or new, the updater runnable, and the next
start must install 12 exactly. crashtest.py --update U --publish P [--runs N]"""

import argparse, hashlib, os, random, shutil, signal, socket, subprocess, sys, tempfile, time
from pathlib import Path

CLIENT = "client_linux_amd64"
PHASES = ["download", "staging", "switching"]
# The log line that opens each phase after the download.
MARKERS = {"staging": "Copy/unpack files...", "switching": "Switch to the new version..."}
SYSTEM_CAS = "/etc/ssl/certs/ca-certificates.crt"
OWN_FILES = ("mirrors.ini", "update.ini", "_old_update", "session_12.ini")


def make_release(root, updater, version):
    rng = random.Random(version)
    files = {"update": updater + (b"\n12\n" if version == 12 else b""),
             "readme.txt": (b"Orlivo %d\n" % version) * 400000,  # packed by the publisher
             "lib/libvoice.so": rng.randbytes(3_000_000),
             "data/sound.bin": rng.randbytes(2_000_000),
             "old.dat" if version == 11 else "extra/new.dat": rng.randbytes(500_000)}
    # Many small files make the switch take long enough to be hit.
    files.update({"sounds/tone%03d.wav" % i: rng.randbytes(2000 + version) for i in range(150)})
    for name, data in files.items():
        (root / name).parent.mkdir(parents=True, exist_ok=True)
        (root / name).write_bytes(data)
    (root / "update").chmod(0o755)
    return {name: hashlib.md5(data).hexdigest() for name, data in files.items()}


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def make_certificate(work):
    """A self-signed certificate for 127.0.0.1, or None where the updater could not be made to
    trust it: that needs a mount namespace of its own, to bind it over the system's CA store."""
    if subprocess.run(["unshare", "--mount", "true"], stderr=subprocess.DEVNULL).returncode != 0:
        return None
    cert, key = work / "server.pem", work / "server.key"
    subprocess.run(["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt",
                    "ec_paramgen_curve:prime256v1", "-nodes", "-days", "2", "-subj", "/CN=127.0.0.1",
                    "-addext", "subjectAltName=IP:127.0.0.1", "-keyout", key, "-out", cert],
                   check=True, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    return cert, key


def start_nginx(root, work, certificate):
    """nginx on a plain HTTP port and, with a certificate, an HTTPS one with HTTP/2; returns the
    process and the mirror URL of each. nginx writes its pid once it holds its ports; one that
    finds a port taken retries for seconds while another program answers there: then new ports."""
    for _ in range(5):
        urls = {"http": "http://127.0.0.1:%d/" % free_port()}
        servers = [(urls["http"], "")]
        if certificate:
            urls["https"] = "https://127.0.0.1:%d/" % free_port()
            servers.append((urls["https"], " ssl http2; ssl_certificate %s; ssl_certificate_key %s"
                            % certificate))
        blocks = "".join(" server { listen %s%s; root %s; location / { limit_rate 6m; } }"
                         % (url.split("/")[2], options, root) for url, options in servers)
        (work / "nginx.pid").unlink(missing_ok=True)
        (work / "nginx.conf").write_text(f"daemon off; pid {work}/nginx.pid; error_log stderr; "
                                         f"events {{}} http {{ access_log off;{blocks} }}")
        process = subprocess.Popen(["/usr/sbin/nginx", "-p", work, "-c", work / "nginx.conf"],
                                   stderr=subprocess.DEVNULL)
        for _ in range(200):
            if process.poll() is not None:
                break
            if (work / "nginx.pid").exists() and all(reachable(url) for url in urls.values()):
                return process, urls
            time.sleep(0.05)
        process.kill()
        process.wait()
    sys.exit("nginx did not start")


def reachable(url):
    with socket.socket() as s:
        return s.connect_ex(("127.0.0.1", int(url.split(":")[2].rstrip("/")))) == 0


def installed_state(install):
    # The settings' lock file may outlive a kill; the next start ignores it as stale.
    return {str(path.relative_to(install)): hashlib.md5(path.read_bytes()).hexdigest()
            for path in install.rglob("*")
            if path.is_file() and str(path.relative_to(install)) not in OWN_FILES
            and not path.name.endswith(".ini.lock")
            and not any(part.startswith(".update-") for part in path.relative_to(install).parts)}


def start(base, certificate):
    """The updater; over HTTPS it trusts the certificate as the system's own store, bound over it
    in a mount namespace of its own (exec keeps its process the one that is killed)."""
    env = {k: v for k, v in os.environ.items()
           if k not in ("DISPLAY", "WAYLAND_DISPLAY", "QT_QPA_PLATFORM")}
    trusting = ["unshare", "--mount", "sh", "-c", 'mount --bind "$0" %s && exec "$@"'
                % SYSTEM_CAS, certificate[0]] if certificate else []
    with open(base / "log.txt", "w") as log:
        return subprocess.Popen(trusting + [base / "installation/update", "--nouser", CLIENT, "12"],
                                cwd=base / "installation", env=dict(env, TMPDIR=base / "tmp"),
                                stdout=subprocess.DEVNULL, stderr=log)


def wait_for(process, base, marker, poll):
    while process.poll() is None and marker not in (base / "log.txt").read_text():
        time.sleep(poll)


def kill_during(process, base, phase, rng, download_time):
    """Kills the process in phase; returns the phase it was really in."""
    if phase == "download":
        deadline = time.monotonic() + rng.uniform(0, download_time)
        while time.monotonic() < deadline and process.poll() is None:
            time.sleep(0.001)
    else:
        wait_for(process, base, MARKERS[phase], 0.0005)
        time.sleep(rng.uniform(0, 0.05 if phase == "staging" else 0.01))
    process.send_signal(signal.SIGKILL)
    process.wait()
    text = (base / "log.txt").read_text()
    if "Update finished" in text:
        return "finished"
    return next((name for name in ("switching", "staging") if MARKERS[name] in text), "download")


def main(work):
    parser = argparse.ArgumentParser()
    parser.add_argument("--update", required=True)
    parser.add_argument("--publish", required=True)
    parser.add_argument("--runs", type=int, default=20)
    parser.add_argument("--seed", type=int, default=int(time.time()))
    args = parser.parse_args()
    rng = random.Random(args.seed)
    work.chmod(0o755)  # nginx's workers may run as another user
    updater = Path(args.update).read_bytes()
    old = make_release(work / "release-11", updater, 11)
    new = make_release(work / "release-12", updater, 12)
    subprocess.run([args.publish, work / "release-12", CLIENT, "12", work / "mirror", "--previous",
                    work / "release-11"], check=True, stdout=subprocess.DEVNULL)
    certificate = make_certificate(work)
    nginx, urls = start_nginx(work / "mirror", work, certificate)
    if not certificate:
        print("no mount namespace of its own: every run over HTTP/1.1")
    kills = {p: 0 for p in PHASES + ["finished"]}
    torn, broken_updater, mixed, incomplete = [], [], [], []
    download_times = {}
    try:
        for run in range(args.runs):
            scheme = "https" if certificate and run % 2 else "http"
            trusted = certificate if scheme == "https" else None
            base = work / ("run%d" % run)
            install = base / "installation"
            shutil.copytree(work / "release-11", install, symlinks=True)
            (install / "mirrors.ini").write_text("[mirrors]\nsize=1\n1\\mirror=m\n[m]\nurl=%s\n"
                                                 "retries=2\ntimeout=0\n" % urls[scheme])
            (base / "tmp").mkdir()
            process = start(base, trusted)
            if scheme not in download_times:
                # One whole run first: how long the download takes here.
                started = time.monotonic()
                wait_for(process, base, MARKERS["staging"], 0.005)
                download_times[scheme] = time.monotonic() - started
                if process.wait() != 0 or installed_state(install) != new:
                    sys.exit("an update without a kill failed:\n" + (base / "log.txt").read_text())
                continue
            kills[kill_during(process, base, PHASES[run % 3], rng, download_times[scheme])] += 1

            state = installed_state(install)
            torn += ["run %d: %s" % (run, name) for name, digest in state.items()
                     if digest not in (old.get(name), new.get(name))]
            if state.get("update") not in (old["update"], new["update"]) or \
                    not os.access(install / "update", os.X_OK):
                broken_updater.append("run %d" % run)
                continue
            process = start(base, trusted)
            try:
                process.wait(timeout=120)
            except subprocess.TimeoutExpired:
                process.kill()
                process.wait()
            text = (base / "log.txt").read_text()
            if process.returncode != 0 or "Update finished, version: 12" not in text:
                incomplete.append("run %d: status %s\n%s" % (run, process.returncode, text))
            elif installed_state(install) != new:
                mixed.append("run %d" % run)
            shutil.rmtree(base)
    finally:
        nginx.terminate()
        nginx.wait()
    print("kills: %d (seed %d): %s" % (sum(kills.values()), args.seed,
          ", ".join("%s %d" % item for item in kills.items())))
    print("torn files: %d, missing or damaged updater: %d, mixed after the next start: %d, "
          "not completed on the next start: %d"
          % (len(torn), len(broken_updater), len(mixed), len(incomplete)))
    print("".join("  %s\n" % line for line in torn + broken_updater + mixed + incomplete), end="")
    return 1 if torn or broken_updater or mixed or incomplete else 0


if __name__ == "__main__":
    with tempfile.TemporaryDirectory(prefix="orlivo-crash-") as work:
        sys.exit(main(Path(work)))
