"""nginx before two front ends, each with a daemon of its own, by the site that is installed."""
import collections
import concurrent.futures
import os
import re
import shutil
import subprocess
import time

import pytest

from harness import free_port, until
from test_web import WEB, Web, playlist

NGINX = shutil.which("nginx", path=os.environ["PATH"] + ":/usr/sbin")
SITE = os.path.join(os.path.dirname(__file__), "../../etc/nginx-lumo.conf")
pytestmark = pytest.mark.skipif(not (WEB and NGINX), reason="without the front end or nginx")

class Edge:
    ask, status, raw, is_up, close = Web.ask, Web.status, Web.raw, Web.is_up, Web.close

    def __init__(self, root, origins, data):
        self.port, self.accel_port = free_port(), free_port()
        site = open(SITE).read()
        servers = "".join(f"server 127.0.0.1:{one.port} max_fails=0;" for one in origins)
        for old, new in (("server 127.0.0.1:8080 max_fails=0;", servers), ("/var/cache/nginx", str(root)),
                         ("listen [::]:80;", ""), ("listen 80;", f"listen 127.0.0.1:{self.port};"),
                         ("listen 8081;", f"listen 127.0.0.1:{self.accel_port};"),
                         ("http://127.0.0.1:8080", f"http://127.0.0.1:{origins[-1].port}"), ("/var/lib/lumo", data)):
            assert old in site, old
            site = site.replace(old, new)
        temps = "".join(f"{kind}_temp_path {root}/{kind};" for kind in ("client_body", "proxy", "fastcgi", "uwsgi", "scgi"))
        conf = root / "nginx.conf"
        user = "user root;" if os.geteuid() == 0 else ""
        conf.write_text(f"{user} pid {root}/pid; daemon off; error_log {root}/error.log; worker_processes 1;"
                        f"events {{ worker_connections 2048; }} http {{ access_log off; {temps}\n{site}\n}}")
        self.errors = root / "start.log"
        with open(self.errors, "wb") as err:
            self.proc = subprocess.Popen([NGINX, "-p", root, "-c", conf], stderr=err)
        until(self.is_up, "nginx")

@pytest.fixture
def edge(lumo, tmp_path, request):
    """Two origins that both know all channels, the second with --accel too; and an edge before them."""
    daemons = [lumo(), lumo()]
    origins = [Web(d.dir, d.data, d.pl_sock, "--client-header", "X-Real-IP", "--max-sessions", "2") for d in daemons]
    origins.append(Web(daemons[1].dir, daemons[1].data, daemons[1].pl_sock, "--accel", "/lumo-media"))
    made = Edge(tmp_path, origins[:2], daemons[1].data)
    def close():
        made.close()
        for one in origins:
            one.close()
    request.addfinalizer(close)
    return made, origins, daemons

def spread(edge, daemons, count=16):
    """The origin that the edge asks for each channel, which then gets segments there."""
    names = [f"chan{i}" for i in range(count)]
    return {name: edge.ask(f"/{name}/live.m3u8").headers["X-Lumo-Origin"] for name in names}

def test_channels_are_spread_and_cached(edge):
    edge, origins, daemons = edge
    homes = spread(edge, daemons)
    shares = collections.Counter(homes.values())
    assert len(shares) == 2 and min(shares.values()) >= 2, shares
    ports = {f"127.0.0.1:{web.port}": d for web, d in zip(origins, daemons)}
    chosen = [next(name for name, home in homes.items() if home == address) for address in ports]
    segs = {}
    for name, d in zip(chosen, daemons):
        segs[name] = d.source(name).feed(8)
        until(lambda: edge.status(f"/{name}/live.m3u8") == 200, "the playlist through the edge")
        assert edge.ask(f"/{name}/live.m3u8").headers["X-Lumo-Origin"] in (homes[name], None)
        assert len(playlist(edge.ask(f"/{name}/vod.m3u8").body)) == 8
    # Fifty viewers for two seconds: the origin sees two requests a second.
    name, origin = chosen[0], origins[list(ports).index(homes[chosen[0]])]
    def answered():
        text = origin.ask("/metrics").body.decode()
        return int(re.search(r'responses_total\{route="live",class="2xx"\} (\d+)', text)[1])
    before, begun = answered(), time.monotonic()
    def watch(_):
        return [edge.status(f"/{name}/live.m3u8") for _ in iter(lambda: time.monotonic() < begun + 2, False)]
    with concurrent.futures.ThreadPoolExecutor(50) as crowd:
        results = [status for one in crowd.map(watch, range(50)) for status in one]
    asked = answered() - before
    assert 1 <= asked <= 3 + 2 * (time.monotonic() - begun)
    assert set(results) == {200} and len(results) > 4 * asked
    # A segment comes once, whatever is asked of it.
    path = f"/{name}/{segs[name][0].path}"
    os.utime(segs[name][0].full, (1e9, 1e9))
    assert [edge.ask(path + query).headers["X-Cache"] for query in ("", "?x=1", "")] == ["MISS", "HIT", "HIT"]
    part = edge.ask(path, Range="bytes=10-19")
    assert (part.status, len(part.body)) == (206, 10)
    moving = edge.ask(f"/{name}/shift.m3u8?back=30").headers["Location"]
    assert moving.startswith("shift.m3u8?back=30&session=")
    # An origin that is gone is not replaced by one that has other channels.
    origin.close()
    until(lambda: edge.status(f"/{name}/vod.m3u8?x") in (502, 504), "the missing origin's error")
    assert edge.status(f"/{chosen[1]}/live.m3u8") == 200
    origin.close = lambda: None

def test_accel(edge):
    edge, origins, daemons = edge
    d = daemons[1]
    segs = d.source("tv").feed(2)
    os.symlink(segs[0].full, os.path.join(d.data, "link.ts"))
    edge.port = edge.accel_port
    got = edge.ask("/tv/" + segs[0].path, Range="bytes=0-9")
    assert (got.status, got.body, got.headers["Content-Type"]) == (206, b"x" * 10, "video/mp2t")
    assert got.headers["Cache-Control"] and got.headers["Access-Control-Allow-Origin"] == "*"
    assert playlist(edge.ask("/tv/live.m3u8").body) == [seg.path for seg in segs]
    for path in ("/lumo-media/" + segs[0].path, "/link.ts", "/lum.conf"):
        assert edge.status(path) == 404, path
