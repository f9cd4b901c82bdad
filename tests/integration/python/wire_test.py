#!/usr/bin/env python3
"""Holds the page of the wire protocol to what a broker does: a client from that page alone, whose tables are the cases.

    wire_test.py <korvo program> <docs/wire/README.md>
"""

import os
import re
import socket
import struct
import subprocess
import sys
import tempfile
import threading
import time
import unittest

from wire_client import As, Client, Ended, Ext, FORMATS, MIB, fitting, pack, unpack

KORVO, PAGE = sys.argv.pop(1), open(sys.argv.pop(1), encoding="utf-8").read()


def table(heading):
    """The rows of the table whose header begins so, without code marks."""
    lines = PAGE[PAGE.index("\n| " + heading) + 1:].split("\n\n")[0].splitlines()[2:]
    return [[cell.strip().replace("`", "") for cell in re.split(r"(?<!\\)\|", line)[1:-1]] for line in lines]


def reference(object_id, number, details):
    return Ext(2, pack([0, object_id, number, details]))


def described(kind=("void", 0), number=0):
    return ["Thing", "", [[number, "m", [list(kind)], ["void", 0], False, 0, "", "", [], None]], [], []]


def chain(depth):
    return Ext(1, struct.pack(">QII", 77, 1, depth))


def setUpModule():
    global folder, broker, log
    folder = tempfile.TemporaryDirectory()
    os.environ.update(XDG_RUNTIME_DIR=folder.name, XDG_DATA_HOME="/nonexistent", XDG_DATA_DIRS="/nonexistent")
    log = open(folder.name + "/log", "w+", encoding="utf-8")
    broker = subprocess.Popen([KORVO, "run"], stderr=log)
    until(lambda: "is running" in logged())


def tearDownModule():
    if "-v" in sys.argv:
        print(logged())
    broker.terminate()
    status = broker.wait()
    log.close()
    folder.cleanup()
    if status != 0:
        raise RuntimeError(f"the broker ended with {status}")


def logged():
    with open(log.name, encoding="utf-8") as text:
        return text.read()


def until(condition, limit=30):
    end = time.monotonic() + limit
    while not condition():
        if time.monotonic() > end:
            raise TimeoutError
        time.sleep(0.01)


