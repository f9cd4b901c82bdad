"""Services and other objects, called like objects of Python."""

import sys

from . import _state
from ._errors import CallError, did_you_mean
from ._future import Future

_PYTHON_NAMES = {"string": "str", "int64": "int", "double": "float", "binary": "bytes", "map": "dict", "value": "object"}


class Object:
    """A handle on an object of the robot: a service, or what a method has given.

    Its methods, signals and properties are attributes: `arm.move(0.3)`, `arm.moved.connect(print)`. `dir(arm)` lists
    them, `help(arm.move)` shows a signature and what it does. A member that is called as something of this class is
    reached by `arm.get_method("name")`, `arm.get_signal("name")`.
    """

    def __init__(self, native):
        object.__setattr__(self, "_native", native)
        object.__setattr__(self, "_members", None)

    def _described(self):
        if self._members is None:
            described = self._native.describe()
            members = {}
            for overload in described["methods"]:
                members.setdefault(overload["name"], []).append(overload)
            described["by_name"] = members
            object.__setattr__(self, "_members", described)
        return self._members

    def get_method(self, name):
        """The method of that name."""
        overloads = self._described()["by_name"].get(name)
        if not overloads:
            raise self._unknown(name)
        return Method(self, name, overloads)

    def get_signal(self, name):
        """The signal of that name."""
        signature = self._described()["signals"].get(name)
        if signature is None:
            raise self._unknown(name)
        return Signal(self, name, signature)

    def get_property(self, name, timeout=None):
        """The value of a property."""
        return self._native.property(name, timeout)

    def set_property(self, name, value, timeout=None):
        """Sets a property."""
        self._native.set_property(name, value, timeout)

    def _unknown(self, name):
        described = self._described()
        names = [*described["by_name"], *described["signals"], *described["properties"]]
        return AttributeError(f"{self._native.name} has no {name}{did_you_mean(name, names)}", name=name, obj=self)

    def __getattr__(self, name):
        if name.startswith("__"):
            raise AttributeError(name)
        described = self._described()
        if name in described["by_name"]:
            made = self.get_method(name)
        elif name in described["signals"]:
            made = self.get_signal(name)
        elif name in described["properties"]:
            return self.get_property(name)
        else:
            raise self._unknown(name)
        object.__setattr__(self, name, made)
        return made

    def __setattr__(self, name, value):
        if name not in self._described()["properties"]:
            raise AttributeError(f"{self._native.name} has no property {name}", name=name, obj=self)
        self.set_property(name, value)

    def __dir__(self):
        described = self._described()
        return sorted({*super().__dir__(), *described["by_name"], *described["signals"], *described["properties"]})

    def __eq__(self, other):
        return isinstance(other, Object) and self._native.is_same(other._native)

    def __hash__(self):
        return hash(self._native.number)

    @property
    def __doc__(self):
        described = self._described()
        lines = [described["description"], ""] if described["description"] else []
        for name, overloads in described["by_name"].items():
            lines += [_signature(name, overload) for overload in overloads]
            lines += ["    " + overloads[0]["description"]] if overloads[0]["description"] else []
        lines += [f"signal {name}{signature}" for name, signature in described["signals"].items()]
        return "\n".join(lines)

    def __repr__(self):
        return f"<korvo.Object {self._native.name}>"


