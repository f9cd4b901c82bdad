"""What the platform logs, by way of `logging`."""

from . import _native

_LEVELS = {"silent": 0, "fatal": 1, "error": 2, "warning": 3, "info": 4, "verbose": 5, "debug": 6}
_OF_LOGGING = {1: 50, 2: 40, 3: 30, 4: 20, 5: 15, 6: 10}
_thread = None


def log_to_logging(level=None):
    """Has what the platform logs go to `logging` rather than to standard error: to the logger "korvo." and the category, as
    "korvo.mw.link". May be repeated.

    level  what the platform is to log from now on: "error", "warning", "info" (as it starts), "verbose", "debug"; `logging`
           decides as well what is shown
    """
    global _thread
    if level is not None and level not in _LEVELS:
        raise ValueError(f"level= is one of {', '.join(_LEVELS)}, not {level!r}")
    _native.begin_log(None if level is None else _LEVELS[level])
    if _thread is None:
        import atexit
        import threading

        _thread = threading.Thread(target=_hand_over, name="korvo log", daemon=True)
        _thread.start()
        atexit.register(_end)  # Runs before the package ends, whose last lines go to standard error again.


def _hand_over():
    import logging

    while (records := _native.take_log(None)) is not None:
        for level, category, function, text, time, lost in records:
            logger = logging.getLogger(f"korvo.{category}")
            if lost:
                logger.warning("%d lines of the log are lost", lost)
            number = _OF_LOGGING.get(level, logging.INFO)
            if logger.isEnabledFor(number):
                record = logger.makeRecord(logger.name, number, "", 0, text, (), None, function)
                record.created, record.msecs = time, time % 1 * 1000
                logger.handle(record)


def _end():
    _native.end_log()
    _thread.join(2)
