"""Lesson 4 in Python: subscribers that are no modules.

A behaviour engine runs boxes: many, short-lived, and no modules that the memory could call. They subscribe under names that
begin with "_Behavior", and the memory hands such subscriptions to the module HXFrameManager, which keeps them. This one is
subscribed to the event itself and tells its boxes of each raise; where an engine would run a box, it prints.
"""

import threading
from typing import Any

import korvo


class HXFrameManager(korvo.Module):
    """Keeps and serves the subscriptions of behaviour boxes."""

    def __init__(self) -> None:
        self._lock = threading.Lock()
        self._boxes: dict[str, dict[str, tuple[str, Any]]] = {}  # By event and name: method and message.

    @korvo.method
    def _subscribeBoxToEvent(self, event: str, box: str, message: Any, method: str, micro: bool) -> None:
        """Called by the memory when a box subscribes."""
        with self._lock:
            self._boxes.setdefault(event, {})[box] = method, message
        # Without the lock: the memory waits for the raises of the event that are running, and those come here.
        memory = self.robot.service("HXMemory")
        if micro:
            memory.subscribeToMicroEvent(event, "HXFrameManager", "", "_onEvent")
        else:
            memory.subscribeToEvent(event, "HXFrameManager", "_onEvent")

    @korvo.method
    def _unsubscribeBoxToEvent(self, event: str, box: str, micro: bool) -> None:
        """Called by the memory when a box unsubscribes."""
        with self._lock:
            if self._boxes.get(event, {}).pop(box, None) is None:
                raise korvo.Error(f"{box} is not subscribed to {event}", "HXFrameManager", "_unsubscribeBoxToEvent")

    @korvo.method
    def _onEvent(self, event: str, value: Any, message: str) -> None:
        """Called by the memory when an event is raised."""
        with self._lock:
            boxes = sorted(self._boxes.get(event, {}).items())  # A copy: boxes may subscribe while they run.
        for box, (method, told) in boxes:
            print(f"{box} {method}: {event} = {value!r}, {told!r}")


def main() -> None:
    with korvo.connect() as robot, robot.host(HXFrameManager()):
        memory = robot.service("HXMemory")
        memory.subscribeToEvent("Door/Opened", "_BehaviorGreet", "onOpened")
        memory.subscribeToMicroEvent("Door/Opened", "_BehaviorLight", "hall", "switchOn")
        robot.raise_event("Door/Opened", "kitchen")
        memory.unsubscribeToEvent("Door/Opened", "_BehaviorGreet")
        robot.raise_event("Door/Opened", "cellar")
        try:
            memory.unsubscribeToEvent("Door/Opened", "_BehaviorGreet")
        except korvo.Error as error:
            print("error:", error)


if __name__ == "__main__":
    main()
