"""Numbers whose width matters. Everything else is what it is in Python."""


class Float32(float):
    """A 32-bit float of the memory. Written back it stays one; what is computed with it is a plain float."""

    __slots__ = ()


class Int64(int):
    """A 64-bit int of the memory that a plain int would be narrower than. Written back it stays one."""

    __slots__ = ()