class Method:
    """A method of an object. Call it and wait for its result, at most `timeout` seconds, or `start` it.

    Arguments may be given by the names that its documentation gives them.
    """

    def __init__(self, owner, name, overloads):
        self._native, self._overloads, self._owner = owner._native, overloads, owner
        self.__name__ = name
        self.__qualname__ = f"{self._native.name}.{name}"
        self.__doc__ = "\n\n".join(map(self._document, overloads))

    def __call__(self, *arguments, timeout=None, **named):
        """Calls the method. Raises what it raises, `Timeout` after `timeout` seconds, `CallError` before it is sent where
        no overload takes these arguments."""
        if named:
            arguments = self._placed(arguments, named)
        return self._native.call(self.__name__, arguments, timeout)

    def start(self, *arguments, **named):
        """Calls the method without waiting. Returns a `Future`, which can be awaited. It leaves at once, unless in a
        `Batch`."""
        if named:
            arguments = self._placed(arguments, named)
        return Future(self._native.start(self.__name__, arguments), self.__qualname__)

    def _placed(self, arguments, named):
        count = len(arguments) + len(named)
        for overload in self._overloads:
            names = [name for name, _, _ in overload["parameters"]]
            if len(names) == count and set(names[len(arguments):]) == set(named):
                return (*arguments, *(named[name] for name in names[len(arguments):]))
        there = ", ".join(_signature(self.__name__, overload) for overload in self._overloads)
        raise CallError(f"no overload takes {', '.join(named)} by name; there is {there}", self._native.name,
                        self.__name__)

    def _document(self, overload):
        lines = [_signature(self.__name__, overload)]
        lines += ["    " + overload["description"]] if overload["description"] else []
        lines += [f"      {name}: {text}" for name, _, text in overload["parameters"] if text]
        name, _, text = overload["result"]
        lines += [f"      returns {name}: {text}" if name else f"      returns: {text}"] if text else []
        return "\n".join(lines)

    @property
    def __signature__(self):
        import inspect

        if len(self._overloads) != 1 or self._overloads[0]["dynamic"]:
            return inspect.Signature([inspect.Parameter("arguments", inspect.Parameter.VAR_POSITIONAL)])
        names = [name for name, _, _ in self._overloads[0]["parameters"]]
        usable = all(name.isidentifier() for name in names) and len(set(names)) == len(names)
        if not usable:
            names = [f"argument{place}" for place in range(1, len(names) + 1)]
        return inspect.Signature([inspect.Parameter(name, inspect.Parameter.POSITIONAL_OR_KEYWORD) for name in names])

    def __repr__(self):
        return f"<korvo.Method {self.__qualname__}>"


class Signal:
    """A signal of an object."""

    def __init__(self, owner, name, signature):
        self._native, self._owner = owner._native, owner
        self.__name__ = name
        self.__doc__ = f"signal {name}{signature}"

    def connect(self, callback):
        """Has `callback` called with what the signal carries: on a thread of the package, one call after another; in a
        program of asyncio on its loop. It is connected when this returns.

        Returns a handle: `stop()` ends it, losing it does not.
        """
        return Link(self._native, self.__name__, callback)

    def emit(self, *arguments):
        """Triggers the signal, which its owner may refuse."""
        self._native.emit(self.__name__, arguments)

    def __repr__(self):
        return f"<korvo.Signal {self._native.name}.{self.__name__}>"


class Link:
    """A connection to a signal. It ends by `stop`, also at the end of a `with`."""

    def __init__(self, native, name, callback):
        self._native, self._name = native, name
        self._number = _state.keep(on_loop(callback))
        try:
            self._link = native.connect(name, self._number)
        except BaseException:
            _state.drop(self._number)
            raise

    def stop(self):
        """Ends the connection. May be repeated."""
        if self._link is not None:
            link, self._link = self._link, None
            self._native.disconnect(link)
            _state.drop(self._number)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.stop()

    def __repr__(self):
        return f"<korvo.Link {self._native.name}.{self._name}{'' if self._link is not None else ' stopped'}>"


def on_loop(callback):
    """The callback as it is, or, where a loop of asyncio runs, one that runs it there."""
    asyncio = sys.modules.get("asyncio")
    running_loop = getattr(asyncio, "_get_running_loop", None)  # Another thread may be importing it.
    loop = running_loop() if running_loop else None
    if loop is None:
        return callback

    def run(arguments):
        result = callback(*arguments)
        if asyncio.iscoroutine(result):
            task = loop.create_task(result)
            running.add(task)
            task.add_done_callback(running.discard)

    def hand_over(*arguments):
        try:
            loop.call_soon_threadsafe(run, arguments)
        except RuntimeError:
            pass  # The loop has been closed.

    running = set()  # A loop keeps its tasks weakly only.
    return hand_over


def _signature(name, overload):
    if overload["dynamic"]:
        return f"{name}(...)"
    parameters = ", ".join(f"{parameter}: {_type(kind)}" if parameter else _type(kind)
                           for parameter, kind, _ in overload["parameters"])
    result = overload["result"][1]
    return f"{name}({parameters})" + (f" -> {_type(result)}" if result != "void" else "")


def _type(name):
    for container, outer in (("list<", "list"), ("map<", "dict")):
        if name.startswith(container):
            inner = _type(name[len(container):-1])
            return f"{outer}[{inner}]" if outer == "list" else f"{outer}[str, {inner}]"
    return _PYTHON_NAMES.get(name, name)
