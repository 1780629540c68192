"""Plays the scenes of the demo and checks them:  demo.py [--keep] PROGRAM

The feeder and the front end stand beside PROGRAM. Everything lies in one temporary directory, which is removed at
the end.
"""
import gzip
import os
import pathlib
import re
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import time
import urllib.error
import urllib.request

CHANNEL = "tv"
LIVE, VOD, SHIFT = f"{CHANNEL}/live.m3u8", f"{CHANNEL}/vod.m3u8", f"{CHANNEL}/shift.m3u8?back=20"
SEGMENT_SEC = 4
FPS = 25
MAX_SEC = 100  # playback length, the least that the daemon accepts
BACKLOG_SEC = 132  # made at SPEED times real time, so that there is something to look back at
SPEED = 8
MAX_DATA_DIR = 63
INTERRUPTS = (signal.SIGINT, signal.SIGTERM, signal.SIGHUP)
CONFIG = """lum = {{
    src_socket = "{root}/source.sock";
    pl_socket = "{root}/playlist.sock";
    data_dir = "{root}";
    refresh_playlists = true;
    strict_hls = true;
    log = {{ file = "{root}/lumo.log"; enable_syslog = false; }};
    runtime = {{ quiet = true; enforce_core_dumps = false; }};
}};
"""

ROLES = {
    # picture, tone, pace, options; the recording is set back so that it meets the clock when it is made
    "main": ("testsrc2", 440, f"sendcmd=c='{BACKLOG_SEC}.0 realtime speed 1',realtime=speed={SPEED}:limit=2",
             ["--start-ago", str(round(BACKLOG_SEC - BACKLOG_SEC / SPEED))]),
    "backup": ("smptebars", 880, "realtime", ["--backup"]),
}


class Failed(Exception):
    pass


def feeder_command(feeder, config, role):
    """What runs a producer of the channel."""
    picture, tone, pace, options = ROLES[role]
    return [feeder, "--config", str(config), "--depth", str(MAX_SEC), "--verbose", "--segment", str(SEGMENT_SEC), *options,
            CHANNEL, "--", "-loglevel", "error", "-f", "lavfi", "-i", f"{picture}=size=320x180:rate={FPS}",
            "-f", "lavfi", "-i", f"sine=frequency={tone}:sample_rate=48000", "-vf", pace,
            "-c:v", "libx264", "-preset", "ultrafast", "-pix_fmt", "yuv420p", "-c:a", "aac", "-b:a", "64k"]


class Playlist:
    """One answer of the front end."""

    def __init__(self, url, answer):
        self.url = url
        data = answer.read()
        self.text = (gzip.decompress(data) if answer.headers["Content-Encoding"] == "gzip" else data).decode()
        self.segments = re.findall(r"^(?!#)(.+)$", self.text, re.MULTILINE)
        self.duration = sum(float(d) for d in re.findall(r"^#EXTINF:([\d.]+),", self.text, re.MULTILINE))
        self.first = int(re.search(r"^#EXT-X-MEDIA-SEQUENCE:(\d+)$", self.text, re.MULTILINE)[1])
        self.breaks = self.text.count("#EXT-X-DISCONTINUITY\n")
        self.is_ended = self.text.endswith("#EXT-X-ENDLIST\n")

    def show(self):
        print("".join(f"  | {line}\n" for line in self.text.splitlines()), end="", flush=True)


