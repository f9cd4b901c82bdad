"""What the tests of the package share: a broker of their own, and programs that use it."""

import contextlib
import os
import signal
import subprocess
import sys
import tempfile
import textwrap
import time
import unittest

import korvo

KORVO = os.environ["KORVO_PROGRAM"]


class Broker:
    """One `korvo run`, that can be frozen, killed and started again."""

    def __init__(self):
        self.start()

    def start(self):
        with tempfile.TemporaryFile("w+") as log:
            self.process = subprocess.Popen([KORVO, "run", "--log-level", "info"], stderr=log)
            try:
                until(lambda: log.seek(0) == 0 and "is running" in log.read())
            except TimeoutError:
                self.kill()
                raise

    @contextlib.contextmanager
    def frozen(self):
        self.process.send_signal(signal.SIGSTOP)
        os.waitid(os.P_PID, self.process.pid, os.WSTOPPED | os.WNOWAIT)
        try:
            yield
        finally:
            self.process.send_signal(signal.SIGCONT)

    def kill(self):
        self.process.kill()
        self.process.wait()

    def stop(self):
        if self.process.poll() is None:
            self.process.terminate()
        if self.process.wait() != 0:
            raise RuntimeError(f"the broker ended with {self.process.returncode}")


def prepare():
    """A folder of their own for the sockets of this test, called by `setUpModule`."""
    folder = unittest.enterModuleContext(tempfile.TemporaryDirectory())
    os.environ.update(XDG_RUNTIME_DIR=folder, XDG_DATA_HOME="/nonexistent", XDG_DATA_DIRS="/nonexistent")


class PackageTest(unittest.TestCase):
    """A robot to each test, and modules that go with it."""

    def setUp(self):
        self.robot = korvo.connect(timeout=30)
        self.addCleanup(self.robot.close)

    def host(self, module, name=None):
        return self.enterContext(korvo.connect()).host(module, name)


def program(text, *arguments):
    """Starts a program of Python."""
    return subprocess.Popen([sys.executable, "-c", textwrap.dedent(text), *arguments], stdout=subprocess.PIPE,
                            stderr=subprocess.PIPE, text=True)


def ended(process, limit=60):
    """(status, output, errors) of a program."""
    try:
        output, errors = process.communicate(timeout=limit)
    except subprocess.TimeoutExpired:
        process.kill()
        output, errors = process.communicate()
        raise AssertionError(f"a program hangs: {output}{errors}") from None
    return process.returncode, output, errors


def until(condition, limit=30):
    end = time.monotonic() + limit
    while not condition():
        if time.monotonic() > end:
            raise TimeoutError
        time.sleep(0.01)
