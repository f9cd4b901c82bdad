"""Values that are read at the speed of memory."""

import enum

from ._native import Seen

Seen.__module__ = "korvo"


class ViewState(enum.Enum):
    """How it stands with a value that is viewed."""

    PRESENT = "present"
    ABSENT = "the memory has no such key"
    OTHER_TYPE = "of a type that cannot be viewed"
    TOO_LARGE = "larger than the capacity of the view"
    ADDRESS_KNOWN = "written through an address, which no view can follow"
    DISCONNECTED = "the broker has gone"
    BUSY = "changed each time that it was looked at"


class View:
    """A key that is read without asking anybody: `robot.view("Arm/Speed")`.

        speed = robot.view("Arm/Speed")
        while True:
            seen = speed.read()
            motor.set(seen.value if seen.is_fresh(0.05) else 0.0)

    It shows what is there and does not tell of changes: of several writes between two reads the last one is seen. It follows
    the broker through its end and its return by itself. One thread at a time may use it; another one opens its own.
    """

    __slots__ = ("_native", "_key")

    def __init__(self, native, key):
        self._native, self._key = native, key

    def read(self):
        """What there is now: a `Seen`. Makes no call, and waits for nothing."""
        return self._native.read()

    def alive(self, limit=0.1):
        """Whether the broker was seen to run within the last `limit` seconds, whoever writes."""
        return self._native.alive(limit)

    def wait(self, revision=0, timeout=None):
        """Sleeps until there is something newer than a revision, or the broker goes or comes; at most `timeout` seconds.

        Returns False when there is nothing newer.
        """
        return self._native.wait(revision, timeout)

    def __repr__(self):
        return f"<korvo.View {self._key}>"


class Stream:
    """Every value that is written under a key, the oldest first: `for seen in robot.stream("Arm/Pose")`.

    The writer waits for nobody: who reads too slowly misses values, and `lost` tells how many. It goes on when the broker
    comes back, and ends when the robot is closed; with `timeout=` also when nothing has come for so many seconds. One
    thread at a time may use it.
    """

    __slots__ = ("_robot", "_native", "_key", "_timeout")

    def __init__(self, robot, native, key, timeout):
        self._robot, self._native, self._key, self._timeout = robot, native, key, timeout  # The robot stays connected.

    def __iter__(self):
        return self

    def __next__(self):
        seen = self._native.next(self._timeout)
        if seen is None:
            raise StopIteration
        return seen

    def take(self, timeout=None):
        """Waits for values, at most `timeout` seconds, and returns all there are: a list, empty when there are none in
        time."""
        taken = []
        while (seen := self._native.next(0 if taken else timeout)) is not None:
            taken.append(seen)
        return taken

    @property
    def lost(self):
        """How many values were overwritten before they were read, but for those while there was no broker."""
        return self._native.lost

    def __repr__(self):
        return f"<korvo.Stream {self._key}>"
