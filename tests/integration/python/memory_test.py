#!/usr/bin/env python3
"""The package `korvo`: values, changes and views of a broker's memory."""

import asyncio
import datetime
import threading
import time
import unittest

import kit
import korvo

try:
    import numpy
except ImportError:
    numpy = None


def setUpModule():
    kit.prepare()
    unittest.addModuleCleanup(kit.Broker().stop)


class Memory(kit.PackageTest):
    def test_values_keep_their_type(self):
        values = [None, True, 0, -2**31, 2**31 - 1, 2**31, -2**63, 2**63 - 1, 0.1, float("inf"), "", "é\0", "\udcff", b"",
                  b"\0\xff", [], [1, [2.5, None]], {}, {"a": {"b": [True]}}, korvo.Float32(0.25), korvo.Int64(3)]
        for value in values:
            with self.subTest(value=value):
                self.robot["Value"] = value
                read = self.robot["Value"]
                self.assertEqual(read, value)
                self.assertIs(type(read), type(value))
                self.robot["Value"] = read
                self.assertIs(type(self.robot["Value"]), type(value))
        self.robot["Value"] = (1, 2)
        self.assertEqual(self.robot["Value"], [1, 2])

    def test_what_cannot_be_kept_says_so_before_it_is_sent(self):
        endless = []
        endless.append(endless)
        self.robot["Odd"] = "before"
        for value, kind, words in ((2**63, OverflowError, "64 bits"), ({1: 2}, TypeError, "keys of a map are str"),
                                   (endless, ValueError, "inside itself"), ([object()], TypeError, "object"),
                                   ({"a": {1j}}, TypeError, "set")):
            with self.subTest(value=repr(value)), self.assertRaisesRegex(kind, words):
                self.robot["Odd"] = value
        self.assertEqual(self.robot["Odd"], "before")

    @unittest.skipUnless(numpy, "numpy is not installed")
    def test_numbers_and_arrays_of_numpy(self):
        for value, kind in ((numpy.float32(0.5), korvo.Float32), (numpy.float64(0.5), float), (numpy.bool_(True), bool),
                            (numpy.uint8(7), int), (numpy.int64(7), korvo.Int64)):
            self.robot["Numpy"] = value
            self.assertEqual((self.robot["Numpy"], type(self.robot["Numpy"])), (value, kind))
        whole = numpy.arange(12, dtype=">f4").reshape(3, 4)
        for value in (whole, whole[:, ::2], whole.T, whole[0, ::-2], numpy.zeros((0, 3)), numpy.array(5), numpy.array([True])):
            self.robot["Numpy"] = {"in": [value]}
            read = self.robot["Numpy"]["in"][0]
            self.assertEqual((read.dtype, read.shape), (value.dtype, value.shape))
            numpy.testing.assert_array_equal(read, value)
        with self.assertRaisesRegex(TypeError, "no numbers"):
            self.robot["Numpy"] = numpy.array([object()])

    def test_is_a_dict(self):
        self.robot.update({"Dict/a": 1, "Dict/b": [2]})
        self.assertEqual(self.robot.keys("Dict/"), ["Dict/a", "Dict/b"])
        self.assertEqual(dict(self.robot.items("Dict/")), {"Dict/a": 1, "Dict/b": [2]})
        self.assertIn("Dict/a", self.robot)
        self.assertNotIn("Dict", self.robot)
        self.assertNotIn(7, self.robot)
        self.assertEqual(len(self.robot), len(list(self.robot)))
        self.assertEqual(self.robot.get("Dict/c", 5), 5)
        self.assertEqual(self.robot.pop("Dict/a"), 1)
        with self.assertRaisesRegex(KeyError, "did you mean Dict/b") as raised:
            self.robot["Dict/bb"]
        self.assertIsInstance(raised.exception, korvo.NoSuchKey)
        with self.assertRaises(korvo.NoSuchKey):
            del self.robot["Dict/a"]
        self.assertEqual(repr(self.robot.table("Dict/")), "Dict/b  [2]")
        self.robot["Dict/<"] = "<&>"
        self.assertIn("<td>Dict/&lt;</td><td>&#x27;&lt;&amp;&gt;&#x27;</td>", self.robot.table("Dict/")._repr_html_())

    def test_tells_what_is_known_of_a_key(self):
        before = time.time()
        self.robot.raise_event("Info", 1)
        self.robot.raise_event("Info", 2)
        self.robot.describe("Info", "About it.")
        info = self.robot.info("Info")
        self.assertEqual((info.kind, info.value, info.description), ("Event", 2, "About it."))
        self.assertAlmostEqual(info.time, before, delta=30)
        self.assertEqual([value for _, value in self.robot.history("Info")], [1, 2])
        self.robot.raise_event("Micro", micro=True)
        self.assertEqual(self.robot.info("Micro").kind, "MicroEvent")
        self.assertEqual(self.robot.history("Micro"), [])
        with self.assertRaises(korvo.NoSuchKey):
            self.robot.info("Nothing")


