#!/usr/bin/env python3
"""Has Prometheus scrape a robot by the example configuration, and asks it what it has seen.

    scrape_test.py KORVO EXAMPLE

Then promtool reads the page: it complains of names and help that a scrape takes, and takes series that stand twice.
"""

import json
import pathlib
import re
import shutil
import socket
import subprocess
import sys
import tempfile
import time
import urllib.parse
import urllib.request

TOKEN = "token-of-prometheus"
LIMIT = 300  # Seconds until something is taken not to come.


def free_port():
    with socket.socket() as listener:
        listener.bind(("127.0.0.1", 0))
        return listener.getsockname()[1]


def wait_for(what, look):
    end = time.monotonic() + LIMIT
    while time.monotonic() < end:
        found = look()
        if found:
            return found
        time.sleep(0.2)
    raise SystemExit(f"{what}: nothing came")


def line_with(stream, pattern):
    for line in stream:
        if found := re.search(pattern, line):
            return found
    raise SystemExit(f"it ended without {pattern}")


def start_robot(korvo, folder, environment):
    settings = folder / "robot.toml"
    settings.write_text(
        f"""
        [modules.hosttelemetry]
        [modules.web]
        port = 0
        view-token = "{TOKEN}"
        bind = "127.0.0.1"
        metrics = ["Host/*"]
        [expect]
        "Never/Written" = "100ms"
        """
    )
    robot = subprocess.Popen([korvo, "run", settings], env=environment, stderr=subprocess.PIPE, text=True)
    port = int(line_with(robot.stderr, r"the page is at http://127\.0\.0\.1:(\d+)/").group(1))
    line_with(robot.stderr, "is running")
    return robot, port


def start_prometheus(example, folder, robot_port):
    """By the example, with this robot's port, and a shorter interval."""
    text = (example / "prometheus.yml").read_text()
    text = text.replace("127.0.0.1:8765", f"127.0.0.1:{robot_port}").replace("5s", "1s")
    (folder / "prometheus.yml").write_text(text)
    (folder / "prometheus-rules.yml").write_text((example / "prometheus-rules.yml").read_text())
    (folder / "korvo-token").write_text(TOKEN)
    port = free_port()
    log = (folder / "prometheus.log").open("w")
    arguments = [
        f"--config.file={folder}/prometheus.yml",
        f"--storage.tsdb.path={folder}/data",
        f"--web.listen-address=127.0.0.1:{port}",
    ]
    return subprocess.Popen(["prometheus", *arguments], stdout=log, stderr=log), port


def ask(port, path, **arguments):
    try:
        with urllib.request.urlopen(
            f"http://127.0.0.1:{port}/api/v1/{path}?{urllib.parse.urlencode(arguments)}", timeout=5
        ) as answer:
            return json.load(answer)["data"]
    except OSError:
        return None  # It has not come up yet.


def value_of(port, query):
    data = ask(port, "query", query=query)
    return float(data["result"][0]["value"][1]) if data and data["result"] else None


def check(port):
    target = wait_for(
        "a scrape", lambda: next((t for t in (ask(port, "targets") or {}).get("activeTargets", []) if t["lastScrape"] > "0002"), None)
    )
    assert target["health"] == "up", target["lastError"]
    wait_for("keys", lambda: (value_of(port, 'korvo_keys{kind="data"}') or 0) > 10)
    wait_for("a chosen key", lambda: value_of(port, 'korvo_key_value{key="Host/Memory/Used"}'))
    wait_for("an overdue key", lambda: value_of(port, 'korvo_key_overdue{key="Never/Written"}') == 1)
    wait_for("changes", lambda: (value_of(port, "increase(korvo_changes_total{what='stored'}[30s])") or 0) > 0)
    wait_for("followers", lambda: (value_of(port, "sum(korvo_followers)") or 0) > 0)
    assert ask(port, "rules")["groups"], "the example's rules are not read"


def lint(robot_port):
    request = urllib.request.Request(f"http://127.0.0.1:{robot_port}/metrics", headers={"Authorization": f"Bearer {TOKEN}"})
    with urllib.request.urlopen(request) as answer:
        text = answer.read()
    told = subprocess.run(["promtool", "check", "metrics"], input=text, capture_output=True)
    assert told.returncode == 0, told.stderr.decode() + told.stdout.decode()


def main():
    korvo, example = sys.argv[1], pathlib.Path(sys.argv[2])
    if not shutil.which("prometheus"):
        print("skipped: no prometheus", file=sys.stderr)
        sys.exit(77)
    with tempfile.TemporaryDirectory() as name:
        folder = pathlib.Path(name)
        robot, robot_port = start_robot(korvo, folder, {"XDG_RUNTIME_DIR": name, "PATH": "/usr/bin:/bin"})
        prometheus = None
        try:
            prometheus, port = start_prometheus(example, folder, robot_port)
            check(port)
            lint(robot_port)
        finally:
            for process in filter(None, [prometheus, robot]):
                process.kill()
                process.wait()


main()
