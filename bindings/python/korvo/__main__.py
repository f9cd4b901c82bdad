"""`python3 -m korvo host greeter.py`: hosts the modules of files, as `korvo host --module greeter.py` does."""

import argparse
import runpy
import signal
import sys
import threading

import korvo


def modules_of(path):
    """One of each class of modules that a file makes, in their order."""
    made = runpy.run_path(path, run_name="korvo_module")
    kinds = [kind for kind in made.values() if isinstance(kind, type) and issubclass(kind, korvo.Module)
             and kind.__module__ == "korvo_module"]
    if not kinds:
        raise ValueError(f"{path} has no class that derives from korvo.Module")
    return [kind() for kind in kinds]


def host(broker, paths):
    ended = threading.Event()
    for number in (signal.SIGINT, signal.SIGTERM):
        signal.signal(number, lambda *_: ended.set())
    modules = [module for path in paths for module in modules_of(path)]
    with korvo.connect(broker) as robot:
        names = [robot.host(module).name for module in modules]
        print(f"korvo: hosting for broker {robot.broker}: {', '.join(names)}", file=sys.stderr)
        ended.wait()


def main():
    parser = argparse.ArgumentParser(prog="python3 -m korvo", description="Hosts modules written in Python.")
    verbs = parser.add_subparsers(dest="verb", required=True)
    hosting = verbs.add_parser("host", help="hosts the modules of files until SIGINT or SIGTERM")
    hosting.add_argument("--broker", metavar="NAME", help="the broker to join; without, the only one that runs")
    hosting.add_argument("files", nargs="+", metavar="FILE", help="Python with classes that derive from korvo.Module")
    options = parser.parse_args()
    try:
        host(options.broker, options.files)
    except korvo.NotConnected as error:
        print(f"korvo: {error}", file=sys.stderr)
        return 3
    except (korvo.Error, OSError, ValueError) as error:
        print(f"korvo: {error}", file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
