"""Event and time-shift requests."""
import itertools
import os
import time

import pytest

from harness import names, until

BIG = 2**63 - 1

def make_channel(d, count=12, dur=10.0, until_now=False):
    src = d.source(start=int(time.time()) - int(count * dur) if until_now else 1700000000)
    return src, src.feed(count, dur=dur)

@pytest.mark.parametrize("at, length, window, is_ended", [
    (20, 30, (2, 5), True), (25, 10, (2, 3), True), (0, 120, (0, 12), True), (0, 1, (0, 1), True), (119, 1, (11, 12), True),
    (30, 0, (0, 7), False), (30, -1, (0, 7), False), (50, -1, (2, 9), False), (0, 0, (0, 4), False), (10, 0, (0, 3), False),
    (60, 500, (6, 10), False), (119, 500, (11, 12), False), (120, 0, (11, 12), False)])
def test_windows(lumo, at, length, window, is_ended):
    d = lumo()
    src, segs = make_channel(d)
    reply = d.ask(f"T1 EVE chan {segs[0].start + at} {length}")
    playlist = reply.playlist
    assert reply.form == "gzip" and playlist.type is None
    assert playlist.names == names(segs[slice(*window)])
    assert playlist.first == window[0] and playlist.is_ended == is_ended
    assert d.ask(f"T2 EVE chan {segs[0].start + at} {length}").path == reply.path

@pytest.mark.parametrize("length", [-2, -600, -BIG - 1])
def test_negative_lengths_are_open_ended(lumo, length):
    d = lumo()
    src, segs = make_channel(d)
    line = f"T1 EVE chan {segs[0].start + 30}"
    assert d.ask(f"{line} {length}").path == d.ask(f"{line} {length}").path == d.ask(line).path

@pytest.mark.parametrize("at, length", [(-1, 0), (-1, 500), (121, 0), (121, 10), (10**6, -1)])
def test_no_data(lumo, at, length):
    d = lumo()
    src, segs = make_channel(d)
    assert d.ask(f"T1 EVE chan {segs[0].start + at} {length}").raw == "T1 ERROR HTTP:404 - no data for the event\n"
    assert d.ask("T1 EVE chan").error == (404, "no data for the event")

def test_same_range_is_shared_and_peers_are_not(lumo):
    d = lumo()
    src, segs = make_channel(d)
    start = segs[0].start

    def path(at, length, rest=""):
        return d.ask(f"T1 EVE chan {start + at} {length}{rest}").path

    assert path(21, 900) == path(22, 899) == path(29, 892) != path(21, 901)
    assert path(20, 30) == path(21, 29) != path(20, 31)
    open_end = path(40, 900)
    a, b = path(40, 900, " peer=a"), path(40, 900, " x=1&peer=b&y")
    assert len({open_end, a, b}) == 3
    assert (path(40, 900, " peer=a"), path(40, 900, " peer=b"), path(40, 900)) == (a, b, open_end)
    reached = path(20, 30)
    assert path(20, 30, " peer=a") == path(20, 30, " peer=b") == reached
    assert d.log_text().count("mk_event_task: created EVE") == len({open_end, a, b, path(21, 900), path(21, 901), path(20, 30), path(20, 31)})

def test_peer_belongs_to_its_line(lumo):
    d = lumo()
    src, segs = make_channel(d)
    client = d.client()
    own = client.ask(f"T1 EVE chan {segs[3].start} 900 peer=a")
    shared = client.ask(f"T1 EVE chan {segs[3].start} 900")
    assert own.path != shared.path
    assert client.ask("T1 LIV chan 0 0 peer=a").path == client.ask("T1 LIV chan 0 0 peer=b").path
    assert client.ask(f"T1 EVE chan {segs[3].start} 900 peer=a").path == own.path

