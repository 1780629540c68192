"""Command line, configuration, process set-up, signals, reload and the log."""
import os
import pwd
import re
import signal
import subprocess
import time

import pytest

from harness import IS_ROOT, LIMIT, LUMO, until

as_root = pytest.mark.skipif(not IS_ROOT, reason="only root becomes a daemon")

# --- command line ---

def test_version_and_guide(make):
    d = make()
    for args in (["-V"], ["--version", "-Z"], ["-q", "-V"]):
        text = d.refuse(*args)
        assert all(word in text for word in ("lumo", "Playlist manager", "0.2-0.7", "tarvex", "2019-10-07"))
    assert "Usage:" not in text
    guide = "Usage: lumo -Y ipath -S spath -C config [OPTIONS]\n\nParameters:\n"
    rows = ("  -Y|--items   {path}        = playlist listener (UNIX socket path)\n",
            "  -S|--sources {path}        = source listener (UNIX socket path)\n", "= config file\nOptions:\n",
            "= log level: crit|err|norm|warn|info|debug [info]\n", "= directory for playlist data [/tmp]\n")
    for args in (["-h"], ["-?"], ["--help"], ["--options"], ["-C", d.conf, "-h"]):
        done = subprocess.run([LUMO, *args], capture_output=True, text=True, timeout=LIMIT)
        assert done.returncode == 1 and done.stdout == "" and guide in done.stderr
        assert all(row in done.stderr for row in rows) and "-ggdb3" in done.stderr
    done = subprocess.run([LUMO], capture_output=True, text=True, timeout=LIMIT)
    assert done.returncode == 1 and guide in done.stderr

@pytest.mark.parametrize("args, message", [
    (["-Z"], "Unknown option: Z\n"), (["-T", "-0", "-x", "-Z"], "Unknown option: x\n"), (["--default"], "Unknown option: \0\n"),
    (["-D", "d" * 128], "Data path is too long (128 bytes), max=128 bytes.\n"),
    (["--prefix", "u" * 200], "Segment prefix is too long (200 bytes), max=128 bytes.\n"),
    (["-S", "s" * 104], "Source socket path is too long (104 bytes), max=104 bytes.\n"),
    (["-Y", "y" * 104], "Playlist socket path is too long (104 bytes), max=104 bytes.\n"),
    (["-l", "l" * 128], "Log path is too long (128 bytes), max=128 bytes.\n"),
    (["-p", "p" * 128], "Pidfile path is too long (128 bytes), max=128 bytes.\n"),
    (["-L", "loud"], "Invalid log level: loud\n"), (["-C", "/no/such.conf"], "Failed to load [/no/such.conf]\n")])
def test_option_errors(make, args, message):
    d = make()
    assert message in d.refuse("-C", d.conf, *args)
    assert not os.path.exists(d.src_sock)

@pytest.mark.parametrize("settings, message", [
    ({"pl_socket": None}, "Playlist socket path undefined\n"), ({"src_socket": None}, "Source socket path undefined\n"),
    ({"pl_socket": "", "src_socket": ""}, "Playlist socket path undefined\n")])
def test_missing_sockets(make, settings, message):
    d = make(**settings)
    text = d.refuse()
    assert message in text and "Usage: lumo" in text

@pytest.mark.skipif(any(os.path.exists(f"{place}/{name}.conf") for place in ("/etc", "/usr/local/etc")
                        for name in ("lum", "tarvex")), reason="this machine has a configuration of its own")
def test_default_configuration(make):
    d = make()
    os.mkdir(d.path("empty"))
    text = d.refuse("-T", cwd=d.path("empty"))
    assert "Invalid or unspecified config [" in text and "], please use -C path\n" in text and "Usage:" in text
    d.start("-T")
    d.stop()
    d.start("-C", "/no/such.conf", "-C", d.conf, "-0")

def test_command_line_overrides_the_file(make):
    d = make(runtime={"non_daemon": False}, item_url_prefix="http://file/")
    unused = d.pl_sock
    d.pl_sock = other = d.path("o" * (103 - len(d.path(""))))
    assert len(other) == 103
    d.log = d.path("other.log")
    d.start("-C", d.conf, "-T", "-Y", other, "-l", d.log, "-L", "norm", "-D", "/" + "d" * 126, "-F", "http://line/", "-p",
            d.path("pid"))
    assert not os.path.exists(unused)
    text = d.log_text()
    assert f"data directory       = [/{'d' * 126}]\n" in text and "item prefix          = [http://line/]\n" in text
    assert f"path={other}\n" in text and "(INF)" not in text
    assert not os.path.exists(d.path("pid"))

# --- configuration ---