class Demo:
    def __init__(self, program):
        self.program = str(pathlib.Path(program).resolve())
        self.feeder = str(pathlib.Path(self.program).with_name("lumo-feed"))
        self.root = pathlib.Path(tempfile.mkdtemp(prefix="lumo-demo-"))
        self.media = self.root / CHANNEL
        self.media.mkdir()
        self.producers = {}
        self.daemon = self.web = None
        with socket.create_server(("127.0.0.1", 0)) as probe:
            self.url = f"http://127.0.0.1:{probe.getsockname()[1]}/"
        self.watched = set()  # URLs that a viewer goes on asking for
        self.looked_at = 0
        self.checks = 0

    # --- the parts ---

    def start_daemon(self):
        config = self.root / "lum.conf"
        config.write_text(CONFIG.format(root=self.root))
        self.daemon = subprocess.Popen([self.program, "-C", str(config), "-T"])
        self.wait("the daemon's sockets", self.is_listening)

    def is_listening(self):
        with socket.socket(socket.AF_UNIX) as sock:
            return sock.connect_ex(str(self.root / "playlist.sock")) == 0

    def start_web(self):
        port = self.url.rstrip("/").rpartition(":")[2]
        self.web = subprocess.Popen([pathlib.Path(self.program).with_name("lumo-web"), "-C", self.root / "lum.conf",
                                     "--port", port])
        self.wait("the front end", lambda: self.status("healthz") == 200)

    def start_producer(self, role):
        self.producers[role] = subprocess.Popen(feeder_command(self.feeder, self.root / "lum.conf", role),
                                                start_new_session=True)

    def kill_producer(self, role):
        producer = self.producers.pop(role)
        os.killpg(producer.pid, signal.SIGKILL)
        producer.wait()

    def close(self):
        for role in list(self.producers):
            self.kill_producer(role)
        for process in (self.web, self.daemon):
            if process and process.poll() is None:
                process.kill()
                process.wait()
        shutil.rmtree(self.root)

    # --- looking ---

    def check(self, holds, text):
        if not holds:
            raise Failed(text)
        self.checks += 1
        print(f"  ok: {text}", flush=True)

    def wait(self, what, holds, timeout=30):
        end = time.monotonic() + timeout
        while not holds():
            if self.daemon.poll() is not None:
                raise Failed(f"the daemon has ended with status {self.daemon.returncode}")
            if ended := [r for r, p in self.producers.items() if p.poll() is not None]:
                raise Failed(f"the {ended[0]} producer has ended")
            if time.monotonic() > end:
                raise Failed(f"waited {timeout} s for {what}")
            self.look_on()
            time.sleep(0.05)

    def look_on(self):
        """A viewer's player asks again and again, which keeps its playlist."""
        if time.monotonic() - self.looked_at < 1:
            return
        self.looked_at = time.monotonic()
        for path in self.watched:
            self.status(path)

    def status(self, path):
        try:
            with urllib.request.urlopen(self.url + path, timeout=10) as answer:
                return answer.status
        except urllib.error.HTTPError as fault:
            return fault.code
        except OSError:
            return 0

    def manifest(self, role=""):
        """The segment lines of the manifest, split into words."""
        path = self.media / f"{CHANNEL}.manifest_live"
        lines = path.read_text().splitlines() if path.exists() else []
        rows = [line.split() for line in lines]
        return [row for row in rows if len(row) == 8 and row[2].startswith(f"{CHANNEL}/{role}")]

    def noted(self, role):
        """The number of the newest segment of a producer in the manifest."""
        rows = self.manifest(f"{role}-")
        return int(re.search(r"-(\d+)\.ts$", rows[-1][2])[1]) if rows else 0

    def ask(self, path):
        print(f"  GET {self.url}{path}", flush=True)
        request = urllib.request.Request(self.url + path, headers={"Accept-Encoding": "gzip"})
        try:
            with urllib.request.urlopen(request, timeout=10) as answer:
                print(f"  {answer.status} {answer.headers['Content-Type']}, from {answer.url}", flush=True)
                playlist = Playlist(answer.url, answer)
        except OSError as fault:
            raise Failed(f"no playlist at {path}: {fault}") from fault
        playlist.show()
        return playlist

    def live_files(self):
        return sorted(self.root.glob(f"{CHANNEL}-LIV*.m3u8"))

    def play(self, path, duration, what):
        """Decodes with every error fatal, and counts the pictures."""
        frames = round(duration * FPS)
        began = time.monotonic()
        run = subprocess.run(
            ["ffmpeg", "-nostdin", "-v", "error", "-xerror", "-err_detect", "explode", "-live_start_index", "0",
             "-i", str(path), "-map", "0:v", "-map", "0:a", "-fps_mode", "passthrough",
             "-frames:v", str(frames), "-progress", "pipe:1", "-f", "null", "-"],
            capture_output=True, text=True, timeout=60)
        decoded = int((re.findall(r"^frame=(\d+)$", run.stdout, re.MULTILINE) or ["0"])[-1])
        if run.returncode != 0 or run.stderr:
            raise Failed(f"ffmpeg cannot play {what} (status {run.returncode}): {run.stderr.strip()}")
        # A stream's first segment counts the audio encoder's delay too, less than a picture.
        self.check(frames - 1 <= decoded <= frames,
                   f"ffmpeg plays {what} without an error: {decoded} pictures, {duration:.1f} s of media, "
                   f"in {time.monotonic() - began:.1f} s")

    def snapshot(self, playlist, name):
        """A copy beside the segments that a player reads to its end."""
        path = self.root / name
        path.write_text(playlist.text if playlist.is_ended else playlist.text + "#EXT-X-ENDLIST\n")
        return path

    # --- the scenes ---

    def live_and_vod(self):
        print(f"\n== Live and on demand: a source of {SEGMENT_SEC} s segments keeps {MAX_SEC} s; the first "
              f"{BACKLOG_SEC} s are made at {SPEED} times real time", flush=True)
        self.start_producer("main")
        self.wait("8 segments", lambda: self.noted("main") >= 8)
        oldest = self.root / self.manifest()[0][2]
        live = self.ask(LIVE)
        self.watched.add(LIVE)
        self.check(oldest.exists(), f"the oldest segment's file is there: {oldest}")
        self.check(not live.is_ended and len(live.segments) <= 7, "a live playlist of the newest segments")
        seen = self.noted("main")
        self.wait("more segments", lambda: self.noted("main") >= seen + 4)
        later = self.ask(LIVE)
        self.check(later.first > live.first,
                   f"the same playlist has moved on from segment {live.first} to {later.first}")
        self.wait("the old segment's file to disappear", lambda: not oldest.exists())
        self.check(not oldest.exists(), f"the oldest segment's file has been deleted: {oldest}")
        self.wait("the recording to catch up", lambda: self.noted("main") >= BACKLOG_SEC // SEGMENT_SEC)
        self.start_producer("backup")
        vod = self.ask(VOD)
        self.check(vod.is_ended and MAX_SEC - SEGMENT_SEC < vod.duration < MAX_SEC + 0.01,
                   f"all that is kept, {vod.duration:.1f} of at most {MAX_SEC} s, as a finished playlist")
        self.play(self.snapshot(vod, "vod.m3u8"), vod.duration, "the VOD playlist from beginning to end")
        return self.live_files()

    def time_shift(self):
        print("\n== Time shift: the stream as it was 20 seconds ago", flush=True)
        then = int(time.time()) - 20
        event = self.ask(SHIFT)
        at = [row[2] for row in self.manifest() if int(row[3]) <= then][-1]
        self.check(at in event.segments[:-1], f"the segment of that moment is in it: {at}")
        self.play(self.snapshot(event, "event.m3u8"), event.duration, "the event playlist")

    def stand_in(self, live_files):
        print(f"\n== Stand-in: the main producer is killed, ~{CHANNEL} takes over", flush=True)
        self.wait("the stand-in to be known", lambda: f"src[~{CHANNEL}]" in (self.root / "lumo.log").read_text())
        unfinished = self.media / f"main-{self.noted('main') + 1:06d}.ts"
        self.wait("a segment half written", lambda: unfinished.exists() and unfinished.stat().st_size > 0)
        self.kill_producer("main")
        print(f"  killed in {unfinished.name}, {unfinished.stat().st_size} bytes written", flush=True)
        self.wait("two segments of the stand-in", lambda: len(self.manifest("backup")) >= 2)
        live = self.ask(LIVE)
        roles = [path.removeprefix(f"{CHANNEL}/").split("-")[0] for path in live.segments]
        self.check(len(live_files) == 1 and self.live_files() == live_files, "the same live playlist goes on")
        self.check(live.breaks == 1 and roles == sorted(roles, reverse=True) and len(set(roles)) == 2,
                   f"with one discontinuity: {roles.count('main')} segments of the main producer, then "
                   f"{roles.count('backup')} of the stand-in")
        self.play(live.url, live.duration, "the live playlist across the discontinuity")

    def restart(self):
        print("\n== Restart: the daemon is killed and imports the manifest", flush=True)
        before = self.ask(VOD)
        self.daemon.kill()
        self.daemon.wait()
        print(f"  killed with SIGKILL, {len(before.segments)} segments were in the books", flush=True)
        self.start_daemon()
        self.wait("the source to return", lambda: self.status(VOD) == 200)
        after = self.ask(VOD)
        # At the old end, and only there, what has meanwhile passed the playback length is missing.
        gone = next((i for i, path in enumerate(before.segments) if path in after.segments), len(before.segments))
        starts = {row[2]: int(row[3]) for row in self.manifest()}
        is_past = all(time.time() - starts.get(path, 0) > MAX_SEC for path in before.segments[:gone])
        kept = before.segments[gone:]
        self.check(kept and after.segments[:len(kept)] == kept
                   and (is_past or after.duration > MAX_SEC - SEGMENT_SEC),
                   f"the VOD playlist is complete again: {len(after.segments)} segments, "
                   f"{gone} of the old ones meanwhile past {MAX_SEC} s")
        self.check(after.breaks >= 1, "the break between the two producers is still in it")
        self.play(self.snapshot(after, "after.m3u8"), after.duration, "the VOD playlist of the restarted daemon")

    def stop(self):
        print("\n== Stop", flush=True)
        for role in list(self.producers):
            self.kill_producer(role)
        for process in (self.web, self.daemon):
            process.terminate()
        self.check(self.web.wait(10) == self.daemon.wait(10) == 0,
                   "front end and daemon end with status 0 when asked to")

    def scenes(self):
        if len(str(self.root)) > MAX_DATA_DIR:
            raise Failed(f"the temporary directory's name is too long for a source: {self.root}")
        self.start_daemon()
        self.start_web()
        live_files = self.live_and_vod()
        self.time_shift()
        self.stand_in(live_files)
        self.restart()

    def keep(self):
        print(f"\n== Running until interrupted. The page: {self.url}", flush=True)
        for path in (LIVE, VOD, SHIFT):
            print(f"  curl -L --compressed '{self.url}{path}'")
        sock = self.root / "playlist.sock"
        print(f"The daemon by hand:  echo 'T9 LIV {CHANNEL}' | socat -t1 - UNIX-CONNECT:{sock}\n"
              f"Segments: {self.media}  Log: {self.root}/lumo.log", flush=True)
        while True:
            self.wait("ever", lambda: False, timeout=float("inf"))


def on_interrupt(_signo, _frame):
    for signo in INTERRUPTS:
        signal.signal(signo, signal.SIG_IGN)  # the cleaning up is not interrupted
    raise KeyboardInterrupt


def main():
    if len(sys.argv) < 2 or sys.argv[1:-1] not in ([], ["--keep"]):
        sys.exit("usage: demo.py [--keep] PROGRAM")
    for signo in INTERRUPTS:
        signal.signal(signo, on_interrupt)
    began = time.monotonic()
    is_kept = sys.argv[1] == "--keep"
    demo = Demo(sys.argv[-1])
    try:
        demo.scenes()
        if is_kept:
            demo.keep()
        demo.stop()
    except KeyboardInterrupt:
        print("\ndemo: interrupted", flush=True)
        return 0 if is_kept else 130
    except (Failed, OSError, subprocess.SubprocessError) as fault:
        log = demo.root / "lumo.log"
        tail = log.read_text(errors="replace").splitlines()[-20:] if log.exists() else []
        print("\n".join(["", *tail, f"demo: FAILED: {fault}"]), file=sys.stderr)
        return 1
    finally:
        demo.close()
    print(f"demo: shown on real media: live and on-demand playlists, an old segment deleted, time shift, a "
          f"stand-in's take-over and a restart; {demo.checks} checks held in {time.monotonic() - began:.0f} s")
    return 0


if __name__ == "__main__":
    sys.exit(main())
