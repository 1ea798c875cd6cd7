"""A random life of the agent in an impolite world: settings, networks, links, collectors, devices,
clients and resources change at random. At quiet moments all is as it was in the beginning: then
nothing is lost that is not counted, and descriptors, threads and memory are where they were.

    TARN_SECONDS  how long it lasts (40)      TARN_SEED    repeats the operations of another life
    TARN_SHRINK   1: a life that failed is lived again with operations left out, to the shortest
"""

import collections as containers
import contextlib
import json
import os
import pathlib
import random
import re
import resource
import signal
import socket
import struct
import subprocess
import time

import traffic
from lab import BUILD, SLOW, Lab, descriptors, inside, parse_json_lines, resident_kib, run, wait_for
from tarnflow import Agent, collectors, config, exporter, flows, listen, show_counters, tool
from test_local_collector import hostile
from wire_maker import message, template

SECONDS = float(os.environ.get("TARN_SECONDS", 40))
ASAN = "asan" in BUILD
CONTROL = "/run/tarnflow/control.sock"
MORE_KIB = 24 << 10  # of memory at the end
# Collectors that nothing in between is done to, and others: tracker, exporter, address, port.
STEADY = (("edge", "main", "10.97.0.2", 4739), ("edge", "main", "fd97::2", 4739),
          ("dev", "main", "10.97.0.2", 4741))
SHAKY = (("edge", "shaky", "10.98.0.2", 4739), ("edge", "shaky", "fd98::2", 4739))
MEND = """
    for ns in /run/netns/ns-*; do
        while umount -q $ns; do :; done
        rm -f $ns
    done
    ip netns add ns-red
    unshare --net=/run/netns/ns-red ip link set lo up
    ip link del group 7
    ip -n ns-red link add q$$ group 7 type veth peer name p$$ group 7
    for end in "up0 97 1" "sh0 98 1" "-n tt-far dn0 97 2" "-n tt-far sd0 98 2"; do
        set -- $end; ns=; [ $1 != -n ] || { ns="-n $2"; shift 2; }
        ip $ns link set $1 up mtu 1500
        ip $ns address replace 10.$2.0.$3/24 dev $1
        ip $ns address replace fd$2::$3/64 dev $1 nodad
    done
    ip -n tt-far address replace 10.97.0.3/24 dev dn0
    ip route del 10.98.0.2
    rm -f $(find /run/tarnflow -type f)
    mount -o remount,size=64m /dev/shm"""
WORLD = """
    ip netns del ns-red
    ip netns del ns-red; sleep 0.0{n}; ip netns add ns-red
    mount --bind /run/netns/tt-src /run/netns/ns-red
    ip netns add ns-x{n}
    ip netns del ns-x{n}
    ln -s nowhere /run/netns/ns-x{n}
    seq 40 | sed "s/.*/link add in{n}& group 7 type veth peer name jn{n}& group 7/" | ip -force -b -
    seq 9 | sed "s/.*/link add in{n}& group 7 type veth peer name jn{n}& group 7/" | ip -n ns-red -b -
    seq 40 | sed "s/.*/link set in{n}& name k&\\nlink set k& name in{m}&/" | ip -force -b -
    ip link del group 7
    ip -n ns-red link del group 7
    ip link set sh0 down; sleep 0.{n}; ip link set sh0 up
    ip link set sh0 down
    ip link set sh0 mtu 600
    ip link set sh0 mtu 1300; ip address add fd98::1/64 dev sh0 nodad
    ip address del 10.98.0.1/24 dev sh0
    ip -n tt-far link set sd0 down
    ip -n tt-far address flush dev sd0
    ip route add blackhole 10.98.0.2
    ip route add prohibit 10.98.0.2
    mount -o remount,size={n}{m}k /dev/shm
    truncate -cs {n}{m}00 /dev/shm/tarnflow
    truncate -cs {n}{m}000 /dev/shm/tarnflow-flows
    truncate -cs {n} /dev/shm/tarnflow-endpoints
    rm -f /dev/shm/tarnflow*
    rm -f /run/tarnflow/control.sock
    rm -f /run/tarnflow/control.sock; echo >/run/tarnflow/control.sock""".strip().splitlines()


