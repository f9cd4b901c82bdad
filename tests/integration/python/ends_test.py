#!/usr/bin/env python3
"""How programs that use the package end: under traffic, by Ctrl-C, forked, many at once.

KORVO_ROUNDS=36 makes it a long proof: 500 ends under traffic, more than 100 interpreters at once, more than a million calls.
"""

import os
import signal
import threading
import time
import unittest

import kit
import korvo


ROUNDS = int(os.environ.get("KORVO_ROUNDS", "1"))


def setUpModule():
    global broker
    kit.prepare()
    broker = kit.Broker()
    unittest.addModuleCleanup(broker.stop)


# Hosts a module that is told of raises, and ends in a way of its own while they come.
UNDER_TRAFFIC = """
    import korvo, os, sys, threading, time

    way = sys.argv[1]
    robot = korvo.connect()
    told = threading.Event()

    class Told(korvo.Module):
        @korvo.on("Tick")
        def tick(self, key, value, message):
            told.set()
            if way == "sleeps":
                time.sleep(3600)
            while way == "computes":
                pass
            self.robot["Told"] = value

    robot.host(Told(), f"Told{os.getpid()}")
    if way == "daemons":
        for _ in range(4):
            threading.Thread(target=lambda: [robot["Tick"] for _ in iter(int, 1)], daemon=True).start()
    told.wait()
    sys.exit(7)
"""

# Is interrupted by itself in a wait that would last for ever.
INTERRUPTED = """
    import korvo, os, signal, sys, threading

    robot = korvo.connect()
    robot["Still"] = 1
    memory = robot.service("HXMemory")

    class Sleeper(korvo.Module):
        @korvo.method
        def call(self):
            self.sleep(3600)

    sleeper = Sleeper()
    robot.host(sleeper, f"Sleeper{os.getpid()}")
    service = robot.service(f"Sleeper{os.getpid()}")
    waits = {"call": lambda: memory.getDataOnChange("Still", 0), "limited": lambda: memory.getDataOnChange("Still", 0, timeout=3600),
             "future": lambda: memory.getDataOnChange.start("Still", 0).result(), "own": service.call,
             "sleep": lambda: sleeper.sleep(3600), "follow": lambda: next(robot.follow("Nothing"))}
    signal.signal(signal.SIGINT, signal.default_int_handler)  # Programs in the background begin without.
    try:
        threading.Timer(0.1, lambda: os.kill(os.getpid(), signal.SIGINT)).start()
        waits[sys.argv[1]]()
    except KeyboardInterrupt:
        print("interrupted")
"""

FORKED = """
    import korvo, multiprocessing, os, sys

    robot = korvo.connect()
    robot["Parent"] = 1
    memory = robot.service("HXMemory")
    child = os.fork()
    if child == 0:
        for use in (lambda: robot["Parent"], korvo.connect, lambda: memory.getData("Parent")):
            try:
                use()
            except korvo.Error as error:
                print(error)
        del memory
        robot.close()
        del robot
        sys.exit(9)
    print(os.waitstatus_to_exitcode(os.waitpid(child, 0)[1]))
    with multiprocessing.get_context("fork").Pool(2) as pool:
        print(pool.map(abs, [-1, -2]))
    print(memory.getData("Parent"), robot.connected)
"""

SHORT = """
    import korvo

    robot = korvo.connect()
    robot["Short"] = 1
    print(robot["Short"])
"""


# Has its log go where Python's goes, and forgets a module at its end.
LOGGED = """
    import korvo, logging, sys, threading

    logged = threading.Event()

    class Handler(logging.Handler):
        def emit(self, record):
            if record.name.startswith("korvo."):
                print(record.levelname, record.name, record.funcName, record.getMessage())
                logged.set()

    logging.getLogger().addHandler(Handler())
    korvo.log_to_logging("warning")
    robot = korvo.connect()

    class Forgotten(korvo.Module):
        moved = korvo.signal(int)

        def exit(self):
            print("left")

    host = robot.host(Forgotten(), "Forgotten")
    robot.service("Forgotten").moved.connect(lambda to: 1 / 0)
    host.module.moved.emit(1)
    logged.wait(30)
    if sys.argv[1] == "stops":
        host.stop()
"""


