#!/usr/bin/env python3
"""Reads the agent's counters from shared memory, without the agent or any of its programs.

    read_counters.py [/NAME]      /tarnflow without it; prints one JSON object per collector

Exit status 1 when no agent lives: what a dead one last wrote is not shown. The layout is that of
docs/shared-memory.md, which is all that this needs.
"""
import ipaddress
import json
import mmap
import os
import struct
import sys
import time

HEADER, KEY, VALUE = 256, 284, 840
MAGIC, VERSION, BYTE_ORDER, LIVE = b"TARNSHM\n", 1, 0x01020304, 1


class NoAgent(Exception):
    """There is no table of a living agent."""


def up(number, multiple):
    return (number + multiple - 1) // multiple * multiple


def start_of(pid):
    """Clock ticks since boot at which a process started; None when it is gone."""
    try:
        with open(f"/proc/{pid}/stat") as stat:
            fields = stat.read().rpartition(")")[2].split()  # the name may hold anything
    except OSError:
        return None
    return None if fields[0] in "ZX" else int(fields[19])  # field 22 of all


class Table:
    """A table that is mapped and whose header was checked."""

    def __init__(self, name):
        try:
            fd = os.open(f"/dev/shm{name}", os.O_RDONLY | os.O_NOFOLLOW)
        except FileNotFoundError:
            raise NoAgent(f"there is no table {name}") from None
        with open(fd, "rb") as file:
            size = os.fstat(fd).st_size
            if size < HEADER:
                raise NoAgent(f"{name} is no such table")
            self.map = mmap.mmap(file.fileno(), size, prot=mmap.PROT_READ)
        self.words = memoryview(self.map).cast("Q")  # whole words: a load is never torn
        magic, version, order = struct.unpack_from("=8sII", self.map)
        (self.generation, _, pid, start, _, key, value, capacity, slots, length, offset,
         total) = struct.unpack_from("=12Q", self.map, 16)
        want = up(16 + up(KEY, 8) + up(VALUE, 8), 64)
        if ((magic, version, order, key, value) != (MAGIC, VERSION, BYTE_ORDER, KEY, VALUE)
                or slots < 2 * capacity or slots & (slots - 1)
                or (length, offset, total, size) != (want, HEADER, HEADER + slots * want, total)):
            raise NoAgent(f"{name} is no such table")
        self.slots, self.length, self.writer = slots, length, (pid, start)

    def live(self):
        pid, start = self.writer
        return self.words[3] == LIVE and start_of(pid) == start

    def record(self, slot):
        """The value in a slot; None: empty, or under change at every try."""
        at = HEADER + slot * self.length
        for attempt in range(300):
            sequence = self.words[at // 8]
            tag = self.words[at // 8 + 1]
            value = self.map[at + 16 + up(KEY, 8):][:VALUE] if tag else b""
            if sequence % 2 == 0 and self.words[at // 8] == sequence:
                return value or None
            if attempt > 100:
                time.sleep(0.0001)
        return None

    def records(self):
        """The values of all records, each key once."""
        for _ in range(10):
            deletions = self.words[17]
            found = {v[:KEY]: v for v in map(self.record, range(self.slots)) if v}
            if deletions % 2 == 0 and self.words[17] == deletions:
                break
        return found.values()


def entry(value):
    """One record as an object; its keys are those of `tarnflow show counters --json`."""
    family, port, address, tracker_len, exporter_len, tracker, exporter = struct.unpack_from(
        "=BxH16sII128s128s", value)
    messages, records, octets, *times = struct.unpack_from("=QQQ5d", value, 288)
    sets = (struct.unpack_from("=H6xQQ", value, 360 + 24 * i) for i in range(20))
    names = ("lastMessageTime", "lastTemplateTime", "lastDataTime", "lastOptionsDataTime",
             "lastClearedTime")
    return {"tracker": tracker[:tracker_len].decode(), "exporter": exporter[:exporter_len].decode(),
            "collectorAddress": str(ipaddress.ip_address(address[:4] if family == 4 else address)),
            "collectorPort": port, "messages": messages, "records": records, "octets": octets,
            **{n: t or None for n, t in zip(names, times)},
            "sets": [{"id": i, "records": r, "templates": t} for i, r, t in sorted(sets) if i]}


def entries(name="/tarnflow"):
    table = Table(name)
    found = [entry(v) for v in table.records()]
    if not table.live():  # after reading: what was read is a living agent's
        raise NoAgent(f"the agent that wrote {name} is gone")
    return found


if __name__ == "__main__":
    try:
        for one in entries(*sys.argv[1:2]):
            print(json.dumps(one))
    except NoAgent as why:
        sys.exit(f"read_counters: {why}")
