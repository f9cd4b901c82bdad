#!/usr/bin/env python3
"""Three hosts, each with a broker and an address of its own: the way to one becomes slow, a hole, nothing, and whole.

    hosts_test.py FOLDER OF PROGRAMS

After each: raised = confirmed + queued + in flight + dropped + missed, and every receiver has what the sender says.
"""

import sys
import time

sys.dont_write_bytecode = True
from fleetkit import Receiver, Robot, check, check_values, main, wait_for  # noqa: E402


def run(site, hosts):
    site.start_hub(hosts[0])
    wait_for("the hub", lambda: site.tool("init") is not None)
    first, second, third = robots = [
        Robot(site, hosts[0], "robot1", ["robot2", "robot3"]),
        Robot(site, hosts[1], "robot2", []),
        Robot(site, hosts[2], "robot3", ["robot2"]),
    ]
    for robot in robots:
        wait_for(f"{robot.name} ({robot.status()})", lambda: robot.status()["state"] == "connected")
    near = {"the hub's host": Receiver(site, hosts[0])}
    every = {**near, "the third host": Receiver(site, hosts[2])}
    # A receiver that is not there yet would miss what is told first.
    for name, receiver in every.items():
        wait_for(name, lambda: first.do("raise Hello 1") or receiver.numbers["robot1/Hello"])
    second.set("Pose", 1)
    ask = ("call", "robot2/HXMemory", "getData", '"Pose"', "--broker", first.name)
    wait_for("what a followed robot answers", lambda: site.ask(*ask) == "1\n")
    value = 1

    def spoil(what, spoil_it, robot, seconds, receivers):
        nonlocal value
        print(f"--- {robot.name}: {what}", flush=True)
        robot.raise_both(200)
        spoil_it()
        robot.raise_both(200)
        end = time.monotonic() + seconds
        while time.monotonic() < end:
            value += 1
            robot.set("Pose", value)
            robot.raise_both(10)
            time.sleep(0.1)
        robot.host.heal()
        healed = time.monotonic()
        robot.raise_both(200)
        check_values(site, robot, first, value, healed)
        check(site, robot, receivers)

    spoil("200 ms each way, 5 % lost, 1 Mbit/s", second.host.slow, second, 8, every)
    spoil("cut", second.host.cut, second, 5, every)
    # The shorter one ends before a connection in it counts as lost.
    for seconds in (3, 10):
        spoil(f"a black hole of {seconds} s", second.host.hole, second, seconds, every)
    # Who receives on the host that is cut off hears the rest later, or not at all; who receives elsewhere agrees.
    spoil("a black hole, with a receiver in it", third.host.hole, third, 10, near)
    hosts[0].cut()
    wait_for("all are told", lambda: all(robot.status()["state"] != "connected" for robot in (second, third)))
    second.raise_both(100)
    third.raise_both(100)
    hosts[0].heal()
    check(site, second, near)
    check(site, third, near)


main(3, sys.argv[1], run)