class Following(kit.PackageTest):
    def setUp(self):
        super().setUp()
        self.writer = self.enterContext(korvo.connect(timeout=30))

    def test_tells_each_change_of_what_is_wanted(self):
        self.robot["Feed/a"] = 1
        with self.robot.follow("Feed/", "Feeding", timeout=30, snapshot=True) as follow:
            self.writer["Feed/a"] = 2
            self.writer["Fee"] = 0
            self.writer.raise_event("Feeding", True)
            del self.writer["Feed/a"]
            told = [(change.key, change.old, change.value, change.what) for _, change in zip(range(4), follow)]
        self.assertEqual(told, [("Feed/a", None, 1, "state"), ("Feed/a", 1, 2, "stored"),
                                ("Feeding", None, True, "raised"), ("Feed/a", 2, None, "removed")])
        self.assertEqual(list(follow), [])
        self.assertEqual(list(self.robot.follow("Feed/", timeout=0.05)), [])

    def test_loses_the_oldest_and_counts_them(self):
        with self.robot.follow("Fast", "Last", capacity=10) as follow:
            for value in range(100):
                self.writer["Fast"] = value
            self.writer["Last"] = 1
            kit.until(lambda: self.robot["Last"] == 1)
            seen = []
            while not seen or seen[-1].key != "Last":
                seen += follow.take(30)
        fast = [change for change in seen if change.key == "Fast"]
        self.assertEqual(fast[-1].value, 99)
        self.assertEqual(sum(1 + change.lost for change in seen), 101)

    def test_calls_back_without_holding_the_raiser(self):
        entered, go_on, values = threading.Event(), threading.Event(), []

        def changed(change):
            values.append(change.value)
            entered.set()
            go_on.wait(30)

        with self.robot.on("Watched", changed):
            self.writer.raise_event("Watched", 1)
            self.assertTrue(entered.wait(30))
            self.writer.raise_event("Watched", 2)  # Returns although the callback has not.
            go_on.set()
            kit.until(lambda: values == [1, 2])

    def test_async_for(self):
        async def main():
            async with korvo.connect() as robot:
                follow = robot.follow("Async/", timeout=30)
                for value in range(5):
                    self.writer[f"Async/{value}"] = value
                told = []
                async for change in follow:
                    told.append(change.value)
                    if len(told) == 5:
                        break
                follow.stop()
                self.assertEqual([change async for change in follow], [])
                self.assertEqual([change async for change in robot.follow("Async/", timeout=0.05)], [])
                return told

        self.assertEqual(asyncio.run(main()), list(range(5)))

    def test_goes_on_where_another_one_was(self):
        with self.robot.follow("Since/") as follow:
            for value in range(5):
                self.writer[f"Since/{value % 2}"] = value
            first = []
            while len(first) < 3:
                first.append(next(follow))
            with self.robot.follow("Since/", since=first[-1].position, timeout=30) as again:
                self.assertEqual([change.value for _, change in zip(range(2), again)], [3, 4])
            for since in (first[0].time, datetime.datetime.fromtimestamp(first[0].time)):
                with self.robot.follow("Since/", since=since, timeout=30) as again:
                    values = [change.value for _, change in zip(range(5), again)]
                    self.assertEqual(values, [0, 1, 2, 3, 4])
            # Of another memory: what there is stands for what was missed.
            with self.robot.follow("Since/", since=(1, 1), timeout=30) as again:
                told = sorted((change.key, change.value, change.what) for _, change in zip(range(2), again))
                self.assertEqual(told, [("Since/0", 4, "state"), ("Since/1", 3, "state")])
        for wrong in ("yesterday", (1,), (1, -1), True):
            with self.assertRaisesRegex(TypeError, "since= is the position of a change, or a time"):
                self.robot.follow(since=wrong)

    def test_says_what_cannot_be_followed(self):
        for wrong, kind, words in ((lambda: self.robot.follow("Key", 3), TypeError, "a str, not int: 3"),
                                   (lambda: self.robot.follow("Key", rate="fast"), ValueError, "fast"),
                                   (lambda: self.robot.follow("Key", rate=-1), korvo.Error, "rate"),
                                   (lambda: self.robot.follow("Key", timeout="soon"), ValueError, "soon"),
                                   (lambda: self.robot.on("Key", 3), TypeError, "what to call"),
                                   (lambda: self.robot.on(), TypeError, "what to call"),
                                   (lambda: self.robot.history("No such"), korvo.NoSuchKey, "No such")):
            with self.assertRaisesRegex(kind, words):
                wrong()

    def test_ends_with_its_robot(self):
        robot = korvo.connect()
        waiting = [robot.follow("Quiet"), robot.stream("Quiet")]
        next(waiting[1])  # That there is nothing.
        ended = [threading.Thread(target=list, args=[one]) for one in waiting]
        for thread in ended:
            thread.start()
        robot.close()
        for thread in ended:
            thread.join(30)
            self.assertFalse(thread.is_alive())


