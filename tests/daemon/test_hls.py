"""Strict playlists over their lives: failover, a producer's return, retirement, reloads and odd input."""
import datetime
import glob
import json
import os
import subprocess
import time

import pytest

from hls_check import Follower, read

PARSERS = glob.glob(os.path.join(os.path.dirname(__file__), "../../build/hls-parser-*"))
PARSE = """const hls = require(process.argv[1]); hls.setOptions({strictMode: true});
for (const text of JSON.parse(require("fs").readFileSync(0)))
    if (hls.parse(text).segments.length != text.split("#EXTINF").length - 1) throw new Error(text);"""

def parse_strictly(texts):
    """By another reader of playlists, where scripts/install-deps.sh has installed it."""
    if PARSERS:
        subprocess.run(["node", "-e", PARSE, PARSERS[0]], input=json.dumps(texts), text=True, check=True, timeout=60)

class Channel:
    """A source of ten-second segments, its backup, and followers of all that is asked for."""
    def __init__(self, d, max_sec=300):
        self.d, self.stream, self.followers, self.texts = d, {}, {}, []
        self.params = f"max_sec={max_sec} data_dir={d.data} target_sec=12"
        self.begin = int(time.time()) - 105  # the feed is ahead of the clock
        self.src = d.source(params=self.params, start=self.begin)

    def feed(self, count):
        self.src.feed(count, dur=10.0)

    def hand_over(self, name):
        """Another producer goes on where this one leaves off."""
        old, self.src = self.src, self.d.source(name, params=self.params, start=self.src.next_start)
        old.close()
        self.src.count = old.count

    def come_back(self):
        old = self.src
        old.name = "chan"  # it feeds the main source's list
        old.close()
        self.src = self.d.source(params=self.params, start=old.next_start)
        self.src.count = old.count

    def look(self, request, appends=False):
        path = self.d.ask(f"T1 {request}").path
        follower = self.followers.setdefault(path, Follower(stream=self.stream, root=self.d.data))
        follower.appends = appends
        self.texts.append(read(path))
        return follower.look(self.texts[-1])

def begins_at(text):
    """The clock time at which a player starts, in a list without gaps."""
    date = datetime.datetime.fromisoformat(text.segments[text.first].date.replace("Z", "+00:00")).timestamp()
    return date + text.start + (text.sec if text.start < 0 else 0)

@pytest.mark.parametrize("refresh", [False, True])
def test_every_kind_over_its_life(lumo, refresh):
    d = lumo(strict_hls=True, refresh_playlists=refresh, max_live_items=4)
    channel = Channel(d)
    at = channel.begin + 57
    clock = [f"EVE chan {at} 0", f"EVE chan {at} 0 peer=a", f"EVE chan {at} 30", f"EVE chan {at} 110"]
    shifts = ["EVE chan -45 0", "EVE chan -45 0 peer=b"]

    def look(appends=True):
        live, vod = channel.look("LIV chan"), channel.look("VOD chan", appends)
        assert live.target == vod.target == 12 and vod.is_ended and vod.last == live.last
        events = [channel.look(request, appends) for request in clock[:4 if appends else 2]]
        assert {begins_at(text) for text in events if text.first * 10 < 57} <= {at}
        rolling = [channel.look(request) for request in shifts]
        assert {text.start for text in rolling} == {-45} and all(text.sec >= 45 for text in rolling)
        assert {text.last for text in events[:2] + rolling} == {live.last}
        assert not appends or events[2].is_ended
        return events, rolling

    channel.feed(12)
    look()
    channel.feed(3)
    look()
    channel.hand_over("~chan")
    look()  # a discontinuity at the end is not listed before its segment
    channel.feed(2)
    look()
    channel.come_back()
    channel.feed(1)
    events, _ = look()
    assert events[0].segments[events[0].last].breaks == 2 and events[3].is_ended
    for _ in range(18):
        channel.feed(1)
        events, rolling = look(appends=False)
    assert events[0].first == channel.look("VOD chan").first > 0, "events go on while their beginnings retire"
    assert rolling[1].sec <= 45 + 3 * 12 + 10, "what is bound to a peer rolls"
    parse_strictly(channel.texts)

