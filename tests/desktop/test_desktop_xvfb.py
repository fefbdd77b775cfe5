#!/usr/bin/env python3
"""The real tamsel-desktop on an X server this script starts (Xvfb, no TCP, a free display),
against the engine simulator the window starts itself: a short conversation typed with real X
key events, an approval answered by clicking its button, a queued message, a search that finds
a session by the text of its messages, the settings and the always-allowed tools, a short
meeting recorded from a test audio server and sealed, the window summoned back by a double tap
of Alt after another client took the keyboard, then quit. Each step saves a screenshot (kept in $TAMSEL_SCREENSHOT_DIR, else a temporary
folder) that must not be blank and whose screen text must hold the step's key texts."""
import os
import shutil
import signal
import socket
import struct
import subprocess
import sys
import tempfile
import time
import zlib

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
APP = os.environ.get("TAMSEL_DESKTOP_BIN", os.path.join(ROOT, "build/apps/tamsel-desktop/tamsel-desktop"))
SIM = os.environ.get("VERD_SIM", os.path.join(ROOT, "tools/verd-sim/verd-sim"))
XTEST_KEYS = os.environ.get("XTEST_KEYS", os.path.join(ROOT, "build/tests/xtest_keys"))
sys.path.insert(0, os.path.join(ROOT, "tests", "integration"))
from audio_servers import AudioServer, have  # noqa: E402


