#!/usr/bin/env python3
"""The version server under load on loopback, next to the limit of this machine.

usage: server.py [--server BIN] [--seconds S] [--rounds N] [--sources N] [--window N]

Builds bench/udploop.c (a minimal recvmmsg/sendmmsg loop answering the same query) and
bench/udpload.c (the load generator) with cc, then, one after the other, runs each server on
core 0 and the load on core 1 (taskset): SOURCES addresses keep WINDOW queries each in flight
for S seconds, N rounds. Prints replies per second and the round trip (median and 99th
percentile), minimum and median over the rounds, and the ratio of the servers' median rates.
A second part floods the server, with its default per-source limit, from one address while
other addresses ask twice a second each, and shows how many answers each side got. Run it
alone: wrap it in the CPU lock when others build (see bench/README.md)."""
import argparse
import os
import re
import shutil
import statistics
import subprocess
import sys
import tempfile
import time

HERE = os.path.dirname(os.path.abspath(__file__))


def free_udp_port():
    import socket
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def start_server(command):
    process = subprocess.Popen(["taskset", "-c", "0"] + command, stderr=subprocess.PIPE,
                               stdout=subprocess.DEVNULL, text=True)
    time.sleep(0.5)
    if process.poll() is not None:
        sys.exit("server did not start: " + " ".join(command) + "\n" + process.stderr.read())
    return process


def stop_server(process):
    process.terminate()
    try:
        process.wait(10)
    except subprocess.TimeoutExpired:
        process.kill()
        process.wait()


def run_load(load, arguments):
    out = subprocess.run(["taskset", "-c", "1", load] + [str(a) for a in arguments],
                         check=True, capture_output=True, text=True).stdout
    return [float(field) for field in out.split()]


def measure(name, command, port, load, args):
    rounds = []
    server = start_server(command)
    try:
        for _ in range(args.rounds):
            rounds.append(run_load(load, ["load", port, args.seconds, args.sources, args.window]))
    finally:
        stop_server(server)
    rates = [r[0] for r in rounds]
    p50 = [r[1] for r in rounds]
    p99 = [r[2] for r in rounds]
    lost = sum(r[3] for r in rounds)
    print(f"| {name} | {min(rates):,.0f} | {statistics.median(rates):,.0f} | "
          f"{statistics.median(p50):.0f} | {min(p99):.0f} | {statistics.median(p99):.0f} | "
          f"{lost:.0f} |", flush=True)
    return statistics.median(rates)


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--server", default=os.path.join(HERE, "..", "build", "server",
                                                         "update-server"))
    parser.add_argument("--seconds", type=float, default=5)
    parser.add_argument("--rounds", type=int, default=5)
    parser.add_argument("--sources", type=int, default=16)
    parser.add_argument("--window", type=int, default=8)
    args = parser.parse_args()
    for tool in ("cc", "taskset"):
        if not shutil.which(tool):
            sys.exit(f"{tool} is needed")
    if os.cpu_count() < 2:
        sys.exit("two cores are needed: the server on one, the load on the other")

    work = tempfile.mkdtemp(prefix="bench-server-")
    try:
        loop, load = os.path.join(work, "udploop"), os.path.join(work, "udpload")
        for source, binary in (("udploop.c", loop), ("udpload.c", load)):
            subprocess.run(["cc", "-O2", "-o", binary, os.path.join(HERE, source)], check=True)
        with open("/proc/loadavg") as f:
            loadavg = " ".join(f.read().split()[:3])
        print(f"{time.strftime('%Y-%m-%d %H:%M UTC', time.gmtime())}, load average {loadavg}, "
              f"{args.rounds} rounds of {args.seconds:g} s, {args.sources} sources x "
              f"{args.window} in flight\n")
        print("| server | replies/s min | replies/s median | round trip p50 us | p99 us min | "
              "p99 us median | lost |")
        print("|---|---|---|---|---|---|---|")
        port = free_udp_port()
        limit = measure("minimal C loop (recvmmsg/sendmmsg)", [loop, str(port)], port, load, args)
        port = free_udp_port()
        ours = measure("update-server --reply, no effective limit",
                       [args.server, "--reply", "12,3060,100", "--listen", "127.0.0.1",
                        "--port", str(port), "--rate", "1e9", "--burst", "1e9"],
                       port, load, args)
        print(f"\nupdate-server reaches {ours / limit:.2f} of the minimal loop's median rate.\n")

        port = free_udp_port()
        server = start_server([args.server, "--reply", "12,3060,100", "--listen", "127.0.0.1",
                               "--port", str(port)])
        try:
            sent, answered, others_sent, others_answered = run_load(
                load, ["flood", port, args.seconds, args.sources])
        finally:
            stop_server(server)
        limits = re.search(r"--rate N.*default (\S+)\)", subprocess.run(
            [args.server, "--help"], capture_output=True, text=True).stdout)
        print("| flood (default limit: %s/s per source) | sent | answered |" %
              (limits.group(1) if limits else "?"))
        print("|---|---|---|")
        print(f"| one flooding source | {sent:,.0f} | {answered:,.0f} |")
        print(f"| {args.sources} other sources, 2 queries/s each | {others_sent:,.0f} | "
              f"{others_answered:,.0f} |")
    finally:
        shutil.rmtree(work)


if __name__ == "__main__":
    main()
