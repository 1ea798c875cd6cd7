"""Processes, namespaces and links of a system test, and waiting with a deadline."""

import collections
import contextlib
import ctypes
import json
import os
import pathlib
import re
import signal
import socket
import subprocess
import time

BUILD = os.environ.get("TARN_BUILD_DIR", "")
# Everything is given more time where programs run under a slow tool.
SLOW = float(os.environ.get("TARN_SLOW", "1"))
# What tarnflowd is run under, for instance valgrind with its options.
AGENT_WRAP = os.environ.get("TARN_AGENT_WRAP", "").split()


def wait_for(what, condition, seconds=5.0):
    """Polls until `condition()` is true and returns its value; fails by name at the deadline."""
    deadline = time.monotonic() + seconds * SLOW
    while True:
        value = condition()
        if value:
            return value
        if time.monotonic() > deadline:
            raise AssertionError(f"not within {seconds * SLOW:g} s: {what}")
        time.sleep(0.01)


def inside_argv(argv, ns):
    return [str(a) for a in (*(("ip", "netns", "exec", ns) if ns else ()), *argv)]


def run(*argv, ns=None, check=True):
    """Runs a command to its end, in namespace `ns`, and returns its standard output."""
    argv = inside_argv(argv, ns)
    done = subprocess.run(argv, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
    if check and done.returncode:
        raise AssertionError(f"{' '.join(argv)}: exit {done.returncode}: {done.stderr}")
    return done.stdout


class Program:
    """A running program with its output in files."""

    def __init__(self, lab, name, argv, ns=None, env=None):
        self.name = name
        self._out = lab.path(f"{name}.out")
        self._err = lab.path(f"{name}.err")
        with open(self._out, "wb") as out, open(self._err, "wb") as err:
            self.process = subprocess.Popen(inside_argv(argv, ns), stdin=subprocess.DEVNULL,
                                            stdout=out, stderr=err,
                                            env={**os.environ, **(env or {})})
        self.pid = self.process.pid
        self.ends_well = False  # whether it has to stop with status 0 at the end of its test
        self.started = time.monotonic()

    def out(self):
        return self._out.read_text(errors="backslashreplace")

    def lines_from(self, at):
        """The whole lines of standard output from octet `at` on, and where they end."""
        with open(self._out, "rb") as out:
            out.seek(at)
            text = out.read()
        text = text[:text.rfind(b"\n") + 1]
        return text.decode(), at + len(text)

    def err(self):
        return self._err.read_text(errors="backslashreplace")

    def log(self):
        return self.out() + self.err()

    def running(self):
        return self.process.poll() is None

    def wait_log(self, pattern, seconds=5.0):
        """Waits until a line of the output matches; the program must still run."""
        def found():
            match = re.search(pattern, self.log(), re.M)
            if not match and not self.running():
                raise AssertionError(f"{self.name} ended ({self.process.returncode}) before it "
                                     f"said /{pattern}/:\n{self.log()}")
            return match
        return wait_for(f"{self.name} says /{pattern}/", found, seconds)

    def wait_exit(self, seconds=5.0):
        wait_for(f"{self.name} ends", lambda: not self.running(), seconds)
        return self.process.returncode

    def stop(self, sig=signal.SIGTERM, seconds=5.0):
        """Sends a signal and returns the exit code; negative when a signal ended it."""
        if self.running():
            self.process.send_signal(sig)
        return self.wait_exit(seconds)


class Lab:
    """What one test made, to be taken away when it is over."""

    def __init__(self, directory):
        self.directory = directory
        self.programs = []
        self.namespaces = []
        self.links = []
        self._files = {}

    def path(self, name):
        """A file of this test; the same name again gives a numbered one."""
        n = self._files[name] = self._files.get(name, 0) + 1
        stem, dot, suffix = name.partition(".")
        return self.directory / (name if n == 1 else f"{stem}{n}{dot}{suffix}")

    def start(self, name, *argv, ns=None, env=None):
        program = Program(self, name, argv, ns, env)
        self.programs.append(program)
        return program

    def namespace(self, name):
        run("ip", "netns", "add", name)
        self.namespaces.append(name)
        run("ip", "link", "set", "lo", "up", ns=name)
        return name

    def namespace_del(self, name):
        run("ip", "netns", "del", name)
        self.namespaces.remove(name)

    def veth(self, end, peer, peer_ns, ns=None):
        """A cable from `end` (in `ns`) to `peer` in `peer_ns`, both up."""
        run("ip", "link", "add", end, "type", "veth", "peer", "name", peer, "netns", peer_ns, ns=ns)
        if not ns:
            self.links.append(end)
        for device, where in ((end, ns), (peer, peer_ns)):
            # As on a wire: a segmented send is cut before tcpdump sees it.
            run("ethtool", "-K", device, "tx-udp-segmentation", "off", ns=where)
            run("ip", "link", "set", device, "up", ns=where)

    def address(self, device, *prefixes, ns=None, verb="add"):
        """Adds or removes addresses; IPv6 ones are usable at once (no duplicate detection)."""
        for prefix in prefixes:
            nodad = ["nodad"] if ":" in prefix and verb == "add" else []
            run("ip", "address", verb, prefix, "dev", device, *nodad, ns=ns)

    def far(self, ns=None):
        """A cable from up0 (in `ns`) to dn0 in the namespace tt-far, whose name this returns. up0 has
        10.99.0.1 and fd99::1, dn0 has the next four addresses of both families."""
        far = self.namespace("tt-far")
        self.veth("up0", "dn0", far, ns=ns)
        self.address("up0", "10.99.0.1/24", "fd99::1/64", ns=ns)
        for n in range(2, 6):
            self.address("dn0", f"10.99.0.{n}/24", f"fd99::{n}/64", ns=far)
        return far

    def source(self, end="in0", peer="src0", ns=None):
        """A cable for traffic from the namespace tt-src, with nothing else on it."""
        if "tt-src" not in self.namespaces:
            self.namespace("tt-src")
        self.veth(end, peer, "tt-src", ns=ns)
        for device, where in ((end, ns), (peer, "tt-src")):
            run("sysctl", "-qw", f"net.ipv6.conf.{device}.disable_ipv6=1", ns=where)

    def end(self):
        """Every agent that still runs stops, and ends well."""
        wrong = [p.name for p in self.programs if p.ends_well and p.running() and p.stop()]
        assert not wrong, f"ended with a fault: {wrong}"

    def close(self):
        for program in reversed(self.programs):
            if program.running():
                program.process.kill()
                program.process.wait()
        for link in self.links:
            run("ip", "link", "del", link, check=False)
        for name in self.namespaces:
            run("ip", "netns", "del", name, check=False)

    def report(self):
        """The last that each program said, for a failed test."""
        return "\n".join(f"---- {p.name} (exit {p.process.poll()}) ----\n" +
                         "\n".join(p.log().splitlines()[-30:]) for p in self.programs)


class Notify:
    """The service manager's end of the readiness protocol (sd_notify(3))."""

    def __init__(self, path):
        self.socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM | socket.SOCK_NONBLOCK)
        self.socket.bind(path)
        self.path, self.heard = path, []

    def lines(self):
        while True:
            try:
                self.heard += self.socket.recv(4096).decode().splitlines()
            except BlockingIOError:
                return self.heard


_libc = ctypes.CDLL(None, use_errno=True)


@contextlib.contextmanager
def inside(ns):
    """The calling thread is in namespace `ns` meanwhile (None: stays)."""
    def enter(file):
        if _libc.setns(file.fileno(), 0x40000000):  # CLONE_NEWNET
            raise OSError(ctypes.get_errno(), "setns")
    with open("/proc/thread-self/ns/net") as home:
        if ns:
            with open(f"/run/netns/{ns}") as there:
                enter(there)
        try:
            yield
        finally:
            enter(home)


def descriptors(pid):
    """What the process has open: how many of each kind, files by their name."""
    kinds = collections.Counter()
    for fd in pathlib.Path(f"/proc/{pid}/fd").iterdir():
        with contextlib.suppress(FileNotFoundError):
            kinds[re.sub(r"\[?\d+\]?$", "", os.readlink(fd))] += 1
    return kinds


def resident_kib(pid):
    with open(f"/proc/{pid}/status") as status:
        return int(re.search(r"VmRSS:\s+(\d+)", status.read())[1])


def parse_json_lines(text):
    """The complete lines of a program that prints one JSON value per line."""
    return [json.loads(line) for line in text.splitlines(True) if line.endswith("\n")]
