"""The front end against nginx serving the same files on the same processor, in turns:  web.py DIRECTORY

DIRECTORY holds lumo, lumo-web and the benchmarks, as bench/run.sh builds them. Needs nginx (scripts/install-deps.sh web
edge bench) and two processors: the servers have one, the load the other. Prints requests a second and processor time for each at 64 and 1,000
connections that stay open, memory of an idle connection, and the daemon's questions a second under 10 and 10,000
viewers. Ends with status 1 when an aim is missed.
"""
import os
import pathlib
import re
import shutil
import socket
import statistics
import subprocess
import sys
import tempfile
import time
import urllib.request

ROUNDS = 3
SECONDS = 2
SIZES = {"segment of 1 MiB": 1 << 20, "segment of 64 KiB": 1 << 16}
AIMS = {"playlist": 0.5, "segment of 1 MiB": 0.8, "segment of 64 KiB": 0.8}
TICK = os.sysconf("SC_CLK_TCK")
NGINX_CONF = """
daemon off; pid {root}/pid; error_log {root}/error.log; worker_processes 1; {user}
events {{ worker_connections 16384; }}
http {{
    access_log off; sendfile on; tcp_nopush on; keepalive_requests 1000000000;
    types {{ video/mp2t ts; application/vnd.apple.mpegurl m3u8; }}
    server {{ listen 127.0.0.1:{port} backlog=1024; root {data}; }}
}}
"""


def free_port():
    with socket.create_server(("127.0.0.1", 0)) as probe:
        return probe.getsockname()[1]


def wait_port(port):
    for _ in range(500):
        with socket.socket() as sock:
            if sock.connect_ex(("127.0.0.1", port)) == 0:
                return
        time.sleep(0.02)
    sys.exit("a server does not start")


class Server:
    def __init__(self, load_program, port, *command):
        self.load_program = load_program
        self.port = port
        self.proc = subprocess.Popen(["taskset", "-c", "0", *map(str, command)], stderr=subprocess.DEVNULL)
        wait_port(port)
        children = pathlib.Path(f"/proc/{self.proc.pid}/task/{self.proc.pid}/children").read_text().split()
        self.pid = int(children[0]) if children else self.proc.pid  # the one that works

    def cpu(self):
        words = pathlib.Path(f"/proc/{self.pid}/stat").read_text().rpartition(")")[2].split()
        return (int(words[11]) + int(words[12])) / TICK

    def rss(self):
        text = pathlib.Path(f"/proc/{self.pid}/smaps_rollup").read_text()
        return int(re.search(r"^Pss_Dirty:\s+(\d+)", text, re.MULTILINE)[1]) * 1024

    def start_load(self, path, connections, seconds):
        command = [self.load_program, self.port, path, connections, seconds]
        return subprocess.Popen(["taskset", "-c", "1", *map(str, command)], stdout=subprocess.PIPE, text=True)

    def load(self, path, connections, seconds=SECONDS):
        """Requests a second, and microseconds of processor time for each."""
        before = self.cpu()
        load = self.start_load(path, connections, seconds)
        out = load.communicate()[0]
        if load.returncode != 0:
            sys.exit(f"no load on {path}")
        count, rate = re.match(r"(\d+) answers, ([\d.]+) a second", out).groups()
        return float(rate), (self.cpu() - before) / int(count) * 1e6

    def stop(self):
        self.proc.terminate()
        self.proc.wait()