RANGES = {"max_sources": (1, 1024), "max_src_tasks": (1, 512), "max_playback_time": (600, 5184000), "max_live_items": (4, 64),
          "src_tmout_sec": (1, 300), "task_tmout_sec": (1, 100), "urq_tmout_sec": (1, 120)}

@pytest.mark.parametrize("key", RANGES)
def test_ranges(make, key):
    low, high = RANGES[key]
    for value in (low - 1, high + 1, 10**12):
        message = f"load_config: lum.{key}={value if 'sec' not in key else ''}"
        text = make(**{key: value, "min_src_tasks": 1}).refuse()
        assert message in text and f" is out of range [{low}..{high}]\n" in text

def test_range_borders(make):
    for side in (0, 1):
        d = make(min_src_tasks=1, **{key: ends[side] for key, ends in RANGES.items()}).start()
        text = d.log_text()
        assert f"max live items       = {RANGES['max_live_items'][side]}\n" in text
        assert ("(fixed)" in text) == (side == 0)
        d.source().feed(1)
        assert d.ask("T1 LIV chan").path

@pytest.mark.parametrize("settings, message", [
    ({"log": None}, "load_config: missing log section\n"), ({"runtime": None}, "load_config: missing runtime section\n"),
    ({"log": {"level": "loud"}}, "Invalid log level: loud\n"), ({"log": {"time_format": "utc"}}, "Invalid time format: utc\n"),
    ({"log": {"file": "f" * 128}}, "value is too long (128), max = 127 characters.\n"),
    ({"runtime": {"run_as_user": "u" * 32}}, "value is too long (32), max = 31 characters.\n"),
    ({"item_url_prefix": "u" * 200}, "value is too long (200), max = 127 characters.\n"),
    ({"data_dir": "/no/such/dir"}, "cannot accept [/no/such/dir] as lum.data_dir\n"),
    ({"min_src_tasks": 9, "max_src_tasks": 8}, "load_config: min_src_tasks > max_src_tasks: 9 > 8\n"),
    ({"md_report": {"enabled": True}}, "load_config: MUST include non-empty [lum.md_report.pub_url]\n"),
    ({"md_report": {"enabled": True, "pub_url": "udp://h:1"}}, "load_config: must include lid section\n"),
    ({"md_report": {"enabled": True, "pub_url": "udp://h:1", "lid": {"min": 5, "max": 5}}}, "load_config: invalid min/max=5/5\n"),
    ({"md_report": {"enabled": True, "pub_url": "udp://h:1", "lid": {"min": 1}}}, "[lum.md_report.lid.prefix]\n"),
    ({"md_report": {"enabled": True, "pub_url": "udp://h:1", "lid": {"prefix": "p"}}}, "[lum.md_report.src_base]\n")])
def test_configuration_errors(make, settings, message):
    text = make(**settings).refuse()
    assert message in text and "load_plum_config: FAILED (-1)\n" in text

@pytest.mark.parametrize("text, line", [("lum: {\n", 2), ("lum: { data_dir = ; };", 1), ("\0\xff", 1), ("lum", 1)])
def test_syntax_errors(make, text, line):
    d = make()
    with open(d.conf, "w", encoding="latin-1") as out:
        out.write(text)
    assert re.search(rf"Error reading/parsing config file \[{d.conf}\]: line \d+: ", d.refuse())

@pytest.mark.parametrize("name, stamp", [
    ("raw", r"\d{10}\.\d{6}"), ("raw_mono", r"\d{1,8}\.\d{6}"), ("no_time", ""), ("gmt", r"\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{6}(?: \S+)?"),
    ("local", r"\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{6}(?: \S+)?")])
def test_time_formats(lumo, name, stamp):
    d = lumo(log={"time_format": name})
    head = rf"{stamp} {d.pid}  " if stamp else ""
    assert re.search(rf"^{head}\(NRM\)  LUM  .* STARTING\. PID={d.pid}$", d.log_text(), re.M)

# --- process ---

def fd_targets(pid):
    return {int(fd): os.readlink(f"/proc/{pid}/fd/{fd}") for fd in os.listdir(f"/proc/{pid}/fd")}

def is_gone(pid):
    try:
        with open(f"/proc/{pid}/stat") as stat:
            return stat.read().rsplit(")", 1)[1].split()[0] == "Z"
    except (FileNotFoundError, ProcessLookupError):
        return True

