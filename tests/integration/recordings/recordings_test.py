#!/usr/bin/env python3
"""Records real brokers with the real program, and reads the files with a reader that is not ours.

    recordings_test.py KORVO FOLDER

FOLDER keeps what npm fetches for that reader; where there is no npm, or it can fetch nothing, those tests are skipped.
"""

import csv
import io
import json
import os
import pathlib
import select
import shutil
import signal
import subprocess
import sys
import tempfile
import time
import unittest

KORVO, CACHE = (os.path.abspath(argument) for argument in sys.argv[1:3])
HERE = pathlib.Path(__file__).parent


def until(condition, limit=60):
    end = time.monotonic() + limit
    while not condition():
        if time.monotonic() > end:
            raise TimeoutError
        time.sleep(0.02)


def reader_folder():
    """Where the other reader is installed; None where it cannot be."""
    if not shutil.which("npm") or not shutil.which("node"):
        return None
    os.makedirs(CACHE, exist_ok=True)
    for name in ("package.json", "package-lock.json", ".npmrc", "read.mjs"):
        shutil.copy(HERE / name, CACHE)
    if not os.path.isdir(os.path.join(CACHE, "node_modules", "@mcap")):
        done = subprocess.run(["npm", "ci", "--prefer-offline", "--no-update-notifier"], cwd=CACHE, capture_output=True)
        if done.returncode != 0:
            return None
    return CACHE


class Terminal:
    """A program on a terminal of its own."""

    def __init__(self, command, environment):
        self.shown = ""
        self.own, theirs = os.openpty()
        self.process = subprocess.Popen(command, stdin=theirs, stdout=theirs, stderr=theirs, env=environment)
        os.close(theirs)

    def read(self):
        if select.select([self.own], [], [], 0.05)[0]:
            try:
                self.shown += os.read(self.own, 65536).decode(errors="replace")
            except OSError:  # It has ended.
                return False
        return True

    def press(self, keys, shows=""):
        """Until it shows something that it did not before."""
        self.read()
        self.shown = ""
        os.write(self.own, keys.encode())
        until(lambda: not self.read() or shows in self.shown)

    def end(self):
        if self.own >= 0:
            while self.process.poll() is None:
                self.read()
            os.close(self.own)
            self.own = -1
        return self.process.wait()


