#!/usr/bin/python3
"""The fleet page in headless Chromium against a real mosquitto on loopback.

Stations are played by messages published as the reporting contract describes them
(docs/reporting.md), and one dies for real so that the broker sends its last will.
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


def run(work):
    broker = Broker(work)
    browser = None
    try:
        # Another program's retained junk on our topics, there before the page comes.
        junk = [("quorvel/junk-a/state", b"\xff\xfenot json"),
                ("quorvel/junk-b/state", message("CFX.ResourcePerformance.StationStateChanged", "junk-b",
                                                 NewState="Running") | {"v": 2}),
                ("quorvel/junk-c/state", {"MessageName": "CFX.ResourcePerformance.StationStateChanged",
                                          "Station": "junk-c", "NewState": "Running"}),
                ("quorvel/junk-d/counters", message("SlotState", "junk-d", State="pass")),
                ("quorvel/junk-e/heartbeat", "[1, 2, 3]"),
                ("quorvel/bench-a/slots/5", slot("someone-else", 5, "fail", Reason="not ours")),
                ("quorvel/bench-a/slots/16", slot("bench-a", 16, "pass"))]
        for topic, payload in junk:
            broker.publish(topic, payload, retain=True)
        for name in ("bench-a", "bench-b"):
            broker.publish(f"quorvel/{name}/state", message("CFX.ResourcePerformance.StationStateChanged", name,
                                                            NewState="Running", Slots=16, Version="1.4"), retain=True)
            broker.publish(f"quorvel/{name}/counters",
                           message("CFX.Production.UnitsTested", name, Total=12, Fail=2,
                                   Today={"Pass": 10, "Fail": 2, "Interrupted": 0, "PhonesPerHour": 31.5}),
                           retain=True)
        broker.publish("quorvel/bench-a/slots/0", slot("bench-a", 0, "waiting"), retain=True)

        browser = Browser(work)
        url = f"http://127.0.0.1:{broker.ws}/index.html?broker=ws://127.0.0.1:{broker.ws}"
        browser.call("Page.navigate", url=url)
        browser.wait("the page to connect", "document.querySelector('#link').className.includes('up')")
        browser.wait("both stations", "document.querySelectorAll('.station').length == 2")
        shown = browser.eval("[...document.querySelectorAll('.station')].map(s => s.dataset.station)")
        assert shown == ["bench-a", "bench-b"], f"junk made a station: {shown}"
        assert tile(browser, "bench-a", 0)[:2] == ["waiting", "WAIT"], tile(browser, "bench-a", 0)
        assert tile(browser, "bench-a", 5)[0] == "absent", "a slot message of another station was shown"
        assert browser.eval("document.querySelector('#totals .value.pass').textContent") == "20"

        # Slots follow their messages.
        for state, fields, want in [("flashing", {"Percent": 42, "Step": "FDL2"}, ["flashing", "42%", "FDL2"]),
                                    ("pass", {"JobSeconds": 161}, ["pass", "PASS", ""]),
                                    ("interrupted", {}, ["interrupted", "STOP", ""]),
                                    ("idle", {}, ["idle", "IDLE", ""])]:
            broker.publish("quorvel/bench-a/slots/3", slot("bench-a", 3, state, **fields), retain=True)
            browser.wait(f"slot 4 {state}", f"JSON.stringify({json.dumps(want)}) == JSON.stringify("
                         "(() => { const t = document.querySelector('[data-station=\"bench-a\"] .tiles')"
                         ".children[3]; return [t.className.replace('tile ', ''), t.querySelector('.word')"
                         ".textContent, t.querySelector('.note').textContent]; })())")

        # A failure with its reason, whose text is shown as text and never run.
        evil = "<img src=x onerror=\"window.pwned=1\">checksum mismatch"
        tid = "20261124T103812-s08-5f3a9c01d2e4-3"
        broker.publish("quorvel/bench-b/slots/7", slot("bench-b", 7, "fail", Reason=evil, TransactionID=tid), True)
        broker.publish("quorvel/bench-b/faults", message("CFX.ResourcePerformance.FaultOccurred", "bench-b", Fault={
            "FaultCode": "Checksum", "Description": evil, "Lane": 7, "TransactionID": tid}))
        browser.wait("the failure listed", "[...document.querySelectorAll('#failures .f-reason')]"
                     f".some(e => e.textContent == {json.dumps(evil)})")
        assert browser.eval("[...document.querySelectorAll('#failures .f-where')].map(e => e.textContent)") == [
            "bench-b · slot 08"], "one failure, on the tile's slot"
        assert tile(browser, "bench-b", 7) == ["fail", "FAIL", evil]
        assert browser.eval("document.querySelectorAll('img').length == 0 && window.pwned === undefined")

        # Junk arriving live changes nothing and breaks nothing.
        broker.publish("quorvel/bench-a/counters", b"\x00\x01garbage", retain=True)
        broker.publish("quorvel/bench-a/slots/3", slot("bench-a", 3, "exploded"), retain=True)
        broker.publish("quorvel/bench-a/heartbeat", message("CFX.Heartbeat", "bench-a"))
        time.sleep(0.3)
        assert tile(browser, "bench-a", 3)[0] == "idle"
        assert browser.eval("document.querySelector('#totals .value.pass').textContent") == "20"

        # A station that dies: its last will marks it offline.
        will = message("CFX.ResourcePerformance.StationStateChanged", "bench-b", NewState="Offline", Slots=16)
        alive = subprocess.Popen(["mosquitto_pub", "-h", "127.0.0.1", "-p", str(broker.mqtt), "-q", "1", "-l",
                                  "-t", "quorvel/bench-b/heartbeat", "--will-topic", "quorvel/bench-b/state",
                                  "--will-payload", json.dumps(will), "--will-retain", "--will-qos", "1"],
                                 stdin=subprocess.PIPE)
        alive.stdin.write((json.dumps(message("CFX.Heartbeat", "bench-b")) + "\n").encode())
        alive.stdin.flush()
        time.sleep(0.3)
        alive.kill()
        alive.wait()
        browser.wait("bench-b offline", "document.querySelector('[data-station=\"bench-b\"]')"
                     ".classList.contains('offline')")
        assert browser.eval("document.querySelector('[data-station=\"bench-b\"] .badge').textContent"
                            ".startsWith('OFFLINE')")
        assert browser.eval("document.querySelector('#totals .value.offline').textContent") == "1"

        # Silent for 90 s is offline too; a heartbeat brings it back.
        browser.eval("window.fleet.model.now = () => Date.now() + 91000; window.fleet.view.render()")
        assert browser.eval("document.querySelector('[data-station=\"bench-a\"]').classList.contains('offline')")
        broker.publish("quorvel/bench-a/heartbeat", message("CFX.Heartbeat", "bench-a"))
        browser.wait("bench-a back", "!document.querySelector('[data-station=\"bench-a\"]')"
                     ".classList.contains('offline')")

        # The page's own broker gone: it says so, and silence no longer makes stations offline.
        broker.stop()
        browser.wait("the lost broker said", "!document.querySelector('#banner').hidden")
        browser.eval("window.fleet.model.now = () => Date.now() + 1000000; window.fleet.view.render()")
        assert browser.eval("document.querySelector('#totals .value.online').textContent") == "1"

        assert not browser.errors, f"the page threw: {browser.errors}"
    finally:
        if browser:
            browser.stop()
        broker.stop()


def main():
    missing = missing_tools()
    if missing:
        print("fleet page test skipped: missing " + ", ".join(missing), file=sys.stderr)
        return 1 if os.environ.get("CI") == "true" else SKIP
    with tempfile.TemporaryDirectory(prefix="fleet-page-") as work:
        run(work)
    print("fleet page: 1 passed, 0 failed")
    return 0


if __name__ == "__main__":
    sys.exit(main())
