#!/usr/bin/python3
"""The fleet page in headless Chromium against a real mosquitto on loopback and two
headless stations reporting to it; what no short shift shows (junk, markup, silence) is
published by the test as the reporting contract (docs/reporting.md) describes it.

  fleet_page_test.py QUORVEL_BENCH

Exits 77 (skipped) when chromium, mosquitto or python3-websocket is missing, unless CI=true.
"""
import json
import os
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import time
import urllib.request

SKIP = 77
HERE = os.path.dirname(os.path.abspath(__file__))
PAGE = os.path.normpath(os.path.join(HERE, "..", "..", "fleet"))


def missing_tools():
    missing = [t for t in ("chromium", "mosquitto", "mosquitto_pub") if not shutil.which(t)]
    try:
        import websocket  # noqa: F401
    except ImportError:
        missing.append("python3-websocket")
    return missing


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def wait_until(what, check, timeout=10.0, step=0.05):
    end = time.monotonic() + timeout
    while True:
        got = check()
        if got:
            return got
        if time.monotonic() > end:
            raise AssertionError("timed out waiting for " + what)
        time.sleep(step)


class Broker:
    """mosquitto on loopback: plain MQTT for stations, WebSockets and the page for browsers."""

    def __init__(self, work):
        self.mqtt, self.ws = free_port(), free_port()
        # The sample configuration that the package ships, on loopback ports of our own.
        with open(os.path.join(HERE, "..", "..", "packaging", "mosquitto-fleet.conf")) as f:
            sample = f.read()
        conf = os.path.join(work, "mosquitto.conf")
        with open(conf, "w") as f:
            f.write(sample.replace("listener 1883", f"listener {self.mqtt} 127.0.0.1")
                    .replace("listener 9001", f"listener {self.ws} 127.0.0.1")
                    .replace("http_dir /usr/share/quorvel/fleet", f"http_dir {PAGE}") + "persistence false\n")
        self.log = open(os.path.join(work, "mosquitto.log"), "w")
        self.proc = subprocess.Popen(["mosquitto", "-c", conf], stdout=self.log, stderr=subprocess.STDOUT)
        wait_until("mosquitto", lambda: self._listening())

    def _listening(self):
        try:
            socket.create_connection(("127.0.0.1", self.ws), 0.2).close()
            return True
        except OSError:
            return False

    def publish(self, topic, payload, retain=False):
        body = payload if isinstance(payload, (str, bytes)) else json.dumps(payload)
        args = ["mosquitto_pub", "-h", "127.0.0.1", "-p", str(self.mqtt), "-q", "1", "-t", topic, "-s"]
        if retain:
            args.append("-r")
        subprocess.run(args, input=body if isinstance(body, bytes) else body.encode(), check=True, timeout=10)

    def stop(self):
        if self.proc.poll() is None:
            self.proc.terminate()
            self.proc.wait(10)
            self.log.close()


class Browser:
    """Headless Chromium driven through the DevTools protocol."""

    def __init__(self, work, width=1600, height=1000):
        import websocket
        port = free_port()
        self.proc = subprocess.Popen(
            ["chromium", "--headless", "--no-sandbox", "--disable-gpu", "--no-first-run", "--mute-audio",
             f"--remote-debugging-port={port}", f"--user-data-dir={os.path.join(work, 'chromium')}",
             f"--window-size={width},{height}", "about:blank"],
            stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, start_new_session=True)
        pages = wait_until("chromium's DevTools", lambda: self._pages(port), timeout=30)
        self.ws = websocket.create_connection(pages[0]["webSocketDebuggerUrl"], timeout=30, suppress_origin=True)
        self.next_id = 0
        self.errors = []
        self.call("Runtime.enable")
        self.call("Page.enable")

    @staticmethod
    def _pages(port):
        try:
            with urllib.request.urlopen(f"http://127.0.0.1:{port}/json/list", timeout=1) as r:
                return [t for t in json.load(r) if t.get("type") == "page"]
        except OSError:
            return None

    def call(self, method, **params):
        self.next_id += 1
        self.ws.send(json.dumps({"id": self.next_id, "method": method, "params": params}))
        while True:
            msg = json.loads(self.ws.recv())
            if msg.get("method") == "Runtime.exceptionThrown":
                self.errors.append(msg["params"]["exceptionDetails"].get("text", "exception"))
            if msg.get("id") == self.next_id:
                if "error" in msg:
                    raise RuntimeError(f"{method}: {msg['error']}")
                return msg.get("result", {})

    def eval(self, expr):
        r = self.call("Runtime.evaluate", expression=expr, returnByValue=True)
        if "exceptionDetails" in r:
            raise RuntimeError(f"{expr}: {r['exceptionDetails']}")
        return r["result"].get("value")

    def wait(self, what, expr, timeout=10.0):
        # Until the page has loaded, what the expression reads may not be there yet.
        guarded = f"(() => {{ try {{ return ({expr}); }} catch (e) {{ return null; }} }})()"
        return wait_until(what, lambda: self.eval(guarded), timeout)

    def screenshot(self, path):
        import base64
        with open(path, "wb") as f:
            f.write(base64.b64decode(self.call("Page.captureScreenshot", format="png")["data"]))

    def stop(self):
        try:
            self.ws.close()
        finally:
            os.killpg(self.proc.pid, signal.SIGTERM)
            self.proc.wait(10)


