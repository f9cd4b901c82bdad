"""Robots, tools and receivers of a fleet, on the hosts of `network`."""

import collections
import json
import os
import shutil
import subprocess
import sys
import tempfile
import pathlib
import threading
import time

import network

LIMIT = 120  # Seconds until something is taken not to come.
HUB_PORT = 4222


def wait_for(what, look):
    """What `look` finds. `what` is a text, or gives one when nothing comes."""
    end = time.monotonic() + LIMIT
    while not (found := look()):
        if time.monotonic() > end:
            raise SystemExit(f"{what() if callable(what) else what}: it does not come")
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
        self.calm = set()  # The numbers of events that were raised while nothing happened to the fleet.
        settings = site.folder / f"{name}.toml"
        settings.write_text(f"""
            [modules.fleet]
            insecure = true
            keep = ["Kept"]
            """)
        options = ["--fleet", site.url, "--robot", name, *(word for other in follows for word in ("--follow", other))]
        self.process = site.start(host, "run", settings, "--name", name, "--console", *options, stdin=subprocess.PIPE,
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

    def raise_calmly(self, count):
        """While all that was raised before has arrived."""
        self.settled()
        begin = self.raised["Kept"]
        self.raise_both(count)
        self.calm.update(range(begin + 1, begin + count + 1))
        self.settled()

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
        self.folder = folder
        self.use_hubs(hosts[:1])
        self.environment = dict(os.environ, XDG_RUNTIME_DIR=str(folder))
        self.processes = []

    def use_hubs(self, hosts):
        """Where the servers are."""
        self.hub_host = hosts[0]
        self.url = ",".join(f"nats://{host.address}:{HUB_PORT}" for host in hosts)
        self.hub_options = ["--hub", self.url, "--insecure"]

    def start_hub(self, host, cluster=()):
        """A server; of a cluster, when its hosts are given."""
        number = host.address.rpartition(".")[2]
        routes = ", ".join(f'"nats-route://{other.address}:6222"' for other in cluster)
        configuration = self.folder / f"hub{number}.conf"
        configuration.write_text(
            f'listen: "0.0.0.0:{HUB_PORT}"\nserver_name: hub{number}\nhttp: "0.0.0.0:8222"\n'
            f'jetstream {{ domain: hub, store_dir: "{self.folder}/store{number}" }}\n'
            + (f'cluster {{ name: fleet, listen: "0.0.0.0:6222", routes: [{routes}] }}\n' if cluster else ""))
        return self.start(host, "-c", configuration, "-l", self.folder / f"hub{number}.log",
                          program=shutil.which("nats-server"))

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


def ranges(numbers):
    """"1-3, 7" of 1, 2, 3, 7."""
    ends = sorted(n for n in numbers if n + 1 not in numbers)
    begins = sorted(n for n in numbers if n - 1 not in numbers)
    return ", ".join(str(begin) if begin == end else f"{begin}-{end}" for begin, end in zip(begins, ends))


def check(site, robot, receivers, in_order=True):
    """Accounts are exact, and whoever receives agrees."""
    status = robot.settled()
    assert status["raised"] == status["confirmed"] + status["dropped"] + status["missed"], status
    kept, live = robot.raised["Kept"], robot.raised["Live"]
    every = set(range(1, kept + 1))

    def history():
        # A cluster that has lost its leader answers later, and a server that was away has to catch up first.
        told = [json.loads(line)["n"] for line in (site.tool("history", f"{robot.name}/Kept") or "").splitlines()]
        return told if set(told) == every else None

    stored = wait_for("the history is whole", history)
    twice = [n for n, count in collections.Counter(stored).items() if count > 1]
    # What is on its way when a cluster changes its leader is lost, and what follows may be stored before it comes again;
    # all that was raised before and after that is in its place.
    behind = [n for before, n in zip(stored, stored[1:]) if n < before and (in_order or n in robot.calm or before in robot.calm)]
    assert not (twice or behind), f"{robot.name}: twice {twice}, behind later ones {behind}"
    confirmed = status["confirmed"] - kept
    lost = status["dropped"] + status["missed"]
    for name, receiver in receivers.items():
        all_kept = wait_for(f"all kept events at {name}", lambda: set(receiver.numbers[f"{robot.name}/Kept"]) == set(stored))
        # What is confirmed has left the hub, and may be read a moment later here.
        live_of = receiver.numbers[f"{robot.name}/Live"]
        wait_for(lambda: f"{confirmed} live events at {name}, not {ranges(set(range(1, live + 1)) - set(live_of))} ({status})",
                 lambda: len(set(live_of)) >= confirmed)
        heard = set(live_of)
        assert all_kept and confirmed <= len(heard) <= live and live - len(heard) <= lost, (name, len(heard), status)
    print(f"{robot.name}: {kept} kept, {live} live: {confirmed} confirmed, {lost} dropped or missed", flush=True)


def check_values(site, robot, follower, value, since):
    """The last value is at the hub, and in the memory of who follows."""
    wait_for("the last value there", lambda: follower.get(f"{robot.name}/Pose") == value)
    print(f"the last value is right {time.monotonic() - since:.1f} s later", flush=True)
    wait_for("and at the hub", lambda: json.loads(site.tool("get", f"{robot.name}/Pose", "--json") or "{}").get("value") == value)


def main(hosts, programs, run):
    """Has `run` try a fleet on some hosts, where that can be done. Says why not, and ends with 77."""
    network.enter()
    if not shutil.which("nats-server"):
        print("skipped: no nats-server", file=sys.stderr)
        sys.exit(77)
    wires = network.Network(hosts)
    with tempfile.TemporaryDirectory() as name:
        site = Site(pathlib.Path(programs).resolve(), pathlib.Path(name), wires.hosts)
        try:
            run(site, wires.hosts)
        except BaseException:
            for log in sorted(site.folder.glob("*.log")):
                print(f"--- {log.name}\n" + "\n".join(log.read_text().splitlines()[-30:]), file=sys.stderr)
            raise
        finally:
            site.close()
            wires.close()
