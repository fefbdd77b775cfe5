#!/usr/bin/env python3
"""Prints two figures of the engine supervisor, measured against the engine simulator:
start-to-running time of `tamsel engine start` (median of several cold starts), and the resident
memory of an idle `tamsel run` after it has settled.

Usage: bench/engine_start_and_idle.py [--runs N] [--tamsel PATH]
"""
import argparse
import os
import signal
import socket
import statistics
import subprocess
import sys
import tempfile
import time

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def environment(home):
    env = {k: v for k, v in os.environ.items() if not k.startswith("TAMSEL_")}
    env.update(HOME=home, XDG_DATA_HOME=os.path.join(home, "data"), XDG_CONFIG_HOME=os.path.join(home, "config"),
               VERD_BINARY=os.path.join(ROOT, "tools", "verd-sim", "verd-sim"))
    return env


def rss_kib(pid):
    with open(f"/proc/{pid}/status") as f:
        for line in f:
            if line.startswith("VmRSS:"):
                return int(line.split()[1])
    return 0


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--runs", type=int, default=5)
    parser.add_argument("--tamsel", default=os.path.join(ROOT, "build", "apps", "tamsel", "tamsel"))
    args = parser.parse_args()

    times = []
    for _ in range(args.runs):
        with tempfile.TemporaryDirectory() as home:
            port = str(free_port())
            env = environment(home)
            started = time.monotonic()
            subprocess.run([args.tamsel, "--engine-port", port, "engine", "start"], env=env, check=True,
                           stdout=subprocess.DEVNULL)
            times.append(time.monotonic() - started)
            subprocess.run([args.tamsel, "--engine-port", port, "engine", "stop"], env=env, check=True,
                           stdout=subprocess.DEVNULL)
    print(f"engine start to running: median {statistics.median(times) * 1000:.0f} ms, "
          f"min {min(times) * 1000:.0f} ms, max {max(times) * 1000:.0f} ms over {len(times)} cold starts")

    with tempfile.TemporaryDirectory() as home:
        port = str(free_port())
        run = subprocess.Popen([args.tamsel, "--engine-port", port, "run"], env=environment(home),
                               stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        try:
            time.sleep(6)  # past start-up and one health check
            print(f"idle `tamsel run` resident memory: {rss_kib(run.pid) / 1024:.1f} MiB")
        finally:
            run.send_signal(signal.SIGINT)
            run.wait(timeout=15)
    return 0


if __name__ == "__main__":
    sys.exit(main())
