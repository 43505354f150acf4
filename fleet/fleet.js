// The fleet page: follows every station that reports to the broker and draws its slots the
// way the bench view does. Everything shown from a payload goes in as text, never as markup:
// the broker is shared, and anything on it may be published by anyone.
"use strict";

const Fleet = (() => {
    const OFFLINE_AFTER_MS = 90 * 1000;  // three missed heartbeats
    const MAX_FAILURES = 12;
    const STATION_NAME = /^[A-Za-z0-9._-]{1,64}$/;
    const MESSAGES = {
        jobs: "CFX.Production.WorkCompleted",
        state: "CFX.ResourcePerformance.StationStateChanged",
        heartbeat: "CFX.Heartbeat",
        counters: "CFX.Production.UnitsTested",
        package: "PackageInUse",
        faults: "CFX.ResourcePerformance.FaultOccurred",
        slots: "SlotState",
    };
    // The bench view's words and shapes.
    const TILES = {
        idle: {word: "IDLE", shape: "ring"},
        waiting: {word: "WAIT", shape: "hourglass"},
        flashing: {word: null, shape: "arrow"},
        pass: {word: "PASS", shape: "tick"},
        fail: {word: "FAIL", shape: "cross"},
        interrupted: {word: "STOP", shape: "stop"},
    };
    const SVG = "http://www.w3.org/2000/svg";
    const SHAPES = {
        tick: [["path", {d: "M10 55 L40 85 L90 20"}]],
        cross: [["path", {d: "M15 15 L85 85 M85 15 L15 85"}]],
        arrow: [["path", {d: "M50 10 L50 85 M20 50 L50 90 L80 50"}]],
        hourglass: [["path", {d: "M20 10 L80 10 L20 90 L80 90 Z"}]],
        stop: [["rect", {x: 20, y: 20, width: 60, height: 60, class: "solid"}]],
        ring: [["circle", {cx: 50, cy: 50, r: 30}]],
    };

    // ---- the model: what the broker said, checked against the reporting contract ----

    function isObject(x) {
        return x !== null && typeof x === "object" && !Array.isArray(x);
    }
    function text(x) {
        return typeof x === "string" ? x : typeof x === "number" && isFinite(x) ? String(x) : "";
    }
    function count(x) {
        return typeof x === "number" && isFinite(x) && x >= 0 ? x : null;
    }

    // The message of a topic under quorvel/, or null when it is not ours to read: a topic
    // we do not know, a payload that is not one JSON object of version 1 with the topic's
    // message name and station.
    function parse(topic, payload) {
        const parts = topic.split("/");
        if (parts.length < 3 || parts[0] !== "quorvel" || !STATION_NAME.test(parts[1])) return null;
        const station = parts[1];
        let kind = parts[2], slot = null;
        if (kind === "slots") {
            if (parts.length !== 4 || !/^(0|[1-9][0-9]?)$/.test(parts[3])) return null;
            slot = Number(parts[3]);
            if (slot > 15) return null;
        } else if (parts.length !== 3 || !Object.prototype.hasOwnProperty.call(MESSAGES, kind)) {
            return null;
        }
        let body;
        try {
            body = JSON.parse(typeof payload === "string" ? payload : new TextDecoder().decode(payload));
        } catch (e) {
            return null;
        }
        if (!isObject(body) || body.v !== 1 || body.MessageName !== MESSAGES[kind] || body.Station !== station)
            return null;
        if (kind === "slots" && !Object.prototype.hasOwnProperty.call(TILES, body.State)) return null;
        if (kind === "state" && !["Running", "Stopped", "Offline"].includes(body.NewState)) return null;
        return {station, kind, slot, body};
    }

    class Model {
        constructor(now) {
            this.stations = new Map();
            this.failures = [];  // newest first, one per job
            this.now = now;
            this.linkUp = false;
        }

        station(name) {
            let s = this.stations.get(name);
            if (!s) {
                // First sight starts the heartbeat's clock: a station known only from
                // retained messages gets its 90 s to show it is alive.
                s = {name, state: null, slots: new Map(), slotCount: 0, counters: null, pkg: null, version: "",
                     lastSeen: this.now(), offlineSince: null};
                this.stations.set(name, s);
            }
            return s;
        }

        // Takes one message; says whether the page has something new to show.
        take(topic, payload, retained) {
            this.received = (this.received || 0) + 1;
            const m = parse(topic, payload);
            if (!m) return false;
            const s = this.station(m.station), b = m.body;
            // A retained message may be old; only a live one proves the station is there.
            if (!retained) s.lastSeen = this.now();
            switch (m.kind) {
                case "state":
                    s.state = b.NewState;
                    if (count(b.Slots) !== null) s.slotCount = Math.min(16, Math.floor(b.Slots));
                    s.version = text(b.Version);
                    break;
                case "slots":
                    s.slots.set(m.slot, b);
                    // Only a finished job's failure has its id, which its fault and job share.
                    if (b.State === "fail" && text(b.Reason) && text(b.TransactionID))
                        this.addFailure(s.name, b.TransactionID, b.TimeStamp, m.slot, "", b.Reason);
                    break;
                case "counters": s.counters = b; break;
                case "package": s.pkg = b; break;
                case "faults": {
                    const f = isObject(b.Fault) ? b.Fault : {};
                    this.addFailure(s.name, f.TransactionID, b.TimeStamp, f.Lane, f.FaultCode, f.Description);
                    break;
                }
                case "jobs":
                    if (b.Result === "Failed") {
                        const j = isObject(b.Job) ? b.Job : {};
                        this.addFailure(s.name, b.TransactionID, b.TimeStamp, b.Lane, j.step, j.error,
                                        b.PrimaryIdentifier);
                    }
                    break;
                case "heartbeat": break;
            }
            return true;
        }

        addFailure(station, id, time, lane, step, reason, phone) {
            // Without a job id, the slot, time and reason tell one failure from another.
            id = text(id) || [text(lane), text(time), text(reason)].join("|");
            const known = this.failures.find(f => f.station === station && f.id === id);
            if (known) {
                // A fault and its job say the same failure; keep whichever said more.
                known.step = known.step || text(step);
                known.reason = known.reason || text(reason);
                known.phone = known.phone || text(phone);
                return;
            }
            // Lanes count from 0, the bench's slots from 1.
            const slot = count(lane) !== null ? twoDigits(Math.floor(lane) + 1) : "";
            this.failures.unshift({station, id, time: text(time), slot, step: text(step),
                                   reason: text(reason), phone: text(phone)});
            const at = f => Date.parse(f.time) || 0;
            this.failures.sort((a, b) => at(b) - at(a));
            this.failures.length = Math.min(this.failures.length, MAX_FAILURES);
        }

        // While the page itself has no broker, silence says nothing about the stations.
        linkChanged(up) {
            this.linkUp = up;
            if (up) for (const s of this.stations.values()) s.lastSeen = this.now();
        }

        isOffline(s) {
            return s.state === "Offline" || (this.linkUp && this.now() - s.lastSeen > OFFLINE_AFTER_MS);
        }
    }

    // ---- the view ----

    function el(tag, cls, content) {
        const e = document.createElement(tag);
        if (cls) e.className = cls;
        if (content !== undefined) e.textContent = content;
        return e;
    }
    function setText(e, t) {
        if (e.textContent !== t) e.textContent = t;
    }
    function setClass(e, c) {
        if (e.className !== c) e.className = c;
    }
    function shape(name) {
        const svg = document.createElementNS(SVG, "svg");
        svg.setAttribute("viewBox", "0 0 100 100");
        svg.setAttribute("class", "shape");
        svg.setAttribute("aria-hidden", "true");
        for (const [tag, attrs] of SHAPES[name]) {
            const e = document.createElementNS(SVG, tag);
            for (const [k, v] of Object.entries(attrs)) e.setAttribute(k, String(v));
            svg.appendChild(e);
        }
        return svg;
    }
    function clock(seconds) {
        const s = count(seconds);
        if (s === null) return "";
        const t = Math.floor(s);
        const two = n => String(n).padStart(2, "0");
        return two(Math.floor(t / 3600)) + ":" + two(Math.floor(t / 60) % 60) + ":" + two(t % 60);
    }
    // The time of day of an ISO 8601 stamp as the station wrote it.
    function timeOfDay(iso) {
        const m = /T(\d\d:\d\d:\d\d)/.exec(iso);
        return m ? m[1] : "";
    }
    function twoDigits(n) {
        return String(n).padStart(2, "0");
    }

    class View {
        constructor(root, model) {
            this.model = model;
            this.root = root;
            this.cards = new Map();
            this.totals = root.querySelector("#totals");
            this.failList = root.querySelector("#failures");
            this.stationsBox = root.querySelector("#stations");
            this.empty = root.querySelector("#empty");
        }

        render() {
            const names = [...this.model.stations.keys()].sort();
            let pass = 0, fail = 0, pph = 0, online = 0, offline = 0;
            names.forEach((name, i) => {
                const s = this.model.stations.get(name);
                const card = this.card(name);
                if (this.stationsBox.children[i] !== card.box)
                    this.stationsBox.insertBefore(card.box, this.stationsBox.children[i] || null);
                const off = this.model.isOffline(s);
                this.fill(card, s, off);
                // A station gone still made today's phones; only its rate is over.
                const today = s.counters && isObject(s.counters.Today) ? s.counters.Today : {};
                pass += count(today.Pass) || 0;
                fail += count(today.Fail) || 0;
                if (off) {
                    offline++;
                } else {
                    online++;
                    pph += count(today.PhonesPerHour) || 0;
                }
            });
            this.empty.hidden = names.length > 0 || this.empty.dataset.link === "down";
            setText(this.totals.querySelector(".value.online"), String(online));
            setText(this.totals.querySelector(".value.offline"), String(offline));
            this.totals.querySelector(".offline-box").classList.toggle("alert", offline > 0);
            // A page left in a background tab still tells of a station gone.
            const title = (offline ? offline + " offline · " : "") + "Quorvel fleet";
            if (document.title !== title) document.title = title;
            setText(this.totals.querySelector(".value.pass"), String(pass));
            setText(this.totals.querySelector(".value.fail"), String(fail));
            setText(this.totals.querySelector(".value.pph"), pph ? pph.toFixed(1) : "–");
            this.renderFailures();
        }

        card(name) {
            let c = this.cards.get(name);
            if (c) return c;
            const box = el("section", "station");
            box.dataset.station = name;
            const head = el("header", "station-head");
            const title = el("h2", "station-name", name);
            const badge = el("span", "badge");
            const pkg = el("div", "station-pkg");
            const stats = el("div", "station-stats");
            const stat = (label, cls) => {
                const d = el("span", "stat " + cls);
                const v = el("b", "value");
                d.append(v, el("span", "label", label));
                stats.appendChild(d);
                return v;
            };
            const pass = stat("passed", "pass"), fail = stat("failed", "fail"), pph = stat("phones/h", "pph");
            head.append(title, badge, pkg, stats);
            const grid = el("div", "tiles");
            box.append(head, grid);
            c = {box, badge, pkg, pass, fail, pph, grid, tiles: []};
            this.cards.set(name, c);
            return c;
        }

        fill(c, s, off) {
            setClass(c.box, "station" + (off ? " offline" : ""));
            let badge = "ONLINE", badgeClass = "badge running";
            if (off) {
                if (s.offlineSince === null) s.offlineSince = new Date(this.model.now());
                badge = "OFFLINE since " + s.offlineSince.toTimeString().slice(0, 5);
                badgeClass = "badge offline";
            } else {
                s.offlineSince = null;
                if (s.state === "Stopped") {
                    badge = "STOPPED";
                    badgeClass = "badge stopped";
                } else if (s.state === "Running") {
                    badge = "RUNNING";
                }
            }
            setText(c.badge, badge);
            setClass(c.badge, badgeClass);
            const p = s.pkg;
            // A package without a version text goes by its file's name; its folder is the station's.
            const file = p ? text(p.Package).split(/[\\/]/).pop() : "";
            setText(c.pkg, p ? [text(p.Platform), text(p.Version) || file].filter(Boolean).join(" · ") : "");
            const today = s.counters && isObject(s.counters.Today) ? s.counters.Today : null;
            setText(c.pass, today && count(today.Pass) !== null ? String(today.Pass) : "–");
            setText(c.fail, today && count(today.Fail) !== null ? String(today.Fail) : "–");
            setText(c.pph, today && count(today.PhonesPerHour) !== null ? today.PhonesPerHour.toFixed(1) : "–");
            let n = s.slotCount;
            for (const k of s.slots.keys()) n = Math.max(n, k + 1);
            if (n === 0) n = 16;
            while (c.tiles.length < n) c.tiles.push(this.tile(c.tiles.length, c.grid));
            while (c.tiles.length > n) c.tiles.pop().box.remove();
            c.tiles.forEach((t, i) => this.fillTile(t, s.slots.get(i)));
        }

        tile(i, grid) {
            const box = el("div", "tile absent");
            const num = el("span", "num", twoDigits(i + 1));
            const port = el("span", "port");
            const mark = el("span", "mark");
            const word = el("span", "word");
            const bar = el("div", "bar");
            const fillBar = el("div", "bar-fill");
            bar.appendChild(fillBar);
            const time = el("span", "time");
            const note = el("span", "note");
            box.append(num, port, mark, word, bar, time, note);
            grid.appendChild(box);
            return {box, port, mark, word, fillBar, time, note, shape: ""};
        }

        fillTile(t, b) {
            if (!b) {
                setClass(t.box, "tile absent");
                return;
            }
            const look = TILES[b.State];
            const pct = Math.max(0, Math.min(100, Math.round(count(b.Percent) || 0)));
            setClass(t.box, "tile " + b.State);
            if (t.shape !== look.shape) {
                t.mark.replaceChildren(shape(look.shape));
                t.shape = look.shape;
            }
            setText(t.word, look.word || pct + "%");
            t.fillBar.style.width = (b.State === "flashing" ? pct : 0) + "%";
            // The socket's COM name is what the bench is labelled with; the rest is the driver's.
            const port = text(b.Port), com = /COM\d+/.exec(port);
            setText(t.port, com ? com[0] : port);
            // An idle socket's last job time says nothing any more.
            setText(t.time, b.State === "idle" || b.State === "waiting" ? "" : clock(b.JobSeconds));
            const note = b.State === "fail" ? text(b.Reason) : b.State === "flashing" ? text(b.Step) : "";
            setText(t.note, note);
            t.box.title = note;
        }

        renderFailures() {
            const rows = this.model.failures.map(f => {
                const li = el("li", "failure");
                li.append(el("span", "f-time", timeOfDay(f.time)),
                          el("span", "f-where", f.station + (f.slot ? " · slot " + f.slot : "")),
                          el("span", "f-reason", f.reason || "(no reason given)"));
                // The phone's IMEI or serial number, to find it on the bench.
                const more = [f.step, f.phone].filter(Boolean).join(" · ");
                if (more) li.appendChild(el("span", "f-step", more));
                return li;
            });
            const key = JSON.stringify(this.model.failures);
            if (this.failKey === key) return;
            this.failKey = key;
            this.failList.replaceChildren(...rows);
            if (!rows.length) this.failList.appendChild(el("li", "none", "No failures seen since this page opened."));
        }
    }

    // ---- the connection ----

    function defaultBroker(loc) {
        const host = loc.hostname || "localhost";
        const scheme = loc.protocol === "https:" ? "wss" : "ws";
        return scheme + "://" + (host.includes(":") ? "[" + host + "]" : host) + ":9001";
    }

    function start() {
        const params = new URLSearchParams(location.search);
        let broker = params.get("broker") || defaultBroker(location);
        const model = new Model(() => Date.now());
        const view = new View(document.body, model);
        const input = document.querySelector("#broker");
        const status = document.querySelector("#link");
        input.value = broker;
        let client = null, pending = false;

        // A busy fleet sends dozens of messages a second; a wall screen needs a few frames.
        function schedule() {
            if (pending) return;
            pending = true;
            setTimeout(() => requestAnimationFrame(() => {
                pending = false;
                view.render();
            }), 250);
        }
        const banner = document.querySelector("#banner");
        let lostAt = null;
        function setStatus(word, cls) {
            setText(status, word);
            setClass(status, "link " + cls);
            const up = cls === "up";
            if (up !== model.linkUp) model.linkChanged(up);
            if (up) lostAt = null;
            else if (lostAt === null) lostAt = new Date();
            // Without a broker everything shown is old: say so where the supervisor looks.
            banner.hidden = cls !== "down";
            if (!banner.hidden) {
                setText(banner, model.stations.size
                    ? "No connection to the broker " + broker + " since " + lostAt.toTimeString().slice(0, 5) +
                          ": the stations are shown as they were then."
                    : "Cannot reach the broker " + broker + ": check the address in the Broker field, and " +
                          "that the broker has a WebSockets listener there.");
            }
            view.empty.dataset.link = cls;
            schedule();
        }
        function connect() {
            if (client) client.end(true);
            setStatus("connecting to " + broker, "connecting");
            try {
                client = mqtt.connect(broker, {reconnectPeriod: 3000, connectTimeout: 10000, clean: true,
                                               clientId: "quorvel-fleet-" + Math.random().toString(16).slice(2, 10)});
            } catch (e) {
                setStatus("cannot use " + broker + ": " + e.message, "down");
                return;
            }
            // A client left behind by a change of broker says nothing any more.
            const mine = client;
            const on = (event, handler) => client.on(event, (...args) => mine === client && handler(...args));
            on("connect", () => {
                setStatus("connected to " + broker, "up");
                mine.subscribe("quorvel/+/#", {qos: 1});
            });
            on("reconnect", () => setStatus("reconnecting to " + broker, "down"));
            on("close", () => mine.reconnecting || setStatus("no connection to " + broker, "down"));
            on("error", e => setStatus("broker " + broker + ": " + e.message, "down"));
            on("message", (topic, payload, packet) => {
                try {
                    if (model.take(topic, payload, packet.retain)) schedule();
                } catch (e) {
                    // Whatever a payload holds, the page goes on.
                }
            });
        }
        document.querySelector("#broker-form").addEventListener("submit", ev => {
            ev.preventDefault();
            broker = input.value.trim() || defaultBroker(location);
            const q = new URLSearchParams(location.search);
            q.set("broker", broker);
            history.replaceState(null, "", "?" + q.toString());
            model.stations.clear();
            model.failures.length = 0;
            view.stationsBox.replaceChildren();
            view.cards.clear();
            connect();
            schedule();
        });
        // Offline stations and their ages change with the clock alone.
        setInterval(schedule, 5000);
        connect();
        schedule();
        window.fleet = {model, view};  // for the page's tests and a curious supervisor's console
    }

    return {start, parse, Model};
})();

if (typeof document !== "undefined") document.addEventListener("DOMContentLoaded", Fleet.start);
