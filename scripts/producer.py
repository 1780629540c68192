"""A producer for the demo: ffmpeg makes a test stream and cuts it into MPEG-TS segments, each of which is
reported to the daemon and noted in the channel's manifest.

    producer.py main|backup ROOT CHANNEL

The segments lie in ROOT/CHANNEL. The main producer starts with a recording made at several times real time,
so that there is something to look back at; its start times are set back so that the newest segment ends now.
The backup stands in under the name ~CHANNEL. The manifest is kept by who is on the air: the main producer
holds a lock on it, and when it dies the backup gets the lock.
"""
import fcntl
import os
import pathlib
import select
import socket
import subprocess
import sys
import time

SEGMENT_SEC = 4
FPS = 25
MAX_SEC = 100  # playback length, the least that the daemon accepts
BACKLOG_SEC = 132
SPEED = 8

ROLES = {
    # picture, tone, pace, how long ago the stream began when its segments catch up with the clock
    "main": ("testsrc2", 440, f"sendcmd=c='{BACKLOG_SEC}.0 realtime speed 1',realtime=speed={SPEED}:limit=2",
             BACKLOG_SEC - BACKLOG_SEC / SPEED),
    "backup": ("smptebars", 880, "realtime", 0),
}


class Producer:
    def __init__(self, role, root, channel):
        self.role, self.root, self.channel = role, pathlib.Path(root), channel
        self.manifest = open(self.root / channel / f"{channel}.manifest_live", "a+", encoding="ascii")
        self.on_air = False
        self.sock = None
        self.poll = select.poll()

    def start_encoder(self):
        picture, tone, pace, age = ROLES[self.role]
        self.began = time.time() - age
        self.encoder = subprocess.Popen(
            ["ffmpeg", "-nostdin", "-v", "error",
             "-f", "lavfi", "-i", f"{picture}=size=320x180:rate={FPS}",
             "-f", "lavfi", "-i", f"sine=frequency={tone}:sample_rate=48000", "-vf", pace,
             "-c:v", "libx264", "-preset", "ultrafast", "-pix_fmt", "yuv420p",
             "-g", str(SEGMENT_SEC * FPS), "-sc_threshold", "0", "-c:a", "aac", "-b:a", "64k",
             "-f", "segment", "-segment_time", str(SEGMENT_SEC), "-segment_format", "mpegts",
             "-segment_format_options", "mpegts_flags=+initial_discontinuity",
             "-segment_list", "pipe:1", "-segment_list_type", "csv",
             str(self.root / self.channel / f"{self.role}-%04d.ts")],
            stdin=subprocess.DEVNULL, stdout=subprocess.PIPE)
        self.poll.register(self.encoder.stdout, select.POLLIN)

    def connect(self):
        """Registers with the daemon; tries again until there is one."""
        name = self.channel if self.on_air else "~" + self.channel
        while True:
            self.sock = socket.socket(socket.AF_UNIX)
            try:
                self.sock.connect(str(self.root / "source.sock"))
                break
            except OSError:
                self.sock.close()
                time.sleep(0.1)
        self.poll.register(self.sock, 0)  # a hang-up is always told
        self.send(f"S1 init {name} max_sec={MAX_SEC} data_dir={self.root}")

    def disconnect(self):
        self.poll.unregister(self.sock)
        self.sock.close()
        self.sock = None

    def send(self, line):
        print(f"  {self.role} > {line}", flush=True)
        try:
            self.sock.sendall(line.encode() + b"\n")
        except OSError:
            pass  # the hang-up follows

    def take_the_air(self):
        """True when this producer has just become the one that keeps the manifest."""
        if self.on_air:
            return False
        try:
            fcntl.flock(self.manifest, fcntl.LOCK_EX | fcntl.LOCK_NB)
        except BlockingIOError:
            return False
        self.manifest.seek(0)
        self.lines = sum(1 for _ in self.manifest)
        self.on_air = True
        return True

    def note(self, line):
        self.lines += 1
        self.manifest.write(f"{self.lines}: {line}\n")
        self.manifest.flush()

    def report(self, name, start, end):
        path = f"{self.channel}/{name}"
        full = self.root / path
        probe = subprocess.run(
            ["ffprobe", "-v", "error", "-select_streams", "v:0", "-show_entries", "packet=pts",
             "-read_intervals", "%+#1", "-of", "csv=p=0", str(full)],
            check=True, capture_output=True, text=True).stdout
        pts = int(probe.split(",")[0])
        start_tm = round(self.began + start)
        line = f"SEGMENT: {path} {start_tm} {end - start:.6f} {full.stat().st_size} 1 {pts}"
        if self.take_the_air() and self.lines:
            self.note(f"SEGMENT: DISCONTINUITY {start_tm} 0.0 0 0 0")
        # First the manifest: a daemon that is away finds there what it has missed.
        if self.on_air:
            self.note(line)
        self.send(line)

    def run(self):
        parent = os.getppid()
        self.take_the_air()
        self.start_encoder()
        self.connect()
        pending = ""
        while os.getppid() == parent:
            for fd, _ in self.poll.poll(1000):
                if self.sock and fd == self.sock.fileno():
                    self.disconnect()
                    self.connect()
                    continue
                chunk = os.read(fd, 4096).decode()
                if not chunk:
                    return 1
                *finished, pending = (pending + chunk).split("\n")
                for row in finished:
                    name, start, end = row.split(",")
                    self.report(name, float(start), float(end))
        self.encoder.kill()
        return 0


if __name__ == "__main__":
    sys.exit(Producer(*sys.argv[1:4]).run())