def settings(rng=None):
    """The settings of the quiet moments; with `rng` what is steady in them, and anything else."""
    def at(interface, *addresses, **more):
        return exporter(interface, collectors(**dict(zip("ab", addresses))), **more)
    life = {"edge": {"id": 7, "interfaces": ["in*"], "inactive-timeout": "1s", "active-interval": "2s",
                     "exporter": {"main": at("up0", "10.97.0.2", "fd97::2", template_interval="1s"),
                                  "shaky": at("sh0", "10.98.0.2", "fd98::2", template_interval="2s"),
                                  "local": at("lo", ("127.0.0.1", 6001), ("127.0.0.1", 6002))}},
            "dev": {"id": 8, "type": "hardware", "local-port": 5000, "exporter": {
                "main": at("up0", ("10.97.0.2", 4741), template_interval="1s")}}}
    vrfs = {"red": 3}
    if rng:
        life["edge"].update({"sample-rate": rng.choice([1, 1, 3]),
                             "max-flows": rng.choice([1000000, 1000000, 300])})
        for i in range(rng.randrange(4)):
            others = {f"e{j}": exporter(
                rng.choice(["up0", "lo", "sh0", "nowhere"]),
                collectors(**{n: (rng.choice(["10.97.0.3", "fd98::2", "nobody.invalid", "192.0.2.1"]),
                                  2000 + k) for k, n in enumerate("abcd"[:rng.randrange(5)])}),
                dscp=rng.randrange(64), mtu=rng.choice([327, 1500, 9000]),
                vrf=rng.choice(["default", "default", "red"])) for j in range(rng.randrange(4))}
            life[f"t{i}"] = {"id": 20 + i, "type": rng.choice(["software", "hardware"]),
                             "interfaces": rng.choice([[], ["in*"], ["red/*", "sh*"], ["*", "!up0"]]),
                             **rng.choice([{}, {"direction": "both", "egress": "route"},
                                           {"tunnel": "inner", "filter": "not port 7"},
                                           {"promiscuous": True, "record": "full"},
                                           {"biflow": True, "sampling-option": True},
                                           {"exporter-address": True}]),
                             "local-port": 5001 + i, "max-flows": rng.choice([1, 1000, 4000000]),
                             "exporter": others}
        vrfs = rng.choice([vrfs, {"red": 4, "blue": 5}, {}])
    return config(life, vrfs=vrfs)


class Collector:
    """`tarnflow listen` at one address; what it shows is summed up and thrown away."""

    def __init__(self, lab, ns, address, port):
        self.program = listen(lab, "--address", address, "--port", port, ns=ns)
        self.datagrams = self.records = self.packets = self.at = 0
        self.faults, self.template_times, self.rows, self.sources = [], [], [], set()

    def read(self):
        text, self.at = self.program.lines_from(self.at)
        for m in parse_json_lines(text):
            if m["type"] != "message":
                self.faults += [m] if m["type"] == "localDrops" else []
                continue
            self.datagrams += 1
            self.records += m["recordCount"]
            self.sources.add(m["sourcePort"])
            if m["error"] or m["sequenceState"] not in ("first", "ok"):
                self.faults.append(m)
            for one in m["sets"]:
                if one["kind"] == "templates":
                    self.template_times.append(m["time"])
                for record in one.get("records", ()):
                    self.packets += record.get("packetDeltaCount", 0)
                    self.rows.append((m["time"], record))
        del self.rows[:-20000]
        return self

    def heard(self):
        return self.datagrams, self.records

    def table(self, number, name):
        """{name: number} of what was told of a table in the last two and a half seconds."""
        return {r[name]: r[number] for when, r in self.read().rows
                if when > time.time() - 2.5 and name in r and number in r}


def settle(differences, seconds):
    end = time.monotonic() + seconds * SLOW
    while found := differences():
        if time.monotonic() > end:
            raise AssertionError(found)
        time.sleep(0.02)


