"""Korvo from Python: the memory, its events, and services of your own. Standard library only.

    import korvo

    with korvo.Client() as robot:                       # the broker named "korvo"
        memory = robot.service("HXMemory")
        memory.insertData("Battery", 0.93)
        print(memory.getData("Battery"))
        memory.raiseEvent("Door", True)

        door = memory.subscriber("Door")                # follow an event: its signal passes each value raised
        robot.follow(door, "signal", lambda value: print("door:", value))

        class Greeter:                                  # or subscribe with a service, which raisers wait for
            def onEvent(self, name, value, message):
                memory.insertData("Greeter/Seen", value)

        robot.changes(lambda news, change: print(news, change), prefixes=["Arm/"])    # every change, in order

        robot.register("Greeter", Greeter())
        memory.subscribeToEvent("Door", "Greeter", "onEvent")
        robot.serve()                                   # until the broker ends

Everything happens on the thread that uses the client: callbacks run while it waits, in `serve` or for the answer to a
call, and may call back. A second thread does no more than tell the broker that this process is alive. Threads do not
share a client; give each its own.

Values: None, bool, int, float (a double), str, bytes, list, dict with str keys. Numbers that are 32-bit floats or
64-bit ints in the memory arrive as Float32 and Int64, and are sent as what they are. Any other object is passed as a
reference, and stays for as long as the client does: the other side may call its public methods. References that
come in behave like the object itself.
"""

import io
import os
import socket
import struct
import threading

from messagepack import Extension, Float32, Int64, pack, unpack  # noqa: F401

CHAIN, REFERENCE = 1, 2  # Types of extensions.


class HXError(RuntimeError):
    """The error of a module. Raised in a service, it reaches the caller with all five fields."""

    def __init__(self, message, module="", method="", file="", line=0, *_):
        super().__init__(message)
        self.message, self.module, self.method, self.file, self.line = message, module, method, file, line


class RemoteError(RuntimeError):
    """Any other failure of a call: no such service or method, a wrong argument, a peer that has gone."""


class Reference:
    """An object of another process. Its methods are called like those of any object."""

    def __init__(self, client, number, details):
        self._client, self._number, self._details = client, number, details

    def __getattr__(self, method):
        if method.startswith("__"):
            raise AttributeError(method)
        return lambda *arguments: self._client.call(f"@{self._number}.{method}", *arguments)

    def __dir__(self):
        return [name for _, name, *_ in self._details[2]]

    def __del__(self):
        self._client._notify("korvo.release", self._number, 1)


