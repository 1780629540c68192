#!/usr/bin/env python3
"""Runs the daemon under a mixed load for a while and tells whether it stays flat.

    soak.py LUMO [SECONDS]

Eight producers with backups write segments of one second; clients come, refresh their lock files and go;
live, VOD and event requests, reloads, log rotations and producer kills follow each other. Prints resident
memory and open descriptors over time, and fails when the daemon dies, a request gets an error, memory grows
after the first third, or a descriptor or a file is left behind.
"""
import gzip
import os
import random
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import time

PRODUCERS = 8
DEPTH_SEC = 100
TASK_TMOUT = 4
SRC_TMOUT = 5
FIRST_ASK = 8  # seconds until there is something to ask for


def connect(path):
    sock = socket.socket(socket.AF_UNIX)
    sock.connect(path)
    return sock


class Producer:
    """One connection of a source; `name` begins with ~ for the backup."""

    def __init__(self, box, name):
        self.box, self.name, self.sent = box, name, []
        self.sock = connect(box.src_path)
        self.sock.sendall(f"S1 init {name} max_sec={DEPTH_SEC} data_dir={box.data}\n".encode())

    def segment(self, now):
        self.box.serial += 1
        path = f"{self.name.replace('~', 'b')}-{self.box.serial}.ts"
        self.sent.append(path)
        with open(os.path.join(self.box.data, path), "wb") as out:
            out.write(b"x" * 188)
        self.sock.sendall(f"SEGMENT: {path} {now} 1.0 188 1 {self.box.next_pts()}\n".encode())

    def kill(self):
        self.sock.close()


class Box:
    def __init__(self, lumo):
        self.dir = tempfile.mkdtemp(prefix="lumo-soak-")
        self.data = os.path.join(self.dir, "d")
        os.mkdir(self.data)
        self.src_path = os.path.join(self.dir, "src")
        self.pl_path = os.path.join(self.dir, "pl")
        self.conf = os.path.join(self.dir, "lum.conf")
        self.log = os.path.join(self.dir, "lumo.log")
        self.pts = self.serial = 0
        with open(self.conf, "w") as out:
            out.write(
                f'lum: {{ log: {{ file="{self.log}"; level="info"; enable_syslog=false; max_size_mb=4;'
                f' max_files=3; }}; runtime: {{ non_daemon=true; quiet=true; enforce_core_dumps=false; }};'
                f' src_socket="{self.src_path}"; pl_socket="{self.pl_path}"; data_dir="{self.data}";'
                f" task_tmout_sec={TASK_TMOUT}; src_tmout_sec={SRC_TMOUT}; refresh_playlists=true; }};\n")
        self.proc = subprocess.Popen([lumo, "-C", self.conf])
        while not (os.path.exists(self.src_path) and os.path.exists(self.pl_path)):
            assert self.proc.poll() is None, "the daemon did not start"
            time.sleep(0.05)
        time.sleep(0.2)

    def next_pts(self):
        self.pts += 90000
        return self.pts

    def rss_kb(self):
        with open(f"/proc/{self.proc.pid}/status") as status:
            return next(int(line.split()[1]) for line in status if line.startswith("VmRSS"))

    def fds(self):
        return len(os.listdir(f"/proc/{self.proc.pid}/fd"))

    def ask(self, line):
        with connect(self.pl_path) as sock:
            sock.settimeout(10)
            sock.sendall(line.encode() + b"\n")
            return sock.recv(300).decode()


def request_line(now, held):
    """Asks for what must be there: events begin within the `held` seconds that the recordings go back."""
    name = f"chan{random.randrange(PRODUCERS)}"
    kind = random.choice(["LIV", "LIV", "VOD", "EVE", "EVE", "EVE"])
    if kind != "EVE":
        return f"T1 {kind} {name}"
    events = [(-20, 0), (-40, 0), (now - 60, 20), (now - 30, 60), (now - 50, -1), (now - 3, 10)]
    start, dur = random.choice([e for e in events if (-e[0] if e[0] < 0 else now - e[0]) < max(held - 2, 1)])
    peer = random.choice(["", " peer=a", f" peer=viewer{random.randrange(20)}"])
    return f"T1 EVE {name} {start} {dur}{peer}"


def left_behind(box, i, fed):
    """Segments of a channel that are older than its recording but for the one that waits to be deleted."""
    with gzip.open(box.ask(f"T1 VOD chan{i}").split()[2]) as text:
        oldest = next(line for line in text.read().decode().split() if line.endswith(".ts"))
    old = [path for path in fed[i][:fed[i].index(oldest)] if os.path.exists(os.path.join(box.data, path))]
    return old[:-1]


