#!/usr/bin/env python3
"""A cluster of three servers: each is killed, one is cut off from the others, and all are started anew.

    cluster_test.py FOLDER OF PROGRAMS PROGRAM OF SIMULATED ROBOTS [HOW MANY]

The accounts are exact, each kept event is stored once and in order, and all robots of a fleet of many come back.
"""

import json
import subprocess
import sys
import time

sys.dont_write_bytecode = True
from fleetkit import Robot, check, check_values, main, wait_for  # noqa: E402


class Simulated:
    """Many robots in one process."""

    def __init__(self, site, host, count):
        self.count = count
        self.process = site.start(host, site.url, count, program=sys.argv[2], stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                  stderr=(site.folder / "robots.log").open("w"))

    def ask(self, line):
        self.process.stdin.write(line + "\n")
        self.process.stdin.flush()
        return json.loads(self.process.stdout.readline())

    def are_connected(self):
        return self.ask("status")["connected"] == self.count


def messages(servers):
    """Bytes of messages that the servers have had from their clients."""
    code = "import urllib.request as r; print(r.urlopen('http://127.0.0.1:8222/varz').read().decode())"
    answers = [subprocess.run(host.command(sys.executable, "-c", code), capture_output=True, text=True, check=True)
               for host in servers]
    return sum(json.loads(answer.stdout)["in_bytes"] for answer in answers)


def away_of(status):
    """How many have no server at all."""
    return sum(count for reason, count in status["others"].items() if reason.startswith("away"))


def try_killing(site, servers, running, robot, follower):
    value = 0
    for number, host in enumerate(servers):
        print(f"--- server {number + 1} is killed", flush=True)
        robot.raise_both(200)
        running[number].kill()
        killed = time.monotonic()
        for _ in range(40):
            robot.raise_both(10)
            time.sleep(0.05)
        value += 1
        robot.set("Pose", value)
        check_values(site, robot, follower, value, killed)
        running[number] = site.start_hub(host, servers)
        check(site, robot, {}, in_order=False)
        robot.raise_calmly(100)
    return value


def try_partition(site, servers, robot, follower, value):
    print("--- a server is cut off from the others", flush=True)
    servers[1].hole()
    end = time.monotonic() + 8
    while time.monotonic() < end:
        value += 1
        robot.set("Pose", value)
        robot.raise_both(10)
        time.sleep(0.1)
    servers[1].heal()
    check_values(site, robot, follower, value, time.monotonic())
    check(site, robot, {}, in_order=False)


def rows(site):
    return [json.loads(line) for line in (site.tool("ls", "--json") or "").splitlines()]


def online(site):
    return sum(row["state"] == "online" and row["robot"].startswith("sim") for row in rows(site))


def try_many(site, servers, running, host):
    count = int(sys.argv[3]) if len(sys.argv) > 3 else 200
    many = Simulated(site, host, count)
    begin = time.monotonic()
    wait_for("all are connected", many.are_connected)
    print(f"--- {count} robots are connected after {time.monotonic() - begin:.1f} s", flush=True)
    wait_for("all are listed", lambda: online(site) == count)
    status = many.ask("status")
    print(f"memory of each: {status['bytes'] / count / 1024:.0f} KiB", flush=True)

    told, sent, begin = messages(servers), host.sent, time.monotonic()
    time.sleep(20)
    rate = count * (time.monotonic() - begin)
    print(f"each robot at rest sends {(messages(servers) - told) / rate:.0f} bytes a second, "
          f"{(host.sent - sent) / rate:.0f} with the heads of TCP and IP", flush=True)

    begin = time.monotonic()
    many.ask("flood 7 20000")
    shown = wait_for("the flood is told", lambda: next(
        (row for row in rows(site) if row["robot"] == "sim7" and row["queued"] == 0), None))
    assert online(site) == count, "the flood of one robot hides none"
    wait_for("the account of the flood", lambda: many.ask("status")["balanced"] == count)
    print(f"20,000 events of one robot took {time.monotonic() - begin:.1f} s: {shown}", flush=True)

    for server in running:
        server.kill()
        server.wait()
    wait_for("all are away", lambda: many.ask("status")["connected"] == 0)
    away = time.monotonic()
    time.sleep(5)
    running[:] = [site.start_hub(server, servers) for server in servers]
    began = time.monotonic()
    moments = []
    for share in (0.1, 0.9, 1.0):
        wait_for("they are back", lambda: count - away_of(many.ask("status")) >= share * count)
        moments.append(f"{share:.0%} after {time.monotonic() - began:.1f} s")
    print(f"away for {began - away:.1f} s; of the robots are back {', '.join(moments)}", flush=True)
    wait_for("all have a store", many.are_connected)
    print(f"the cluster has its store again for all after {time.monotonic() - began:.1f} s", flush=True)
    wait_for("all are listed", lambda: online(site) == count)
    wait_for("all accounts", lambda: many.ask("status")["balanced"] == count)


def run(site, hosts):
    servers = hosts[:3]
    site.use_hubs(servers)
    running = [site.start_hub(host, servers) for host in servers]
    wait_for("the hub", lambda: site.tool("init", "--replicas", "3") is not None)
    follower = Robot(site, hosts[3], "robot1", ["robot2"])
    robot = Robot(site, hosts[4], "robot2", [])
    for each in (follower, robot):
        wait_for(f"{each.name}", lambda: each.status()["state"] == "connected")
    value = try_killing(site, servers, running, robot, follower)
    try_partition(site, servers, robot, follower, value)
    try_many(site, servers, running, hosts[3])


main(5, sys.argv[1], run)