class Life:
    """The world, the agent in it, and what was seen of them."""

    def __init__(self, lab):
        self.lab, self.began, self.pauses, self.clients = lab, None, [], []
        self.counted, self.forgotten, self.latest = {}, set(), {}
        self.truncated = False
        self.far, source = lab.namespace("tt-far"), lab.namespace("tt-src")
        for near, there, ns in (("up0", "dn0", self.far), ("sh0", "sd0", self.far),
                                ("in0", "src0", source)):
            lab.veth(near, there, ns)
        # Nobody but the test sends here.
        run("sysctl", "-qw", "net.ipv6.conf.src0.disable_ipv6=1", ns=source)
        run("sysctl", "-qw", "net.ipv6.conf.in0.disable_ipv6=1")
        subprocess.run(["sh", "-c", MEND], stderr=subprocess.DEVNULL, check=False)
        self.heard = {key: Collector(lab, self.far, *key[2:]) for key in STEADY + SHAKY}
        self.handed, self.local, self.worst = [], None, list(hostile(random))
        with inside(source):
            self.wire = socket.socket(socket.AF_PACKET, socket.SOCK_RAW, 0)
            self.wire.bind(("src0", 0))
        self.agent = Agent(lab, settings())
        self.pid = self.agent.pid
        self.space = resource.prlimit(self.pid, resource.RLIMIT_AS)[0]  # TARN_AGENT_WRAP may limit it
        self.quiet()

    def limit(self, what, soft):
        resource.prlimit(self.pid, what, (soft, resource.prlimit(self.pid, what)[1]))

    def send(self, datagrams, source):
        """As a device."""
        with inside(self.far), socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as device:
            device.bind((source, 0))
            for n, octets in enumerate(datagrams):
                device.sendto(octets, ("10.97.0.1", 5000))
                if n % 50 == 49:
                    time.sleep(0.002)

    @contextlib.contextmanager
    def stopped(self):
        """The agent stands still, and what it sent has arrived."""
        began = time.time()
        self.agent.program.process.send_signal(signal.SIGSTOP)
        time.sleep(0.3 * SLOW)
        try:
            yield
        finally:
            self.agent.program.process.send_signal(signal.SIGCONT)
            self.pauses.append((began, time.time() - began))

    def differences(self):
        """What is not equal: what, counted here, counted there, how late there, both at first."""
        known = self.handed and self.handed[0][0] < time.monotonic() - 1.2
        with self.stopped() if self.forgotten and known else contextlib.nullcontext():
            return self.compared()

    def compared(self):
        earlier = {key: self.heard[key].read().heard() for key in STEADY}
        shown, paths = show_counters(), flows()
        entries = {(e["tracker"], e["exporter"], e["collectorAddress"], e["collectorPort"]): e
                   for e in shown["entries"]}
        if len(paths) < 2 or not shown["endpoints"]:
            return "not counted yet"
        edge, dev = paths["edge"], paths["dev"]
        came = {}  # while the counters were read, which a tool with a sanitizer does in seconds
        rows = [("packets", edge["packetsSeen"], sum(edge[k] for k in (
                    "packets", "kernelDrops", "notIp", "truncated", "malformed"))),
                ("flows", edge["flowsCreated"], sum(edge[k] for k in (
                    "flowsActive", "endedIdle", "endedEndOfFlow", "endedForced", "endedResources",
                    "lostNoCollector", "lostQueueFull")), edge["endedActive"]),
                ("device records", dev["deviceRecords"], sum(dev[k] for k in (
                    "deviceRecordsRefused", "records", "recordsLost")))]
        for key in STEADY:
            c = self.heard[key].read()
            assert not c.faults and len(c.sources) == 1, (key, c.faults[:3], c.sources)
            for what, there, before in zip(("messages", "records"), c.heard(), earlier[key]):
                rows.append((f"{what} of {key}", entries[key][what], there))
                came[rows[-1][0]] = there - before
            if key[0] == "edge":
                rows.append((f"packets of {key}", edge["packets"] - edge["lostPackets"], c.packets))
                came[rows[-1][0]] = came[f"records of {key}"]
        handed = containers.Counter()
        for to, found in entries.items():
            handed[*to[:2], 6 if ":" in to[2] else 4] += found["messages"]
        # Endpoints are looked at once a second.
        now = time.monotonic()
        self.handed = [(at, h) for at, h in self.handed if at > now - 5 * SLOW
                       and all(handed[key] >= n for key, n in h.items())] + [(now, handed)]
        before = next((h for at, h in reversed(self.handed) if at < now - 1.2), None)
        if before is None:
            return "not counted for long enough"
        for e in shown["endpoints"]:
            key = e["tracker"], e["exporter"], e["family"]
            rows.append((f"datagrams of {key}", handed[key], e["sent"] + e["refused"],
                         handed[key] - before[key]))
        now = {what: (here, there, *late) for what, here, there, *late in rows}
        if self.truncated and any(now.get(what, (n,))[0] < n
                                  for what, (n, *_) in self.latest.items()):
            self.forgotten = set(now)  # the agent has only now seen it
        for what in [what for what in self.forgotten if not came.get(what)]:
            self.counted[what] = now.get(what, (0, 0))  # nothing of it is under way
            self.forgotten.remove(what)
        self.latest = now
        wrong = []
        for what, (here, there, *late) in now.items():
            here0, there0, *late0 = self.counted.get(what, (0, 0, 0))
            more = (here - here0) - (there - there0)
            if not -sum(late0) - (ASAN and came.get(what, 0)) <= more <= sum(late + late0):
                wrong.append((what, here, there, late, self.counted.get(what)))
        return wrong

    def flows_are_over(self):
        time.sleep(1.1)  # until it is counted
        wait_for("flows are over", lambda: flows().get("edge", {}).get("flowsActive") == 0, 10)

    def tables_are_the_kernels(self, heard):
        def differences():
            links = {(f"{ns[3:]}/" if ns else "") + i["ifname"]: i["ifindex"]
                     for ns in (None, "ns-red") for i in json.loads(run("ip", "-j", "link", ns=ns))}
            told = {n: i if "/" not in n else links.get(n) for n, i in heard.table(
                "ingressInterface", "interfaceName").items() if 0 < i < 0x3FFFFFFF}
            vrfs = heard.table("ingressVRFID", "VRFname")
            return told.items() ^ links.items() | vrfs.items() ^ {("default", 0), ("red", 3),
                                                                   ("", 16777215)}
        settle(differences, 10)

    def device_is_heard(self):
        """A healthy device is passed on, whatever the others did."""
        mark = random.randrange(1 << 60)
        octets = message([(2, template(300, [(8, 4), (1, 8)])),
                          (300, (bytes(4) + struct.pack(">Q", mark)) * 10)], domain=9)

        def heard():
            self.send([octets], "10.97.0.3")
            time.sleep(0.1)
            rows = self.heard[STEADY[2]].read().rows
            return sum(r.get("octetDeltaCount") == mark for _, r in rows) >= 10
        wait_for("a healthy device is heard", heard, 30)

    def quiet(self):
        """Everything is as it was in the beginning, and nothing was lost that is not counted."""
        self.limit(resource.RLIMIT_AS, self.space)
        self.limit(resource.RLIMIT_NOFILE, 20000)
        self.clients.clear()
        subprocess.run(["sh", "-c", MEND], stderr=subprocess.DEVNULL, check=False)
        self.agent.reload(settings())
        self.device_is_heard()
        wait_for("all are sent to", lambda: not [line for line in tool(
            "show", "collectors", check=False)[1].splitlines()[1:] if " sending " not in line], 15)
        for key in STEADY + SHAKY:
            if key[0] == "edge":
                self.tables_are_the_kernels(self.heard[key])
        self.flows_are_over()
        settle(self.differences, 10)
        seen = flows()["edge"]["packetsSeen"]
        sent = packets(self, random, 100)
        wait_for("the frames are seen", lambda: flows()["edge"]["packetsSeen"] == seen + sent)
        self.flows_are_over()
        settle(self.differences, 10)
        assert sum(e["undelivered"] for e in show_counters()["endpoints"] if e["exporter"] == "local")
        for key in STEADY:
            c = self.heard[key]
            late = [(a, b) for a, b in zip(c.template_times, c.template_times[1:])
                    if b - a > 1 + SLOW + sum(n for at, n in self.pauses if a - n < at < b)]
            assert not late or key[0] == "dev", (key, late, self.pauses)
            del c.template_times[:-1]
        log = self.agent.program.log()
        assert not re.search("abort|terminate|Sanitizer|runtime error", log), log[-3000:]
        self.began = self.began or (*self.held(), resident_kib(self.pid))
        self.truncated = False
        wait_for(f"as many descriptors and threads as before: {self.began}",
                 lambda: all(a <= b for a, b in zip(self.held(), self.began)), 10)

    def held(self):
        return descriptors(self.pid).total(), len(os.listdir(f"/proc/{self.pid}/task"))

    def end(self):
        self.quiet()
        grown = resident_kib(self.pid) - self.began[2]
        print("descriptors, threads, KiB at first:", self.began, "at the end", grown, "KiB more")
        assert ASAN or grown < MORE_KIB
        assert self.agent.stop() == 0, self.agent.program.log()[-3000:]