def run(lumo, seconds):
    box = Box(lumo)
    base_fds = box.fds()
    mains = {i: Producer(box, f"chan{i}") for i in range(PRODUCERS)}
    backups = {i: Producer(box, f"~chan{i}") for i in range(PRODUCERS)}
    fed = {i: [] for i in range(PRODUCERS)}  # what each channel must have taken up, in order
    watched = {}  # lock file -> when its viewer leaves
    counts = {"requests": 0, "answers": 0, "errors": 0, "reloads": 0, "rotations": 0, "kills": 0}
    samples = []
    begin = time.time()
    due = {"segment": 0, "reload": 15, "rotate": 25, "kill": 7, "sample": 0}
    while (t := time.time() - begin) < seconds:
        now = int(time.time())
        assert box.proc.poll() is None, f"the daemon died: {box.proc.returncode}"
        if t >= due["segment"]:
            due["segment"] += 1
            for producer in list(mains.values()) + list(backups.values()):
                producer.segment(now)
            for i in range(PRODUCERS):
                active = mains.get(i) or backups.get(i)
                if active:
                    fed[i].append(active.sent[-1])
        if t >= due["kill"]:
            # The backup takes over; later both roles come back.
            due["kill"] += 7
            i = random.randrange(PRODUCERS)
            counts["kills"] += 1
            if i in mains:
                mains.pop(i).kill()
            elif i in backups:
                backups.pop(i).kill()
        for i in range(PRODUCERS):
            if i not in mains and i not in backups:
                mains[i] = Producer(box, f"chan{i}")
            if i in mains and i not in backups:
                backups[i] = Producer(box, f"~chan{i}")
            if i not in mains and i in backups and random.random() < 0.002:
                backups.pop(i).kill()
        for _ in range(3 if t > FIRST_ASK else 0):
            line = request_line(now, t)
            answer = box.ask(line).split()
            counts["requests"] += 1
            if "ERROR" in answer:
                counts["errors"] += 1
                print(f"{line}: {' '.join(answer)}", flush=True)
            else:
                counts["answers"] += 1
                watched.setdefault(answer[2] + ".alk", t + random.choice([0, 3, 10, 30]))
        for lock in [lock for lock, until in watched.items() if t > until]:
            del watched[lock]
        for lock in watched:
            try:
                os.utime(lock)
            except OSError:
                pass
        if t >= due["reload"]:
            due["reload"] += 15
            counts["reloads"] += 1
            os.kill(box.proc.pid, signal.SIGHUP)
        if t >= due["rotate"]:
            due["rotate"] += 25
            counts["rotations"] += 1
            os.kill(box.proc.pid, signal.SIGUSR1)
        if t >= due["sample"]:
            due["sample"] += max(10, seconds / 30)
            samples.append((t, box.rss_kb(), box.fds()))
            print(f"{t:7.0f} s  rss {samples[-1][1]} kB  descriptors {samples[-1][2]}", flush=True)
        time.sleep(0.1)
    behind = [path for i in range(PRODUCERS) for path in left_behind(box, i, fed)]
    for producer in list(mains.values()) + list(backups.values()):
        producer.kill()
    deadline = time.time() + 4 * (TASK_TMOUT + SRC_TMOUT)
    while box.fds() > base_fds and time.time() < deadline:
        try:
            box.ask("T1 LIV nobody")  # wakes the loop
        except OSError:
            pass
        time.sleep(0.5)
    end_fds = box.fds()
    box.proc.send_signal(signal.SIGTERM)
    code = box.proc.wait(20)
    left = [f for f in os.listdir(box.data) if not f.endswith(".ts")]
    third = [rss for t, rss, _ in samples if t >= seconds / 3]
    print(counts)
    print(f"exit {code}, descriptors {base_fds} -> {end_fds}, playlist files left {len(left)}, "
          f"rss after the first third {min(third)}..{max(third)} kB, segments left behind {behind}")
    shutil.rmtree(box.dir)
    return code == 0 and not counts["errors"] and end_fds <= base_fds and not left and not behind and third[-1] <= third[0] * 1.05 + 512


if __name__ == "__main__":
    if len(sys.argv) < 2:
        sys.exit(__doc__)
    good = run(os.path.abspath(sys.argv[1]), float(sys.argv[2]) if len(sys.argv) > 2 else 1800)
    print("flat" if good else "NOT flat")
    sys.exit(0 if good else 1)