class Client:
    def __init__(self, broker="korvo"):
        runtime = os.environ.get("XDG_RUNTIME_DIR")
        folder = f"{runtime}/korvo" if runtime else f"{os.environ.get('TMPDIR', '/tmp')}/korvo-{os.getuid()}"
        self._hosted, self._numbers, self._kinds, self._descriptions = {}, {}, {}, {}
        self._callbacks, self._answers, self._requests = {}, {}, 0
        self._chain = []  # The first argument of calls made while one is served that has it.
        self._sending = threading.RLock()  # One message at a time. A Reference may go, and tell so, within.
        self._ended = threading.Event()
        self._socket = socket.socket(socket.AF_UNIX)
        self._socket.settimeout(3)  # The broker is heard each second, or is gone.
        self._socket.connect(f"{folder}/{broker}.sock")
        self._stream = self._socket.makefile("rb")
        threading.Thread(target=self._stay_alive, daemon=True).start()
        self.call("korvo.hello", 1)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def close(self):
        self._ended.set()
        self._stream.close()
        self._socket.close()

    def call(self, method, *arguments):
        """Calls "Service.method" and waits for its result, serving meanwhile what is called here."""
        self._requests += 1
        request = self._requests
        self._send([0, request, method, [*self._chain, *arguments]])
        while request not in self._answers:
            self._receive()
        error, result = self._answers.pop(request)
        if error is None:
            return result
        family, *fields = ["runtime", error] if isinstance(error, str) else error
        raise HXError(*fields) if family == "HXError" else RemoteError(*fields)

    def service(self, name):
        """A reference to a service, or None."""
        return self.call("korvo.service", name)

    def register(self, name, service):
        """Offers the public methods of an object under a name. Gives the number that `unregister` takes."""
        return self.call("korvo.register", name, service)

    def unregister(self, number):
        return self.call("korvo.unregister", number)

    def follow(self, reference, signal, callback):
        """Calls back with the arguments of each emission from now on. Gives the number that `unfollow` takes."""
        link = len(self._callbacks)
        self._callbacks[link] = callback
        self.call("korvo.connect", reference._number, signal, link)
        return link

    def unfollow(self, link):
        self._callbacks[link] = lambda *_: None
        self.call("korvo.disconnect", link)

    def changes(self, callback, **options):
        """Calls back with (kind of news, dict) for each thing that the memory's journal tells: "change", "state",
        "unchanged", "gap", "complete", "pause". The options are those of HXJournal.open. Gives the feed; stop() ends it."""
        feed = self.call("HXJournal.open", options)
        names, authors = [], []

        def column(batch, name, line):
            told = batch.get(name, 0)
            return told[line] if isinstance(told, list) else told

        def tell(batch):
            if batch.get("forget"):
                names.clear(), authors.clear()
            names.extend(batch.get("names", []))
            authors.extend(batch.get("authors", []))
            if "gap" in batch:
                callback("gap", dict(zip(("from", "to", "full"), batch["gap"])))
            for line, number in enumerate(batch.get("keys", [])):
                told = {name: column(batch, f"{name}s", line) for name in ("what", "kind", "nth")}
                flags, by = column(batch, "flags", line), column(batch, "by", line)
                told.update(
                    key=names[number], value=batch["values"][line], left_out=column(batch, "leftOut", line),
                    revision=batch["first"] + line + column(batch, "skips", line),
                    time=(batch["time"] + column(batch, "times", line)) / 1e6,
                    author=authors[by - 1] if by else "", withheld=bool(flags & 16))
                callback("unchanged" if flags & 8 else "state" if flags & 1 else "change", told)
            for news in ("complete", "pause"):
                if news in batch:
                    callback(news, {"position": batch["complete"] if news == "complete" else batch["position"]})
            if batch.get("ack"):
                self._notify(f"@{feed._number}.took", batch["number"])

        self.follow(feed, "batch", tell)
        feed.start()
        return feed

    def serve(self, until=lambda: False):
        """Runs callbacks until `until()`, which is asked at least each second. Fails when the broker ends."""
        while not until():
            self._receive()

    def _stay_alive(self):
        while not self._ended.wait(0.5):
            self._notify("korvo.alive")

    def _notify(self, method, *arguments):
        try:
            self._send([2, method, arguments])
        except OSError:
            self._ended.set()  # Whoever waits for an answer is told.

    def _send(self, message):
        content = pack(message, self._refer)
        with self._sending:
            self._socket.sendall(content)

    def _read(self, size):
        content = self._stream.read(size)
        if len(content) < size:
            raise ConnectionError("the broker has gone")
        return content

    def _receive(self):
        kind, *message = unpack(self._read, self._resolve)
        if kind == 0:
            self._answer(*message)
        elif kind == 1:
            request, *self._answers[request] = message
        elif message[0] == "korvo.emit":
            link, *values = message[1]
            self._callbacks[link](*values)
        elif message[0].startswith("@"):
            self._run(*message)

    def _answer(self, request, method, arguments):
        try:
            self._send([1, request, None, self._run(method, arguments)])
        except HXError as error:
            fields = [error.message, error.module, error.method, error.file, error.line]
            self._send([1, request, ["HXError", *fields], None])
        except Exception as error:
            self._send([1, request, ["runtime", f"{type(error).__name__}: {error}"], None])

    def _run(self, method, arguments):
        outer, self._chain = self._chain, []
        try:
            if arguments and isinstance(arguments[0], Extension):
                origin, thread, depth = struct.unpack(">QII", arguments.pop(0).content)
                self._chain = [Extension(CHAIN, struct.pack(">QII", origin, thread, depth + 1))]
            hosted, _, member = method[1:].rpartition(".")
            service, names = self._hosted.get(int(hosted) if hosted.isdigit() else None, (None, []))
            name = names[int(member)] if member.isdigit() and int(member) < len(names) else member
            if name not in names:
                raise RemoteError(f"{method}: no such method")
            return getattr(service, name)(*arguments)
        finally:
            self._chain = outer

    def _refer(self, value):
        if isinstance(value, Reference):
            return Extension(REFERENCE, pack([1, value._number, 0, None]))
        names = [name for name in dir(value) if not name.startswith("_") and callable(getattr(value, name))]
        number = self._numbers.setdefault(id(value), len(self._numbers))
        self._hosted[number] = value, names
        methods = [[member, name, [], ["value", 10], True, 0, "", "", [], None] for member, name in enumerate(names)]
        kind = self._kinds.setdefault((type(value), *names), len(self._kinds))
        return Extension(REFERENCE, pack([0, number, kind, [type(value).__name__, "", methods, [], []]]))

    def _resolve(self, extension):
        if extension.kind != REFERENCE:
            return extension
        owner, number, description, details = unpack(io.BytesIO(extension.content).read)
        if owner == 1:
            return self._hosted[number][0]
        if details is not None:
            self._descriptions[description] = details
        return Reference(self, number, self._descriptions[description])