def test_a_killed_daemon_goes_on(lumo):
    """In every kind of playlist a number names the same segment, behind as many breaks, as before."""
    d = lumo(strict_hls=True, max_live_items=4)
    channel = Channel(d)
    lines, last, edge = [], -1, Follower(stream=channel.stream)
    for _ in range(3):
        for count in (3, 1):
            lines = lines[-6:] + [seg.line() for seg in channel.src.feed(count, dur=10.0)]
            with open(d.data + "/chan/chan.manifest_live", "w") as out:
                out.writelines(f"{n}: {line}\n" for n, line in enumerate(lines))
            at = channel.src.next_start - 25
            texts = [channel.look(request) for request in ("LIV chan", "VOD chan", f"EVE chan {at} 0")]
            assert {text.last for text in texts} == {last + count}
            edge.look(read(d.ask(f"T1 EVE chan {channel.begin + 25} 0").path))  # asked for when it is the newest
            last += count
        d.kill()
        channel.followers.clear()  # the next daemon names its playlists anew
        lines.append("SEGMENT: DISCONTINUITY")
        old = channel.src
        old.sock.close()
        d.start()
        channel.src = d.source(params=channel.params, start=old.next_start)
        channel.src.count = old.count
    assert texts[1].segments[last].breaks == 2
    parse_strictly(channel.texts)

def test_switched_by_reloads(lumo):
    d = lumo(strict_hls=True)
    channel = Channel(d)
    channel.feed(9)
    requests = ["LIV chan", f"EVE chan {channel.begin + 33} 0", "EVE chan -50 0 peer=a"]
    for is_strict in (False, True):
        olds = [channel.look(request) for request in requests[:3]]
        d.reload(strict_hls=is_strict, min_target_sec=20)
        channel.feed(1)
        for request, old in zip(requests, olds):
            assert channel.look(request).last == old.last + 1, "what was strict stays so"
        made = [d.ask(f"T1 EVE chan {channel.begin + 44} {60 + is_strict}"), d.ask("T1 VOD chan")]
        for reply in made:
            if is_strict:
                assert Follower(stream=channel.stream).look(read(reply.path)).target == 20
            else:
                assert reply.playlist.names and "DATE-TIME" not in reply.playlist.text

def test_odd_manifests_and_short_segments(lumo):
    d = lumo(strict_hls=True)
    now = int(time.time()) - 100
    names = "- a - - b - c d - - e -".split()
    os.makedirs(d.data + "/chan")
    with open(d.data + "/chan/chan.manifest_live", "w") as out:
        for n, name in enumerate(names):
            path = "DISCONTINUITY" if name == "-" else f"chan/{name}.ts"
            out.write(f"{n}: SEGMENT: {path} {now + n} 0.25 3 1 {n + 1}\n")
            with open(f"{d.data}/{path}", "w") as file:
                file.write("abc")
    channel = Channel(d)
    channel.src.next_start = now + 20
    channel.src.feed(1, dur=0.3)
    for request in ("VOD chan", "LIV chan", f"EVE chan {now + 1} 0", f"EVE chan {now + 8} 100"):
        text = channel.look(request)
        assert text.target == 12 and text.segments[text.last].breaks > 1
        assert text.last == 5
    parse_strictly(channel.texts)
    tiny = d.source("tiny", start=now)
    tiny.feed(3, dur=0.3)
    assert Follower().look(read(d.ask("T1 LIV tiny").path)).target == 1
    tiny.feed(1, dur=1.5)
    d.wait_log(r"tiny/s3.ts\] of 1.5\d* sec raises the target duration from 1 to 2")
    live = Follower()
    live.look(read(d.ask("T1 LIV tiny").path))
    tiny.feed(24, dur=0.3)
    text = live.look(read(d.ask("T1 LIV tiny").path))
    assert text.target == 2 and text.first > 3, "it does not sink with the window"
