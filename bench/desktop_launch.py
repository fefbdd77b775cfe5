#!/usr/bin/env python3
"""Prints the desktop window's launch figures against the engine simulator, with the engine
already running (started by `tamsel engine start`): exec to the window's first paint, exec to
the engine shown as running (reused), and, with a session open and nothing happening, the
window's resident memory and CPU. Runs under Xvfb (started here, no TCP) when it is installed,
else on Qt's offscreen platform.

Usage: bench/desktop_launch.py [--runs N]
"""
import argparse
import os
import re
import shutil
import socket
import statistics
import subprocess
import tempfile
import time

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def free_display():
    for n in range(90, 400):
        if not os.path.exists(f"/tmp/.X{n}-lock") and not os.path.exists(f"/tmp/.X11-unix/X{n}"):
            return n
    raise RuntimeError("no free X display number")


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--runs", type=int, default=5)
    parser.add_argument("--tamsel", default=os.path.join(ROOT, "build", "apps", "tamsel", "tamsel"))
    parser.add_argument("--desktop", default=os.path.join(ROOT, "build", "apps", "tamsel-desktop", "tamsel-desktop"))
    args = parser.parse_args()

    work = tempfile.mkdtemp(prefix="tamsel-desktop-bench-")
    runtime = os.path.join(work, "runtime")
    os.makedirs(runtime, mode=0o700)
    home = os.path.join(work, "home")
    env = {k: v for k, v in os.environ.items() if not k.startswith("TAMSEL_")}
    env.update(HOME=home, XDG_RUNTIME_DIR=runtime, VERD_BINARY=os.path.join(ROOT, "tools", "verd-sim", "verd-sim"))
    env.pop("XDG_DATA_HOME", None)
    env.pop("XDG_CONFIG_HOME", None)
    xvfb = None
    if shutil.which("Xvfb"):
        display = free_display()
        xvfb = subprocess.Popen(["Xvfb", f":{display}", "-screen", "0", "1280x800x24", "-nolisten", "tcp"],
                                stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        while not os.path.exists(f"/tmp/.X11-unix/X{display}"):
            time.sleep(0.05)
        env.update(DISPLAY=f":{display}", QT_QPA_PLATFORM="xcb")
        platform = f"Xvfb :{display}"
    else:
        env["QT_QPA_PLATFORM"] = "offscreen"
        platform = "offscreen"
    port = str(free_port())
    engine_args = f"daemon --port {{port}} --engine-home {home}/.verdane"
    common = ["--engine-port", port, "--engine-args", engine_args]
    try:
        subprocess.run([args.tamsel, *common, "engine", "start"], env=env, check=True,
                       stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        paint, running, rss, cpu = [], [], [], []
        for _ in range(args.runs):
            started = time.monotonic_ns()
            out = subprocess.run([args.desktop, *common, "--print-timings"], env=env, capture_output=True,
                                 text=True, timeout=60).stdout
            values = dict(re.findall(r"^(\w+)=([\d.]+)$", out, re.M))
            paint.append((int(values["first_paint_monotonic_ns"]) - started) / 1e6)
            running.append((int(values["engine_running_monotonic_ns"]) - started) / 1e6)
            rss.append(int(values["idle_rss_kb"]) / 1024)
            cpu.append(float(values["idle_cpu_percent"]))
        show = lambda xs, unit: f"median {statistics.median(xs):.1f} {unit} (min {min(xs):.1f}, max {max(xs):.1f})"
        print(f"platform: {platform}; {args.runs} launches; engine already running (reused)")
        print(f"exec to first paint of the window:  {show(paint, 'ms')}")
        print(f"exec to 'Tamsel Engine is running':  {show(running, 'ms')}")
        print(f"idle resident memory, session open: {show(rss, 'MB')}")
        print(f"idle CPU over 3 s, session open:    {show(cpu, '%')}")
    finally:
        subprocess.run([args.tamsel, *common, "engine", "stop"], env=env,
                       stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        if xvfb:
            xvfb.terminate()
            xvfb.wait(timeout=10)
        shutil.rmtree(work, ignore_errors=True)


if __name__ == "__main__":
    main()