@as_root
@pytest.mark.parametrize("user, signo", [("", signal.SIGTERM), ("nobody", signal.SIGQUIT)])
def test_daemon(make, user, signo):
    d = make(runtime={"non_daemon": False, "quiet": False, "run_as_user": user, "pidfile": "placeholder"})
    for name in (d.dir, d.data):
        os.chmod(name, 0o777)
    d.write_config(runtime={"pidfile": d.path("pid")})
    d.launch("-C", "lum.conf")
    assert d.proc.wait(LIMIT) == 0
    d.proc = None
    d.wait_log("STARTING. PID=")
    pid = int(d.read(d.path("pid")))
    try:
        fds = fd_targets(pid)
        assert [fds[fd] for fd in range(3)] == ["/dev/null"] * 3
        assert sum(target == d.log for target in fds.values()) == 1
        assert os.readlink(f"/proc/{pid}/cwd") == (d.dir if user else "/")
        with open(f"/proc/{pid}/stat") as stat:
            fields = stat.read().rsplit(")", 1)[1].split()
        assert int(fields[3]) not in (pid, os.getsid(0)) and fields[4] == "0", "a session of its own, no terminal"
        uid = pwd.getpwnam(user).pw_uid if user else 0
        assert os.stat(f"/proc/{pid}").st_uid == uid
        src = d.source()
        src.dirname = "."
        os.chmod(src.segment().full, 0o644)
        src.feed(1)
        assert d.ask("T1 LIV chan").path
        d.write_config(max_live_items=9)
        os.kill(pid, signal.SIGHUP)
        d.wait_log(r"Configuration reloaded(.|\n)*max live items       = 9\n")
        os.kill(pid, signal.SIGUSR1)
        until(d.rotated, "the rotated log")
        d.wait_log("Successfully force-rotated")
        assert [fd_targets(pid)[fd] for fd in range(3)] == ["/dev/null"] * 3
    finally:
        os.kill(pid, signo)
    until(lambda: is_gone(pid), "the daemon's end")
    assert re.search(rf"EXIT\(0\)\. PID={pid}\n", d.log_text())
    assert not os.path.exists(d.path("pid"))
    assert d.read(d.path("stderr")) == ""

@as_root
def test_daemon_needs_a_log_file(make):
    text = make(log={"file": ""}, runtime={"non_daemon": False}).refuse()
    assert "Logfile must be specified to run as daemon\n" in text and "runtime_setup: FAILED (rc=1)\n" in text
    assert re.search(r"EXIT\(1\)\. PID=\d+\n", text)

def test_failed_start_ends_in_order(make):
    d = make(src_socket="/no/such/dir/socket")
    d.launch()
    code = d.proc.wait(LIMIT)
    d.proc = None
    assert code != 0 and re.search(rf"EXIT\({code}\)", d.log_text()) and "lumo shut down\n" in d.log_text()

def test_terminal_copy(make):
    """A foreground start with a log file also speaks on standard error, unless it is to be quiet."""
    for quiet in (False, True):
        d = make(runtime={"quiet": quiet}).start()
        assert ("STARTING. PID=" in d.read(d.path("stderr"))) == (not quiet)
        assert ("STARTING. PID=" in d.log_text())

@pytest.mark.parametrize("signo", [signal.SIGTERM, signal.SIGINT, signal.SIGQUIT])
def test_quit_signals(lumo, signo):
    d = lumo()
    d.source().feed(2)
    d.ask("T1 VOD chan")
    held = d.client()
    d.stop(signo)
    text = d.log_text()
    assert f"QUIT-SIG({signo.value})\n" in text and "lumo has been asked to quit.\n" in text and "EXIT(0)" in text
    assert held.is_closed() and not d.files("*.m3u8*")

def test_restart_moves_the_log_aside(lumo):
    d = lumo()
    d.stop()
    d.start()
    assert len(d.rotated()) == 1 and d.log_text().count("STARTING") == 1

# --- reload ---

def test_reload_by_signal_and_by_time(lumo):
    d = lumo()
    src = d.source()
    src.feed(9)
    d.write_config(max_live_items=4)
    os.utime(d.conf, (1, 1))
    d.is_answering()
    assert "Reloading" not in d.log_text()
    d.proc.send_signal(signal.SIGHUP)
    d.wait_log(r"SIGHUP\(1\)\n(.|\n)*Configuration reloaded from \[(.|\n)*max live items       = 4\n")
    assert len(d.ask("T1 LIV chan").playlist.items) == 5
    d.write_config(max_live_items=5, src_socket="/tmp/elsewhere", log={"level": "debug"})
    os.utime(d.conf, (time.time() + 5,) * 2)
    mark = d.mark()
    d.wait_log("configuration re-loaded, mtime=", since=mark, poke=True)
    d.is_answering()
    assert "(DBG)" not in d.log_text()
    assert d.source("two").feed(1)

