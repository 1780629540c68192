"""Real MPEG-TS segments made by ffmpeg; the playlists are read back and decoded."""
import functools
import gzip
import http.server
import json
import os
import re
import shutil
import subprocess
import threading
import time

import pytest

import hls_check
from harness import Segment

pytestmark = pytest.mark.skipif(not (shutil.which("ffmpeg") and shutil.which("ffprobe")), reason="needs ffmpeg")
FPS, SEGMENTS, SEC = 25, 6, 2

@pytest.fixture(scope="module")
def media(tmp_path_factory):
    """Segment files with their durations and time stamps."""
    room = tmp_path_factory.mktemp("media")
    subprocess.run(["ffmpeg", "-v", "error", "-f", "lavfi", "-i", f"testsrc=size=160x120:rate={FPS}", "-f", "lavfi",
                    "-i", "sine=frequency=440", "-t", str(SEGMENTS * SEC), "-c:v", "mpeg2video", "-g", str(FPS),
                    "-bf", "0", "-c:a", "mp2", "-f", "hls", "-hls_time", str(SEC), "-hls_list_size", "0",
                    "-hls_segment_options", "mpegts_flags=+initial_discontinuity", "-hls_segment_filename", "s%d.ts",
                    "list.m3u8"],
                   check=True, cwd=room, timeout=120, stdin=subprocess.DEVNULL)
    durations = [float(dur) for dur in re.findall(r"#EXTINF:([\d.]+),", (room / "list.m3u8").read_text())]
    return [(str(room / f"s{n}.ts"), dur, (n + 1) * SEC * 90000) for n, dur in enumerate(durations)]

def feed(d, src, media, start):
    segs = []
    for n, (file, dur, pts) in enumerate(media):
        path = f"{src.dirname}/v{len(segs) + start}.ts"
        seg = Segment(path, src.next_start + n * SEC, round(dur, 6), os.path.join(d.data, path))
        shutil.copy(file, seg.full)
        src.send(seg.line(pts=pts) + "\n")
        src.wait(path)
        segs.append(seg)
    return segs

def run(*args, cwd=None):
    done = subprocess.run(args, capture_output=True, text=True, timeout=120, cwd=cwd, stdin=subprocess.DEVNULL)
    assert done.returncode == 0 and done.stderr == "", done.stderr
    return done.stdout

def probe(path):
    return json.loads(run("ffprobe", "-v", "error", "-of", "json", "-show_format", "-show_streams", path))

def test_long_playlists_are_read_by_all(lumo, media):
    """One gzip member, put together of several compressed parts."""
    d = lumo()
    src = d.source(params=f"max_sec=100000 data_dir={d.data}")
    for n in range(700):
        os.symlink(media[0][0], os.path.join(d.data, f"chan/v{n}.ts"))
        src.put(Segment(f"chan/v{n}.ts", src.next_start + n * SEC, SEC, media[0][0]), wait=n == 699)
    path = d.ask("T1 VOD chan").path
    with gzip.open(path, "rt") as packed:
        text = packed.read()
    assert re.findall(r"^.*chan/(v\d+)\.ts$", text, re.M) == [f"v{n}" for n in range(700)]
    assert run("gzip", "-t", path) == "" and run("gzip", "-dc", path) == text

    class Packed(http.server.SimpleHTTPRequestHandler):
        def end_headers(self):
            if self.path.endswith(".m3u8"):
                self.send_header("Content-Encoding", "gzip")
            super().end_headers()

        def log_message(self, *_):
            pass
    with http.server.ThreadingHTTPServer(("127.0.0.1", 0), functools.partial(Packed, directory=d.data)) as server:
        threading.Thread(target=server.serve_forever, daemon=True).start()
        url = f"http://127.0.0.1:{server.server_port}/{os.path.basename(path)}"
        assert run("curl", "-sS", "--compressed", url) == text
        assert abs(float(probe(url)["format"]["duration"]) - 700 * SEC) < 0.5
        server.shutdown()

def test_two_periods_are_decoded_without_a_fault(lumo, media):
    """Time stamps start anew behind a discontinuity."""
    assert len(media) == SEGMENTS
    d = lumo(strict_hls=True, gzip_playlists=False)
    src = d.source()
    segs = feed(d, src, media, 0)
    src.cut()
    src.next_start += SEGMENTS * SEC
    segs += feed(d, src, media, SEGMENTS)
    for request in ("VOD chan", "LIV chan", f"EVE chan {segs[1].start + 1} 0", f"EVE chan {segs[1].start} 15",
                    f"EVE chan -{round(time.time()) - segs[1].start - 1} 0"):
        text = hls_check.read(d.ask("T1 " + request).path)
        ended = os.path.join(d.data, "ended.m3u8")
        with open(ended, "w") as out:
            out.write(text if text.endswith("#EXT-X-ENDLIST\n") else text + "#EXT-X-ENDLIST\n")
        assert abs(float(probe(ended)["format"]["duration"]) - hls_check.Text(text).sec) < 0.5
        assert run("ffmpeg", "-v", "error", "-xerror", "-i", ended, "-f", "null", "-") == ""
        packets = run("ffprobe", "-v", "error", "-count_packets", "-select_streams", "v:0", "-show_entries",
                      "stream=nb_read_packets", "-of", "csv=p=0", ended)
        assert int(packets.split()[0].strip(",")) == FPS * SEC * text.count("#EXTINF"), request