# --- What can happen: each takes the life and randomness of its own. ---

def world(life, rng):
    what = rng.choice(WORLD).strip().format(n=rng.randrange(1, 10), m=rng.randrange(10))
    if "truncate" in what:
        life.forgotten, life.truncated = set(life.latest), True  # what was counted
    print("world:", what)
    subprocess.run(["sh", "-c", what], stderr=subprocess.DEVNULL, check=False)


def reload(life, rng):
    for _ in range(rng.choice([1, 1, 20])):
        text = settings(rng)
        if rng.random() < 0.3:
            cut = rng.randrange(len(text))
            text = rng.choice([text[:cut] + "= =\n" + text[cut:], text + "[tracker.x]\nid = 7\n",
                               text.replace("id = 7", "id = -7"), text.replace('"10.97.0.2"', '"::"')])
        life.agent.reload(text)


def collector(life, _):
    """Where two were refused one listens, and the other way round."""
    if life.local:
        life.local.stop()
    life.local = None if life.local else listen(life.lab, "--address", "127.0.0.1", "--port", 6002)


def devices(life, rng):
    if SECONDS <= 60:  # test_local_collector.py has hostile devices, too
        return
    start = rng.randrange(26000)
    life.send(life.worst[start:start + rng.choice([20, 200, 2000])], "10.97.0.2")