class Bench:
    def __init__(self, programs):
        self.root = pathlib.Path(tempfile.mkdtemp(prefix="lumo-web-bench-"))
        self.data = self.root / "data"
        (self.data / "tv").mkdir(parents=True)
        self.paths = self.make_files()
        conf = self.root / "lum.conf"
        conf.write_text(f'lum = {{ src_socket = "{self.root}/src"; pl_socket = "{self.root}/pl"; data_dir = "{self.data}";'
                        f' src_tmout_sec = 300; task_tmout_sec = 100; log = {{ file = "{self.root}/log"; level = "err";'
                        ' enable_syslog = false; }; runtime = { quiet = true; enforce_core_dumps = false; }; };')
        self.daemon = subprocess.Popen([programs / "lumo", "-C", conf, "-T"])
        for _ in range(500):
            if (self.root / "pl").exists():
                break
            time.sleep(0.02)
        self.source = socket.socket(socket.AF_UNIX)
        self.source.connect(str(self.root / "src"))
        self.report()
        port = free_port()
        load_program = programs / "bench" / "http_load"
        self.web = Server(load_program, port, programs / "lumo-web", "-C", conf, "-p", port, "--max-conns", "12000")
        port = free_port()
        user = "user root;" if os.geteuid() == 0 else ""
        (self.root / "nginx.conf").write_text(NGINX_CONF.format(root=self.root, port=port, data=self.data, user=user))
        nginx = shutil.which("nginx", path=os.environ["PATH"] + ":/usr/sbin")
        self.nginx = Server(load_program, port, nginx, "-p", self.root, "-c", self.root / "nginx.conf")
        self.paths["playlist"] = self.find_playlist()

    def make_files(self):
        paths = {}
        for name, size in SIZES.items():
            path = self.data / "tv" / f"{size}.ts"
            path.write_bytes(os.urandom(size))
            os.utime(path, (1e9, 1e9))
            paths[name] = f"tv/{size}.ts"
        return paths

    def report(self):
        lines, start = [f"S1 init tv max_sec=3600 data_dir={self.data}"], int(time.time()) - 100
        for i in range(20):
            path = self.data / "tv" / f"s{i}.ts"
            path.write_bytes(b"x" * 188)
            lines.append(f"SEGMENT: tv/s{i}.ts {start + 4 * i} 4.0 188 1 {90000 * (i + 1)}")
        for line in lines:
            self.source.sendall(line.encode() + b"\n")
            time.sleep(0.02)

    def find_playlist(self):
        """The live playlist's file, as nginx serves it."""
        urllib.request.urlopen(f"http://127.0.0.1:{self.web.port}/tv/live.m3u8", timeout=10).read()
        return next(self.data.glob("tv-LIV*.m3u8")).name

    def compare(self, name, connections):
        web_path = "tv/live.m3u8" if name == "playlist" else self.paths[name]
        rates = {"web": [], "nginx": []}
        costs = {"web": [], "nginx": []}
        for _ in range(ROUNDS):
            for who, server, path in (("web", self.web, web_path), ("nginx", self.nginx, self.paths[name])):
                rate, cost = server.load(path, connections)
                rates[who].append(rate)
                costs[who].append(cost)
        rate = {who: statistics.median(all) for who, all in rates.items()}
        cost = {who: statistics.median(all) for who, all in costs.items()}
        ratio = statistics.median(a / b for a, b in zip(rates["web"], rates["nginx"]))
        print(f"{name:18} {connections:5} connections: {rate['web']:8.0f}/s, nginx {rate['nginx']:8.0f}/s, ratio "
              f"{ratio:.2f}; {cost['web']:6.1f} us each, nginx {cost['nginx']:6.1f} us", flush=True)
        return ratio >= AIMS[name]

    def idle_memory(self, server, path, count=1000):
        urllib.request.urlopen(f"http://127.0.0.1:{server.port}/{path}", timeout=10).read()
        request = f"GET /{path} HTTP/1.1\r\nHost: x\r\nRange: bytes=0-0\r\n\r\n".encode()
        before, socks = server.rss(), []
        for _ in range(count):
            socks.append(socket.create_connection(("127.0.0.1", server.port)))
            socks[-1].sendall(request)
            socks[-1].recv(65536)
        after = server.rss()
        for sock in socks:
            sock.close()
        return (after - before) / count

    def questions(self, connections, seconds=5):
        def metric(name):
            text = urllib.request.urlopen(f"http://127.0.0.1:{self.web.port}/metrics", timeout=30).read().decode()
            return int(re.search(rf"^{name} (\d+)", text, re.MULTILINE)[1])
        load = self.web.start_load("tv/live.m3u8", connections, seconds + 6)
        while load.poll() is None and metric("lumo_web_connections") < 0.8 * connections:
            time.sleep(0.05)
        before, begun = metric("lumo_web_questions_total"), time.monotonic()
        time.sleep(seconds)
        rate = (metric("lumo_web_questions_total") - before) / (time.monotonic() - begun)
        if load.wait() != 0:
            sys.exit("no load")
        return rate

    def run(self):
        path = self.paths["segment of 64 KiB"]  # while neither has memory left from others
        print(f"an idle connection: {self.idle_memory(self.web, path):.0f} bytes, nginx "
              f"{self.idle_memory(self.nginx, path):.0f}", flush=True)
        held = [self.compare(name, connections) for name in AIMS for connections in (64, 1000)]
        few, many = self.questions(10), self.questions(10000)
        print(f"questions to the daemon: {few:.2f}/s for 10 viewers, {many:.2f}/s for 10,000", flush=True)
        held.append(many < 1.1 * few)
        return all(held)

    def close(self):
        for server in (self.web, self.nginx):
            server.stop()
        self.daemon.terminate()
        self.daemon.wait()
        self.source.close()
        shutil.rmtree(self.root)


def main():
    if len(sys.argv) != 2:
        sys.exit("usage: web.py DIRECTORY")
    bench = Bench(pathlib.Path(sys.argv[1]).resolve())
    try:
        return 0 if bench.run() else 1
    finally:
        bench.close()


if __name__ == "__main__":
    sys.exit(main())