class Recordings(unittest.TestCase):
    def setUp(self):
        self.folder = self.enterContext(tempfile.TemporaryDirectory())
        self.file = os.path.join(self.folder, "a.mcap")
        self.environment = {**os.environ, "XDG_RUNTIME_DIR": self.folder, "XDG_DATA_HOME": "/nonexistent",
                            "XDG_DATA_DIRS": "/nonexistent"}
        self.broker = self.start("run")

    def start(self, *words, until_text="is running", **options):
        log = os.path.join(self.folder, f"log{time.monotonic_ns()}")
        with open(log, "w") as stream:
            process = subprocess.Popen([KORVO, *words], stdout=stream, stderr=stream, cwd=self.folder,
                                       env=self.environment, **options)
        self.addCleanup(self.end, process)
        until(lambda: until_text in pathlib.Path(log).read_text() or process.poll() is not None)
        self.assertIsNone(process.poll(), pathlib.Path(log).read_text())
        return process

    def end(self, process):
        if process.poll() is None:
            process.send_signal(signal.SIGINT)
        process.wait(60)

    def korvo(self, *words, status=0, text=None):
        done = subprocess.run([KORVO, *words], capture_output=True, text=True, env=self.environment, cwd=self.folder,
                              input=text, timeout=120)
        self.assertEqual(done.returncode, status, done.stderr)
        return done.stdout

    def record(self, *words):
        return self.start("record", "-o", self.file, "--min-free", "0", *words, until_text="Ctrl-C ends it")

    def exported(self, file, *keys):
        """What of a recording does not hang on the time."""
        rows = csv.reader(io.StringIO(self.korvo("export", "--csv", file, *keys)))
        return [",".join(row[1:4]) for row in list(rows)[1:] if not row[1].startswith("HXMemory/")]

    def test_state_changes_and_moments(self):
        self.korvo("set", "Arm/Speed", "1")
        recorder = self.record()
        self.korvo("set", "Arm/Speed", "2.5", "--type", "float")
        self.korvo("raise", "Fall", "true")
        self.korvo("note", "kicked it here")
        self.korvo("set", "Arm/Pose", '{"x": 1, "y": [1, 2]}')
        self.korvo("rm", "Arm/Pose")
        self.end(recorder)
        self.assertEqual(recorder.returncode, 0)
        info = json.loads(self.korvo("info", "--json", self.file))
        self.assertTrue(info["whole"])
        self.assertEqual(info["missed"], 0)
        self.assertEqual(self.exported(self.file, "Arm/", "Fall"), [
            "Arm/Speed,state,1", "Arm/Speed,stored,2.5", "Fall,raised,true", 'Arm/Pose,stored,{"x":1,"y":[1,2]}',
            "Arm/Pose,removed,"])
        at = self.korvo("at", "--json", self.file, "Fall", "Arm/")
        self.assertIn('"value":2.5', at)
        self.assertIn("msgpack", at, "it stays a float")
        self.assertEqual(self.korvo("at", self.file, "start", "Arm/").split("\t")[1], "1")
        self.assertIn("kicked it here", self.korvo("info", self.file))
        self.korvo("at", self.file, "1s after note:kicked")
        self.assertIn("Arm/Speed\t1\t2.5", self.korvo("diff", self.file, "start", "end", "Arm/", status=1))
        self.korvo("at", self.file, "Nothing", status=1)
        self.korvo("at", self.file, "12 o'clock", status=2)
        self.korvo("record", "-o", self.file, status=1)  # It is there.

    def test_replay_recorded_again_is_the_same(self):
        recorder = self.record()
        for i in range(30):
            self.korvo("set", f"Key{i % 3}", str(i))
            self.korvo("raise", "Event", json.dumps({"i": i}))
        self.korvo("rm", "Key1")
        self.end(recorder)
        first = self.exported(self.file)
        self.assertIn("by", self.refusal())
        self.end(self.broker)
        self.broker = self.start("run")
        original, self.file = self.file, os.path.join(self.folder, "b.mcap")
        again = self.record()
        self.korvo("replay", original, "--rate", "1000", "--force")
        self.end(again)
        self.assertEqual([line for line in self.exported(self.file) if ",declared," not in line],
                         [line for line in first if ",declared," not in line])
        self.korvo("diff", original, self.file, "--align", "Event", "Key0", "Key2", "Event")

    def refusal(self):
        writer = self.start("raise", "Event", "1", "--rate", "50", until_text="")
        time.sleep(0.5)
        done = subprocess.run([KORVO, "replay", self.file], capture_output=True, text=True, env=self.environment)
        self.assertEqual(done.returncode, 1)
        self.end(writer)
        return done.stderr

    def test_what_is_older_than_a_second_survives_kill_9(self):
        recorder = self.record()
        for i in range(10):
            self.korvo("set", "N", str(i))
        time.sleep(1.5)
        recorder.kill()
        recorder.wait()
        self.assertFalse(json.loads(self.korvo("info", "--json", self.file))["whole"])
        before = self.exported(self.file)
        self.assertIn("N,stored,9", before)
        self.korvo("recover", self.file)
        self.assertTrue(json.loads(self.korvo("info", "--json", self.file))["whole"])
        self.assertEqual(self.exported(self.file), before)
        self.assertEqual(sorted(os.listdir(self.folder)).count("a.mcap.damaged"), 0)

    def test_parts_stand_alone_and_lose_nothing_between(self):
        recorder = self.record("--split", "1s")
        end = time.monotonic() + 4
        count = 0
        while time.monotonic() < end:
            count += 1
            self.korvo("set", "N", str(count))
        self.end(recorder)
        parts = sorted(pathlib.Path(self.folder).glob("a*.mcap"), key=lambda path: path.stat().st_mtime)
        self.assertGreater(len(parts), 1)
        told = []
        for part in parts:
            lines = self.exported(str(part), "N")
            self.assertTrue(part == parts[0] or lines[0].startswith("N,state,"), lines[:3])
            told += [int(line.rsplit(",", 1)[1]) for line in lines if ",stored," in line]
        self.assertEqual(told, list(range(1, count + 1)))

    def test_cut_and_csv(self):
        recorder = self.record()
        for i in range(5):
            self.korvo("set", "A", str(i))
        self.korvo("raise", "Fall", "1")
        self.korvo("set", "A", "9")
        self.end(recorder)
        cut = os.path.join(self.folder, "cut.mcap")
        self.korvo("cut", self.file, "--from", "Fall", "-o", cut, "A")
        self.assertEqual(self.exported(cut), ["A,state,4", "A,stored,9"])

    def test_a_broker_that_comes_back_gets_a_file_of_its_own(self):
        recorder = self.record()
        self.korvo("set", "N", "1")
        until(lambda: "N,stored,1" in self.exported(self.file))
        self.broker.kill()
        self.broker.wait()
        self.broker = self.start("run")
        second = os.path.join(self.folder, "a-2.mcap")
        until(lambda: os.path.exists(second))
        self.korvo("set", "N", "2")
        self.end(recorder)
        self.assertEqual(recorder.returncode, 0)
        self.assertEqual(self.exported(self.file, "N"), ["N,stored,1"])
        self.assertEqual(self.exported(second, "N")[-2:], ["N,removed,", "N,stored,2"], "it knows that N had gone")

    def test_replay_obeys_the_keyboard_and_goes_on_in_a_loop(self):
        recorder = self.record()
        for i in range(1, 4):
            self.korvo("set", "Arm/N", str(i))
            self.korvo("set", "Arm/Other", str(i))
        self.end(recorder)

        def steps_to(number):
            slow.press(".")
            got = subprocess.run([KORVO, "get", "Sim/N"], capture_output=True, text=True, env=self.environment)
            return got.stdout.strip() == number

        words = ["replay", self.file, "--map", "Arm/=Sim/", "--except", "Arm/Other", "--rate"]
        slow = Terminal([KORVO, *words, "0.0001"], self.environment)
        self.addCleanup(slow.end)
        slow.press(" ", "paused")
        until(lambda: steps_to("1"))
        until(lambda: steps_to("2"))
        slow.press("\x1b[D")  # Back to the begin.
        until(lambda: steps_to("1"))
        slow.press("q", "changes replayed")
        self.assertEqual(slow.end(), 0)
        self.korvo("get", "Sim/Other", status=1)

        loop = Terminal([KORVO, *words, "10", "--loop", "--force"], self.environment)
        self.addCleanup(loop.end)
        watched = self.korvo("watch", "Sim/N", "--count", "20", "--json")
        self.assertEqual(len(watched.splitlines()), 20)
        loop.press("q", "changes replayed")
        self.assertEqual(loop.end(), 0)

    def test_the_black_box_has_what_was_before_and_after(self):
        self.end(self.broker)
        box = self.start("run", "--black-box", "30s:1s", "--when", "Fall")
        self.korvo("set", "Before", "1")
        self.korvo("raise", "Fall", "1")
        self.korvo("set", "After", "2")
        files = pathlib.Path(self.folder, "recordings")
        until(lambda: list(files.glob("blackbox-*-Fall.mcap")))
        file = str(next(files.glob("blackbox-*-Fall.mcap")))
        until(lambda: json.loads(self.korvo("info", "--json", file))["whole"])
        self.assertEqual(self.exported(file, "Before", "Fall", "After"),
                         ["Before,stored,1", "Fall,raised,1", "After,stored,2"])
        saved = self.korvo("black-box", "save").strip()
        self.assertTrue(json.loads(self.korvo("info", "--json", os.path.join(self.folder, saved)))["whole"])
        self.korvo("set", "Last", "3")
        time.sleep(0.3)  # It need not be told of at once.
        box.send_signal(signal.SIGSEGV)
        self.assertNotEqual(box.wait(60), 0)
        crash = str(next(files.glob("blackbox-crash-*.mcap")))
        self.korvo("recover", crash)
        self.assertIn("Last,stored,3", self.exported(crash))
        self.assertIn("Before,stored,1", self.exported(crash))

    def test_another_reader_reads_the_same(self):
        folder = reader_folder()
        if not folder:
            self.skipTest("no npm, or it cannot fetch the reader")
        self.korvo("set", "Old", "true")
        recorder = self.record()
        values = {"Int": 7, "Text": "a\u00e9", "Pose": {"x": 1.5, "y": [1.0, 2.0]}, "Mixed": [1, "a"], "Empty": []}
        for key, value in values.items():
            self.korvo("set", key, json.dumps(value))
        self.end(recorder)
        crashed = os.path.join(self.folder, "crashed.mcap")
        with open(self.file, "rb") as source, open(crashed, "wb") as target:
            target.write(source.read()[:-40])
        self.korvo("recover", crashed)
        for file in (self.file, crashed):
            for way in ("indexed", "streamed"):
                done = subprocess.run(["node", "read.mjs", way, file], cwd=folder, capture_output=True, text=True)
                self.assertEqual(done.returncode, 0, done.stderr)
                messages = [json.loads(line) for line in done.stdout.splitlines()]
                found = {one["topic"]: one for one in messages}
                for key, value in values.items():
                    self.assertEqual(found[key]["data"], {"value": value})
                    self.assertEqual(found[key]["metadata"]["kind"], "data")
                    self.assertIn("korvo set", found[key]["metadata"]["callerid"])
                    self.assertLess(abs(found[key]["time"] - time.time()), 600)
                    self.assertEqual(found[key]["schema"]["encoding"], "jsonschema")
                self.assertEqual(found["Old"]["sequence"], 0)
                self.assertEqual(found["Int"]["schema"]["text"]["properties"]["value"], {"type": "integer"})
                self.assertEqual(found["Pose"]["schema"]["text"]["properties"]["value"]["properties"]["y"]["type"], "array")


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1] + sys.argv[3:])
