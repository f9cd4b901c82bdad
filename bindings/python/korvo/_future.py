"""Results that are on their way."""

import sys

from . import _state


class Future:
    """The result of a call that was started.

    `result()` waits for it, `await` does in programs of asyncio. To drop a future cancels nothing.
    """

    __slots__ = ("_native", "_what")

    def __init__(self, native, what):
        self._native = native
        self._what = what

    def done(self):
        """Whether there is a result or an error, or it was cancelled."""
        return self._native.done()

    def cancelled(self):
        return self._native.cancelled()

    def cancel(self):
        """Asks for the call to be given up: its method is not started, or woken up where it sleeps.

        Returns whether it is cancelled now.
        """
        return self._native.cancel()

    def result(self, timeout=None):
        """Waits for the result, at most `timeout` seconds; the call goes on when they are over.

        Raises what the call failed with, `Timeout`, `Cancelled`.
        """
        return self._native.result(timeout)

    def exception(self, timeout=None):
        """Waits like `result`, and returns the error, or None."""
        return self._native.exception(timeout)

    def add_done_callback(self, callback):
        """Has `callback(future)` called when it is done: on a thread of the package, or at once."""
        def call():
            _state.drop(number)
            callback(self)

        number = _state.keep(call)
        self._native.notify(number)

    def __await__(self):
        if not self._native.done():
            asyncio = sys.modules["asyncio"]
            loop = asyncio.get_running_loop()
            done = loop.create_future()

            def finish():
                if not done.done():
                    done.set_result(None)

            def wake(_):
                try:
                    loop.call_soon_threadsafe(finish)
                except RuntimeError:
                    pass  # The loop has been closed meanwhile.

            self.add_done_callback(wake)
            try:
                yield from done
            except asyncio.CancelledError:
                self.cancel()
                raise
        return self._native.result(None)

    def __repr__(self):
        state = "cancelled" if self.cancelled() else "done" if self.done() else "running"
        return f"<korvo.Future {self._what} {state}>"
