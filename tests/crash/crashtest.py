#!/usr/bin/env python3
"""Kills the real updater at random moments and checks that no kill ever damages the installation.

Version 11 is installed; version 12, made by update-publish, is served by nginx on 127.0.0.1 at a
limited rate. Each run starts `update --nouser` in a fresh copy of version 11 and kills it with
SIGKILL during the download, the staging or the switch (taken in turn; the moment within the phase
is random). Then every file must be whole, old or new, and the updater must be there and runnable;
a second start must end with version 12 exactly.

    crashtest.py --update BUILD/app/update --publish BUILD/tools/update-publish [--runs 100]
"""

import argparse
import hashlib
import os
import random
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import time

CLIENT = "client_linux_amd64"
PHASES = ["download", "staging", "switching"]
# The log line that opens each phase.
MARKERS = {"staging": "Copy/unpack files...", "switching": "Switch to the new version..."}
OWN_FILES = ("mirrors.ini", "update.ini", "_old_update", "session_12.ini")


def write(path, data):
    os.makedirs(os.path.dirname(path), exist_ok=True)
    with open(path, "wb") as f:
        f.write(data)


def make_release(root, updater, version, rng):
    files = {"update": updater + (b"\n12\n" if version == 12 else b""),
             "readme.txt": (b"Orlivo %d\n" % version) * 400000,  # packed by the publisher
             "lib/libvoice.so": rng.randbytes(3_000_000),
             "data/sound.bin": rng.randbytes(2_000_000)}
    # Many small files make the switch take long enough to be hit.
    for i in range(150):
        files["sounds/tone%03d.wav" % i] = rng.randbytes(2000 + version)
    files["old.dat" if version == 11 else "extra/new.dat"] = rng.randbytes(500_000)
    for name, data in files.items():
        write(os.path.join(root, name), data)
    os.chmod(os.path.join(root, "update"), 0o755)
    return {name: hashlib.md5(data).hexdigest() for name, data in files.items()}


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def start_nginx(root, work, port):
    conf = os.path.join(work, "nginx.conf")
    with open(conf, "w") as f:
        f.write(f"""daemon off; pid {work}/nginx.pid; error_log stderr;
events {{}}
http {{ access_log off; server {{ listen 127.0.0.1:{port}; root {root};
  location / {{ limit_rate 6m; }} }} }}
""")
    process = subprocess.Popen(["/usr/sbin/nginx", "-p", work, "-c", conf],
                               stderr=subprocess.DEVNULL)
    for _ in range(100):
        with socket.socket() as s:
            if s.connect_ex(("127.0.0.1", port)) == 0:
                return process
        time.sleep(0.05)
    sys.exit("nginx did not start")


def installed_state(install):
    state = {}
    for dirpath, dirnames, filenames in os.walk(install):
        dirnames[:] = [d for d in dirnames if not d.startswith(".update-")]
        for name in filenames:
            path = os.path.join(dirpath, name)
            relative = os.path.relpath(path, install)
            # The settings' lock file may outlive a kill; the next start ignores it as stale.
            if relative in OWN_FILES or name.endswith(".ini.lock") or name.startswith(".update-"):
                continue
            with open(path, "rb") as f:
                state[relative] = hashlib.md5(f.read()).hexdigest()
    return state


def start_updater(install, tmp):
    env = {k: v for k, v in os.environ.items()
           if k not in ("DISPLAY", "WAYLAND_DISPLAY", "QT_QPA_PLATFORM")}
    env["TMPDIR"] = tmp
    log = open(os.path.join(tmp, "..", "log.txt"), "w+")
    process = subprocess.Popen([os.path.join(install, "update"), "--nouser", CLIENT, "12"],
                               cwd=install, env=env, stdout=subprocess.DEVNULL, stderr=log)
    return process, log