def message(name, station, **fields):
    stamp = time.strftime("%Y-%m-%dT%H:%M:%S%z")
    return {"v": 1, "MessageName": name, "Station": station, "TimeStamp": stamp[:-2] + ":" + stamp[-2:], **fields}


def slot(station, n, state, **fields):
    base = {"Lane": n, "Percent": 0, "Step": "", "Port": f"COM{n + 3}", "Phone": {}, "JobSeconds": 0,
            "TransactionID": "", "Reason": ""}
    return message("SlotState", station, State=state, **{**base, **fields})


def tile(browser, station, n):
    """The tile's state class, word and note."""
    return browser.eval(
        f"(() => {{ const t = document.querySelector('[data-station=\"{station}\"] .tiles').children[{n}];"
        " return t ? [t.className.replace('tile ', ''), t.querySelector('.word').textContent,"
        " t.querySelector('.note').textContent] : null; })()")


def wait_tile(browser, station, n, state, note=None):
    expr = (f"document.querySelector('[data-station=\"{station}\"] .tiles').children[{n}]"
            f".classList.contains('{state}')")
    if note is not None:
        expr += (f" && document.querySelector('[data-station=\"{station}\"] .tiles').children[{n}]"
                 f".querySelector('.note').textContent == {json.dumps(note)}")
    browser.wait(f"{station} slot {n + 1} {state}", expr)


def is_offline(station):
    return f"document.querySelector('[data-station=\"{station}\"]').classList.contains('offline')"


class Station:
    """A headless station on the simulated bench that reports to the broker."""

    def __init__(self, tool, work, name, broker, scenario):
        folder = os.path.join(work, name)
        os.makedirs(os.path.join(folder, "Config"))
        unbound = "".join(f"[{s}]\n" + "".join(f"Index{i}=NA\n" for i in range(16))
                          for s in ("USBPORTINFO", "BROMPORTINFO", "COM"))
        with open(os.path.join(folder, "Config", "CommonSetting.ini"), "w") as f:
            f.write("[COMMON]\nCheckSum=0\nLANGUAGE=1033\n[BENCH]\nSimulated=1\nHubs=2\nSocketsPerHub=8\n"
                    f"[REPORT]\nBroker=mqtt://127.0.0.1:{broker.mqtt}\nStation={name}\n" + unbound)
        path = os.path.join(work, name + ".txt")
        with open(path, "w") as f:
            f.write(scenario)
        self.log = open(os.path.join(work, name + ".log"), "w")
        self.proc = subprocess.Popen([tool, folder, path, "--speed", "1"], stdout=self.log,
                                     stderr=subprocess.STDOUT)

    def stop(self):
        if self.proc.poll() is None:
            self.proc.kill()
        self.proc.wait(10)
        self.log.close()


