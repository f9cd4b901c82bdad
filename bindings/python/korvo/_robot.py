"""The robot: its memory, events, services."""

import os
from collections import namedtuple as _namedtuple
from collections.abc import MutableMapping as _MutableMapping

from . import _native, _state
from ._errors import Error, NoSuchKey, NoSuchService, NotConnected, did_you_mean
from ._following import Follow, Watch
from ._hosting import Host
from ._object import Object, on_loop
from ._views import Stream, View


def connect(name=None, timeout=None):
    """Joins a broker.

    name     the broker's; without, the one that the environment variable KORVO_BROKER names, or the only one that runs
    timeout  what the memory may take to answer, in seconds, before `Timeout` is raised; without, there is no limit

    A lost connection comes back by itself; calls meanwhile raise `NotConnected`, as this does where there is no broker.
    """
    wanted = name or os.environ.get("KORVO_BROKER", "")
    try:
        return Robot(_native.Connection(wanted), timeout)
    except NotConnected as error:
        hint = did_you_mean(wanted, _native.running_brokers()) if wanted else ""
        hint = hint or ("" if wanted else "; start one: korvo run") if not _native.running_brokers() or wanted else hint
        raise NotConnected(error.message + hint) from None


class KeyInfo(_namedtuple("KeyInfo", ("key", "kind", "value", "time", "subscribers", "description"))):
    """What is known of a key.

    kind         "Data", "Event" or "MicroEvent"
    time         of its last change, in seconds since the epoch
    subscribers  the modules that are told of its raises
    description  what it was described as
    """

    __slots__ = ()