def test_time_shift(lumo):
    d = lumo()
    src, segs = make_channel(d, until_now=True)
    reply = d.ask("T1 EVE chan -65 0")
    assert not reply.playlist.is_ended and len(reply.playlist.items) == 7
    assert d.ask("T2 EVE chan -65 30").path == reply.path
    assert d.ask("T2 EVE chan -65 -1").path == reply.path
    assert d.ask("T3 EVE chan -65 0 peer=a").path != reply.path
    assert d.ask("T1 EVE chan -500 0").error == (404, "no data for the event")

@pytest.mark.parametrize("peer", ["", " peer=a"])
def test_events_follow_the_feed(lumo, peer):
    """Up to the live edge, and once the end is there not any further."""
    d = lumo(refresh_playlists=True, max_live_items=4)
    src, segs = make_channel(d, count=4)
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

@pytest.mark.parametrize("size, at, rest, is_found", [
    (1, "{start}", "900", True), (1, "-600", "0", True), (7, "{start}", "900", True), (8, "{start}", "900", True),
    (9, "{start}", "900", False), (20, "{start}", "900", False), (20, "-600", "0", True), (48, "{start}", "900", False),
    (48, "-600", "0", False), (60, "{start}", "-1", False)])
def test_peers_repeated(lumo, size, at, rest, is_found):
    """A key of more than 30 characters is stored cut: its task is not found again, and nothing breaks over that."""
    d = lumo(task_tmout_sec=1, max_src_tasks=16)
    src = d.source()
    segs = src.feed(3)
    at = at.format(start=segs[1].start) if "{" in at else str(segs[1].start - int(time.time()))
    line = f"T1 EVE chan {at} {rest} peer={'p' * size}"
    if at.startswith("-"):
        assert 5 <= len(f"{at}:0/") <= 8
    replies = [d.ask(line) for _ in range(4)]
    if is_found:
        assert len({reply.path for reply in replies}) == 1
    else:
        assert len({reply.path for reply in replies}) == 4
        more = [d.ask(line) for _ in range(13)]
        assert more[-1].error == (500, "internal")
    for reply in replies:
        os.utime(reply.path + ".alk", (0, 0))
    until(lambda: not any(os.path.exists(reply.path) for reply in replies), "the tasks to expire", poke=d.poke)
    again = d.ask(line)
    assert (again.path or again.error == (500, "internal")) and again.path not in {reply.path for reply in replies}

TIMES = [0, 1, -1, -600, "{t}", BIG, -BIG - 1, BIG - 1, 2**64, -2**65, 4 * 10**9]
LENGTHS = [0, 1, -1, -2, 10, BIG, -BIG - 1, 2**64, 86400]

@pytest.mark.parametrize("refresh", [False, True])
def test_all_combinations(lumo, refresh):
    d = lumo(refresh_playlists=refresh, min_src_tasks=1, max_src_tasks=512)
    src = d.source(params=f"max_sec=100 data_dir={d.data}")
    for _ in range(3):
        segs = src.feed(6, dur=10.0)
        good = 0
        for at, length, peer in itertools.product(TIMES, LENGTHS, ("", " peer=x", " peer=" + "y" * 48)):
            reply = d.ask(f"T1 EVE chan {str(at).format(t=segs[2].start + 3)} {length}{peer}")
            good += bool(reply.path)
            if reply.path:
                assert reply.playlist.names
        assert good >= len(LENGTHS)
    assert d.ask("T1 LIV chan").playlist.names[-1] == names(segs)[-1]

def test_task_table_grows(lumo):
    d = lumo(min_src_tasks=1, max_src_tasks=40)
    src, segs = make_channel(d)
    paths = [d.ask(f"T1 EVE chan {segs[3].start} {900 + n} peer=p{n % 5}").path for n in range(40)]
    assert len(set(paths)) == 40 and "please increase lum.min_src_tasks" in d.log_text()
    assert d.ask("T1 LIV chan").error == (500, "internal")
    assert [d.ask(f"T1 EVE chan {segs[3].start} {900 + n} peer=p{n % 5}").path for n in range(40)] == paths
