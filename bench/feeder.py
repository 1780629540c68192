"""Processor time of the feeder beside that of ffmpeg in a "-c copy" run:  feeder.py BUILD_DIR [MINUTES [SECONDS]]

A stream of about 5 Mbit/s is made once and copied as fast as it goes to a real daemon, in segments of 6 s, the
feeder's own choice, or SECONDS. The processes' own processor times are compared, start and end included.
"""
import os
import re
import subprocess
import sys
import tempfile
import time

AIM = 0.01
STREAM_SEC = 60
CONFIG = """lum = {{ src_socket = "{0}/src"; pl_socket = "{0}/pl"; data_dir = "{0}";
    log = {{ file = "{0}/log"; enable_syslog = false; }}; runtime = {{ quiet = true; enforce_core_dumps = false; }}; }};
"""


def make_stream(path):
    subprocess.run(["ffmpeg", "-v", "error", "-f", "lavfi", "-i", "testsrc2=size=1280x720:rate=25", "-f", "lavfi", "-i",
                    "sine=sample_rate=48000", "-t", str(STREAM_SEC), "-vf", "noise=alls=12:allf=t", "-c:v", "libx264",
                    "-preset", "ultrafast", "-pix_fmt", "yuv420p", "-b:v", "5M", "-maxrate", "5M", "-bufsize", "5M",
                    "-g", "100", "-c:a", "aac", path], check=True)


def run(room, build, minutes=40, seconds=6):
    conf, stream = f"{room}/lum.conf", f"{room}/stream.ts"
    with open(conf, "w") as out:
        out.write(CONFIG.format(room))
    make_stream(stream)
    daemon = subprocess.Popen([f"{build}/lumo", "-C", conf, "-T"])
    try:
        while not os.path.exists(f"{room}/src"):
            time.sleep(0.01)
        done = subprocess.run(
            [f"{build}/lumo-feed", "-C", conf, "-1", "-d", "100", "-s", str(seconds), "--start-ago", "1000000",
             "tv", "--", "-loglevel", "error", "-stream_loop", str(int(minutes) - 1), "-i", stream, "-c", "copy"],
            stderr=subprocess.PIPE, text=True)
    finally:
        daemon.terminate()
        daemon.wait()
    figures = re.search(r"(\d+) segments, ([\d.]+) s of processor time here, ([\d.]+) s in the encoder", done.stderr)
    if done.returncode != 0 or not figures:
        sys.exit(done.stderr)
    return int(figures[1]), float(figures[2]), float(figures[3]), os.path.getsize(stream) * 8 / STREAM_SEC / 1e6


def main():
    if not 2 <= len(sys.argv) <= 4:
        sys.exit(__doc__)
    with tempfile.TemporaryDirectory(prefix="lumo-bench-") as room:
        segments, own, encoder, rate = run(room, *sys.argv[1:])
    print(f"RATIO feeder/processor time beside ffmpeg -c copy: {own / encoder:.4f}, aim below {AIM}: "
          f"{own / segments * 1e6:.0f} us against {encoder / segments * 1e6:.0f} us for each of {segments} segments "
          f"at {rate:.1f} Mbit/s")
    return 0 if own < AIM * encoder else 1


if __name__ == "__main__":
    sys.exit(main())