class Page(unittest.TestCase):
    def setUp(self):
        self.client = Client()
        self.addCleanup(self.client.close)
        self.honest = Client()
        self.addCleanup(self.honest.close)

    def expect_service(self):
        self.honest.call("HXMemory.insertData", "Honest", 1)
        self.assertEqual(self.honest.call("HXMemory.getData", "Honest"), 1)

    def test_takes_integers_of_any_format_everywhere(self):
        for code in FORMATS:
            with self.subTest(format=code):
                client = Client()
                self.addCleanup(client.close)
                one = As(code, 1)
                self.assertEqual(client.answer("korvo.hello", one, number=one)[1]["protocol"], 1)
                thing = Ext(2, pack([As(code, 0), one, one, ["Thing", "", [
                    [As(code, 7), "m", [["int", As(code, 2)]], ["void", As(code, 0)], False, As(code, 0), "", "", [],
                     None]], [[As(code, 8), "s", "()"]], [[As(code, 9), "p"]]]]))
                service = client.call("korvo.register", "Format" + code, thing)
                door = unpack(client.call("HXMemory.subscriber", "Door").content)[0][1]
                client.call("korvo.connect", fitting(code, door), As(code, 0), one)
                self.honest.call("HXMemory.raiseEvent", "Door", 5)
                self.assertEqual(client.awaits([2, "korvo.emit"])[2], [1, 5])
                client.call("korvo.disconnect", one)
                self.assertTrue(client.call("korvo.unregister", fitting(code, service)))
                client.send([As(code, 2), "korvo.alive", []])
                client.call("korvo.services")

    def test_answers_every_method_of_the_table_and_no_other(self):
        for method, _, result in table("method | arguments | result"):
            if "a notification" not in result:
                error, _ = self.client.answer(method)
                self.assertNotIn("no such method", str(error), method)
        self.assertIn("no such method", str(self.client.answer("korvo.nothing")[0]))

    def test_takes_every_kind_of_type_of_the_table_and_no_other(self):
        kinds = {}
        for row in table("kind | type name"):
            for kind, names in filter(all, (row[:2], row[2:])):
                kinds[int(kind)] = re.sub(r"\(.*\)", "", names).replace("…", "int").split(",")
        self.assertEqual(sorted(kinds), list(range(len(kinds))))
        for kind, names in kinds.items():
            for name in map(str.strip, names):
                with self.subTest(name=name):
                    number = 100 + kind
                    thing = reference(number, number, described((name, kind)))
                    service = self.client.call("korvo.register", "Kind", thing)
                    other = Client()
                    told = unpack(other.call("korvo.service", "Kind").content)[0][3]
                    other.close()
                    self.assertEqual(told[2][0][2], [[name, kind]])
                    self.client.call("korvo.unregister", service)
        self.client.send([0, 1, "korvo.register", ["Kind", reference(1, 1, described(("x", len(kinds))))]])
        self.client.last_words()

    def test_gives_errors_of_every_family_of_the_table(self):
        def serve():
            while True:
                try:
                    request = client.receive()
                except Ended:
                    return
                if request[0] == 0:
                    client.send([1, request[1], errors[request[2].split(".")[-1]], None])

        errors = {"HXError": ["HXError", "text", "Module", "method", "file", 12], "runtime": ["runtime", "text"],
                  "other": ["other", "text"]}
        families = {row[0].strip("[]").split(",")[0].strip('"') for row in table("form | what it was")}
        self.assertEqual(families, set(errors))
        client = Client()
        methods = [[i, name, [], ["value", 10], True, 0, "", "", [], None] for i, name in enumerate(errors)]
        client.call("korvo.register", "Bad", reference(1, 1, ["Bad", "", methods, [], []]))
        thread = threading.Thread(target=serve)
        thread.start()
        # They are called by number: those are their names here.
        errors.update({str(i): error for i, error in enumerate(list(errors.values()))})
        for family in families:
            self.assertEqual(self.client.answer("Bad." + family)[0], errors[family])
        client.socket.shutdown(socket.SHUT_RDWR)
        thread.join()
        client.close()

    def test_ends_the_connection_for_every_row_of_the_table(self):
        def flood():
            while True:  # What it answers is never read.
                self.client.send([0, 1, "HXMemory.getData", ["Large"]])

        def queue():
            self.client.call("HXMemory.insertData", "Slow", 0)
            self.client.send([0, 1, "HXMemory.getDataOnChange", ["Slow", 0]])
            while True:  # Calls of one connection wait for each other.
                self.client.send([0, 2, "HXMemory.insertData", ["Other", b"x" * MIB]])

        def descriptions():
            for number in range(4097):
                self.client.send([2, "a.b", [reference(1, number + 1, described())]])

        def described_bytes():
            for number in range(9):
                self.client.send([2, "a.b", [reference(1, number + 1, ["x" * MIB, "", [], [], []])]])

        offences = {
            "a message to the broker": [lambda: b"\x94\x00\x01\xa3a.b\x91\xc6" + struct.pack(">I", 64 * MIB)],
            "lists and maps nested deeper": [lambda: b"\x91" * 257],
            "a message with more values": [lambda: b"\xdd" + struct.pack(">I", (4 << 20) + 1)],
            "a call with more arguments": [lambda: [0, 1, "a.b", [None] * 1025]],
            "more waiting for a peer": [flood],
            "more waiting of calls": [queue],
            "more descriptions": [descriptions, described_bytes],
            "silence": [lambda: b""],
            "bytes that are no MessagePack": [
                lambda: b"\xc1", lambda: [3, 1, "a.b", []], lambda: [0, 1, "a.b"], lambda: [1, 99, None, None],
                lambda: [0, 1, "a.b", [reference(1, 1, None)]], lambda: [0, 1, "a.b", [reference(1, 1, ["Thing"])]],
                lambda: [0, 1, "a.b", [reference(1, 1, described()[:3] + [[[0, "s", "()"]], []])]],
                lambda: [0, 1, "a.b", [Ext(1, b"short")]]],
        }
        self.honest.call("HXMemory.insertData", "Large", b"x" * MIB)
        for row, _ in table("what | limit"):
            begins = [attacks for words, attacks in offences.items() if row.startswith(words)]
            self.assertEqual(len(begins), 1, "no attack for this row: " + row)
            for attack in begins[0]:
                with self.subTest(row=row):
                    self.client = Client(heart=False)
                    before = logged().count(f"process {os.getpid()} has left: ")
                    try:
                        self.client.send(attack() or b"")
                        if row != "silence":
                            self.client.send(pack([2, "korvo.alive", []]) * 2)
                        self.client.last_words()
                    except Ended:
                        pass
                    self.client.close()
                    until(lambda: logged().count(f"process {os.getpid()} has left: ") > before)
                    self.expect_service()

    def test_fails_no_more_than_the_call(self):
        for value in (2**63, Ext(-1, b"\0" * 4), {1: 2}, [reference(1, 1, described())], Ext(9, b""), {"a": {None: 1}}):
            error, _ = self.client.answer("HXMemory.insertData", "Odd", value)
            self.assertIn("cannot be kept", str(error))
        self.assertIn("deep", str(self.client.answer("HXMemory.getData", chain(257), "Odd")[0]))
        self.assertIn("deep", str(self.client.answer("HXMemory.getData", chain(2**32 - 1), "Odd")[0]))
        self.assertIn("not found", str(self.client.answer("HXMemory.getData", chain(256), "Odd")[0]))
        for name in ("korvo", "korvo.x", "@1"):
            self.assertIn("reserved", str(self.client.answer("korvo.register", name, reference(1, 1, described()))[0]))
        self.assertIn("65536", str(self.client.answer("HXMemory.insertData", "k" * 65537, 1)[0]))
        self.client.call("HXMemory.insertData", "k" * 65536, 1)
        self.client.call("HXMemory.removeData", "k" * 65536)

    def test_connects_no_more_signals_than_the_page_says(self):
        most = int(re.search(r"a signal connected beyond the (\d+)", PAGE)[1])
        door = unpack(self.client.call("HXMemory.subscriber", "Door").content)[0][1]
        for link in range(most):
            self.client.call("korvo.connect", door, "signal", link)
        self.assertIn("limit for one client", str(self.client.answer("korvo.connect", door, "signal", most)[0]))
        self.assertIn(f"process {os.getpid()} gets no more: ", logged())
        self.expect_service()
        self.client.call("korvo.connect", door, "signal", 0)  # In place of the one that had the number.
        self.client.call("korvo.disconnect", 1)
        self.client.call("korvo.connect", door, "signal", most)

    def test_tells_those_whom_it_does_not_let_in(self):
        words = re.search(r"holds (\d+) connections, and (\d+) of one process; the last (\d+) are kept", PAGE)
        of_one = int(words[2])
        clients = []
        try:
            for _ in range(of_one + 1):
                clients.append(Client())
            self.assertRegex(str(clients[-1].last_words()), r"korvo\.refused.*which is the limit for one process")
            self.expect_service()
            self.assertEqual(subprocess.run([KORVO, "services"], capture_output=True, check=False).returncode, 0)
        finally:
            for client in clients:
                client.close()
        self.assertIn(f"refused process {os.getpid()}: ", logged())

    def test_hands_on_whatever_it_takes(self):
        told = []

        def serve():
            while not told:
                message = self.client.receive()
                if message[0] == 0:
                    told.append(len(message[3][-2]))
                    self.client.send([1, message[1], None, None])

        methods = [[0, "onEvent", [], ["void", 0], True, 0, "", "", [], None]]
        self.client.call("korvo.register", "Eater", reference(1, 1, ["Eater", "", methods, [], []]))
        self.client.call("HXMemory.subscribeToEvent", "Meal", "Eater", "with a message of its own", "onEvent")
        head = len(pack([0, 1, "HXMemory.raiseEvent", ["Meal", b""]]))
        server = threading.Thread(target=serve)
        server.start()
        honest = Client()
        honest.call("HXMemory.raiseEvent", "Meal", b"x" * (64 * MIB - head))
        server.join()
        self.assertEqual(told, [64 * MIB - head])
        self.assertEqual(honest.call("HXMemory.getSubscribers", "Meal"), ["Eater"])
        honest.call("HXMemory.removeEvent", "Meal")
        honest.close()