class Robot(_MutableMapping):
    """A robot, whose memory is like a dict: `robot["Arm/Speed"] = 0.5`, `del`, `in`, `len`, `for`, `update`.

    Values are None, bool, int, float, str, bytes, list, dict, and numpy's numbers and arrays. Any thread may use a robot.
    It is closed by `close`, at the end of a `with` or `async with`, and when nobody refers to it any more, unless
    something is subscribed or hosted by it.
    """

    def __init__(self, native, timeout):
        self._native, self._timeout = native, timeout
        self._hosts, self._follows = set(), set()
        self._memory = None

    # --- The memory ---------------------------------------------------------------------------------------------------

    def _call(self, method, *arguments):
        if self._memory is None:
            self._memory = self._native.service("HXMemory", self._timeout)
        return self._memory.call(method, arguments, self._timeout)

    def __getitem__(self, key):
        try:
            return self._call("getData", key)
        except Error as error:
            raise self._explained(error, key) from None

    def __setitem__(self, key, value):
        self._call("insertData", key, value)

    def __delitem__(self, key):
        try:
            self._call("removeData", key)
        except Error as error:
            raise self._explained(error, key) from None

    def _explained(self, error, key):
        """The error, or one that says which key was meant where there is none of that name."""
        if "not found" not in error.message or not isinstance(key, str):
            return error
        hint = did_you_mean(key, self._call("getDataListName"))
        return NoSuchKey(error.message + hint, error.module, error.method, error.file, error.line)

    def __contains__(self, key):
        return isinstance(key, str) and key in self._call("getDataList", key)

    def __iter__(self):
        return iter(self.keys())

    def __len__(self):
        return len(self._call("getDataListName"))

    def __eq__(self, other):
        return self is other

    __hash__ = object.__hash__

    def keys(self, prefix=""):
        """The keys that begin with `prefix`, sorted: a list."""
        return sorted(key for key in self._call("getDataList", prefix) if key.startswith(prefix))

    def items(self, prefix=""):
        """Keys that begin with `prefix` and their values, read at once: a list of pairs."""
        keys = self.keys(prefix)
        return list(zip(keys, self._call("getListData", keys)))

    def values(self, prefix=""):
        """The values of the keys that begin with `prefix`, read at once: a list."""
        return [value for _, value in self.items(prefix)]

    def update(self, values=(), **more):
        """Writes several values in one call."""
        pairs = {**dict(values), **more}
        self._call("insertListData", [[key, value] for key, value in pairs.items()])

    def info(self, key):
        """Kind, value, time, subscribers and description of a key: a `KeyInfo`."""
        try:
            kind = self._call("getType", key)
            value, seconds, microseconds = self._call("getTimestamp", key)
        except Error as error:
            raise self._explained(error, key) from None
        subscribers = self._call("getSubscribers", key) if kind != "Data" else []
        description = next((text for name, _, text in filter(None, self._call("getDescriptionList", [key]))
                            if name == key), "")
        return KeyInfo(key, kind, value, seconds + microseconds / 1e6, subscribers, description)

    def describe(self, key, description):
        """Says of a key what it is, for `info` and for people."""
        self._call("setDescription", key, description)

    def explain(self, key):
        """All there is to know of a key: its value, who wrote it when and how often, who is subscribed and how fast, what is
        odd. An `Explanation`: a dict that is shown as a table."""
        try:
            return Explanation(self.service("HXJournal").explain(key))
        except Error as error:
            raise self._explained(error, key) from None

    def table(self, prefix=""):
        """Keys and values as a table, for a terminal and for notebooks."""
        return Table(self.items(prefix))

    # --- Events -------------------------------------------------------------------------------------------------------

    def raise_event(self, key, value=None, micro=False):
        """Raises an event: stores the value, and calls whoever is subscribed, who have returned when this does.

        micro  a micro-event, which has no history
        """
        self._call("raiseMicroEvent" if micro else "raiseEvent", key, value)

    def history(self, key):
        """The latest values that an event was raised with, the oldest first: a list of (time, value)."""
        try:
            entries = self._call("getEventHistory", key) or []
        except Error as error:
            raise self._explained(error, key) from None
        return [(seconds + microseconds / 1e6, value) for value, seconds, microseconds in entries]

    def follow(self, *keys, timeout=None, rate=0, snapshot=False, since=None, capacity=100_000):
        """Changes as they come: `for change in robot.follow("Arm/", "Door")`, or `async for`. See `Follow`, `Change`.

        keys      what to follow: a key; with `/` at its end all that begin so, with `*` and `?` a pattern. None: everything.
        timeout   ends it when nothing has changed for so many seconds
        rate      at most so many changes of each key a second, the latest
        snapshot  begin with what there is
        since     begin with what has changed since then, as far back as the journal goes: the `position` of a change that was
                  taken before, also by another program; or a time, in seconds since the epoch or as a `datetime`. Where the
                  journal has no longer all of it, how things stand is told first ("state").
        capacity  so many changes are kept for who does not take them; then the oldest go
        """
        for key in keys:
            if not isinstance(key, str):
                raise TypeError(f"what to follow is a str, not {type(key).__name__}: {key!r}")
        wanted = {"patterns": keys, "rate": float(rate), "snapshot": bool(snapshot), "since": _place(since),
                  "capacity": max(1, int(capacity))}
        timeout = None if timeout is None else float(timeout)
        return Follow(self, self._native.follow(wanted), timeout, ", ".join(keys) or "everything")

    def on(self, *keys, rate=0):
        """Has a callback called with each `Change` of what `follow` would follow: `robot.on("Door", print)`.

        It runs on a thread of its own, or, where a loop of asyncio runs, there. Returns a `Watch`: `stop()` ends it,
        losing it does not. Who raises an event does not wait for it.
        """
        if not keys or not callable(keys[-1]):
            raise TypeError("the last argument is what to call")
        *keys, callback = keys
        return Watch(self.follow(*keys, rate=rate), on_loop(callback), ", ".join(keys) or "everything")

    # --- Views ------------------------------------------------------------------------------------------------------

    def view(self, key, capacity=4096, alive_within=0.1):
        """A key to be read at the speed of memory, without a call: `robot.view("Arm/Speed").read()`. See `View`.

        key           whether it is there or not
        capacity      bytes of the largest value: of a list or a dict, those of its MessagePack
        alive_within  how soon, in seconds, to know that the broker does not run any more although it has not ended
        """
        return View(self._native.view(key, capacity, alive_within), key)

    def stream(self, key, depth=1024, timeout=None, capacity=4096, alive_within=0.1):
        """Every value that is written under a key from now on, the present one first. See `Stream`.

        depth    how many values are kept for who reads late; what is written in 20 milliseconds at least
        timeout  ends the iteration when nothing has come for so many seconds

        The others are those of `view`.
        """
        return Stream(self, self._native.stream(key, depth, capacity, alive_within), key, timeout)

    # --- Services -----------------------------------------------------------------------------------------------------

    def services(self, timeout=None):
        """The names of the services there are."""
        return self._native.services(self._timeout if timeout is None else timeout)

    def service(self, name, timeout=None):
        """The service of that name: an `Object`. It goes on working when the service has gone and come back."""
        try:
            return Object(self._native.service(name, self._timeout if timeout is None else timeout))
        except NoSuchService as error:
            raise NoSuchService(error.message + did_you_mean(name, self.services())) from None

    def host(self, module, name=None):
        """Offers a `Module` as a service, under `name` or that of its class: `with robot.host(Greeter()):`."""
        host = Host(self, module, name)
        self._hosts.add(host)
        return host

    def on_notice(self, callback):
        """Has a callback called with (kind, text) when the connection is "lost" (and why) or "restored", and when a service
        is "registered" or "unregistered" (and which): on a thread of the package, or on the loop of asyncio that runs."""
        number = _state.keep(on_loop(callback))
        self._notices = [*getattr(self, "_notices", ()), number]
        self._native.notify(number)

    # --- The connection -----------------------------------------------------------------------------------------------

    @property
    def broker(self):
        """Name of the broker."""
        return self._native.broker

    @property
    def connected(self):
        """Whether the connection is there at the moment."""
        return self._native.is_connected

    def close(self):
        """Ends everything: hosted modules leave, followers end, calls raise `NotConnected`. May be repeated."""
        for host in list(self._hosts):
            host.stop()
        self._native.close()
        for number in getattr(self, "_notices", ()):
            _state.drop(number)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    async def __aenter__(self):
        return self

    async def __aexit__(self, *_):
        import asyncio

        await asyncio.get_running_loop().run_in_executor(None, self.close)

    def __repr__(self):
        return f"<korvo.Robot broker {self.broker}{'' if self.connected else ', not connected'}>"


