"""As much MessagePack as the wire protocol needs: https://msgpack.org says what the codes mean."""

import struct

NUMBERS = {0xca: "f", 0xcb: "d", 0xcc: "B", 0xcd: "H", 0xce: "I", 0xcf: "Q", 0xd0: "b", 0xd1: "h", 0xd2: "i", 0xd3: "q"}
SIZES = {0xc4: "B", 0xc5: "H", 0xc6: "I", 0xc7: "B", 0xc8: "H", 0xc9: "I", 0xd9: "B", 0xda: "H", 0xdb: "I",
         0xdc: "H", 0xdd: "I", 0xde: "H", 0xdf: "I"}


class Extension:
    def __init__(self, kind, content):
        self.kind, self.content = kind, content


NOT_UTF8 = "surrogateescape"  # Bytes of a string that are not UTF-8 stay what they are.


def pack(value):
    if value is None or isinstance(value, bool):
        return {None: b"\xc0", False: b"\xc2", True: b"\xc3"}[value]
    if isinstance(value, int):
        return struct.pack(">Bi", 0xd2, value) if -2**31 <= value < 2**31 else struct.pack(">Bq", 0xd3, value)
    if isinstance(value, float):
        return struct.pack(">Bd", 0xcb, value)
    if isinstance(value, str):
        content = value.encode(errors=NOT_UTF8)
        return struct.pack(">BI", 0xdb, len(content)) + content
    if isinstance(value, bytes):
        return struct.pack(">BI", 0xc6, len(value)) + value
    if isinstance(value, (list, tuple)):
        return struct.pack(">BI", 0xdd, len(value)) + b"".join(pack(each) for each in value)
    if isinstance(value, dict):
        both = (each for pair in value.items() for each in pair)
        return struct.pack(">BI", 0xdf, len(value)) + b"".join(pack(each) for each in both)
    return struct.pack(">BIb", 0xc9, len(value.content), value.kind) + value.content


def unpack(read):
    """The next value of a stream; `read(n)` gives n bytes."""
    code = read(1)[0]
    if code < 0x80 or code >= 0xe0:
        return code if code < 0x80 else code - 0x100
    if code in (0xc0, 0xc2, 0xc3):
        return {0xc0: None, 0xc2: False, 0xc3: True}[code]
    if code in NUMBERS:
        return struct.unpack(">" + NUMBERS[code], read(struct.calcsize(NUMBERS[code])))[0]
    if code in SIZES:
        size, = struct.unpack(">" + SIZES[code], read(struct.calcsize(SIZES[code])))
    else:
        size = 1 << code - 0xd4 if code >= 0xd4 else code & (31 if code >= 0xa0 else 15)
    if 0xa0 <= code < 0xc0 or 0xd9 <= code <= 0xdb:
        return read(size).decode(errors=NOT_UTF8)
    if 0xc4 <= code <= 0xc6:
        return read(size)
    if 0x90 <= code < 0xa0 or code in (0xdc, 0xdd):
        return [unpack(read) for _ in range(size)]
    if code < 0x90 or code in (0xde, 0xdf):
        return {unpack(read): unpack(read) for _ in range(size)}
    kind, = struct.unpack("b", read(1))
    return Extension(kind, read(size))