def run(work, tool):
    broker = Broker(work)
    browser = None
    stations = []
    try:
        # Another program's retained junk on our topics, there before the page comes.
        junk = [("quorvel/junk-a/state", b"\xff\xfenot json"),
                ("quorvel/junk-b/state", message("CFX.ResourcePerformance.StationStateChanged", "junk-b",
                                                 NewState="Running") | {"v": 2}),
                ("quorvel/junk-c/state", {"MessageName": "CFX.ResourcePerformance.StationStateChanged",
                                          "Station": "junk-c", "NewState": "Running"}),
                ("quorvel/junk-d/counters", message("SlotState", "junk-d", State="pass")),
                ("quorvel/junk-e/heartbeat", "[1, 2, 3]"),
                ("quorvel/bench-a/slots/16", message("SlotState", "bench-a", State="pass"))]
        for topic, payload in junk:
            broker.publish(topic, payload, retain=True)

        browser = Browser(work)
        url = f"http://127.0.0.1:{broker.ws}/index.html?broker=ws://127.0.0.1:{broker.ws}"
        browser.call("Page.navigate", url=url)
        browser.wait("the page to connect", "document.querySelector('#link').className.includes('up')")

        # Slot 1 passes, slot 2 fails its download. bench-a then ends by itself (its goodbye
        # says Offline), bench-b idles until it is killed (its last will does).
        shift = "0 set package scatter\n0 press\n200 plug 0 brom duration=3000\n300 plug 1 brom fail duration=2000\n"
        stations = [Station(tool, work, "bench-a", broker, shift + "7000 end\n"),
                    Station(tool, work, "bench-b", broker, shift + "60000 end\n")]
        browser.wait("both stations", "document.querySelectorAll('.station').length == 2")
        shown = browser.eval("[...document.querySelectorAll('.station')].map(s => s.dataset.station)")
        assert shown == ["bench-a", "bench-b"], f"junk made a station: {shown}"

        # Slots follow the stations: a flash, a pass, a failure with its reason, listed once.
        wait_tile(browser, "bench-a", 0, "flashing")
        assert tile(browser, "bench-a", 0)[1].endswith("%")
        reason = "image check failed after writing"
        wait_tile(browser, "bench-a", 1, "fail", reason)
        wait_tile(browser, "bench-a", 0, "pass")
        assert tile(browser, "bench-a", 0)[1] == "PASS"
        wait_tile(browser, "bench-b", 0, "pass")
        browser.wait("bench-b's failure", "document.querySelectorAll('#failures .failure').length == 2")
        failures = browser.eval("[...document.querySelectorAll('#failures .failure')].map(e => "
                                "[e.querySelector('.f-where').textContent, e.querySelector('.f-reason').textContent])")
        assert sorted(failures) == [["bench-a · slot 02", reason], ["bench-b · slot 02", reason]], failures
        browser.wait("today's passes", "document.querySelector('#totals .value.pass').textContent == '2'")

        # Gone: one closed, one killed.
        stations[1].proc.kill()
        browser.wait("bench-b offline by its last will", is_offline("bench-b"))
        browser.wait("bench-a offline by its goodbye", is_offline("bench-a"), timeout=20)
        assert browser.eval("document.querySelector('[data-station=\"bench-b\"] .badge').textContent"
                            ".startsWith('OFFLINE')")
        assert browser.eval("document.querySelector('#totals .value.offline').textContent") == "2"
        assert browser.eval("document.querySelector('#totals .value.pass').textContent") == "2"

        # The words of the states no short shift shows, and text that would be markup.
        evil = "<img src=x onerror=\"window.pwned=1\">no answer"
        for state, fields, want in [("waiting", {}, ["waiting", "WAIT", ""]),
                                    ("interrupted", {}, ["interrupted", "STOP", ""]),
                                    ("flashing", {"Percent": 42, "Step": evil}, ["flashing", "42%", evil]),
                                    ("idle", {}, ["idle", "IDLE", ""])]:
            broker.publish("quorvel/bench-a/slots/9", slot("bench-a", 9, state, **fields), retain=True)
            wait_tile(browser, "bench-a", 9, state)
            assert tile(browser, "bench-a", 9) == want, tile(browser, "bench-a", 9)
        assert browser.eval("document.querySelectorAll('img').length == 0 && window.pwned === undefined")

        # Junk arriving live changes nothing and breaks nothing.
        broker.publish("quorvel/bench-a/counters", b"\x00\x01garbage", retain=True)
        broker.publish("quorvel/bench-a/slots/9", slot("bench-a", 9, "exploded"), retain=True)
        broker.publish("quorvel/bench-a/slots/3", slot("someone-else", 3, "fail", Reason="not ours"), retain=True)
        broker.publish("quorvel/bench-a/heartbeat", message("CFX.Heartbeat", "bench-a"))
        time.sleep(0.5)
        assert tile(browser, "bench-a", 9)[0] == "idle" and tile(browser, "bench-a", 3)[0] == "idle"
        assert browser.eval("document.querySelector('#totals .value.pass').textContent") == "2"

        # Silent for 90 s is offline too; a heartbeat brings a station back.
        broker.publish("quorvel/bench-c/state", message("CFX.ResourcePerformance.StationStateChanged", "bench-c",
                                                        NewState="Running", Slots=4), retain=True)
        browser.wait("bench-c", "document.querySelectorAll('[data-station=\"bench-c\"] .tile').length == 4")
        assert not browser.eval(is_offline("bench-c"))
        browser.eval("window.fleet.model.now = () => Date.now() + 91000; window.fleet.view.render()")
        assert browser.eval(is_offline("bench-c"))
        broker.publish("quorvel/bench-c/heartbeat", message("CFX.Heartbeat", "bench-c"))
        browser.wait("bench-c back", "!" + is_offline("bench-c"))

        # The page's own broker gone: it says so, and silence no longer makes stations offline.
        broker.stop()
        browser.wait("the lost broker said", "!document.querySelector('#banner').hidden")
        browser.eval("window.fleet.model.now = () => Date.now() + 1000000; window.fleet.view.render()")
        assert not browser.eval(is_offline("bench-c"))

        assert not browser.errors, f"the page threw: {browser.errors}"
    finally:
        for s in stations:
            s.stop()
        if browser:
            browser.stop()
        broker.stop()


def main():
    missing = missing_tools()
    if missing:
        print("fleet page test skipped: missing " + ", ".join(missing), file=sys.stderr)
        return 1 if os.environ.get("CI") == "true" else SKIP
    with tempfile.TemporaryDirectory(prefix="fleet-page-") as work:
        run(work, sys.argv[1])
    print("fleet page: 1 passed, 0 failed")
    return 0


if __name__ == "__main__":
    sys.exit(main())