def test_failed_reload_keeps_running(lumo):
    d = lumo()
    src = d.source()
    src.feed(1)
    good = d.read(d.conf)
    for bad in ("lum: {", "lum: { max_live_items = 3; };", "lum: { data_dir = \"/no/such/dir\"; };", None):
        if bad is None:
            os.unlink(d.conf)
        else:
            with open(d.conf, "w") as out:
                out.write(bad)
        mark = d.mark()
        d.proc.send_signal(signal.SIGHUP)
        d.wait_log(r"FAILED \(-1\)", since=mark)
        assert "Configuration reloaded" not in d.log_text()
        src.feed(1)
        assert len(d.ask("T1 LIV chan").playlist.items) == src.count
    with open(d.conf, "w") as out:
        out.write(good)
    d.proc.send_signal(signal.SIGHUP)
    d.wait_log("Configuration reloaded")

def test_reloaded_task_limits(lumo):
    """A source keeps the room that it was made with."""
    d = lumo(min_src_tasks=2, max_src_tasks=2)
    src = d.source()
    src.feed(3)
    d.write_config(min_src_tasks=1, max_src_tasks=500)
    d.proc.send_signal(signal.SIGHUP)
    d.wait_log("Configuration reloaded")
    start = src.next_start - 3
    replies = [d.ask(f"T1 EVE chan {start} {900 + n} peer=p{n}") for n in range(6)]
    assert [bool(reply.path) for reply in replies] == [True] * 2 + [False] * 4
    d.source("two").feed(3)
    assert all(d.ask(f"T1 EVE two {start} {900 + n} peer=p{n}").path for n in range(20))
    d.write_config(min_src_tasks=1, max_src_tasks=1)
    d.proc.send_signal(signal.SIGHUP)
    d.wait_log("Configuration reloaded", count=2)
    src.feed(2)
    assert d.ask("T1 LIV two").error and d.ask("T1 LIV chan").error

# --- log ---

def test_forced_rotation_keeps_the_newest_files(lumo):
    d = lumo(log={"max_files": 2, "max_size_mb": 4})
    seen = []
    for n in range(4):
        until(lambda: time.time() > max([int(name.rsplit(".", 1)[1]) for name in seen], default=0) + 1.1, "the next second")
        d.proc.send_signal(signal.SIGUSR1)
        d.wait_log(r"previous log rotated to \[.*\] tm=\d+, idx=%d\n(.|\n)*Successfully force-rotated log \[%s\]" % (n % 2, d.log))
        seen += [name for name in d.rotated() if name not in seen]
    until(lambda: d.rotated() == seen[-2:], "the older files to go")
    assert len(seen) == 4 and "Force-rotating current log" in d.read(seen[-1])
    d.is_answering()

def test_rotation_by_size(lumo):
    d = lumo(log={"max_size_mb": 1, "level": "debug"})
    client = d.client()
    line = "T1 XYZ " + "n" * 120 + "\n"
    for _ in range(1200):
        client.send(line)
        if d.rotated():
            break
        d.is_answering()
    first = d.rotated()[0]
    assert 1 << 20 <= os.path.getsize(first) < (1 << 20) + 4096 and d.mark() < 1 << 19
    assert "previous log rotated to" in d.log_text()

@pytest.mark.parametrize("level, tags", [("err", {"ERR"}), ("WARN", {"ERR", "WRN"}), ("norm", {"ERR", "WRN", "NRM"}),
                                         ("info", {"ERR", "WRN", "NRM", "INF"}), ("dbg", {"ERR", "WRN", "NRM", "INF", "DBG"})])
def test_log_level_from_the_command_line(make, level, tags):
    d = make(log={"level": "err"})
    d.start("-C", d.conf, "-L", level)
    src = d.source(wait=False)
    until(lambda: d.ask("T1 LIV chan").error == (404, "no items"), "the source")
    src.send("SEGMENT: DISCONTINUITY\nnonsense\n")
    d.wait_log(r"\(ERR\).*invalid input")
    d.is_answering()
    d.stop()
    assert set(re.findall(r"\((\w{3})\)  LUM", d.log_text())) == tags

def test_debug_toggle(lumo):
    d = lumo()
    d.proc.send_signal(signal.SIGUSR2)
    d.wait_log(r"Log level PUSH \(DEBUG\)\n.*process_signals: now all DEBUG messages will be recorded\n")
    d.is_answering()
    assert "get_pl: LIVE for src" in d.log_text()
    d.proc.send_signal(signal.SIGUSR2)
    d.wait_log(r"Log level POP \(DEBUG\)\n")
    mark = d.mark()
    d.is_answering()
    assert "(DBG)" not in d.log_text()[mark:]

@pytest.mark.parametrize("value, is_debug", [("1", True), ("0", False), ("yes", False)])
def test_debug_of_system_calls(make, value, is_debug):
    d = make().start(env={"SYSW_DEBUG": value})
    for _ in range(3):
        d.is_answering()
    assert ("CLOSED(fd" in d.log_text()) == is_debug
    assert "get_pl: LIVE for src" not in d.log_text()
