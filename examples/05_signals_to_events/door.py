"""Lesson 5 in Python: signals, and events made of them.

A module that has signals need not know of the memory at all. Whoever knows the module connects to them directly; for
everybody else the memory raises an event at each emission, once it is told which.
"""

import queue
import threading

import korvo


class Door(korvo.Module):
    """A door that says when it is opened and closed."""

    opened = korvo.signal(str)
    closed = korvo.signal()

    def __init__(self) -> None:
        self._lock = threading.Lock()
        self._is_open = False

    @korvo.method
    def open(self, room: str) -> None:
        """Opens the door, if it is closed.

        room: The room that it is opened from.
        """
        if not self._set(True):
            self.opened.emit(room)

    @korvo.method
    def close(self) -> None:
        """Closes the door, if it is open."""
        if self._set(False):
            self.closed.emit()

    def _set(self, is_open: bool) -> bool:
        with self._lock:
            was_open, self._is_open = self._is_open, is_open
        return was_open


def main() -> None:
    with korvo.connect() as robot, robot.host(Door()):
        door = robot.service("Door")
        robot.service("HXMemory").addMapping("Door", "opened", "Door/Opened")
        rooms: queue.SimpleQueue[str] = queue.SimpleQueue()
        with door.opened.connect(rooms.put):
            door.open("kitchen")
            door.open("hall")  # It is open: nothing happens.
            door.close()
            door.open("cellar")
            print(rooms.get(timeout=30), rooms.get(timeout=30))
        # The memory hears of it by a way of its own, a moment sooner or later.
        for change in robot.follow("Door/Opened", timeout=30):
            if change.value == "cellar":
                break
        print(robot.info("Door/Opened").kind, robot["Door/Opened"])


if __name__ == "__main__":
    main()
