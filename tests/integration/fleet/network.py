"""Hosts with addresses of their own in one process's care, and a wire between them that can be made bad.

Each host is a network namespace with one interface, whose packets this process carries to the others: late, at a rate,
with losses, or not at all. The kernel's own `netem` would do the same, where a kernel has it.
"""

import ctypes
import dataclasses
import fcntl
import heapq
import os
import random
import select
import struct
import subprocess
import sys
import threading
import time

CLONE_NEWNET = 0x40000000
TUNSETIFF = 0x400454CA
IFF_TUN, IFF_NO_PI = 0x0001, 0x1000
LONGEST_QUEUE = 200  # Packets that wait for their turn on a wire of some rate; those beyond are lost.


def enter():
    """Goes on in a network namespace of its own. Says why that cannot be, and ends with 77."""
    if os.environ.get("KORVO_TEST_NETWORK"):
        return
    for command in (["unshare", "--user", "--map-root-user", "--net"], ["unshare", "--net"]):
        try:
            able = subprocess.run([*command, "ip", "link"], capture_output=True, check=False).returncode == 0
        except FileNotFoundError:
            continue
        if able and os.access("/dev/net/tun", os.R_OK | os.W_OK):
            os.environ["KORVO_TEST_NETWORK"] = "yes"
            os.execvp(command[0], [*command, sys.executable, *sys.argv])
    print("skipped: no network namespaces can be made here, or there is no `ip` or no /dev/net/tun", file=sys.stderr)
    sys.exit(77)


@dataclasses.dataclass
class Line:
    """How a host is reached: the same in both directions."""

    delay: float = 0.0  # Seconds, each way.
    loss: float = 0.0  # Of packets, 0 to 1.
    rate: float = 0.0  # Bytes a second; 0: any.
    is_holed: bool = False  # All packets vanish.


class Host:
    def __init__(self, number):
        self.address = f"10.77.0.{number}"
        self.line = Line()
        self.sent = 0  # Bytes, with the heads of IP and TCP.
        self.free = {"in": 0.0, "out": 0.0}  # When the wire of some rate has carried what it was given.
        self.keeper = subprocess.Popen(
            ["unshare", "--net", "sh", "-c", "ip link set lo up && echo up && exec cat"],
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
        if self.keeper.stdout.readline() != "up\n":
            raise SystemExit("no network namespace")
        self.tun = self.open_tun()
        self.ip("addr", "add", f"{self.address}/24", "dev", "wire")
        self.ip("link", "set", "wire", "up")

    def open_tun(self):
        libc = ctypes.CDLL(None, use_errno=True)
        ours = os.open("/proc/self/ns/net", os.O_RDONLY)
        theirs = os.open(f"/proc/{self.keeper.pid}/ns/net", os.O_RDONLY)
        try:
            if libc.setns(theirs, CLONE_NEWNET) != 0:
                raise OSError(ctypes.get_errno(), "setns")
            tun = os.open("/dev/net/tun", os.O_RDWR | os.O_NONBLOCK)
            fcntl.ioctl(tun, TUNSETIFF, struct.pack("16sH22x", b"wire", IFF_TUN | IFF_NO_PI))
            return tun
        finally:
            libc.setns(ours, CLONE_NEWNET)
            os.close(ours)
            os.close(theirs)

    def ip(self, *words):
        subprocess.run(self.command("ip", *words), check=True)

    def command(self, *words):
        """As it is carried out on this host."""
        return ["nsenter", f"--net=/proc/{self.keeper.pid}/ns/net", *map(str, words)]

    # What can become of the way to it.
    def cut(self):
        self.ip("link", "set", "wire", "down")

    def hole(self):
        self.line = Line(is_holed=True)

    def slow(self):
        self.line = Line(delay=0.2, loss=0.05, rate=125_000)

    def heal(self):
        self.line = Line()
        self.ip("link", "set", "wire", "up")

    def close(self):
        self.keeper.kill()
        self.keeper.wait()


class Network:
    def __init__(self, count):
        self.hosts = [Host(number + 1) for number in range(count)]
        self.by_address = {bytes(map(int, host.address.split("."))): host for host in self.hosts}
        self.by_tun = {host.tun: host for host in self.hosts}
        self.random = random.Random(20)
        self.waiting = []  # (when, number, host, packet)
        self.number = 0
        self.is_open = True
        self.thread = threading.Thread(target=self.carry, daemon=True)
        self.thread.start()

    def carry(self):
        while self.is_open:
            limit = max(0.0, min(0.2, self.waiting[0][0] - time.monotonic())) if self.waiting else 0.2
            readable, _, _ = select.select(list(self.by_tun), [], [], limit)
            for tun in readable:
                self.read(self.by_tun[tun])
            while self.waiting and self.waiting[0][0] <= time.monotonic():
                _, _, host, packet = heapq.heappop(self.waiting)
                try:
                    os.write(host.tun, packet)
                except OSError:
                    pass  # Its interface is down, or takes no more.

    def read(self, host):
        for _ in range(64):
            try:
                packet = os.read(host.tun, 4096)
            except OSError:
                return  # That was all, or the interface is down.
            to = self.by_address.get(packet[16:20])
            if packet[0] >> 4 == 4 and to:
                self.send(host, to, packet)

    def send(self, host, to, packet):
        when = time.monotonic()
        host.sent += len(packet)
        for at, direction in ((host, "out"), (to, "in")):
            line = at.line
            if line.is_holed or self.random.random() < line.loss:
                return
            if line.rate:
                begin = max(when, at.free[direction])
                if begin - when > LONGEST_QUEUE * 1500 / line.rate:
                    return
                at.free[direction] = when = begin + len(packet) / line.rate
            when += line.delay
        self.number += 1
        heapq.heappush(self.waiting, (when, self.number, to, packet))

    def close(self):
        self.is_open = False
        self.thread.join()
        for host in self.hosts:
            host.close()
