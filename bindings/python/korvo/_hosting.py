"""Modules written in Python."""

import re
import sys

from . import _state
from ._object import Object
from ._values import Float32, Int64

_PLAIN = {bool: "bool", int: "int64", float: "double", str: "string", bytes: "binary", list: "list<value>",
          dict: "map<value>", Float32: "float", Int64: "int64", Object: "object", object: "value", None: "void",
          type(None): "void"}
_hosted = set()
_ELEMENTS = {"bool", "int64", "double", "string", "value"}


def method(function):
    """Publishes a method of a `Module`.

    Its hints become the types that callers see, wrong ones are refused before they are sent: bool, int, float, str,
    bytes, list, dict, lists and dicts of those (`list[float]`), `korvo.Object`; a parameter without takes any value. With
    defaults it can be called with fewer arguments. Its docstring becomes its documentation; lines `whom: text` in it are
    that of the parameter `whom`, and a line `returns: text` that of the result.
    """
    function._korvo_method = True
    return function


def on(key, micro=False):
    """Has a method of a `Module` called with (key, value, message) whenever an event is raised, by name: whoever raises
    it waits for the method. It is subscribed when the module is hosted, and again after a lost connection."""
    def mark(function):
        function._korvo_method = True
        function._korvo_on = [*getattr(function, "_korvo_on", ()), (key, micro)]
        return function

    return mark


class signal:
    """A signal of a `Module`, with the types of what it carries: `moved = korvo.signal(float)`, then
    `self.moved.emit(1.0)`."""

    def __init__(self, *types):
        self.types = [_type_name(kind, "a signal") for kind in types]
        self.name = ""

    def __set_name__(self, owner, name):
        self.name = name

    def __get__(self, instance, owner=None):
        return self if instance is None else BoundSignal(instance, self.name)


class BoundSignal:
    """The signal of one module."""

    def __init__(self, module, name):
        self._module, self._name = module, name

    def emit(self, *values):
        """Calls whoever is connected."""
        self._module._require_hosted().emit(self._name, values)

    __call__ = emit


class Module:
    """Base of modules written in Python.

        class Greeter(korvo.Module):
            \"\"\"Greets people.\"\"\"
            moved = korvo.signal(float)

            @korvo.method
            def greet(self, whom: str, times: int = 1) -> str:
                \"\"\"Makes a greeting.\"\"\"
                return f"Hello, {whom}! " * times

            @korvo.on("Door")
            def door(self, key, value, message):
                self.robot["Greeter/Door"] = value

        with robot.host(Greeter()):
            ...

    Methods run in parallel, on threads of the package, as they are called: what they share is theirs to lock. `self.robot`
    is the robot; what is called there belongs to the same chain of calls.
    """

    robot = None
    _hosted = None

    def init(self):
        """Called once the module is there: others may call it already. What it raises ends the hosting."""

    def exit(self):
        """Called before the module leaves."""

    def sleep(self, seconds):
        """Sleeps, but no longer than until the module leaves, or whoever called the method gives up; then it raises."""
        self._require_hosted().sleep(seconds)

    def _require_hosted(self):
        if self._hosted is None:
            raise RuntimeError(f"{type(self).__name__} is not hosted: robot.host({type(self).__name__}())")
        return self._hosted


