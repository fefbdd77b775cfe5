"""Headless audio servers for the meeting capture tests, started and stopped by PID.

Each server gets its own HOME and XDG_RUNTIME_DIR (mode 700), so it runs as root on a CI machine
without touching a user's session. The layout is the same on both servers:

  speakers, speakers2   null sinks: what the machine plays (the system track's monitors)
  mic_feed, mic_feed2   null sinks whose monitors are remapped into microphones
  virtual_mic, virtual_mic2  the microphone stand-ins (defaults: speakers, virtual_mic)

Tones are played at real-time pace with pacat, as an application would.
"""
import os
import shutil
import signal
import subprocess
import tempfile
import time

RATE = 48000


def have(*programs):
    return all(shutil.which(p) for p in programs)


class AudioServer:
    def __init__(self, kind):
        assert kind in ("pulseaudio", "pipewire")
        self.kind = kind
        self.root = tempfile.mkdtemp(prefix=f"tamsel-{kind}-")
        self.home = os.path.join(self.root, "home")
        self.runtime = os.path.join(self.root, "run")
        os.makedirs(self.home)
        os.makedirs(self.runtime, mode=0o700)
        os.chmod(self.runtime, 0o700)
        self.env = dict(os.environ, HOME=self.home, XDG_RUNTIME_DIR=self.runtime,
                        XDG_CONFIG_HOME=os.path.join(self.home, ".config"),
                        XDG_DATA_HOME=os.path.join(self.home, ".local", "share"))
        self.env.pop("PULSE_SERVER", None)
        self.env.pop("DBUS_SESSION_BUS_ADDRESS", None)
        self.proc = None
        self.players = []
        self.log = open(os.path.join(self.root, "server.log"), "w")

    # ---- lifecycle ----

    def start(self):
        if self.kind == "pulseaudio":
            conf = os.path.join(self.root, "pa.conf")
            with open(conf, "w") as f:
                f.write("load-module module-native-protocol-unix auth-anonymous=1\n")
            self.proc = subprocess.Popen(
                ["pulseaudio", "--daemonize=no", "--exit-idle-time=-1", "-n", "-F", conf,
                 "--log-target=stderr"],
                env=self.env, stdout=self.log, stderr=self.log, start_new_session=True)
        else:
            script = "pipewire & sleep 0.3; wireplumber & pipewire-pulse & wait"
            self.proc = subprocess.Popen(["dbus-run-session", "--", "sh", "-c", script],
                                         env=self.env, stdout=self.log, stderr=self.log,
                                         start_new_session=True)
        deadline = time.time() + 15
        while time.time() < deadline:
            if self.proc.poll() is not None:
                raise RuntimeError(f"{self.kind} exited: {self.read_log()}")
            if subprocess.run(["pactl", "info"], env=self.env, capture_output=True).returncode == 0:
                break
            time.sleep(0.2)
        else:
            raise RuntimeError(f"{self.kind} did not come up: {self.read_log()}")
        for sink in ("speakers", "speakers2", "mic_feed", "mic_feed2"):
            self.pactl("load-module", "module-null-sink", f"sink_name={sink}",
                       f"sink_properties=device.description={sink}")
        for mic, feed in (("virtual_mic", "mic_feed"), ("virtual_mic2", "mic_feed2")):
            self.pactl("load-module", "module-remap-source", f"source_name={mic}",
                       f"master={feed}.monitor", f"source_properties=device.description={mic}")
        self.wait_for_devices()
        self.pactl("set-default-sink", "speakers")
        self.pactl("set-default-source", "virtual_mic")
        self.wait_for_defaults("speakers", "virtual_mic")
        return self

    def wait_for_devices(self):
        deadline = time.time() + 10
        while time.time() < deadline:
            sources = self.pactl("list", "short", "sources")
            if "virtual_mic2" in sources and "speakers2.monitor" in sources:
                return
            time.sleep(0.2)
        raise RuntimeError("devices did not appear: " + sources)

    def wait_for_defaults(self, sink, source):
        deadline = time.time() + 10
        while time.time() < deadline:
            info = self.pactl("info")
            if f"Default Sink: {sink}\n" in info and f"Default Source: {source}\n" in info:
                return
            time.sleep(0.1)
        raise RuntimeError("defaults not taken: " + info)

    def stop(self):
        for p in self.players:
            if p.poll() is None:
                p.kill()
            p.wait()
        self.players = []
        if self.proc and self.proc.poll() is None:
            # The server and its helpers run in their own session: end that group by its PID.
            try:
                os.killpg(self.proc.pid, signal.SIGTERM)
            except ProcessLookupError:
                pass
            try:
                self.proc.wait(timeout=5)
            except subprocess.TimeoutExpired:
                os.killpg(self.proc.pid, signal.SIGKILL)
                self.proc.wait()
        self.log.close()
        shutil.rmtree(self.root, ignore_errors=True)

    def read_log(self):
        self.log.flush()
        with open(os.path.join(self.root, "server.log")) as f:
            return f.read()[-2000:]

    def __enter__(self):
        return self.start()

    def __exit__(self, *exc):
        self.stop()

    # ---- helpers ----

    def pactl(self, *args):
        out = subprocess.run(["pactl", *args], env=self.env, capture_output=True, text=True)
        if out.returncode != 0:
            raise RuntimeError(f"pactl {' '.join(args)}: {out.stderr}")
        return out.stdout

    def play(self, sink, frequency, seconds):
        """Plays a sine tone into `sink` at real-time pace; returns the player process."""
        raw = os.path.join(self.root, f"tone-{frequency}-{seconds}.raw")
        if not os.path.exists(raw):
            subprocess.run(["sox", "-n", "-r", str(RATE), "-c", "1", "-b", "16", "-e",
                            "signed-integer", "-t", "raw", raw, "synth", str(seconds), "sine",
                            str(frequency), "gain", "-10"], check=True)
        p = subprocess.Popen(["pacat", "--playback", "--raw", f"--rate={RATE}", "--channels=1",
                              "--format=s16le", "--latency-msec=50", "-d", sink, raw],
                             env=self.env, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        self.players.append(p)
        return p


def sox_info(path):
    """(rate, channels, frames) of an audio file, as sox reads it."""
    out = subprocess.run(["soxi", path], capture_output=True, text=True, check=True).stdout
    info = {}
    for line in out.splitlines():
        if ":" in line:
            key, value = line.split(":", 1)
            info[key.strip()] = value.strip()
    frames = int(info["Duration"].split("=")[1].split()[0])
    return int(info["Sample Rate"]), int(info["Channels"]), frames


def tone_at(path, start, length):
    """(rms, rough frequency in Hz) of a stretch of an audio file."""
    out = subprocess.run(["sox", path, "-n", "trim", str(start), str(length), "stat"],
                         capture_output=True, text=True).stderr
    rms = freq = 0.0
    for line in out.splitlines():
        if line.startswith("RMS     amplitude"):
            rms = float(line.split(":")[1])
        if line.startswith("Rough   frequency"):
            freq = float(line.split(":")[1])
    return rms, freq


def tone_level(path, start, length, frequency):
    """RMS of a stretch of an audio file within 40 Hz of `frequency` (a band-pass filter)."""
    out = subprocess.run(["sox", path, "-n", "trim", str(start), str(length), "sinc", "-t", "20",
                          f"{frequency - 40}-{frequency + 40}", "stat"],
                         capture_output=True, text=True).stderr
    for line in out.splitlines():
        if line.startswith("RMS     amplitude"):
            return float(line.split(":")[1])
    raise RuntimeError(out)
