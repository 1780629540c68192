"""The shared-memory log ring and the program that prints it."""
import glob
import os
import re
import struct
import subprocess

import pytest

from harness import LIMIT, RING

NAME = f"lumo-test-{os.getpid()}"

@pytest.fixture(autouse=True)
def clean_ring():
    yield
    for name in glob.glob(f"/dev/shm/{NAME}.*"):
        os.unlink(name)

def ring(*args):
    return subprocess.run([RING, *args], capture_output=True, text=True, timeout=LIMIT, errors="replace")

def status():
    done = ring("--status", NAME)
    assert done.returncode == 0 and done.stderr == ""
    return dict(line.split(": ") for line in done.stdout.splitlines())

def follow(d):
    proc = subprocess.Popen([RING, "--follow", NAME], stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
    assert re.search(r"\(NRM\)  LUM  .*STARTING\. PID=\d+", text_up_to(proc, "Entering"))
    d.is_answering()
    assert "no-such-source" in text_up_to(proc, "source not found")
    return proc

def text_up_to(proc, word):
    text = ""
    while word not in text:
        line = proc.stdout.readline()
        assert line, text
        text += line
    return text

def test_printing_and_status(make):
    d = make(log={"level": "info", "ring": NAME, "ring_pages": 16}).start()
    d.is_answering()
    text = ring(NAME).stdout
    assert "STARTING. PID=" in text and "(DBG)" in text and "source not found" in text
    assert all(line in text for line in d.log_text().splitlines() if line.endswith(("STARTING", "[source not found]")))
    state = status()
    page = os.sysconf("SC_PAGE_SIZE")
    assert (state["owner"], state["alive"], state["closed"]) == (str(d.pid), "yes", "no")
    assert int(state["size"]) == 16 * page and 0 < int(state["kept"]) <= 16 * page
    assert float(state["age"]) < LIMIT and int(state["temperature"]) >= 3
    for _ in range(200):
        d.is_answering()
    assert int(status()["kept"]) == 16 * page
    lines = ring(NAME).stdout.splitlines()
    assert len(lines) > 100 and all("  LUM  " in line for line in lines if line), lines
    assert int(status()["temperature"]) > 0
    d.stop()
    state = status()
    assert (state["alive"], state["closed"]) == ("no", "yes")
    assert "EXIT(0)" in ring(NAME).stdout.splitlines()[-1]

def test_half_written_record(lumo):
    d = lumo(log={"ring": NAME, "ring_pages": 4})
    while int(status()["kept"]) < int(status()["size"]):
        d.is_answering()
    d.kill()
    whole = ring(NAME).stdout.splitlines()
    # As a killed writer leaves it: the end marked, the text only begun.
    with open(f"/dev/shm/{NAME}.meta", "rb") as meta:
        start = struct.unpack_from("N", meta.read(), 8)[0]
    size = os.path.getsize(f"/dev/shm/{NAME}.dat")
    with open(f"/dev/shm/{NAME}.dat", "r+b") as dat:
        for offset, data in ((200, b"\0"), (0, b"torn\nto")):
            dat.seek((start + offset) % size)
            dat.write(data)
    lines = ring(NAME).stdout.splitlines()
    assert len(lines) > 5 and set(lines) < set(whole)

def test_follow_until_the_owner_closes(lumo):
    d = lumo(log={"ring": NAME})
    proc = follow(d)
    d.stop()
    out, err = proc.communicate(timeout=LIMIT)
    assert proc.returncode == 0 and err == "" and "EXIT(0)" in out

def test_follow_until_the_owner_is_killed(lumo):
    d = lumo(log={"ring": NAME})
    proc = follow(d)
    pid = d.pid
    d.kill()
    out, err = proc.communicate(timeout=LIMIT)
    assert proc.returncode == 0 and f"process {pid}, is gone without closing it\n" in err
    assert status()["alive"] == "no" and "STARTING" in ring(NAME).stdout
    d.start()
    assert status()["owner"] == str(d.pid)

@pytest.mark.parametrize("args, code", [([NAME], 1), ([], 2), (["--bogus", NAME], 2), (["--help"], 0)])
def test_usage(args, code):
    done = ring(*args)
    assert done.returncode == code and (done.stdout if code == 0 else done.stderr)
