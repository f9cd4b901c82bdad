#!/usr/bin/env python3
"""Holds examples/python/korvo.py, and the page it was written from, to what a broker does.

    client_test.py <korvo program> <examples/python>
"""

import os
import re
import subprocess
import sys
import tempfile
import threading
import unittest

KORVO, EXAMPLE = sys.argv.pop(1), sys.argv.pop(1)
sys.path.insert(0, EXAMPLE)
sys.dont_write_bytecode = True
import korvo  # noqa: E402
from korvo import Float32, HXError, Int64, RemoteError  # noqa: E402


def setUpModule():
    global folder, broker
    folder = tempfile.TemporaryDirectory()
    # A map file of this machine would add events of its own.
    os.environ.update(XDG_RUNTIME_DIR=folder.name, XDG_DATA_HOME="/nonexistent", XDG_DATA_DIRS="/nonexistent")
    broker = subprocess.Popen([KORVO, "run", "--log-level", "info"], stderr=subprocess.PIPE, text=True)
    if not any("is running" in line for line in broker.stderr):
        raise RuntimeError("the broker did not start")


def tearDownModule():
    broker.terminate()
    status = broker.wait()
    broker.stderr.close()
    folder.cleanup()
    if status != 0:
        raise RuntimeError(f"the broker ended with {status}")


class Hosting:
    """A service that other threads may call: a client of its own, which serves until the test is over."""

    def __init__(self, name, service):
        self.client, self.ended = korvo.Client(), False
        self.client.register(name, service)
        self.thread = threading.Thread(target=self.client.serve, args=(lambda: self.ended,))
        self.thread.start()

    def __enter__(self):
        return self.client

    def __exit__(self, *_):
        self.ended = True
        self.thread.join()
        self.client.close()


class PythonClient(unittest.TestCase):
    def setUp(self):
        self.robot = korvo.Client()
        self.addCleanup(self.robot.close)
        self.memory = self.robot.service("HXMemory")

    def test_keeps_every_type_of_value(self):
        for value in (None, True, 0, -1, 2**31 - 1, -2**31, Int64(5), Int64(-2**63), Float32(0.5), 0.1, "", "é" * 40,
                      "\udcff", b"\xff" * 70000, [], [1, ["a", None]], {}, {"a": {"b": [Float32(1.5)]}}):
            self.memory.insertData("Value", value)
            back = self.memory.getData("Value")
            self.assertEqual((back, type(back)), (value, type(value)))
        self.assertEqual(self.memory.getData("Value")["a"]["b"][0].__class__, Float32)

    def test_names_what_failed(self):
        cases = {("korvo.nothing",): "no such method", ("Nobody.call",): "no service named Nobody",
                 ("HXMemory.getData",): "getData(string)", ("HXMemory.nothing", 1): "no such method",
                 ("nothing",): "SERVICE.METHOD", ("korvo.hello", 2): "version 2",
                 ("korvo.register", "HXMemory", self): "HXMemory", ("@77.call",): "object @77"}
        for call, text in cases.items():
            with self.subTest(call=call[0]), self.assertRaisesRegex(RemoteError, re.escape(text)):
                self.robot.call(*call)

    def test_gives_the_five_fields_of_an_error(self):
        class Motor:
            def turn(self):
                raise HXError("no current", "Motor", "turn", "motor.py", 12)

            def crash(self):
                return 1 / 0

        with Hosting("Motor", Motor()):
            motor = self.robot.service("Motor")
            with self.assertRaises(HXError) as caught:
                motor.turn()
            error = caught.exception
            self.assertEqual((error.message, error.module, error.method, error.file, error.line),
                             ("no current", "Motor", "turn", "motor.py", 12))
            with self.assertRaisesRegex(RemoteError, "division by zero"):
                motor.crash()

    def test_follows_an_event_by_its_signal(self):
        seen = []
        door = self.memory.subscriber("Door")
        link = self.robot.follow(door, "signal", seen.append)
        for value in range(100):
            self.memory.raiseEvent("Door", value)
        self.robot.serve(lambda: len(seen) == 100)
        self.robot.unfollow(link)
        self.memory.raiseEvent("Door", 100)
        self.assertEqual(seen, list(range(100)))

    def test_may_do_anything_with_an_event_while_it_is_told_of_it(self):
        memory, seen = self.memory, []

        class Restless:
            def onEvent(self, name, value, message):
                seen.append((value, message))
                if value:
                    memory.raiseEvent(name, value - 1)  # The raiser holds the event's lock: only its chain may do so.
                else:
                    memory.unsubscribeToEvent(name, "Restless")
                    memory.removeEvent(name)

        self.robot.register("Restless", Restless())
        memory.subscribeToEvent("Count", "Restless", "hello", "onEvent")
        memory.raiseEvent("Count", 20)
        self.assertEqual(seen, [(value, "hello") for value in range(20, -1, -1)])
        self.assertNotIn("Count", memory.getEventList())

    def test_calls_back_whoever_raises_while_another_process_waits(self):
        seen = []

        class Echo:
            def onEvent(self, name, value, message):
                if value:
                    service.call("HXMemory.raiseEvent", name, value - 1)
                seen.append(value)

        with Hosting("Echo", Echo()) as service:
            self.memory.subscribeToEvent("Ping", "Echo", "onEvent")
            self.memory.raiseEvent("Ping", 5)
        self.assertEqual(seen, list(range(6)))

    def test_gets_its_own_objects_back(self):
        class Keeper:
            def keep(self, thing):
                self.thing = thing
                return thing

        keeper, thing = Keeper(), Keeper()
        self.robot.register("Keeper", keeper)
        self.assertIs(self.robot.call("Keeper.keep", thing), thing)
        self.assertIs(keeper.thing, thing)
        # What another process keeps is called there.
        with Hosting("Other", Keeper()):
            self.assertIs(self.robot.call("Other.keep", thing), thing)

    def test_takes_its_services_away_with_it(self):
        with korvo.Client() as other:
            number = other.register("Fleeting", self)
            self.assertIsNotNone(self.robot.service("Fleeting"))
            self.assertTrue(other.unregister(number))
            self.assertIsNone(self.robot.service("Fleeting"))


if __name__ == "__main__":
    unittest.main()