class Host:
    """A module that is hosted, until `stop` or the end of a `with`, and until its robot is closed."""

    def __init__(self, robot, module, name):
        if not isinstance(module, Module):
            raise TypeError(f"a korvo.Module is hosted, not a {type(module).__name__}")
        if module._hosted is not None:
            raise RuntimeError(f"{type(module).__name__} is hosted already")
        self.name = name or type(module).__name__
        self.module = module
        self._robot = robot
        self._numbers = []
        self._native = None
        module.robot = robot
        try:
            self._native = robot._native.host(self._describe())
            module._hosted = self._native
            _hosted.add(self)
            module.init()
        except BaseException:
            self.stop(exits=False)
            raise

    def stop(self, exits=True):
        """Takes the module out: waits for calls that run in it. May be repeated."""
        native, self._native = self._native, None
        _hosted.discard(self)
        try:
            if native is not None and exits:
                self.module.exit()
        finally:
            if native is not None:
                native.close()
            self.module._hosted = None
            for number in self._numbers:
                _state.drop(number)
            self._robot._hosts.discard(self)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.stop()

    def __repr__(self):
        return f"<korvo.Host {self.name}{'' if self._native is not None else ' stopped'}>"

    def _describe(self):
        methods, signals, subscriptions = [], [], []
        for name, member in _members(type(self.module)):
            if isinstance(member, signal):
                signals.append({"name": name, "types": member.types})
            elif getattr(member, "_korvo_method", False):
                number = _state.keep(getattr(self.module, name))
                self._numbers.append(number)
                methods += _overloads(name, member, number)
                for key, micro in getattr(member, "_korvo_on", ()):
                    subscriptions.append({"key": key, "method": name, "micro": micro})
        return {"name": self.name, "description": _clean(type(self.module).__doc__ or ""), "methods": methods,
                "signals": signals, "subscriptions": subscriptions}


def tell_hosted():
    """Called at the end of the program: names the modules that cannot be asked to leave any more."""
    for host in _hosted:
        if type(host.module).exit is not Module.exit:
            print(f"korvo: {host.name} is still hosted at the end of the program, and its exit is not called; "
                  "stop it before, as by `with robot.host(...)`", file=sys.stderr)


def _members(kind):
    """By name, those of the base first."""
    found = {}
    for base in reversed(kind.__mro__):
        found.update(vars(base))
    return list(found.items())


def _overloads(name, function, number):
    code = function.__code__
    if code.co_kwonlyargcount or code.co_flags & 0x0C:
        raise TypeError(f"{name}: a method is called with as many arguments as it names: no *, no **, none by name only")
    parameters = code.co_varnames[1:code.co_argcount]
    hints = _hints(function)
    described, texts = _documentation(function.__doc__ or "", parameters)
    typed = [(each, _type_name(hints[each], f"{name}, parameter {each}") if each in hints else "value",
              texts.get(each, "")) for each in parameters]
    result = _type_name(hints["return"], f"{name}, result") if "return" in hints else "value"
    least = len(parameters) - len(function.__defaults__ or ())
    return [{"name": name, "description": described, "parameters": typed[:count],
             "result": ("result", result, texts.get("returns", "")), "callback": number}
            for count in range(len(parameters), least - 1, -1)]


def _hints(function):
    hints = function.__annotations__
    if any(isinstance(hint, str) for hint in hints.values()):
        import typing

        hints = typing.get_type_hints(function)
    return hints


def _type_name(hint, where):
    try:
        if hint in _PLAIN:
            return _PLAIN[hint]
    except TypeError:
        pass  # Not hashable: no type.
    origin, arguments = getattr(hint, "__origin__", None), getattr(hint, "__args__", ())
    if origin is list and len(arguments) == 1:
        element = _type_name(arguments[0], where)
        return f"list<{element if element in _ELEMENTS else 'value'}>"
    if origin is dict and len(arguments) == 2 and arguments[0] is str:
        element = _type_name(arguments[1], where)
        return f"map<{element if element in _ELEMENTS else 'value'}>"
    typing = sys.modules.get("typing")
    if typing and (hint is typing.Any or origin is typing.Union) or type(hint).__name__ == "UnionType":
        return "value"
    raise TypeError(f"{where}: a hint is bool, int, float, str, bytes, list, dict, a list or a dict[str, …] of those, "
                    f"korvo.Float32, korvo.Int64, korvo.Object or none, not {hint!r}")


def _documentation(text, parameters):
    """What a docstring says of the whole, and of each parameter."""
    rest, texts = [], {}
    for line in text.strip().splitlines():
        said = re.fullmatch(r"\s*(\w+): (.+)", line)
        if said and (said[1] in parameters or said[1] == "returns"):
            texts[said[1]] = said[2].strip()
        else:
            rest.append(line)
    return _clean("\n".join(rest)), texts


def _clean(text):
    """The first paragraph, on one line."""
    return " ".join(text.strip().split("\n\n")[0].split())
