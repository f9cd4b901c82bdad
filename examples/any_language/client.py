#!/usr/bin/env python3
"""A client made from docs/wire alone, for languages that have no package: to be read, and written again in another one.

    korvo run &
    ./client.py

In Python itself the package korvo does more (docs/guide/python.md). Here everything happens on one thread, which serves
what is called here while it waits for an answer; a second one does no more than say that this process is alive.
"""

import io
import itertools
import os
import socket
import struct
import threading

from messagepack import Extension, pack, unpack

CHAIN, REFERENCE = 1, 2  # Types of extensions.


class Client:
    def __init__(self, broker="korvo"):
        runtime = os.environ.get("XDG_RUNTIME_DIR")
        folder = f"{runtime}/korvo" if runtime else f"{os.environ.get('TMPDIR', '/tmp')}/korvo-{os.getuid()}"
        self.hosted, self.followers, self.answers = [], [], {}
        self.requests, self.chain, self.sending = itertools.count(1), [], threading.Lock()
        self.socket = socket.socket(socket.AF_UNIX)
        self.socket.connect(f"{folder}/{broker}.sock")
        self.socket.settimeout(3)  # The broker is heard each second, or is gone.
        self.stream = self.socket.makefile("rb")
        threading.Thread(target=self.stay_alive, daemon=True).start()
        self.call("korvo.hello", 1, "client.py")

    def call(self, method, *arguments):
        """Calls "SERVICE.METHOD", "@OBJECT.METHOD" or "korvo.METHOD", and waits for the result."""
        request = next(self.requests)
        self.send([0, request, method, [*self.chain, *arguments]])
        while request not in self.answers:
            self.serve()
        error, result = self.answers.pop(request)
        if error is not None:
            raise RuntimeError(error)
        return result

    def register(self, name, **methods):
        """Offers functions as the methods of a service, each with any arguments and a result of any type."""
        self.hosted.append(list(methods.values()))
        told = [[i, each, [], ["value", 10], True, 0, "", "", [], None] for i, each in enumerate(methods)]
        number = len(self.hosted) - 1
        self.call("korvo.register", name, Extension(REFERENCE, pack([0, number, number, [name, "", told, [], []]])))

    def follow(self, reference, signal, callback):
        """Calls back with the arguments of each emission from now on."""
        self.followers.append(callback)
        self.call("korvo.connect", number_of(reference), signal, len(self.followers) - 1)

    def serve(self):
        """Waits for one message, and does what it asks for."""
        kind, *message = unpack(self.read)
        if kind == 0:
            request, method, arguments = message
            try:
                self.send([1, request, None, self.run(method, arguments)])
            except Exception as error:
                self.send([1, request, ["runtime", str(error)], None])
        elif kind == 1:
            request, *self.answers[request] = message
        elif message[0] == "korvo.emit":
            link, *values = message[1]
            self.followers[link](*values)
        elif message[0].startswith("@"):
            self.run(*message)

    def run(self, method, arguments):
        outer, self.chain = self.chain, []
        try:
            if arguments and isinstance(arguments[0], Extension) and arguments[0].kind == CHAIN:
                # Whoever called may hold what our own calls need, until this one ends: they say that they belong to it.
                process, thread, depth = struct.unpack(">QII", arguments.pop(0).content[:16])
                self.chain = [Extension(CHAIN, struct.pack(">QII", process, thread, depth + 1))]
            number, member = method[1:].split(".")
            return self.hosted[int(number)][int(member)](*arguments)
        finally:
            self.chain = outer

    def stay_alive(self):
        try:
            while True:
                self.send([2, "korvo.alive", []])
                threading.Event().wait(0.5)
        except OSError:
            pass  # The other thread finds out by itself.

    def send(self, message):
        with self.sending:
            self.socket.sendall(pack(message))

    def read(self, size):
        content = self.stream.read(size)
        if len(content) < size:
            raise ConnectionError("the broker has gone")
        return content


def number_of(reference):
    owner, number, *_ = unpack(io.BytesIO(reference.content).read)
    return number


def main():
    robot = Client()
    robot.call("HXMemory.insertData", "Battery", 0.93)
    print("Battery is", robot.call("HXMemory.getData", "Battery"))
    try:
        robot.call("HXMemory.getData", "Nope")
    except RuntimeError as error:
        print("failed:", error.args[0][:2])

    # An event is followed by its signal, of which its raiser does not wait for anybody,
    robot.follow(robot.call("HXMemory.subscriber", "Door"), "signal", lambda value: print("told of Door:", value))

    # or by a service that it waits for, and that may call back.
    def on_door(event, value, message):
        robot.call("HXMemory.insertData", "Door/Seen", value)
        print(f"waited for at {event}:", value)

    robot.register("Doorman", onDoor=on_door)
    robot.call("HXMemory.subscribeToEvent", "Door", "Doorman", "onDoor")
    robot.call("HXMemory.raiseEvent", "Door", True)

    # The journal tells every change in order: here those below Arm/, up to the last.
    feed = robot.call("HXJournal.open", {"prefixes": ["Arm/"], "snapshot": True})
    names, states = [], {}

    def on_batch(batch):
        if batch.get("forget"):
            names.clear()
        names.extend(batch.get("names", []))
        for key, value in zip(batch.get("keys", []), batch.get("values", [])):
            states[names[key]] = value
        if batch.get("ack"):
            robot.send([2, f"@{number_of(feed)}.took", [batch["number"]]])

    robot.follow(feed, "batch", on_batch)
    robot.call(f"@{number_of(feed)}.start")
    for step in range(3):
        robot.call("HXMemory.insertData", "Arm/Angle", step)
    robot.call("HXMemory.raiseEvent", "Arm/Moved", {"by": [1, "two", None]})
    while "Arm/Moved" not in states or states["Arm/Angle"] != 2:
        robot.serve()
    print("told of", dict(sorted(states.items())))


if __name__ == "__main__":
    main()