def kill_during(process, log, phase, rng, download_time):
    """Kills the process in phase; returns the phase it was really in."""
    if phase == "download":
        deadline = time.monotonic() + rng.uniform(0, download_time)
        while time.monotonic() < deadline and process.poll() is None:
            time.sleep(0.001)
    else:
        marker = MARKERS[phase]
        delay = rng.uniform(0, 0.05 if phase == "staging" else 0.01)
        while process.poll() is None:
            log.seek(0)
            if marker in log.read():
                time.sleep(delay)
                break
            time.sleep(0.0005)
    process.send_signal(signal.SIGKILL)
    process.wait()
    log.seek(0)
    text = log.read()
    if "Update finished" in text:
        return "finished"
    for name in ("switching", "staging"):
        if MARKERS[name] in text:
            return name
    return "download"


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--update", required=True)
    parser.add_argument("--publish", required=True)
    parser.add_argument("--runs", type=int, default=20)
    parser.add_argument("--seed", type=int, default=int(time.time()))
    args = parser.parse_args()
    rng = random.Random(args.seed)
    work = tempfile.mkdtemp(prefix="orlivo-crash-")
    os.chmod(work, 0o755)  # nginx's workers may run as another user
    nginx = None
    try:
        updater = open(args.update, "rb").read()
        old = make_release(os.path.join(work, "release-11"), updater, 11, random.Random(11))
        new = make_release(os.path.join(work, "release-12"), updater, 12, random.Random(12))
        mirror = os.path.join(work, "mirror")
        subprocess.run([args.publish, os.path.join(work, "release-12"), CLIENT, "12", mirror,
                        "--previous", os.path.join(work, "release-11")],
                       check=True, stdout=subprocess.DEVNULL)
        port = free_port()
        os.makedirs(os.path.join(work, "nginx"))
        nginx = start_nginx(mirror, os.path.join(work, "nginx"), port)
        mirrors = ("[mirrors]\nsize=1\n1\\mirror=m\n[m]\nurl=http://127.0.0.1:%d/\n"
                   "retries=2\ntimeout=0\n" % port)

        kills = {p: 0 for p in PHASES + ["finished"]}
        torn, broken_updater, mixed, incomplete = [], [], [], []
        download_time = None
        for run in range(args.runs):
            base = os.path.join(work, "run%d" % run)
            install, tmp = os.path.join(base, "installation"), os.path.join(base, "tmp")
            shutil.copytree(os.path.join(work, "release-11"), install, symlinks=True)
            os.makedirs(tmp)
            write(os.path.join(install, "mirrors.ini"), mirrors.encode())
            if download_time is None:
                # One whole run first: how long the download takes here.
                started = time.monotonic()
                process, log = start_updater(install, tmp)
                while process.poll() is None:
                    log.seek(0)
                    if MARKERS["staging"] in log.read():
                        break
                    time.sleep(0.005)
                download_time = time.monotonic() - started
                process.wait()
                log.seek(0)
                if process.returncode != 0 or installed_state(install) != new:
                    sys.exit("an update without a kill failed:\n" + log.read())
                continue
            phase = PHASES[run % len(PHASES)]
            process, log = start_updater(install, tmp)
            kills[kill_during(process, log, phase, rng, download_time)] += 1

            state = installed_state(install)
            for name, digest in state.items():
                if digest not in (old.get(name), new.get(name)):
                    torn.append("run %d: %s" % (run, name))
            if state.get("update") not in (old["update"], new["update"]) or \
                    not os.access(os.path.join(install, "update"), os.X_OK):
                broken_updater.append("run %d" % run)
                continue
            process, log = start_updater(install, tmp)
            try:
                process.wait(timeout=120)
            except subprocess.TimeoutExpired:
                process.kill()
                process.wait()
            log.seek(0)
            text = log.read()
            if process.returncode != 0 or "Update finished, version: 12" not in text:
                incomplete.append("run %d: status %s\n%s" % (run, process.returncode, text))
            elif installed_state(install) != new:
                mixed.append("run %d" % run)
            shutil.rmtree(base)

        killed = args.runs - 1
        print("runs: %d (seed %d), kills: %s" % (killed, args.seed,
              ", ".join("%s %d" % item for item in kills.items())))
        print("torn files: %d, missing or damaged updater: %d, mixed after the next start: %d, "
              "not completed on the next start: %d"
              % (len(torn), len(broken_updater), len(mixed), len(incomplete)))
        for line in torn + broken_updater + mixed + incomplete:
            print("  " + line)
        return 1 if torn or broken_updater or mixed or incomplete else 0
    finally:
        if nginx:
            nginx.terminate()
            nginx.wait()
        shutil.rmtree(work, ignore_errors=True)


if __name__ == "__main__":
    sys.exit(main())
