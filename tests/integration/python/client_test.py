#!/usr/bin/env python3
"""Holds examples/python/korvo.py, and the page it was written from, to what a broker does.

    client_test.py <korvo program> <examples/python> <the page>
"""

import contextlib
import io
import os
import pathlib
import re
import socket
import subprocess
import sys
import tempfile
import threading
import unittest

KORVO, EXAMPLE, PAGE = (sys.argv.pop(1) for _ in range(3))
sys.path.insert(0, EXAMPLE)
sys.dont_write_bytecode = True
import korvo  # noqa: E402
import messagepack  # noqa: E402
from korvo import Float32, HXError, Int64, RemoteError  # noqa: E402


@contextlib.contextmanager
def running_broker(*options):
    process = subprocess.Popen([KORVO, "run", "--log-level", "info", *options], stderr=subprocess.PIPE, text=True)
    if not any("is running" in line for line in process.stderr):
        raise RuntimeError("the broker did not start")
    try:
        yield
    finally:
        process.terminate()
        status = process.wait()
        process.stderr.close()
    if status != 0:
        raise RuntimeError(f"the broker ended with {status}")


def setUpModule():
    folder = unittest.enterModuleContext(tempfile.TemporaryDirectory())
    # A map file of this machine would add events of its own.
    os.environ.update(XDG_RUNTIME_DIR=folder, XDG_DATA_HOME="/nonexistent", XDG_DATA_DIRS="/nonexistent")
    unittest.enterModuleContext(running_broker())


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

    def test_follows_every_change_in_order(self):
        self.memory.insertData("Leg/Old", 0)
        seen = []
        feed = self.robot.changes(lambda news, told: seen.append((news, told)), prefixes=["Leg/"])
        self.robot.serve(lambda: any(news == "complete" for news, _ in seen))
        self.assertEqual([(told["key"], told["value"]) for news, told in seen if news == "state"], [("Leg/Old", 0)])
        self.memory.raiseEvent("Leg/Event", "up")
        self.memory.removeData("Leg/Old")
        # More than is sent without an answer.
        for begin in range(0, 40000, 500):
            self.memory.insertListData([["Leg/Count", begin + i] for i in range(500)])
        self.memory.insertData("Leg/Last", 1)
        self.robot.serve(lambda: any(told.get("key") == "Leg/Last" for _, told in seen))
        changes = [told for news, told in seen if news == "change"]
        self.assertEqual([(told["key"], told["value"], told["what"]) for told in changes[:2]],
                         [("Leg/Event", "up", 1), ("Leg/Old", None, 5)])
        self.assertEqual([told["value"] for told in changes[2:-1]], list(range(40000)))
        self.assertIn(f"process {os.getpid()}", changes[0]["author"])
        self.assertEqual(sorted(told["revision"] for told in changes), [told["revision"] for told in changes])
        feed.stop()
        with self.assertRaisesRegex(RemoteError, "there is no speed; there are keys"):
            self.robot.changes(print, speed=1)

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


class Name:
    """A number that the page has a name for."""

    def __init__(self, text):
        self.text = text


class Wire(unittest.TestCase):
    """Plays the exchange of the page, line by line, on a plain socket: it shows what is really sent."""

    ANY = object()  # What the page leaves out.

    def test_exchange_of_the_page(self):
        page = pathlib.Path(PAGE).read_text()
        lines = re.search(r"## An exchange\n\n.*?```\n(.*?)```", page, re.DOTALL)[1].splitlines()
        self.numbers = {}  # What was sent where the page has a name in capitals.
        raised = []
        with running_broker("--name", "exchange"), socket.socket(socket.AF_UNIX) as self.socket:
            self.socket.connect(os.environ["XDG_RUNTIME_DIR"] + "/korvo/exchange.sock")
            self.socket.settimeout(60)
            self.stream = self.socket.makefile("rb")
            self.ended = threading.Event()
            alive = threading.Thread(target=self.stay_alive)
            alive.start()
            try:
                for line in lines:
                    direction, shown, remark = re.fullmatch(r"([→←]) (.*?)(?:  +(\w.*))?", line).groups()
                    message = self.message(shown)
                    if direction == "→":
                        if message[0] == 0:  # A raise must not meet who subscribes behind it.
                            for process in raised:
                                process.wait(60)
                        self.send(message)
                        continue
                    if remark and remark.startswith("somebody has raised"):
                        value = "true" if message[2][1] else "false"
                        raised.append(subprocess.Popen([KORVO, "raise", "Door", value, "--broker", "exchange"]))
                    self.compare(message, self.next(), line)
                self.assertEqual([process.wait(60) for process in raised], [0, 0])
            finally:
                for process in raised:
                    process.kill()
                    process.wait()
                self.ended.set()
                alive.join()
                self.stream.close()

    def message(self, shown):
        names = {"nil": None, "true": True, "false": False, "ext": messagepack.Extension, "anything": self.ANY}
        numbers = {name: self.numbers.get(name, Name(name)) for name in ["DOOR"]}
        return eval(shown.replace("…", "anything"), {"__builtins__": {}}, names | numbers)

    def send(self, message):
        self.socket.sendall(messagepack.pack(self.extended(message)))

    def extended(self, value):
        """With the contents of extensions as bytes."""
        if isinstance(value, list):
            return [self.extended(element) for element in value]
        if isinstance(value, messagepack.Extension):
            return messagepack.Extension(value.kind, messagepack.pack(value.content))
        return value

    def next(self):
        """The next message that is no heartbeat."""
        while (message := messagepack.unpack(self.stream.read)) == [2, "korvo.alive", []]:
            pass
        return message

    def stay_alive(self):
        while not self.ended.wait(1):
            self.socket.sendall(messagepack.pack([2, "korvo.alive", []]))

    def compare(self, shown, sent, line):
        if shown is self.ANY:
            return
        if isinstance(shown, Name):
            self.assertIsInstance(sent, int, line)
            self.numbers[shown.text] = sent
        elif isinstance(shown, messagepack.Extension):
            self.assertEqual(sent.kind, shown.kind, line)
            self.compare(shown.content, sent.content if shown.content is self.ANY else self.unpacked(sent), line)
        elif isinstance(shown, list) and isinstance(sent, list):
            self.assertEqual(len(sent), len(shown), f"{line}\n{sent}")
            for one, other in zip(shown, sent):
                self.compare(one, other, line)
        else:
            self.assertEqual(sent, shown, line)

    @staticmethod
    def unpacked(extension):
        return messagepack.unpack(io.BytesIO(extension.content).read)


if __name__ == "__main__":
    unittest.main()