class Table:
    """Keys and values, to be looked at."""

    def __init__(self, items):
        self._items = items

    def __repr__(self):
        return _as_text(self._items) or "no keys"

    def _repr_html_(self):
        return _as_html(self._items)


class Explanation(dict):
    """What there is to know of a key, by name. Times are in microseconds since the epoch, durations in seconds."""

    def __repr__(self):
        return _as_text(self.items())

    def _repr_html_(self):
        return _as_html(self.items())


def _as_text(items):
    width = max((len(key) for key, _ in items), default=0)
    return "\n".join(f"{key:<{width}}  {value!r}" for key, value in items)


def _as_html(items):
    from html import escape

    rows = "".join(f"<tr><td>{escape(key)}</td><td>{escape(repr(value))}</td></tr>" for key, value in items)
    return f"<table><tr><th>key</th><th>value</th></tr>{rows}</table>"


def _place(since):
    """What the extension takes: None, a pair of numbers, or seconds since the epoch."""
    if since is None:
        return None
    if isinstance(since, (tuple, list)) and len(since) == 2 and all(isinstance(one, int) and one >= 0 for one in since):
        return tuple(since)
    if isinstance(since, (int, float)) and not isinstance(since, bool):
        return float(since)
    if hasattr(since, "timestamp"):
        return since.timestamp()
    raise TypeError(f"since= is the position of a change, or a time: seconds since the epoch or a datetime, not {since!r}")
