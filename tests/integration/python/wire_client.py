"""A client of the wire protocol, written from its page alone: MessagePack, and the messages of a connection."""

import os
import socket
import struct
import threading

MIB = 1 << 20


class Ext:
    def __init__(self, kind, content):
        self.kind, self.content = kind, content


class As:
    """An integer in a format of its own: one of B H I Q b h i q."""

    def __init__(self, code, number):
        self.code, self.number = code, number


FORMATS = "BHIQbhiq"


def fitting(code, number):
    """In this format, or in that which is usual where it has no room."""
    size = 8 * struct.calcsize(code) - code.islower()
    return As(code, number) if number < 1 << size else number


def pack(value):
    if isinstance(value, As):
        return bytes([0xcc + FORMATS.index(value.code)]) + struct.pack(">" + value.code, value.number)
    if value is None or isinstance(value, bool):
        return {None: b"\xc0", False: b"\xc2", True: b"\xc3"}[value]
    if isinstance(value, int):
        if 0 <= value < 128:
            return bytes([value])
        return pack(As("i" if -2**31 <= value < 2**31 else "q" if value < 2**63 else "Q", value))
    if isinstance(value, float):
        return b"\xcb" + struct.pack(">d", value)
    if isinstance(value, str):
        value = value.encode()
        return b"\xdb" + struct.pack(">I", len(value)) + value
    if isinstance(value, bytes):
        return b"\xc6" + struct.pack(">I", len(value)) + value
    if isinstance(value, Ext):
        return b"\xc9" + struct.pack(">Ib", len(value.content), value.kind) + value.content
    if isinstance(value, dict):
        return b"\xdf" + struct.pack(">I", len(value)) + b"".join(pack(k) + pack(v) for k, v in value.items())
    return b"\xdd" + struct.pack(">I", len(value)) + b"".join(map(pack, value))


def unpack(data, at=0):
    """One value and where it ends; IndexError and struct.error where there is no more."""
    code = data[at]
    at += 1

    def number(form):
        return struct.unpack_from(">" + form, data, at)[0], at + struct.calcsize(form)

    def content(size, at):
        if at + size > len(data):
            raise IndexError
        return bytes(data[at:at + size]), at + size

    def values(count, at):
        found = []
        for _ in range(count):
            value, at = unpack(data, at)
            found.append(value)
        return found, at

    def pairs(count, at):
        flat, at = values(2 * count, at)
        return dict(zip(flat[::2], flat[1::2])), at

    if code < 0x80 or code >= 0xe0:
        return (code if code < 0x80 else code - 256), at
    if code < 0x90:
        return pairs(code & 15, at)
    if code < 0xa0:
        return values(code & 15, at)
    if code < 0xc0:
        text, at = content(code & 31, at)
        return text.decode(errors="replace"), at
    if code in (0xc0, 0xc2, 0xc3):
        return {0xc0: None, 0xc2: False, 0xc3: True}[code], at
    if code in (0xca, 0xcb):
        return number("f" if code == 0xca else "d")
    if 0xcc <= code <= 0xd3:
        return number(FORMATS[code - 0xcc])
    if 0xd4 <= code <= 0xd8:
        kind, at = number("b")
        body, at = content(1 << (code - 0xd4), at)
        return Ext(kind, body), at
    size, at = number(SIZES[code])
    if code <= 0xc6:
        return content(size, at)
    if code <= 0xc9:
        kind, at = number("b")
        body, at = content(size, at)
        return Ext(kind, body), at
    if code <= 0xdb:
        text, at = content(size, at)
        return text.decode(errors="replace"), at
    return values(size, at) if code <= 0xdd else pairs(size, at)


SIZES = {0xc4: "B", 0xc5: "H", 0xc6: "I", 0xc7: "B", 0xc8: "H", 0xc9: "I", 0xd9: "B", 0xda: "H", 0xdb: "I",
         0xdc: "H", 0xdd: "I", 0xde: "H", 0xdf: "I"}


class Ended(Exception):
    pass


class Client:
    """Sends its heartbeat by itself, unless it has no heart."""

    def __init__(self, heart=True, broker="korvo"):
        self.socket = socket.socket(socket.AF_UNIX)
        self.socket.settimeout(30)
        self.socket.connect(f"{os.environ['XDG_RUNTIME_DIR']}/korvo/{broker}.sock")
        self.input, self.last, self.sending, self.closed = bytearray(), 0, threading.Lock(), threading.Event()
        if heart:
            threading.Thread(target=self.beat, daemon=True).start()

    def beat(self):
        while not self.closed.wait(0.5):
            try:
                self.send([2, "korvo.alive", []])
            except (Ended, OSError):
                return

    def close(self):
        self.closed.set()
        self.socket.close()

    def send(self, message):
        data = message if isinstance(message, bytes) else pack(message)
        try:
            with self.sending:
                self.socket.sendall(data)
        except (BrokenPipeError, ConnectionResetError):
            raise Ended from None

    def receive(self):
        while True:
            try:
                message, end = unpack(self.input)
                del self.input[:end]
                return message
            except (IndexError, struct.error):
                pass
            try:
                more = self.socket.recv(MIB)
            except ConnectionResetError:
                more = b""
            if not more:
                raise Ended
            self.input += more

    def awaits(self, wanted):
        """Messages up to the first of the wanted kind, beginning with these."""
        while True:
            message = self.receive()
            if message[:len(wanted)] == wanted:
                return message

    def answer(self, method, *arguments, number=None):
        self.last += 1
        self.send([0, self.last if number is None else number, method, list(arguments)])
        wanted = self.last if number is None else number.number if isinstance(number, As) else number
        return self.awaits([1, wanted])[2:]

    def call(self, method, *arguments):
        error, result = self.answer(method, *arguments)
        if error is not None:
            raise RuntimeError(error)
        return result

    def last_words(self):
        """Why the connection ended, as far as the broker says so by itself."""
        words = None
        try:
            while True:
                words = self.receive()
        except Ended:
            return words
