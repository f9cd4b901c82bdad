#!/usr/bin/env python3
"""Three hosts, each with a broker and an address of its own: the way to one becomes slow, a hole, nothing, and whole.

    hosts_test.py FOLDER OF PROGRAMS

After each: raised = confirmed + queued + in flight + dropped + missed, and every receiver has what the sender says.
"""

import collections
import json
import os
import pathlib
import shutil
import subprocess
import sys
import tempfile
import threading
import time

sys.dont_write_bytecode = True
import network  # noqa: E402

LIMIT = 120  # Seconds until something is taken not to come.
HUB_PORT = 4222


def wait_for(what, look):
    end = time.monotonic() + LIMIT
    while not (found := look()):
        if time.monotonic() > end:
            raise SystemExit(f"{what}: it does not come")
        time.sleep(0.05)
    return found


class Receiver:
    """Hears what the fleet is told: `korvo fleet watch` on some host."""

    def __init__(self, site, host):
        self.numbers = collections.defaultdict(list)  # By robots and keys.
        self.process = site.start(host, "fleet", "watch", "robot*/**", *site.hub_options, stdout=subprocess.PIPE)
        threading.Thread(target=self.read, daemon=True).start()

    def read(self):
        for text in self.process.stdout:
            line = json.loads(text)
            if line["kind"] != "Data":
                self.numbers[f"{line['robot']}/{line['key']}"].append(line["n"])


class Robot:
    def __init__(self, site, host, name, follows):
        self.site, self.host, self.name = site, host, name
        self.raised = collections.Counter()
        settings = site.folder / f"{name}.toml"
        settings.write_text(f"""
            [modules.fleet]
            url = "nats://{site.hub}:{HUB_PORT}"
            robot = "{name}"
            insecure = true
            keep = ["Kept"]
            follow = {json.dumps(follows)}
            """)
        self.process = site.start(host, "run", settings, "--name", name, "--console", stdin=subprocess.PIPE,
                                  stderr=(site.folder / f"{name}.log").open("w"))

    def do(self, *lines):
        self.process.stdin.write("".join(line + "\n" for line in lines))
        self.process.stdin.flush()

    def set(self, key, value):
        self.do(f"set {key} {value}")

    def raise_both(self, count):
        for _ in range(count):
            for key in ("Kept", "Live"):
                self.raised[key] += 1
                self.do(f"raise {key} {self.raised[key]}")

    def status(self):
        answer = self.site.ask("call", "HXFleet", "status", "--broker", self.name)
        return json.loads(answer) if answer else {"state": "none"}

    def get(self, key):
        answer = self.site.ask("get", key, "--broker", self.name)
        return json.loads(answer) if answer else None

    def settled(self):
        """The status, once nothing is on its way any more."""

        def look():
            status = self.status()
            done = status["state"] == "connected" and status["raised"] == sum(self.raised.values())
            return status if done and status["queued"] == status["inFlight"] == 0 else None

        return wait_for(f"{self.name} told all ({self.status()})", look)


class Site:
    def __init__(self, programs, folder, hosts):
        self.korvo = programs / "korvo"
        self.folder, self.hub = folder, hosts[0].address
        self.hub_options = ["--hub", f"nats://{self.hub}:{HUB_PORT}", "--insecure"]
        self.environment = dict(os.environ, XDG_RUNTIME_DIR=str(folder))
        self.processes = []
        self.hub_host = hosts[0]

    def start(self, host, *words, program=None, **options):
        process = subprocess.Popen(host.command(program or self.korvo, *words), text=True, env=self.environment, **options)
        self.processes.append(process)
        return process

    def ask(self, *words):
        done = subprocess.run([self.korvo, *map(str, words)], text=True, capture_output=True, env=self.environment, check=False)
        return done.stdout if done.returncode == 0 else None

    def tool(self, *words):
        """`korvo fleet` on the hub's host."""
        done = subprocess.run(self.hub_host.command(self.korvo, "fleet", *words, *self.hub_options, "--timeout", "30"),
                              text=True, capture_output=True, env=self.environment, check=False)
        return done.stdout if done.returncode == 0 else None

    def close(self):
        for process in self.processes:
            process.kill()
        for process in self.processes:
            process.wait()


def check(site, robot, receivers):
    """Accounts are exact, and whoever receives agrees."""
    status = robot.settled()
    assert status["raised"] == status["confirmed"] + status["dropped"] + status["missed"], status
    kept, live = robot.raised["Kept"], robot.raised["Live"]
    stored = [json.loads(line)["n"] for line in site.tool("history", f"{robot.name}/Kept").splitlines()]
    assert stored == list(range(1, kept + 1)), f"{robot.name}: each kept event is stored once, in order"
    confirmed = status["confirmed"] - kept
    lost = status["dropped"] + status["missed"]
    for name, receiver in receivers.items():
        all_kept = wait_for(f"all kept events at {name}", lambda: set(receiver.numbers[f"{robot.name}/Kept"]) == set(stored))
        heard = set(receiver.numbers[f"{robot.name}/Live"])
        assert all_kept and confirmed <= len(heard) <= live and live - len(heard) <= lost, (name, len(heard), status)
    print(f"{robot.name}: {status}, heard {len(heard)} of {live} live ones", flush=True)


def check_values(site, robot, follower, value, since):
    """The last value is at the hub, and in the memory of who follows."""
    wait_for("the last value there", lambda: follower.get(f"{robot.name}/Pose") == value)
    print(f"the last value is right {time.monotonic() - since:.1f} s later", flush=True)
    wait_for("and at the hub", lambda: json.loads(site.tool("get", f"{robot.name}/Pose", "--json") or "{}").get("value") == value)


def run(site, hosts):
    (site.folder / "hub.conf").write_text(
        f'listen: "0.0.0.0:{HUB_PORT}"\njetstream {{ domain: hub, store_dir: "{site.folder}/store" }}\n')
    site.start(hosts[0], "-c", site.folder / "hub.conf", "-l", site.folder / "hub.log", program=shutil.which("nats-server"))
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
    value = 0

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
    spoil("a black hole", second.host.hole, second, 10, every)
    # Who receives on the host that is cut off hears the rest later, or not at all; who receives elsewhere agrees.
    spoil("a black hole, with a receiver in it", third.host.hole, third, 10, near)
    hosts[0].cut()
    wait_for("all are told", lambda: all(robot.status()["state"] != "connected" for robot in (second, third)))
    second.raise_both(100)
    third.raise_both(100)
    hosts[0].heal()
    check(site, second, near)
    check(site, third, near)


def main():
    network.enter()
    if not shutil.which("nats-server"):
        print("skipped: no nats-server", file=sys.stderr)
        sys.exit(77)
    wires = network.Network(3)
    with tempfile.TemporaryDirectory() as name:
        site = Site(pathlib.Path(sys.argv[1]).resolve(), pathlib.Path(name), wires.hosts)
        try:
            run(site, wires.hosts)
        except BaseException:
            for log in sorted(site.folder.glob("*.log")):
                print(f"--- {log.name}\n" + "\n".join(log.read_text().splitlines()[-30:]), file=sys.stderr)
            raise
        finally:
            site.close()
            wires.close()


main()