class Ends(unittest.TestCase):
    def test_programs_end_under_traffic(self):
        raising = threading.Event()

        def raise_all_the_time():
            with korvo.connect(timeout=60) as robot:
                value = 0
                while not raising.is_set():
                    value += 1
                    robot.raise_event("Tick", value)

        raiser = threading.Thread(target=raise_all_the_time)
        raiser.start()
        try:
            for way, count in (("returns", 6), ("daemons", 6), ("sleeps", 1), ("computes", 1)):
                for _ in range(count * ROUNDS):
                    begin = time.monotonic()
                    status, output, errors = kit.ended(kit.program(UNDER_TRAFFIC, way))
                    with self.subTest(way=way):
                        self.assertEqual((status, output), (7, ""), errors)
                        self.assertNotIn("Traceback", errors)
                        self.assertEqual("still runs" in errors, count == 1, errors)
                        self.assertLess(time.monotonic() - begin, 20)
        finally:
            raising.set()
            raiser.join()

    def test_an_interrupt_ends_every_wait(self):
        programs = {wait: kit.program(INTERRUPTED, wait) for wait in ("call", "limited", "future", "own", "sleep", "follow")}
        for wait, process in programs.items():
            with self.subTest(wait=wait):
                status, output, errors = kit.ended(process)
                self.assertEqual((status, output), (0, "interrupted\n"), errors)

    def test_a_forked_child_is_refused_and_its_parent_goes_on(self):
        status, output, errors = kit.ended(kit.program(FORKED))
        refused, lines = output.splitlines()[:3], output.splitlines()[3:]
        self.assertEqual(status, 0, errors)
        for line in refused:
            self.assertIn("was forked from one that uses korvo", line)
        self.assertEqual(lines, ["9", "[1, 2]", "1 True"])

    def test_a_module_that_was_not_stopped_is_named_and_the_log_goes_to_logging(self):
        for way, left, said in (("stops", 1, ""), ("forgets", 0, "Forgotten is still hosted at the end of the program")):
            status, output, errors = kit.ended(kit.program(LOGGED, way))
            self.assertEqual((status, output.count("left\n")), (0, left), errors)
            self.assertRegex(output, "(?m)^(WARNING|ERROR) korvo[.]mw[.a-z]* [a-zA-Z]+ .*division by zero")
            self.assertEqual("still hosted" in errors, not left, errors)
            self.assertIn(said, errors)

    def test_many_interpreters_at_once(self):
        for process in [kit.program(SHORT) for _ in range(min(12 * ROUNDS, 120))]:
            status, output, errors = kit.ended(process)
            self.assertEqual((status, output, errors), (0, "1\n", ""))

    def test_a_killed_program_takes_its_services_along(self):
        process = kit.program(UNDER_TRAFFIC, "returns")
        with korvo.connect(timeout=30) as robot:
            name = f"Told{process.pid}"
            kit.until(lambda: name in robot.services())
            process.send_signal(signal.SIGKILL)
            self.assertEqual(kit.ended(process)[0], -signal.SIGKILL)
            kit.until(lambda: name not in robot.services())


class Threads(unittest.TestCase):
    def test_keep_what_is_theirs_and_are_let_go_of(self):
        class Local(korvo.Module):
            own = threading.local()

            @korvo.method
            def count(self) -> int:
                self.own.count = getattr(self.own, "count", 0) + 1
                return self.own.count

        with korvo.connect(timeout=30) as robot, korvo.connect().host(Local()):
            count = robot.service("Local").count
            # A thread of the platform that comes again has kept what it had: some come more than once.
            self.assertGreater(max(count() for _ in range(200)), 1)

    def test_calls_and_errors_leak_nothing(self):
        with korvo.connect(timeout=30) as robot:
            value = {"list": [1.5, "text", b"bytes"] * 10}

            def work():
                for _ in range(2000 * (1 if ROUNDS == 1 else 120)):
                    robot["Leak"] = value
                    robot["Leak"]
                    try:
                        robot["No such key at all"]
                    except KeyError:
                        pass

            work()
            before = memory_in_use()
            work()
            self.assertLess(memory_in_use() - before, 2 << 20)


def memory_in_use():
    with open("/proc/self/statm", encoding="ascii") as text:
        return int(text.read().split()[1]) * os.sysconf("SC_PAGE_SIZE")


if __name__ == "__main__":
    unittest.main()
