"""The errors of the package."""


class Error(RuntimeError):
    """A call failed. The fields tell where, as far as it is known: `module`, `method`, `message`, `file`, `line`.

    Raised in a method of a hosted module it reaches the caller with all of them.
    """

    def __init__(self, message="", module="", method="", file="", line=0):
        super().__init__(message)
        self.message, self.module, self.method, self.file, self.line = message, module, method, file, line

    def __str__(self):
        place = ".".join(filter(None, (self.module, self.method)))
        return f"{place}: {self.message}" if place else self.message

    def __reduce__(self):
        return type(self), (self.message, self.module, self.method, self.file, self.line)


class NotConnected(Error, ConnectionError):
    """There is no such broker, or the connection to it is lost or closed."""


class Timeout(Error, TimeoutError):
    """There was no answer in the time given. The call is cancelled."""


class Cancelled(Error):
    """The call was cancelled."""


class NoSuchKey(Error, KeyError):
    """The memory has no such key."""

    __str__ = Error.__str__


class NoSuchService(Error, LookupError):
    """There is no service of that name."""


class CallError(Error, TypeError):
    """The object has no such method, or none that takes these arguments."""


_FAMILIES = {
    "connection": NotConnected, "timeout": Timeout, "cancelled": Cancelled, "service": NoSuchService, "call": CallError,
}


def error_of(family, message, module, method, file, line):
    """Called by the extension for what C++ throws."""
    return _FAMILIES.get(family, Error)(message, module, method, file, line)


def fields_of(error, trace, module, method):
    """Called by the extension for what a callback raised: (module, method, message, file, line). Its traceback, which
    only this process has, goes to `logging`."""
    if isinstance(error, Error) and error.module:
        return error.module, error.method, error.message, error.file, error.line
    import logging  # Imported when something has gone wrong: it costs as much as the package itself.

    logging.getLogger("korvo").error("%s failed", f"{module}.{method}" if module else method,
                                     exc_info=(type(error), error, trace))
    while trace is not None and trace.tb_next is not None:
        trace = trace.tb_next
    file, line = (trace.tb_frame.f_code.co_filename, trace.tb_lineno) if trace is not None else ("", 0)
    message = error.message if isinstance(error, Error) else f"{type(error).__name__}: {error}"
    return module, method, message, file, line


def did_you_mean(typed, names):
    """ "; did you mean NAME?", or nothing."""
    import difflib

    near = difflib.get_close_matches(typed, names, 1)
    near = near or sorted((name for name in names if typed and typed.lower() in name.lower()), key=len)
    return f"; did you mean {near[0]}?" if near and near[0] != typed else ""