def free_display():
    for n in range(90, 400):
        if not os.path.exists(f"/tmp/.X{n}-lock") and not os.path.exists(f"/tmp/.X11-unix/X{n}"):
            return n
    raise RuntimeError("no free X display number")


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def png_pixels(path):
    """Decodes an 8-bit RGB or RGBA PNG (what Qt writes) into rows of bytes."""
    data = open(path, "rb").read()
    assert data[:8] == b"\x89PNG\r\n\x1a\n", path
    pos, idat = 8, b""
    while pos < len(data):
        length, kind = struct.unpack(">I4s", data[pos:pos + 8])
        body = data[pos + 8:pos + 8 + length]
        if kind == b"IHDR":
            width, height, depth, colour = struct.unpack(">IIBB", body[:10])
        elif kind == b"IDAT":
            idat += body
        pos += 12 + length
    assert depth == 8 and colour in (2, 6), (depth, colour)
    bpp = 3 if colour == 2 else 4
    raw, stride, rows, prev = zlib.decompress(idat), width * bpp, [], bytearray(width * bpp)
    for y in range(height):
        f, line = raw[y * (stride + 1)], bytearray(raw[y * (stride + 1) + 1:(y + 1) * (stride + 1)])
        for i in range(stride):
            a = line[i - bpp] if i >= bpp else 0
            b, c = prev[i], prev[i - bpp] if i >= bpp else 0
            if f == 1: line[i] = (line[i] + a) & 255
            elif f == 2: line[i] = (line[i] + b) & 255
            elif f == 3: line[i] = (line[i] + (a + b) // 2) & 255
            elif f == 4:
                p = a + b - c
                pa, pb, pc = abs(p - a), abs(p - b), abs(p - c)
                line[i] = (line[i] + (a if pa <= pb and pa <= pc else b if pb <= pc else c)) & 255
        rows.append(bytes(line))
        prev = line
    return width, height, bpp, rows


def check_not_blank(path, min_width=600, min_height=400):
    width, height, bpp, rows = png_pixels(path)
    colours, background, counts = set(), None, 0
    for y in range(0, height, 2):
        row = rows[y]
        for x in range(0, width, 2):
            px = row[x * bpp:x * bpp + 3]
            colours.add(px)
            background = background or px
            counts += px != background
    samples = (height // 2) * (width // 2)
    assert width >= min_width and height >= min_height, (path, width, height)
    assert len(colours) >= 16, f"{path}: only {len(colours)} colours"
    assert counts > samples * 0.05, f"{path}: {counts} of {samples} samples differ from the corner"


class Screen:
    def __init__(self, app, folder):
        self.app, self.folder, self.count = app, folder, 0

    def shot(self):
        self.count += 1
        png = os.path.join(self.folder, f"screen-{self.count}.png")
        self.app.send_signal(signal.SIGUSR1)
        deadline = time.time() + 10
        text = os.path.join(self.folder, f"screen-{self.count}.txt")
        while not (os.path.exists(png) and os.path.exists(text)) and time.time() < deadline:
            time.sleep(0.05)
        time.sleep(0.1)
        return png, open(text, encoding="utf-8").read()

    def wait_for(self, *texts, timeout=20):
        """Screenshots until every text shows; returns the last (png, report)."""
        deadline = time.time() + timeout
        while True:
            png, report = self.shot()
            if all(t in report for t in texts):
                return png, report
            if time.time() > deadline:
                raise AssertionError(f"not on screen: {texts}\n{report}")
            time.sleep(0.3)


def position(report, kind, text):
    for line in report.splitlines():
        k, t, xy = line.split("\t")
        if k == kind and t == text:
            x, y = xy.split(",")
            return x, y
    raise AssertionError(f"no {kind} {text!r} on screen:\n{report}")


def record_meeting(screen, report, xdo, audio, home):
    """Ctrl+M opens the meetings panel; a few seconds recorded while both tracks hear a tone, then
    stopped: the recording is sealed and listed with its state."""
    x, y = position(report, "text", "")
    xdo("mousemove", "--sync", x, y, "click", "1")
    xdo("key", "ctrl+m")
    png, report = screen.wait_for("Record a meeting", "Not recording")
    audio.play("speakers", 440, 6)
    audio.play("mic_feed", 660, 6)
    x, y = position(report, "button", "Record a meeting")
    xdo("mousemove", "--sync", x, y, "click", "1")
    png, report = screen.wait_for("Recording into", "Stop recording")
    png, report = screen.wait_for("0:03", timeout=15)
    check_not_blank(png)
    x, y = position(report, "button", "Stop recording")
    xdo("mousemove", "--sync", x, y, "click", "1")
    # Sealed: its job waits for the next stage with combined.m4a beside the tracks.
    png, report = screen.wait_for("Last meeting: sealed", "| sealed |", timeout=60)
    check_not_blank(png)
    sealed = [os.path.join(d, f) for d, _, files in os.walk(home) for f in files
              if f == "combined.m4a"]
    assert len(sealed) == 1 and os.path.getsize(sealed[0]) > 1000, sealed
    xdo("key", "ctrl+m")


def main():
    for tool in ("Xvfb", "xdotool"):
        if not shutil.which(tool):
            print(f"SKIP: {tool} is not installed (scripts/setup.sh installs it)")
            return 0
    keep = os.environ.get("TAMSEL_SCREENSHOT_DIR")
    work = tempfile.mkdtemp(prefix="tamsel-xvfb-")
    shots = keep or os.path.join(work, "shots")
    os.makedirs(shots, exist_ok=True)
    for old in os.listdir(shots):
        if old.startswith("screen-"):
            os.remove(os.path.join(shots, old))
    runtime = os.path.join(work, "runtime")
    os.makedirs(runtime, mode=0o700)
    display = free_display()
    xvfb = subprocess.Popen(["Xvfb", f":{display}", "-screen", "0", "1280x800x24", "-nolisten", "tcp"],
                            stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    app = audio = None
    try:
        deadline = time.time() + 10
        while not os.path.exists(f"/tmp/.X11-unix/X{display}"):
            assert xvfb.poll() is None and time.time() < deadline, "Xvfb did not start"
            time.sleep(0.05)
        home = os.path.join(work, "home")
        env = dict(os.environ, HOME=home, XDG_RUNTIME_DIR=runtime, DISPLAY=f":{display}",
                   VERD_BINARY=SIM, QT_QPA_PLATFORM="xcb")
        if have("pulseaudio", "pactl", "pacat", "sox"):
            audio = AudioServer("pulseaudio").start()
            env["PULSE_SERVER"] = "unix:" + os.path.join(audio.runtime, "pulse", "native")
        else:
            print("note: no pulseaudio/pacat/sox here, so no meeting is recorded")
        for k in ("XDG_DATA_HOME", "XDG_CONFIG_HOME", "TAMSEL_LOCAL_PRESENCE_TOKEN", "WAYLAND_DISPLAY"):
            env.pop(k, None)
        app = subprocess.Popen([APP, "--engine-port", str(free_port()), "--engine-args",
                                f"daemon --port {{port}} --engine-home {home}/.verdane",
                                "--screenshot-dir", shots],
                               env=env, stdout=subprocess.PIPE, stderr=open(os.path.join(work, "app.log"), "w"),
                               text=True)
        line = app.stdout.readline()
        assert line.startswith("screenshots:"), line
        screen = Screen(app, shots)

        png, report = screen.wait_for("Tamsel Engine is running", "Plan the 0.3 release")
        check_not_blank(png)
        xdo = lambda *a: subprocess.run(["xdotool", *a], env=env, check=True, capture_output=True)
        # No window manager: a click gives the window the focus.
        x, y = position(report, "button", "New session")
        xdo("mousemove", "--sync", x, y, "click", "1")
        xdo("type", "--delay", "15", "Tidy the **release notes** [approval]")
        xdo("key", "Return")
        png, report = screen.wait_for("Approval needed: bash", "Allow once", "You: Tidy the release notes [approval]")
        check_not_blank(png)

        x, y = position(report, "button", "Allow once")
        xdo("mousemove", "--sync", x, y, "click", "1")
        png, report = screen.wait_for("Allowed for this turn. High-risk commands are never saved as Always Allow.")
        check_not_blank(png)
        assert "Approval needed" not in report, report

        # A message typed while a reply runs is queued and shown.
        x, y = position(report, "text", "")
        xdo("mousemove", "--sync", x, y, "click", "1")
        xdo("type", "--delay", "15", "a long answer please [slow]")
        xdo("key", "Return")
        xdo("type", "--delay", "15", "and then a summary")
        xdo("key", "Return")
        png, report = screen.wait_for("Queued — sent when the reply ends", "and then a summary")
        check_not_blank(png)
        png, report = screen.wait_for("You: and then a summary", timeout=40)
        check_not_blank(png)

        # The search finds a session by words only its messages hold, and shows them.
        xdo("key", "ctrl+f")
        xdo("type", "--delay", "15", "theming")
        png, report = screen.wait_for("Summarise meeting notes, found in its messages:")
        check_not_blank(png)
        assert "Plan the 0.3 release" not in report, report
        xdo("key", "ctrl+a", "BackSpace")
        png, report = screen.wait_for("Plan the 0.3 release")

        # The settings and the always-allowed tools: dialogs in front of the window.
        xdo("key", "ctrl+comma")
        png, report = screen.wait_for("Summon hotkey", "Let the engine use my calendars",
                                      "Personal — local")
        check_not_blank(png, 300, 300)
        xdo("key", "Escape")
        # No window manager gives the focus back when a dialog closes: a click does.
        x, y = position(report, "text", "")
        xdo("mousemove", "--sync", x, y, "click", "1")
        xdo("key", "ctrl+shift+a")
        png, report = screen.wait_for("The agents use these tools without asking.")
        check_not_blank(png, 200, 100)
        xdo("key", "Escape")
        png, report = screen.wait_for("Plan the 0.3 release")
        assert "Let the engine use my calendars" not in report, report
        x, y = position(report, "text", "")
        xdo("mousemove", "--sync", x, y, "click", "1")

        if audio:
            record_meeting(screen, report, xdo, audio, home)

        if os.path.exists(XTEST_KEYS):
            # Another client takes the keyboard; a double tap of the left Alt brings us back.
            keys = lambda *steps: subprocess.run([XTEST_KEYS, f":{display}", *steps], check=True,
                                                 capture_output=True, timeout=30)
            keys("unfocus")
            screen.wait_for("window\tinactive\t")
            xdo("type", "--delay", "15", "elsewhere")
            keys("+Alt_L", "-Alt_L", "sleep:100", "+Alt_L", "-Alt_L")
            # Summoned: the X server gives our window the keyboard, and what the user types next
            # lands in the message field.
            deadline = time.time() + 15
            while True:
                focus = subprocess.run(["xdotool", "getwindowfocus", "getwindowname"], env=env,
                                       capture_output=True, text=True).stdout
                if focus.rstrip().endswith("Tamsel"):
                    break
                assert time.time() < deadline, f"the double tap did not bring the window: {focus!r}"
                time.sleep(0.1)
            xdo("type", "--delay", "15", "summoned")
            png, report = screen.wait_for("text\tsummoned\t")
            check_not_blank(png)
        else:
            print(f"note: {XTEST_KEYS} is not built, so the double tap is not tried")

        app.send_signal(signal.SIGTERM)
        code = app.wait(timeout=20)
        if code != 0:
            with open(os.path.join(work, "app.log")) as log:
                sys.stderr.write(log.read()[-6000:])
        assert code == 0, f"the window exited {code} on SIGTERM"
        pidfile = os.path.join(home, ".local/share/dev.tamsel.engine/daemon.pid")
        deadline = time.time() + 10
        while os.path.exists(pidfile) and time.time() < deadline:
            time.sleep(0.1)
        assert not os.path.exists(pidfile), "the engine was left running"
        print(f"ok: {screen.count} screenshots in {shots}")
        return 0
    except BaseException:
        # What the window logged says more than the screen it failed on.
        log = os.path.join(work, "app.log")
        if os.path.exists(log):
            with open(log, errors="replace") as f:
                sys.stderr.write("--- the window's log (end) ---\n" + f.read()[-4000:])
        raise
    finally:
        if app and app.poll() is None:
            # Quitting the window stops the engine; a window that does not go is killed.
            app.send_signal(signal.SIGTERM)
            try:
                app.wait(timeout=15)
            except subprocess.TimeoutExpired:
                app.kill()
                app.wait()
        # Never leave an engine behind, whatever happened above.
        try:
            with open(os.path.join(work, "home/.local/share/dev.tamsel.engine/daemon.pid")) as f:
                os.kill(int(f.read().strip()), signal.SIGKILL)
        except (OSError, ValueError):
            pass
        xvfb.terminate()
        xvfb.wait(timeout=10)
        if audio:
            audio.stop()
        if not keep:
            shutil.rmtree(work, ignore_errors=True)


if __name__ == "__main__":
    sys.exit(main())
