"""Event and time-shift requests."""
import itertools
import os

import pytest

from harness import names, until

BIG = 2**63 - 1

@pytest.mark.parametrize("peer", ["", " peer=a"])
def test_events_follow_the_feed(lumo, peer):
    """Up to the live edge, and once the end is there not any further."""
    d = lumo(refresh_playlists=True, max_live_items=4)
    src = d.source(start=1700000000)
    segs = src.feed(4, dur=10.0)
    start = segs[0].start
    event = d.ask(f"T1 EVE chan {start + 10} 60{peer}")
    assert event.playlist.names == names(segs[1:4]) and not event.playlist.is_ended
    segs += src.feed(1, dur=10.0)
    d.is_answering()
    assert event.playlist.names[-1] == names(segs)[-1]
    segs += src.feed(4, dur=10.0)
    d.is_answering()
    playlist = event.playlist
    assert playlist.is_ended and playlist.names[-1] == names(segs)[6]
    segs += src.feed(3, dur=10.0)
    d.is_answering()
    assert event.playlist.text == playlist.text

def test_finished_events_outlive_their_segments(lumo):
    """Such a task is found by its key, but no new range is taken for its own."""
    d = lumo(log={"level": "debug"}, task_tmout_sec=1)
    src = d.source(params=f"max_sec=100 data_dir={d.data}", start=1700000000)
    segs = src.feed(10, dur=10.0)
    line = f"T1 EVE chan {segs[0].start} 30"
    event = d.ask(line)
    text = event.playlist.text
    assert event.playlist.is_ended and event.playlist.names == names(segs[:3])
    for _ in range(12):
        segs += src.feed(1, dur=10.0)
        oldest = segs[-10]
        assert d.ask(line).path == event.path and event.playlist.text == text
        other = d.ask(f"T1 EVE chan {oldest.start} 30")
        assert other.playlist.names == names(segs[-10:-7])
    os.utime(event.path + ".alk", (0, 0))
    until(lambda: not os.path.exists(event.path), "the task to expire", poke=d.poke)
    assert d.ask(line).error == (404, "no data for the event")

TIMES = [0, -1, -600, "{t}", BIG, -BIG - 1, 2**64]
LENGTHS = [0, -2, 10, BIG, -BIG - 1]

def test_all_combinations(lumo):
    d = lumo(refresh_playlists=True, min_src_tasks=1, max_src_tasks=512)
    src = d.source(params=f"max_sec=100 data_dir={d.data}")
    for _ in range(3):
        segs = src.feed(6, dur=10.0)
        for at, length, peer in itertools.product(TIMES, LENGTHS, ("", " peer=x", " peer=" + "y" * 48)):
            reply = d.ask(f"T1 EVE chan {str(at).format(t=segs[2].start + 3)} {length}{peer}")
            assert reply.error or reply.playlist.names
        assert d.ask(f"T1 EVE chan {segs[2].start + 3} 0").path
    assert d.ask("T1 LIV chan").playlist.names[-1] == names(segs)[-1]