class Name:
    """A number that the page has a name for."""

    def __init__(self, text):
        self.text = text


class Exchange(unittest.TestCase):
    """Plays the exchange of the page, line by line: it shows what is really sent."""

    LEFT_OUT = object()

    def setUp(self):
        self.numbers = {}  # What was sent where the page has a name in capitals.
        alone = subprocess.Popen([KORVO, "run", "--name", "exchange", "--log-level", "silent"])
        self.addCleanup(alone.wait)
        self.addCleanup(alone.terminate)
        until(self.join)
        self.addCleanup(self.client.close)

    def join(self):
        try:
            self.client = Client(broker="exchange")
            return True
        except (FileNotFoundError, ConnectionRefusedError):  # It is there before it listens.
            return False

    def test_exchange_of_the_page(self):
        lines = re.search(r"## An exchange\n\n.*?```\n(.*?)```", PAGE, re.DOTALL)[1].splitlines()
        raised = []
        for line in lines:
            direction, shown, remark = re.fullmatch(r"([→←]) (.*?)(?:  +(\w.*))?", line).groups()
            message = self.message(shown)
            if direction == "→":
                if message[0] == 0:  # A raise must not meet who subscribes behind it.
                    for process in raised:
                        process.wait(60)
                self.client.send(self.packed(message))
                continue
            if remark and remark.startswith("somebody has raised"):
                value = "true" if message[2][1] else "false"
                raised.append(subprocess.Popen([KORVO, "raise", "Door", value, "--broker", "exchange"]))
            self.compare(message, self.next(), line)
        self.assertEqual([process.wait(60) for process in raised], [0, 0])

    def message(self, shown):
        names = {"nil": None, "true": True, "false": False, "ext": Ext, "anything": self.LEFT_OUT,
                 "DOOR": self.numbers.get("DOOR", Name("DOOR"))}
        return eval(shown.replace("…", "anything"), {"__builtins__": {}}, names)

    def packed(self, value):
        """With the contents of extensions, which the page shows as values, as bytes."""
        if isinstance(value, list):
            return [self.packed(element) for element in value]
        return Ext(value.kind, pack(value.content)) if isinstance(value, Ext) else value

    def next(self):
        """The next message that is no heartbeat."""
        while (message := self.client.receive()) == [2, "korvo.alive", []]:
            pass
        return message

    def compare(self, shown, sent, line):
        if shown is self.LEFT_OUT:
            return
        if isinstance(shown, Name):
            self.assertIsInstance(sent, int, line)
            self.numbers[shown.text] = sent
        elif isinstance(shown, Ext):
            self.assertEqual(sent.kind, shown.kind, line)
            if shown.content is not self.LEFT_OUT:
                self.compare(shown.content, unpack(sent.content)[0], line)
        elif isinstance(shown, list) and isinstance(sent, list):
            self.assertEqual(len(sent), len(shown), f"{line}\n{sent}")
            for one, other in zip(shown, sent):
                self.compare(one, other, line)
        else:
            self.assertEqual(sent, shown, line)


if __name__ == "__main__":
    unittest.main()