class Views(kit.PackageTest):
    def test_show_what_there_is_and_how_it_stands(self):
        view = self.robot.view("View/Key", capacity=64)
        seen = view.read()
        self.assertEqual((seen.state, seen.last), (korvo.ViewState.ABSENT, None))
        with self.assertRaisesRegex(korvo.Error, "no value in the view: the memory has no such key"):
            seen.value
        self.assertFalse(seen.is_fresh(3600))
        for value in (0.5, 7, "text", b"bytes", [1.5, {"a": None}], {"x": True}, korvo.Float32(0.25)):
            self.robot["View/Key"] = value
            before, seen = seen, view.read()
            self.assertEqual((seen.value, type(seen.value), seen.last), (value, type(value), value))
            self.assertGreater(seen.revision, before.revision)
            self.assertTrue(seen.is_fresh(3600))
            self.assertFalse(seen.is_fresh(0))
        value, age, revision, state = seen
        self.assertEqual((value, revision, state), (seen.value, seen.revision, korvo.ViewState.PRESENT))
        self.assertGreater(seen.age, age)
        self.robot["View/Key"] = "x" * 65
        self.assertEqual((view.read().state, view.read().last), (korvo.ViewState.TOO_LARGE, 0.25))
        self.assertTrue(view.alive(3600))

    def test_are_waited_for(self):
        view = self.robot.view("View/Awaited")
        revision = view.read().revision
        self.assertFalse(view.wait(revision, timeout=0.01))
        woken = []
        thread = threading.Thread(target=lambda: woken.append(view.wait(revision, timeout=60)))
        thread.start()
        with self.assertRaisesRegex(korvo.Error, "another thread waits"):
            for _ in iter(thread.is_alive, False):
                view.read()
        self.robot["View/Awaited"] = 1
        thread.join()
        self.assertEqual((woken, view.read().value), ([True], 1))

    def test_streams_have_every_value_or_count_it(self):
        whole, short = self.robot.stream("View/Whole", timeout=0.01), self.robot.stream("View/Short", depth=4)
        for value in range(100):
            self.robot.update({"View/Whole": value, "View/Short": value})
        self.assertEqual(([seen.last for seen in whole], whole.lost), ([None, *range(100)], 0))
        late = [seen.value for seen in short.take(30)]
        self.assertEqual((late[-1], len(late) + short.lost), (99, 101))
        self.assertGreater(short.lost, 0)

    def test_explain_a_key(self):
        self.robot["View/Explained"] = 1
        told = self.robot.explain("View/Explained")
        self.assertEqual((told["value"], told["kind"]), (1, "Data"))
        self.assertIn("value ", repr(told))
        self.assertIn("<td>kind</td>", told._repr_html_())
        with self.assertRaisesRegex(korvo.NoSuchKey, "did you mean View/Explained"):
            self.robot.explain("View/Explaind")


if __name__ == "__main__":
    unittest.main()
