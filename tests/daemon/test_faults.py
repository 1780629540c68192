"""Faults around the daemon: disks, descriptors, crowds, crashes, clocks and signals."""
import os
import resource
import signal
import socket
import subprocess
import threading
import time

import pytest

from harness import IS_ROOT, at_end, connect, names, until

KINDS = ("LIV chan", "VOD chan", "EVE chan -600 0", "EVE chan {start} 5", "EVE chan {start} 100000 peer=p", "EVE chan {start} -1")

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
        assert d.ask("T1 LIV chan").raw == "T1 ERROR HTTP:500 - internal\n"
        assert d.ask("T1 VOD chan").error == (500, "internal")
        assert d.ask(f"T1 EVE chan {start} {50 + n}").error == (500, "internal")
    os.rename(d.path("away"), d.data)
    src.feed(1)
    for reply in ask_all(d, start):
        assert reply.playlist.names
    lost = [f"lost{n}.ts" for n in range(3)]
    assert d.ask("T1 VOD chan").playlist.names == names(segs) + lost + ["s4.ts"]
    assert d.ask("T1 LIV chan").playlist.names[-4:] == lost + ["s4.ts"]

@pytest.mark.parametrize("refresh", [False, True])
def test_full_disk(make, refresh):
    if not IS_ROOT:
        pytest.skip("only root mounts")
    d = make(refresh_playlists=refresh, max_live_items=64)
    mount = subprocess.run(["mount", "-t", "tmpfs", "-o", "size=1m", "tmpfs", d.data], capture_output=True)
    if mount.returncode:
        pytest.skip("mounting is not allowed here")
    try:
        d.start()
        src = d.source()
        segs = src.feed(60)
        live = d.ask("T1 LIV chan")
        before = live.playlist.text
        filler = os.open(d.data + "/filler", os.O_WRONLY | os.O_CREAT)

        def fill():
            for size in (4096, 1):
                with pytest.raises(OSError):
                    while True:
                        os.write(filler, b"f" * size)

        def failure(kind):
            fill()
            return d.ask("T1 " + kind).error

        fill()
        seg = segs[-1]
        src.send(f"SEGMENT: {seg.path} {src.next_start} 1 188 7 1\n")
        d.wait_log(rf"added LIVE .* m60 .*{seg.path}\n")
        for kind in ("LIV chan", "VOD chan", f"EVE chan {segs[0].start} 0"):
            assert failure(kind) == (500, "internal")
        assert not d.files("*.tmp") and not [name for name in d.files("*.m3u8") if os.path.getsize(name) == 0]
        os.ftruncate(filler, 0)
        os.close(filler)
        live = d.ask("T1 LIV chan")
        assert live.playlist.text != before and live.playlist.names[-2:] == names([seg, seg])
        assert d.ask("T1 VOD chan").playlist.names == names(segs + [seg])
        d.stop()
        assert not d.files("*.m3u8*")
    finally:
        d.stop()
        subprocess.run(["umount", "-l", d.data], check=True)

def test_lock_file_taken_by_a_directory(lumo):
    d = lumo()
    src = d.source()
    segs = src.feed(2)
    os.mkdir(f"{d.data}/chan-LIV1-M0.m3u8.alk")
    assert d.ask("T1 LIV chan").error == (500, "internal")
    reply = d.ask("T1 LIV chan")
    assert reply.path.endswith("/chan-LIV2-M0.m3u8") and reply.playlist.names == names(segs)
    os.mkdir(f"{d.data}/chan-VOD3-M0.m3u8")
    assert d.ask("T1 VOD chan").error == (500, "internal")
    assert not d.files("*.tmp")
    assert d.ask("T1 VOD chan").playlist.names == names(segs)

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
    high = d.source("high")
    high.feed(2)
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
    ends = until(lambda: (lambda n: n if n >= 150 - hard else 0)(sum(at_end(sock, limit=0) for sock in socks)), "shedding")
    assert ends < 150
    used = _cpu(d.pid)
    src.feed(1)
    open_ones = [sock for sock in socks if not at_end(sock, limit=0)]
    open_ones[0].settimeout(10)
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

