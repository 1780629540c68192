"""Faults around the daemon: disks, descriptors, crowds, crashes, clocks and signals."""
import os
import resource
import signal
import threading
import time

import pytest

from harness import LIMIT, at_end, connect, names, until

KINDS = ("LIV chan", "VOD chan", "EVE chan -600 0", "EVE chan {start} 5", "EVE chan {start} 100000 peer=p")

def ask_all(d, start):
    return [d.ask("T1 " + kind.format(start=start)) for kind in KINDS]

# --- disks ---

@pytest.mark.parametrize("refresh", [False, True])
def test_data_directory_vanishes_and_comes_back(lumo, refresh):
    d = lumo(verify_item_filesize=False, refresh_playlists=refresh)
    src = d.source()
    segs = src.feed(4)
    start = segs[0].start
    assert all(reply.path for reply in ask_all(d, start))
    os.rename(d.data, d.path("away"))
    for n in range(3):
        src.send(f"SEGMENT: chan/lost{n}.ts {src.next_start} 1 188 7 1\n")
        src.wait(f"chan/lost{n}.ts")
        for kind in ("LIV chan", "VOD chan", f"EVE chan {start} {50 + n}"):
            assert d.ask("T1 " + kind).error == (500, "internal")
    os.rename(d.path("away"), d.data)
    src.feed(1)
    assert all(reply.playlist.names for reply in ask_all(d, start))
    expected = names(segs) + [f"lost{n}.ts" for n in range(3)] + ["s4.ts"]
    assert d.ask("T1 VOD chan").playlist.names == expected
    assert d.ask("T1 LIV chan").playlist.names[-4:] == expected[-4:]

# --- crowds ---

@pytest.fixture
def many_descriptors():
    old = resource.getrlimit(resource.RLIMIT_NOFILE)
    if old[1] < 3000:
        pytest.skip("too few descriptors allowed")
    resource.setrlimit(resource.RLIMIT_NOFILE, (3000, old[1]))
    yield
    resource.setrlimit(resource.RLIMIT_NOFILE, old)

def test_thousand_idle_connections(lumo, many_descriptors):
    d = lumo(urq_tmout_sec=120)
    src = d.source()
    segs = src.feed(1)
    idle = [connect(d.pl_sock) for _ in range(1000)] + [connect(d.src_sock) for _ in range(300)]
    until(lambda: len(os.listdir(f"/proc/{d.pid}/fd")) > 1300, "all to be accepted")
    over = connect(d.pl_sock)
    assert at_end(over)
    d.wait_log(r"Too many user requests \(1000\) queued")
    segs += src.feed(1)
    d.source("high").feed(2)
    idle[500].sendall(b"T1 LIV high\n")
    assert b" text/M3U " in idle[500].recv(4096)
    for sock in idle[:200]:
        sock.close()
    until(lambda: len(os.listdir(f"/proc/{d.pid}/fd")) < 1150, "the closed ones to be removed")
    assert d.ask("T1 LIV chan").playlist.names == names(segs)
    d.stop()
    for sock in idle[200:]:
        sock.close()

def test_out_of_descriptors(make):
    hard = 48
    d = make(urq_tmout_sec=120).start(preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_NOFILE, (20, hard)))
    src = d.source()
    src.feed(2)
    vod = d.ask("T1 VOD chan")
    socks = [connect(d.pl_sock) for _ in range(100)] + [connect(d.src_sock) for _ in range(50)]
    until(lambda: 150 - hard <= sum(at_end(sock, limit=0) for sock in socks) < 150, "shedding")
    used = _cpu(d.pid)
    src.feed(1)
    open_ones = [sock for sock in socks if not at_end(sock, limit=0)]
    open_ones[0].settimeout(LIMIT)
    open_ones[0].sendall(b"T1 EVE chan -600 0\nT2")
    assert open_ones[0].recv(4096).startswith(b"T1 ")
    late = connect(d.src_sock)
    late.sendall(b"S1 init late\n")
    assert at_end(late)
    assert _cpu(d.pid) - used < 1.0
    for sock in socks:
        sock.close()
    until(lambda: len(os.listdir(f"/proc/{d.pid}/fd")) < 20, "the closed ones to be removed")
    d.source("late").feed(1)
    assert d.ask("T1 LIV late").path and os.path.exists(vod.path)

def _cpu(pid):
    """Seconds of processor time that a process has used."""
    with open(f"/proc/{pid}/stat") as stat:
        fields = stat.read().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")

# --- signals ---

def test_signals_during_uninterrupted_traffic(lumo):
    d = lumo(log={"max_files": 3}, refresh_playlists=True)
    src = d.source(params=f"max_sec=100 data_dir={d.data}")
    ends = threading.Event()
    counts = {"lines": 0, "answers": 0}

    def feed():
        try:
            while not ends.is_set():
                src.put(src.segment(), wait=False)
                counts["lines"] += 1
        except OSError:
            pass

    def ask():
        while not ends.is_set():
            try:
                client = d.client()
                while not ends.is_set():
                    client.ask("T1 EVE chan -1 0" if counts["answers"] % 2 else "T1 LIV chan")
                    counts["answers"] += 1
            except (OSError, EOFError):
                counts["breaks"] = counts.get("breaks", 0) + 1

    threads = [threading.Thread(target=work, daemon=True) for work in (feed, ask)]
    src.feed(1)
    for thread in threads:
        thread.start()
    for signo, text in ((signal.SIGHUP, "Configuration reloaded"), (signal.SIGUSR2, "PUSH"), (signal.SIGUSR2, "POP"),
                        (signal.SIGUSR1, "Successfully force-rotated")) * 3:
        before = d.all_text().count(text)
        d.proc.send_signal(signo)
        until(lambda: d.all_text().count(text) > before, f"[{text}]", poke=lambda: time.sleep(0.02))
    until(lambda: min(counts["lines"], counts["answers"]) > 20, "the traffic to go on")
    d.proc.send_signal(signal.SIGTERM)
    assert d.proc.wait(LIMIT) == 0
    ends.set()
    d.stop()
    for thread in threads:
        thread.join(LIMIT)
