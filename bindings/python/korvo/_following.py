"""Changes of the memory as they come."""

import sys
from collections import namedtuple as _namedtuple

_FIELDS = ("key", "value", "old", "time", "writer", "lost", "what", "position")


class Change(_namedtuple("Change", _FIELDS)):
    """A change of one key.

    key       its name
    value     what it is now; None for one that was removed
    old       what it was before; None where that is not known
    time      seconds since the epoch, by the clock of the memory's machine
    writer    who wrote it, as far as it is known
    lost      how many changes of it were missed since the one told before
    what      "stored", "raised", "raised micro", "declared", "described", "removed"; "state" for one that tells how things
              stand, at the beginning with `snapshot=True`, or where changes were missed
    position  where to go on later, as `since=` of `follow`: a pair of numbers; None before the first snapshot is over, and
              with `rate=`, which tells changes out of their order
    """

    __slots__ = ()


class Follow:
    """Changes, one after another: `for change in robot.follow("Arm/")`, or `async for`.

    They are kept until they are taken, up to a number; then the oldest go, and `lost` of the next one tells how many.
    After a lost connection it goes on where it was. It ends by `stop`, at the end of a `with`, and with the robot; with
    `timeout=` also when nothing has changed for so many seconds.
    """

    def __init__(self, robot, native, timeout, what):
        self._what = what
        self._robot = robot  # Which stays connected as long as it is followed.
        self._native = native
        self._timeout = timeout
        self._taken = iter(())

    def __iter__(self):
        return self

    def __next__(self):
        for change in self._taken:
            return change
        changes = self._native.take(self._timeout)
        if not changes:
            raise StopIteration
        self._taken = iter(changes)
        return next(self._taken)

    def take(self, timeout=None):
        """Waits for changes, at most `timeout` seconds, and returns all there are: a list, empty when there are none in
        time or it has ended."""
        rest = list(self._taken)
        return rest or self._native.take(timeout) or []

    def __aiter__(self):
        return self

    async def __anext__(self):
        for change in self._taken:
            return change
        changes = self._native.take(0)
        if changes is not None and not changes:
            await self._ready()
            changes = self._native.take(0)
        if not changes:
            raise StopAsyncIteration
        self._taken = iter(changes)
        return next(self._taken)

    async def _ready(self):
        asyncio = sys.modules["asyncio"]
        loop = asyncio.get_running_loop()
        ready = loop.create_future()
        file = self._native.file()
        loop.add_reader(file, lambda: ready.done() or ready.set_result(None))
        try:
            await asyncio.wait_for(ready, self._timeout)
        except asyncio.TimeoutError:
            pass
        finally:
            loop.remove_reader(file)

    def stop(self):
        """Ends it, and whoever waits for it. May be repeated."""
        self._native.end()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.stop()

    def __repr__(self):
        return f"<korvo.Follow {self._what}>"


class Watch:
    """A callback that is called with each change. It ends by `stop`, and with the robot; losing it does not end it."""

    def __init__(self, follow, callback, what):
        import threading

        self._follow, self._callback, self._what = follow, callback, what
        self._thread = threading.Thread(target=self._run, name=f"korvo {what}", daemon=True)
        self._thread.start()

    def _run(self):
        for change in self._follow:
            try:
                self._callback(change)
            except Exception:
                import logging

                logging.getLogger("korvo").exception("callback of %s failed", self._what)

    def stop(self):
        """Ends it, and waits for the callback to return, unless it is called there. May be repeated."""
        import threading

        self._follow.stop()
        if threading.current_thread() is not self._thread:
            self._thread.join()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.stop()

    def __repr__(self):
        return f"<korvo.Watch {self._what}{'' if self._thread.is_alive() else ' stopped'}>"
