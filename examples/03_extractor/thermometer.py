"""Lesson 3 in Python: an extractor.

An extractor produces an event, and only while somebody wants it. It declares the event under its own name; from then on
the memory calls its `subscribe` and `unsubscribe` as subscribers come and go, each time with an identifier: the subscriber's
name with the event's name behind it.
"""

import threading
from typing import Any

import korvo

EVENT = "Thermometer/Temperature"


class Thermometer(korvo.Module):
    """Produces the event Thermometer/Temperature while somebody is subscribed to it."""

    def __init__(self) -> None:
        self._lock = threading.Lock()  # Methods run in parallel.
        self._wanted: set[str] = set()

    def init(self) -> None:
        self.robot.service("HXMemory").declareEvent(EVENT, "Thermometer")

    @korvo.method
    def subscribe(self, subscriberId: str) -> None:
        """Called by the memory when a module subscribes to the event."""
        with self._lock:
            self._wanted.add(subscriberId)

    @korvo.method
    def unsubscribe(self, subscriberId: str) -> None:
        """Called by the memory when a module unsubscribes from the event."""
        with self._lock:
            self._wanted.discard(subscriberId)

    @korvo.method
    def getCurrentPrecision(self) -> korvo.Float32:
        """How exact the event is. The memory tells an extractor of its subscribers only when it has this method."""
        return korvo.Float32(1)

    @korvo.method
    def measure(self, celsius: float) -> bool:
        """Stands for the sensor: takes a measurement.

        returns: Whether somebody wanted it.
        """
        with self._lock:
            wanted = bool(self._wanted)
        if wanted:
            self.robot.raise_event(EVENT, celsius)
        return wanted


class Listener(korvo.Module):
    """Wants to know how warm it is."""

    @korvo.on(EVENT)
    def told(self, key: str, value: Any, message: str) -> None:
        print(key, "=", value)


def main() -> None:
    with korvo.connect() as robot, robot.host(Thermometer()):
        thermometer = robot.service("Thermometer")
        print(thermometer.measure(20.5))
        with robot.host(Listener()):
            print(thermometer.measure(21.5))
            robot.service("HXMemory").unsubscribeToEvent(EVENT, "Listener")
        print(thermometer.measure(22.5))
        print(robot[EVENT])


if __name__ == "__main__":
    main()
