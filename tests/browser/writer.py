#!/usr/bin/env python3
"""Writes a memory so often, as a robot does: all keys in turn, by lists of a thousand.

    writer.py SOCKET KEYS CHANGES_A_SECOND [SECONDS]

Without SECONDS until it is killed. Prints how many changes a second the memory took.
"""

import random
import socket
import struct
import sys
import time

LIST = 1000


def text(string):
    raw = string.encode()
    return b"\xda" + struct.pack(">H", len(raw)) + raw


def array(size):
    return b"\xdd" + struct.pack(">I", size)


def request(number, keys):
    """insertListData([[key, value], …]) as MessagePack-RPC."""
    parts = [b"\x94\x00" + b"\xce" + struct.pack(">I", number) + text("HXMemory.insertListData") + b"\x91" + array(len(keys))]
    for key in keys:
        parts.append(b"\x92" + key + b"\xcb" + struct.pack(">d", random.random()))
    return b"".join(parts)


def main():
    path, count, rate = sys.argv[1], int(sys.argv[2]), int(sys.argv[3])
    seconds = float(sys.argv[4]) if len(sys.argv) > 4 else float("inf")
    keys = [text(f"Load/{i // 1000}/Group{i // 100 % 10}/Key{i % 100}") for i in range(count)]
    peer = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
    peer.connect(path)
    began, sent, number = time.monotonic(), 0, 0
    while time.monotonic() - began < seconds:
        some = [keys[(sent + i) % count] for i in range(min(LIST, count))]
        number += 1
        peer.sendall(request(number, some))
        peer.recv(4096)  # The answer, and heartbeats now and then.
        sent += len(some)
        ahead = sent / rate - (time.monotonic() - began)
        if ahead > 0:
            time.sleep(ahead)
    print(round(sent / (time.monotonic() - began)))


main()
