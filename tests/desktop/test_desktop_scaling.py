#!/usr/bin/env python3
"""The real tamsel-desktop drawn natively on Wayland at twice the pixels (a headless weston this
script starts, output scale 2) and on X11 at a fractional 1.5 (Xvfb, QT_SCALE_FACTOR). On each,
the window must come up on that platform with that pixel ratio, its picture must have the scaled
size and not be blank, and the key texts must be on screen; on X11 a session opened by a click at
the scaled place of its row must show its messages, so every control is where it is drawn.
Screenshots are kept in $TAMSEL_SCREENSHOT_DIR/scaling when set."""
import os
import shutil
import signal
import subprocess
import sys
import tempfile
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from test_desktop_xvfb import (APP, SIM, Screen, check_not_blank, free_display, free_port,  # noqa: E402
                               png_pixels, position)

WAYLAND_PLUGIN = "libqwayland-generic.so"


def qt_has_wayland():
    for root in ("/usr/lib/x86_64-linux-gnu/qt6/plugins", "/usr/lib/aarch64-linux-gnu/qt6/plugins",
                 "/usr/lib/qt6/plugins"):
        if os.path.exists(os.path.join(root, "platforms", WAYLAND_PLUGIN)):
            return True
    return False


def wait_for_path(path, process, what, timeout=15):
    deadline = time.time() + timeout
    while not os.path.exists(path):
        assert process.poll() is None, f"{what} exited: {process.returncode}"
        assert time.time() < deadline, f"{what} did not start"
        time.sleep(0.05)


def platform_of(report):
    """(platform name, pixel ratio, logical width, logical height) from the window's report."""
    for line in report.splitlines():
        kind, text, _ = line.split("\t")
        if kind == "platform":
            name, ratio, size = text.split(" ")
            width, height = size.split("x")
            return name, float(ratio), int(width), int(height)
    raise AssertionError("no platform line:\n" + report)


class App:
    """The window against the engine simulator, in its own HOME and runtime folder."""

    def __init__(self, work, shots, env):
        self.home = os.path.join(work, "home")
        runtime = env["XDG_RUNTIME_DIR"]
        env = dict(env, HOME=self.home, VERD_BINARY=SIM)
        for k in ("XDG_DATA_HOME", "XDG_CONFIG_HOME", "TAMSEL_LOCAL_PRESENCE_TOKEN"):
            env.pop(k, None)
        os.makedirs(shots, exist_ok=True)
        os.makedirs(work, exist_ok=True)
        self.log = os.path.join(work, "app.log")
        self.proc = subprocess.Popen(
            [APP, "--engine-port", str(free_port()), "--engine-args",
             f"daemon --port {{port}} --engine-home {self.home}/.verdane", "--screenshot-dir", shots],
            env=env, stdout=subprocess.PIPE, stderr=open(self.log, "w"), text=True, cwd=runtime)
        line = self.proc.stdout.readline()
        assert line.startswith("screenshots:"), line + open(self.log).read()[-3000:]
        self.screen = Screen(self.proc, shots)

    def close(self):
        if self.proc.poll() is None:
            self.proc.send_signal(signal.SIGTERM)
            try:
                self.proc.wait(timeout=20)
            except subprocess.TimeoutExpired:
                self.proc.kill()
                self.proc.wait()
        try:
            with open(os.path.join(self.home, ".local/share/dev.tamsel.engine/daemon.pid")) as f:
                os.kill(int(f.read().strip()), signal.SIGKILL)
        except (OSError, ValueError):
            pass


def check_scaled(png, report, platform, ratio):
    name, got_ratio, width, height = platform_of(report)
    assert name == platform, (name, platform)
    assert abs(got_ratio - ratio) < 0.01, (got_ratio, ratio)
    png_width, png_height, _, _ = png_pixels(png)
    assert (png_width, png_height) == (round(width * ratio), round(height * ratio)), \
        (png_width, png_height, width, height, ratio)
    check_not_blank(png)