def clients(life, rng):
    """Polite ones, and such as send too much, too little, or do not wait for an answer."""
    with contextlib.suppress(OSError):
        for _ in range(rng.choice([1, 3, 40])):
            client = socket.socket(socket.AF_UNIX)
            client.settimeout(0.2)
            life.clients.append(client)
            client.connect(CONTROL)
            client.send(rng.choice([b'{"request":"state"}\n' * 20, b'{"request":"collectors"}\n',
                                    b'{"request":"resend"}\n', b'{"request":"reload"}\n',
                                    b'{"request":"sta', rng.randbytes(5000), b"[" * 4000 + b"\n"]))
    if rng.random() < 0.5:
        life.clients.clear()
    tool(*rng.choice([["show", "collectors"], ["show", "tables"], ["show", "state", "--limit", 3],
                      ["top", "--tracker", "edge"], ["show", "flows", "--list", "--tracker", "t0"]]),
         check=False)


def refusal(life, rng):
    """Descriptors, or memory and with it threads, that the agent may not have until it is quiet."""
    if ASAN:  # the sanitizers themselves need both
        pass
    elif rng.random() < 0.5:
        life.limit(resource.RLIMIT_NOFILE, life.held()[0] + rng.randrange(-5, 6))
    else:
        size = int(pathlib.Path(f"/proc/{life.pid}/statm").read_text().split()[0]) * 4096
        most = life.space % (1 << 64)
        life.limit(resource.RLIMIT_AS, min(most, size + rng.choice([4, 16, 64]) * 1000000))
    reload(life, rng)


def pause(life, rng):
    length = rng.random() * 1.5
    life.pauses.append((time.time(), length))
    for sig in (signal.SIGSTOP, signal.SIGCONT):
        life.agent.program.process.send_signal(sig)
        time.sleep(length if sig == signal.SIGSTOP else 0)


def packets(life, rng, count=None):
    for n, (frame, *_) in enumerate(traffic.mixture(count or rng.choice([10, 300, 2000]))):
        life.wire.send(frame)
        if n % 500 == 0:
            time.sleep(rng.random() * 0.02)
    return n + 1


OPERATIONS = (world, world, world, world, world, reload, reload, collector, devices, clients, refusal,
              pause, packets, packets)


def live(lab, steps, end=None):
    """Lives these steps, and then random ones until `end`, with a quiet moment after every 20."""
    life = Life(lab)
    done = 0
    while done < len(steps) or (end and time.monotonic() < end):
        if done == len(steps):
            steps.append((random.randrange(len(OPERATIONS)), random.randrange(1 << 32)))
        OPERATIONS[steps[done][0]](life, random.Random(steps[done][1]))
        done += 1
        assert life.agent.program.running(), life.agent.program.log()[-3000:]
        if done % 20 == 0:
            life.quiet()
    life.end()


def fails(steps, directory):
    lab = Lab(directory)
    try:
        return live(lab, list(steps))
    except Exception:  # also what asking a dead agent's /proc leads to
        return True
    finally:
        lab.close()


def test_torment(lab, tmp_path):
    seed = int(os.environ.get("TARN_SEED", random.randrange(1 << 32)))
    print("TARN_SEED", seed)
    random.seed(seed)
    steps = []
    try:
        live(lab, steps, time.monotonic() + SECONDS)
    except BaseException:
        lab.close()
        size = len(steps) if os.environ.get("TARN_SHRINK") == "1" else 0
        while size := size // 2:
            for at in range(len(steps) - size, -1, -size):
                if fails(steps[:at] + steps[at + size:], tmp_path):
                    steps[at:at + size] = []
        print("steps:", [(OPERATIONS[n].__name__, s) for n, s in steps])
        raise
    print(len(steps), "operations")
