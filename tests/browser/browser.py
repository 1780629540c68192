"""A headless Chromium, driven through chromedriver's HTTP interface."""
import base64
import json
import os
import pathlib
import re
import shutil
import subprocess
import tempfile
import time
import urllib.error
import urllib.request

from air import until

FLAGS = ["--headless=new", "--no-sandbox", "--disable-gpu", "--disable-dev-shm-usage", "--disable-quic", "--no-first-run",
         "--disable-background-networking", "--disable-component-update", "--disable-sync", "--mute-audio",
         "--disable-background-timer-throttling", "--disable-renderer-backgrounding",
         "--autoplay-policy=no-user-gesture-required"]
START_LIMIT = 30.0


class Browser:
    def __init__(self, width=1280, height=900):
        self.profile = tempfile.mkdtemp(prefix="lumo-browser-")
        self.log = pathlib.Path(self.profile, "driver.log")
        self.driver = subprocess.Popen(["chromedriver", "--port=0"], stdout=self.log.open("wb"), stderr=subprocess.STDOUT,
                                       env=dict(os.environ, HOME=self.profile, TMPDIR=self.profile))
        self.session = None
        try:
            self.base = f"http://127.0.0.1:{until(self.driver_port, 'the browser', START_LIMIT)}/session"
            options = {"args": [*FLAGS, f"--window-size={width},{height}", f"--user-data-dir={self.profile}/user"]}
            made = self.call("POST", "", {"capabilities": {"alwaysMatch": {
                "browserName": "chrome", "goog:chromeOptions": options, "goog:loggingPrefs": {"browser": "ALL"}}}})
            self.session = made["sessionId"]
        except BaseException:
            self.close()
            raise

    def driver_port(self):
        found = re.search(r"started successfully on port (\d+)", self.log.read_text())
        return found and found[1]

    def call(self, method, path, body=None):
        url = self.base + (f"/{self.session}{path}" if self.session else path)
        data = json.dumps(body or {}).encode() if method == "POST" else None
        request = urllib.request.Request(url, data, {"Content-Type": "application/json"}, method=method)
        try:
            with urllib.request.urlopen(request, timeout=60) as answer:
                return json.load(answer)["value"]
        except urllib.error.HTTPError as fault:
            raise RuntimeError(fault.read().decode()[:600]) from fault

    def open(self, url):
        self.call("POST", "/url", {"url": url})

    def run(self, script, *args):
        """The value of a JavaScript function body."""
        return self.call("POST", "/execute/sync", {"script": script, "args": list(args)})

    def click(self, selector):
        self.run("document.querySelector(arguments[0]).click()", selector)

    def resize(self, width, height):
        """The page's own size, as a phone of that width has it."""
        self.call("POST", "/goog/cdp/execute", {"cmd": "Emulation.setDeviceMetricsOverride", "params": {
            "width": width, "height": height, "deviceScaleFactor": 1, "mobile": width < 600}})

    def screenshot(self, path):
        pathlib.Path(path).parent.mkdir(parents=True, exist_ok=True)
        pathlib.Path(path).write_bytes(base64.b64decode(self.call("GET", "/screenshot")))

    def console(self):
        return [entry["message"] for entry in self.call("POST", "/se/log", {"type": "browser"})
                if entry["level"] == "SEVERE"]

    def close(self):
        try:
            if self.session:
                self.call("DELETE", "")
        finally:
            self.driver.terminate()
            self.driver.wait(10)
            shutil.rmtree(self.profile, ignore_errors=True)

    # --- a video element ---

    def video(self):
        return self.run("const v = document.querySelector('video');"
                        "return {at: v.currentTime, frames: v.getVideoPlaybackQuality().totalVideoFrames,"
                        " width: v.videoWidth, paused: v.paused, ready: v.readyState,"
                        " segment: window.lumoSegment || '',"
                        " date: hls && hls.playingDate ? hls.playingDate.getTime() / 1000 : null}")

    def watch(self, seconds, end=None):
        """Looks on while the video plays, for that long or until `end(state)` holds: how far it came and
        the longest time that its picture stood still, in seconds, and the last state."""
        begun = moved = time.monotonic()
        first = last = self.video()
        stall = 0.0
        while time.monotonic() - begun < seconds and not (end and end(last)):
            time.sleep(0.2)
            now = self.video()
            if now["at"] != last["at"] and now["frames"] != last["frames"]:
                moved = time.monotonic()
            stall = max(stall, time.monotonic() - moved)
            last = now
        return last["at"] - first["at"], stall, last

    def errors(self):
        return self.run("return window.lumoErrors")

    def fatal(self):
        return [error for error in self.errors() if error["fatal"]]
