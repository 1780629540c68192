"""A channel on the air: daemon, front end and producers of real media, on a private directory."""
import os
import pathlib
import re
import signal
import subprocess
import sys

ROOT = pathlib.Path(__file__).resolve().parents[2]
sys.path += [str(ROOT / "tests/daemon"), str(ROOT / "scripts")]

from demo import BACKLOG_SEC, CHANNEL, SEGMENT_SEC, feeder_command  # noqa: E402
from harness import Daemon, until  # noqa: E402
from test_web import Web  # noqa: E402

FEEDER = os.environ.get("LUMO_FEED_BIN", "")


class Air:
    def __init__(self, **settings):
        self.daemon = Daemon(refresh_playlists=True, task_tmout_sec=20, src_tmout_sec=30, **settings)
        self.daemon.start()
        self.producers = {}
        self.web = Web(self.daemon.dir, self.daemon.data, self.daemon.pl_sock)
        self.url = f"http://127.0.0.1:{self.web.port}/"

    def start_producer(self, role):
        out = open(self.daemon.path(f"{role}.out"), "ab")
        self.producers[role] = subprocess.Popen(feeder_command(FEEDER, self.daemon.conf, role), stdout=out, stderr=out,
                                                start_new_session=True)

    def kill_producer(self, role):
        producer = self.producers.pop(role)
        os.killpg(producer.pid, signal.SIGKILL)
        producer.wait()

    def segments(self, role="main"):
        """How many that producer has made, by the newest one's number in the channel's manifest."""
        path = pathlib.Path(self.daemon.data, CHANNEL, f"{CHANNEL}.manifest_live")
        numbers = re.findall(rf" {CHANNEL}/{role}-(\d+)", path.read_text()) if path.exists() else []
        return int(numbers[-1]) if numbers else 0

    def wait_segments(self, count, role="main"):
        until(lambda: self.segments(role) >= count, f"{count} segments", limit=90)

    def wait_recording(self):
        """Until what was made faster than real time has met the clock."""
        self.wait_segments(BACKLOG_SEC // SEGMENT_SEC)

    def restart_daemon(self):
        self.daemon.kill()
        self.daemon.start()

    def close(self):
        try:
            self.web.close()
        finally:
            for role in list(self.producers):
                self.kill_producer(role)
            self.daemon.close()