# --- crashes and depth ---

def test_kill_and_restart_on_the_same_sockets(lumo):
    d = lumo()
    src = d.source()
    src.feed(3)
    d.ask("T1 LIV chan")
    d.kill()
    assert os.path.exists(d.src_sock) and at_end(src.sock)
    d.start()
    segs = d.source().feed(2)
    assert d.ask("T1 LIV chan").playlist.names == names(segs)

@pytest.mark.parametrize("refresh", [False, True])
@pytest.mark.parametrize("dur", [101, 59, 5000])
def test_segments_longer_than_the_playback_depth(lumo, refresh, dur):
    d = lumo(refresh_playlists=refresh)
    src = d.source(params=f"max_sec=100 data_dir={d.data}")
    for _ in range(3):
        segs = src.feed(4, dur=2.0)
        assert all(reply.path for reply in ask_all(d, segs[0].start)[:2])
        for _ in range(3):
            big, = src.feed(1, dur=float(dur))
            replies = ask_all(d, segs[0].start)
            if dur > 100:
                assert {reply.error for reply in replies} == {(404, "no items")}
    until(lambda: len(d.files("*.m3u8")) <= len(KINDS) * 3, "the old tasks to go")
    segs = src.feed(3, dur=2.0)
    assert d.ask("T1 VOD chan").playlist.names[-3:] == names(segs)

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
    assert d.proc.wait(10) == 0
    ends.set()
    d.stop()
    for thread in threads:
        thread.join(10)

# --- clocks ---

def test_task_lives_by_its_lock_file(lumo):
    d = lumo(task_tmout_sec=1, log={"level": "debug"})
    src = d.source()
    src.feed(2)
    reply = d.ask("T1 LIV chan")
    lock = reply.path + ".alk"

    def touch(ahead):
        os.utime(lock, (time.time() + ahead,) * 2)
        return d.is_answering()

    for ahead in (3600, 0):
        touch(ahead)
        checks = d.log_text().count("is alive")
        until(lambda: touch(ahead) and d.log_text().count("task_xpire: task [LIV1] is alive") > checks, "a check")
        assert d.ask("T1 LIV chan").path == reply.path
    os.utime(lock, (time.time() - 1,) * 2)
    d.wait_log(rf"task \[LIV1\] expired after \d+ >= 1 sec: playlist=\[{reply.path}\]", poke=True)
    until(lambda: not d.files("*.m3u8*"), "the files to go")
    again = d.ask("T1 LIV chan")
    assert again.path.endswith("LIV2-M0.m3u8") and again.playlist.names == ["s0.ts", "s1.ts"]
    os.unlink(again.path + ".alk")
    os.unlink(again.path)
    d.wait_log(r"task \[LIV2\] expired", poke=True)
    assert d.ask("T1 LIV chan").playlist.names == ["s0.ts", "s1.ts"]

def test_idle_source_expires(lumo):
    d = lumo(task_tmout_sec=1, src_tmout_sec=1)
    src = d.source()
    seg, = src.feed(1)
    d.ask("T1 LIV chan")
    d.ask("T1 EVE chan -600 0 peer=p")
    d.wait_log(r"\[chan\] expired after \d+/1 sec, [12] tasks")
    d.wait_log(r"removed 1 source\(s\)", poke=True)
    assert at_end(src.sock)
    assert d.ask("T1 LIV chan").error == (404, "source not found")
    assert not d.files("*.m3u8*") and seg.exists()
    d.source().feed(1)
    assert d.ask("T1 LIV chan").path

def test_idle_requests_time_out(lumo):
    d = lumo(urq_tmout_sec=1)
    d.source().feed(1)
    fresh, served, half = d.client(), d.client(), connect(d.src_sock)
    served.ask("T1 LIV chan")
    half.sendall(b"S1 in")
    assert fresh.is_closed() and served.is_closed()
    assert d.log_text().count("TIME-OUT URQ") == 2
    half.sendall(b"it half\n")
    d.wait_log(r"src\[half\] fd\d+ .*created")
    half.shutdown(socket.SHUT_WR)
    d.wait_log(r"suspend_source: src\[half\]")
