"""Lesson 2 in Python: a subscriber.

`@korvo.on` has a method called whenever an event is raised. The call comes before `raise_event` returns, and the memory
holds a lock of that event meanwhile: a callback is short, and hands longer work to a thread of its own. Who must not hold
raisers up follows the event instead: `robot.on("Door/Opened", print)`.

    $ korvo host --module ./eventlogger.py
    $ korvo raise Door/Opened '"kitchen"'
"""

from typing import Any

import korvo


class EventLogger(korvo.Module):
    """Logs events."""

    @korvo.on("Door/Opened")
    @korvo.on("Arm/Step", micro=True)
    def log(self, key: str, value: Any, message: str) -> None:
        """What the memory calls."""
        print(key, "=", value)


def main() -> None:
    with korvo.connect() as robot:
        with robot.host(EventLogger()):
            robot.raise_event("Door/Opened", "kitchen")
            robot.raise_event("Door/Opened", {"door": "cellar", "by": 2})
            robot.raise_event("Arm/Step", 3, micro=True)
            print(robot.info("Door/Opened").subscribers)
        robot.raise_event("Door/Opened", "attic")  # Nobody is there any more.
        print([value for _, value in robot.history("Door/Opened")])


if __name__ == "__main__":
    main()
