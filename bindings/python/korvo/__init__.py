"""A robot in three lines.

    import korvo

    robot = korvo.connect()              # the only broker that runs; or its name, or KORVO_BROKER
    robot["Arm/Speed"] = 0.5
    print(robot["Arm/Speed"])

See `help(korvo.Robot)` for the memory, its events and how to follow them, `help(korvo.Module)` for modules written in
Python, and `help(robot.service("HXMemory"))` for what a service offers.
"""

import atexit as _atexit

from . import _native
from ._native import Batch
from ._errors import CallError, Cancelled, Error, NoSuchKey, NoSuchService, NotConnected, Timeout, error_of, fields_of
from ._following import Change, Follow, Watch
from ._future import Future
from ._hosting import Host, Module, method, on, signal, tell_hosted as _tell_hosted
from ._logging import log_to_logging
from ._object import Method, Object, Signal
from ._robot import Explanation, KeyInfo, Robot, connect
from ._state import callbacks as _callbacks
from ._values import Float32, Int64
from ._views import Seen, Stream, View, ViewState

__all__ = [
    "Batch", "CallError", "Cancelled", "Change", "Error", "Explanation", "Float32", "Follow", "Future", "Host", "Int64",
    "KeyInfo", "Method", "Module", "NoSuchKey", "NoSuchService", "NotConnected", "Object", "Robot", "Seen", "Signal", "Stream",
    "Timeout", "View", "ViewState", "Watch", "connect", "log_to_logging", "method", "on", "signal",
]

Batch.__module__ = "korvo"
_native.install({
    "Float32": Float32, "Int64": Int64, "Object": Object, "Change": Change, "callbacks": _callbacks,
    "view_states": tuple(ViewState),
    "error_of": error_of, "fields_of": fields_of,
})
_atexit.register(_native.end)
_atexit.register(_tell_hosted)