def wayland_at_scale_two(work, shots):
    runtime = os.path.join(work, "wayland-run")
    os.makedirs(runtime, mode=0o700)
    socket = "wayland-tamsel"
    env = dict(os.environ, XDG_RUNTIME_DIR=runtime, WAYLAND_DISPLAY=socket, QT_QPA_PLATFORM="wayland")
    env.pop("DISPLAY", None)
    weston = subprocess.Popen(
        ["weston", "--backend=headless-backend.so", f"--socket={socket}", "--width=1280",
         "--height=800", "--scale=2", "--idle-time=0", "--no-config"],
        env=env, stdout=subprocess.DEVNULL, stderr=open(os.path.join(work, "weston.log"), "w"))
    app = None
    try:
        wait_for_path(os.path.join(runtime, socket), weston, "weston")
        app = App(os.path.join(work, "wayland"), os.path.join(shots, "wayland"), env)
        png, report = app.screen.wait_for("Tamsel Engine is running", "Plan the 0.3 release")
        check_scaled(png, report, "wayland", 2)
        print(f"ok: Wayland at scale 2, {png}")
    finally:
        if app:
            app.close()
        weston.terminate()
        weston.wait(timeout=10)


def x11_at_one_and_a_half(work, shots):
    runtime = os.path.join(work, "x11-run")
    os.makedirs(runtime, mode=0o700)
    display = free_display()
    xvfb = subprocess.Popen(["Xvfb", f":{display}", "-screen", "0", "1920x1200x24", "-nolisten", "tcp"],
                            stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    env = dict(os.environ, XDG_RUNTIME_DIR=runtime, DISPLAY=f":{display}", QT_QPA_PLATFORM="xcb",
               QT_SCALE_FACTOR="1.5")
    env.pop("WAYLAND_DISPLAY", None)
    app = None
    try:
        wait_for_path(f"/tmp/.X11-unix/X{display}", xvfb, "Xvfb")
        app = App(os.path.join(work, "x11"), os.path.join(shots, "x11"), env)
        png, report = app.screen.wait_for("Tamsel Engine is running", "Plan the 0.3 release")
        check_scaled(png, report, "xcb", 1.5)
        # The report is in the window's own (logical) pixels; the X server's are 1.5 times those.
        x, y = position(report, "row", "Plan the 0.3 release")
        subprocess.run(["xdotool", "mousemove", "--sync", str(round(int(x) * 1.5)),
                        str(round(int(y) * 1.5)), "click", "1"], env=env, check=True,
                       capture_output=True)
        png, report = app.screen.wait_for("What is left before we can tag 0.3?")
        check_scaled(png, report, "xcb", 1.5)
        print(f"ok: X11 at 1.5, {png}")
    finally:
        if app:
            app.close()
        xvfb.terminate()
        xvfb.wait(timeout=10)


def main():
    keep = os.environ.get("TAMSEL_SCREENSHOT_DIR")
    work = tempfile.mkdtemp(prefix="tamsel-scaling-")
    shots = os.path.join(keep, "scaling") if keep else os.path.join(work, "shots")
    if os.path.isdir(shots):
        shutil.rmtree(shots)
    try:
        if shutil.which("weston") and qt_has_wayland():
            wayland_at_scale_two(work, shots)
        else:
            print("SKIP Wayland: weston or Qt's Wayland plugin (qt6-wayland) is not installed "
                  "(scripts/setup.sh installs both)")
        if shutil.which("Xvfb") and shutil.which("xdotool"):
            x11_at_one_and_a_half(work, shots)
        else:
            print("SKIP X11: Xvfb or xdotool is not installed (scripts/setup.sh installs both)")
        return 0
    finally:
        if not keep:
            shutil.rmtree(work, ignore_errors=True)


if __name__ == "__main__":
    sys.exit(main())
