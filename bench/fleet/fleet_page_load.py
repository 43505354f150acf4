#!/usr/bin/python3
"""Three stations of sixteen slots follow a shift on the fleet page in headless Chromium.

Either three headless stations on the simulated bench report (--stations QUORVEL_BENCH:
the automatic bench, at real time), or the script publishes for them at a bench's
rate (each slot: a phone waits, flashes with a step every 2 %, passes or fails, is taken
away). Measures the CPU that Chromium spends on the page, and can take screenshots of
the page at a wall screen's and a phone's size.

  bench/fleet/fleet_page_load.py [--seconds N] [--stations QUORVEL_BENCH] [--screenshots FOLDER]
"""
import argparse
import json
import os
import random
import subprocess
import sys
import tempfile
import threading
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "tests", "fleet"))
import fleet_page_test as fp  # noqa: E402

STATIONS = ["line1-bench-01", "line1-bench-02", "line2-bench-07"]
STEPS = ["FDL1", "FDL2", "boot", "system", "userdata", "verify"]
REASONS = ["checksum mismatch in system.img", "phone left download mode", "no answer after FDL2 (timeout 20 s)"]


class Publisher:
    """One mosquitto_pub per station, fed one message a line on its stdin."""

    def __init__(self, broker):
        self.broker = broker
        self.lock = threading.Lock()
        self.sent = 0

    def send(self, topic, body, retain=False):
        # mosquitto_pub -l takes one topic; a slot's topic changes per message, so each goes alone.
        self.broker.publish(topic, body, retain)
        with self.lock:
            self.sent += 1


def slot_life(pub, station, n, stop, rng):
    """One socket's phones, one after another, until `stop`."""
    tid = 0
    while not stop.is_set():
        tid += 1
        job = f"20261124T1040{n:02d}-s{n + 1:02d}-5f3a9c01d2e4-{tid}"
        pub.send(f"quorvel/{station}/slots/{n}", fp.slot(station, n, "waiting", TransactionID=job), True)
        stop.wait(rng.uniform(1, 4))
        seconds = rng.uniform(40, 90)
        for pct in range(0, 101, 2):
            if stop.is_set():
                return
            pub.send(f"quorvel/{station}/slots/{n}",
                     fp.slot(station, n, "flashing", Percent=pct, Step=STEPS[pct * len(STEPS) // 101],
                             JobSeconds=int(seconds * pct / 100), TransactionID=job), True)
            stop.wait(seconds / 50)
        failed = rng.random() < 0.1
        end = fp.slot(station, n, "fail" if failed else "pass", JobSeconds=int(seconds), TransactionID=job,
                      Reason=rng.choice(REASONS) if failed else "")
        pub.send(f"quorvel/{station}/slots/{n}", end, True)
        if failed:
            pub.send(f"quorvel/{station}/faults", fp.message(
                "CFX.ResourcePerformance.FaultOccurred", station,
                Fault={"FaultCode": "verify", "Description": end["Reason"], "Lane": n, "TransactionID": job}))
        stop.wait(rng.uniform(3, 8))


def station_life(pub, station, stop, rng):
    passes = fails = 0
    while not stop.is_set():
        pub.send(f"quorvel/{station}/heartbeat", fp.message("CFX.Heartbeat", station, HeartbeatFrequency="00:00:30"))
        passes += rng.randint(3, 6)
        fails += rng.randint(0, 1)
        pub.send(f"quorvel/{station}/counters", fp.message(
            "CFX.Production.UnitsTested", station, Total=passes + fails, Fail=fails,
            Today={"Pass": 200 + passes, "Fail": 11 + fails, "Interrupted": 2, "PhonesPerHour": 118.4}), True)
        stop.wait(10)


def shift(seconds):
    """Every socket takes phone after phone by itself (the automatic bench) for `seconds`."""
    return f"0 set package pac\n0 press\n0 auto sprd\n{int(seconds * 1000)} end\n"


def cpu_seconds(pid):
    """User and system time of a process and all its descendants."""
    total, todo = 0, [pid]
    while todo:
        p = todo.pop()
        try:
            with open(f"/proc/{p}/stat") as f:
                fields = f.read().rsplit(")", 1)[1].split()
            total += int(fields[11]) + int(fields[12])
            with open(f"/proc/{p}/task/{p}/children") as f:
                todo += [int(c) for c in f.read().split()]
        except OSError:
            pass
    return total / os.sysconf("SC_CLK_TCK")


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--seconds", type=float, default=60)
    ap.add_argument("--stations", metavar="QUORVEL_BENCH", help="real headless stations instead of published messages")
    ap.add_argument("--screenshots", help="folder for fleet-wall.png and fleet-phone.png")
    args = ap.parse_args()
    missing = fp.missing_tools()
    if missing:
        sys.exit("fleet page load: missing " + ", ".join(missing))
    with tempfile.TemporaryDirectory(prefix="fleet-load-") as work:
        broker = fp.Broker(work)
        pub = Publisher(broker)
        stop = threading.Event()
        threads, stations = [], []
        if args.stations:
            stations = [fp.Station(args.stations, work, name, broker, shift(args.seconds + 30)) for name in STATIONS]
        else:
            for i, name in enumerate(STATIONS):
                pub.send(f"quorvel/{name}/state", fp.message("CFX.ResourcePerformance.StationStateChanged", name,
                                                             NewState="Running", Slots=16, Version="1.4.0"), True)
                pub.send(f"quorvel/{name}/package", fp.message("PackageInUse", name, Platform="SPRD",
                                                               Package="/srv/pac/SC9863A_R11.pac",
                                                               Version=f"SC9863A_R11_V1.{i}.3"), True)
            threads = [threading.Thread(target=station_life, args=(pub, s, stop, random.Random(s))) for s in STATIONS]
            threads += [threading.Thread(target=slot_life, args=(pub, s, n, stop, random.Random(f"{s}{n}")))
                        for s in STATIONS for n in range(16)]
        for t in threads:
            t.start()
        browser = None
        try:
            browser = fp.Browser(work, 1920, 1080)
            browser.call("Emulation.setDeviceMetricsOverride", width=1920, height=1080, deviceScaleFactor=1,
                         mobile=False)
            browser.call("Page.navigate", url=f"http://127.0.0.1:{broker.ws}/?broker=ws://127.0.0.1:{broker.ws}")
            browser.wait("three stations", "document.querySelectorAll('.station').length == 3")
            time.sleep(5)
            received = "window.fleet.model.received"
            got0, cpu0, t0 = browser.eval(received), cpu_seconds(browser.proc.pid), time.monotonic()
            time.sleep(args.seconds)
            sent, cpu, t = browser.eval(received) - got0, cpu_seconds(browser.proc.pid) - cpu0, time.monotonic() - t0
            print(f"fleet page: {sent / t:.1f} messages/s for {t:.0f} s; Chromium CPU {100 * cpu / t:.1f} % "
                  "of one core")
            if args.screenshots:
                os.makedirs(args.screenshots, exist_ok=True)
                browser.screenshot(os.path.join(args.screenshots, "fleet-wall.png"))
                browser.call("Emulation.setDeviceMetricsOverride", width=390, height=844, deviceScaleFactor=2,
                             mobile=True)
                time.sleep(1)
                browser.screenshot(os.path.join(args.screenshots, "fleet-phone.png"))
            if browser.errors:
                sys.exit(f"the page threw: {browser.errors}")
        finally:
            stop.set()
            for t in threads:
                t.join()
            for s in stations:
                s.stop()
            if browser:
                browser.stop()
            broker.stop()


if __name__ == "__main__":
    main()
