#!/usr/bin/env python3
"""The package `korvo`: values, calls, hosting, asyncio, against a broker of its own."""

import asyncio
import contextlib
import datetime
import logging
import pydoc
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
    global broker
    kit.prepare()
    logging.disable()  # Methods fail here on purpose.
    broker = kit.Broker()
    unittest.addModuleCleanup(broker.stop)


class Arm(korvo.Module):
    """An arm."""

    moved = korvo.signal(float)

    def __init__(self):
        self.turns, self.seen, self.local = threading.Barrier(2), [], threading.local()

    @korvo.method
    def move(self, to: float, times: int = 1) -> float:
        """Moves the arm.

        to: Where to, in radians.
        returns: Where it is.
        """
        self.moved.emit(to)
        return to * times

    @korvo.method
    def kinds(self, texts: list[str], table: dict, data: bytes, flag: bool):
        return [texts, table, data, flag]

    @korvo.method
    def meet(self):
        """Returns when two are in it."""
        self.turns.wait(30)

    @korvo.method
    def fail(self, how: str):
        if how == "fields":
            raise korvo.Error("text", "Module", "place", "file", 12)
        raise ValueError("no good")

    @korvo.method
    def wrong(self) -> int:
        return "text"

    @korvo.method
    def there_and_back(self, depth: int) -> int:
        if depth == 0:
            return 0
        return self.robot.service("Other").there_and_back(depth - 1) + 1

    @korvo.method
    def slowly(self):
        try:
            self.sleep(60)
        finally:
            self.seen.append("woken")

    @korvo.on("Arm/Event")
    def event(self, key, value, message):
        self.seen.append((key, value))
        if value == "again":
            self.robot["Arm/Event"]  # Of the chain that holds the event.


class Package(unittest.TestCase):
    def setUp(self):
        self.robot = korvo.connect(timeout=30)
        self.addCleanup(self.robot.close)

    def host(self, module, name=None):
        return self.enterContext(korvo.connect()).host(module, name)


class Memory(Package):
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
        for value in (whole, whole[:, ::2], whole.T, numpy.zeros((0, 3)), numpy.array(5), numpy.array([True])):
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


class Following(Package):
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


class Views(Package):
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


class Services(Package):
    def test_methods_tell_what_they_are(self):
        self.host(Arm())
        arm = self.robot.service("Arm")
        self.assertLessEqual({"move", "meet", "moved"}, set(dir(arm)))
        text = pydoc.plain(pydoc.render_doc(arm.move)) + pydoc.plain(pydoc.render_doc(arm))
        for words in ("move(to: float, times: int) -> float", "move(to: float) -> float", "Moves the arm.",
                      "to: Where to, in radians.", "returns result: Where it is.", "signal moved(double)", "An arm."):
            self.assertIn(words, text)
        with self.assertRaisesRegex(AttributeError, "Arm has no moev; did you mean mov"):
            arm.moev
        with self.assertRaisesRegex(korvo.NoSuchService, "did you mean Arm"):
            self.robot.service("Amr")

    def test_arguments_are_judged_before_they_are_sent(self):
        self.host(Arm())
        arm = self.robot.service("Arm")
        self.assertEqual((arm.move(2, 3), arm.move(to=0.5), arm.move(0.5, times=2)), (6.0, 0.5, 1.0))
        self.assertEqual(arm.kinds(["a"], {"b": 1}, b"c", True), [["a"], {"b": 1}, b"c", True])
        for wrong in (lambda: arm.move("fast"), lambda: arm.kinds([1], {}, b"", True), lambda: arm.move(1.0, 2, 3)):
            with self.assertRaisesRegex(korvo.CallError, "there is .*"):
                wrong()
        with self.assertRaisesRegex(TypeError, "no overload takes speed by name"):
            arm.move(speed=1)
        with self.assertRaisesRegex(korvo.Error, "returned String, where int64 is promised"):
            arm.wrong()

    def test_a_double_narrows_where_only_a_float_is_wanted(self):
        class Narrow(korvo.Module):
            @korvo.method
            def take(self, one: korvo.Float32, more: list[float]) -> list:
                return [one, more]

        self.host(Narrow())
        take = self.robot.service("Narrow").take
        self.assertEqual(take(0.25, [1, 2.5]), [0.25, [1.0, 2.5]])
        self.assertEqual(take(1, []), [1.0, []])
        with self.assertRaises(korvo.CallError):
            take("1", [])

    def test_errors_keep_their_fields(self):
        self.host(Arm())
        fail = self.robot.service("Arm").fail
        with self.assertRaises(korvo.Error) as raised:
            fail("fields")
        error = raised.exception
        self.assertEqual((error.message, error.module, error.method, error.file, error.line),
                         ("text", "Module", "place", "file", 12))
        with self.assertRaisesRegex(korvo.Error, "^Arm.fail: ValueError: no good$") as raised:
            fail("")
        self.assertEqual(raised.exception.file, __file__)
        with open(__file__, encoding="utf-8") as text:
            self.assertIn("raise ValueError", text.readlines()[raised.exception.line - 1])

    def test_methods_run_in_parallel_and_chains_come_back(self):
        self.host(Arm())
        self.host(Arm(), "Other")
        arm = self.robot.service("Arm")
        second = arm.meet.start()
        third = threading.Thread(target=arm.meet)  # Calls of one thread to one object wait for each other.
        third.start()
        second.result(30)
        third.join()
        other = self.robot.service("Other")
        self.assertEqual(other.there_and_back(0), 0)
        self.assertEqual(self.robot.service("Arm").there_and_back(1), 1)

        class Back(korvo.Module):
            @korvo.method
            def down(self, depth: int) -> int:
                return 0 if depth == 0 else self.robot.service("Forth").down(depth - 1) + 1

        class Forth(korvo.Module):
            @korvo.method
            def down(self, depth: int) -> int:
                return 0 if depth == 0 else self.robot.service("Back").down(depth - 1) + 1

        self.host(Back())
        self.host(Forth())
        self.assertEqual(self.robot.service("Back").down(20, timeout=30), 20)

    def test_raisers_wait_for_a_method_that_is_subscribed(self):
        arm = Arm()
        host = self.host(arm)
        for value in (1, "again", 2.5):
            self.robot.raise_event("Arm/Event", value)
        self.assertEqual(arm.seen, [("Arm/Event", value) for value in (1, "again", 2.5)])
        self.assertEqual(self.robot.info("Arm/Event").subscribers, ["Arm"])
        host.stop()
        self.robot.raise_event("Arm/Event", 3)
        self.assertEqual(len(arm.seen), 3)
        host.stop()

    def test_a_call_that_is_given_up_wakes_its_method_and_holds_nobody(self):
        arm = Arm()
        self.host(arm)
        service = self.robot.service("Arm")
        with self.assertRaisesRegex(TimeoutError, "did not answer Arm.slowly within 0.1 s"):
            service.slowly(timeout=0.1)
        kit.until(lambda: arm.seen == ["woken"])
        self.assertEqual(service.move(1.0, timeout=30), 1.0)
        slow = service.slowly.start()
        with self.assertRaises(korvo.Timeout):
            slow.result(0.05)
        slow.cancel()
        with self.assertRaises(korvo.Error):
            slow.result(30)
        self.assertTrue(slow.done())
        kit.until(lambda: len(arm.seen) == 2)

    def test_signals_come_in_order_until_they_are_stopped(self):
        self.host(Arm())
        arm = self.robot.service("Arm")
        got, all_there = [], threading.Event()

        def moved(to):
            got.append(to)
            if len(got) == 100:
                all_there.set()

        with arm.moved.connect(moved):
            for future in [arm.move.start(i) for i in range(100)]:
                future.result(30)
            self.assertTrue(all_there.wait(30))
        arm.move(0)
        self.assertEqual(got, [float(i) for i in range(100)])

    def test_hosting_refuses_what_cannot_be_a_module(self):
        class Bad(korvo.Module):
            @korvo.method
            def method(self, argument: set):
                pass

        class Sprawling(korvo.Module):
            @korvo.method
            def method(self, *arguments):
                pass

        class Failing(korvo.Module):
            def init(self):
                raise ValueError("not today")

        for module, words in ((Bad(), "method, parameter argument: a hint is"), (Sprawling(), "no \\*"),
                              (3, "korvo.Module")):
            with self.assertRaisesRegex(TypeError, words):
                self.robot.host(module)
        with self.assertRaisesRegex(ValueError, "not today"):
            self.robot.host(Failing())
        self.assertNotIn("Failing", self.robot.services())
        first = self.robot.host(Arm())
        with self.assertRaisesRegex(RuntimeError, "hosted already"):
            self.robot.host(first.module)
        with self.assertRaisesRegex(korvo.Error, "Arm"):
            self.robot.host(Arm())
        with self.assertRaisesRegex(RuntimeError, "not hosted"):
            Arm().sleep(1)


class Asyncio(Package):
    def test_futures_are_awaited_and_cancelled(self):
        arm = Arm()
        self.host(arm)

        async def main():
            async with korvo.connect() as robot:
                service = robot.service("Arm")
                results = await asyncio.gather(*(service.move.start(i) for i in range(64)))
                with self.assertRaisesRegex(korvo.Error, "no good"):
                    await service.fail.start("")
                with self.assertRaises(asyncio.TimeoutError):
                    await asyncio.wait_for(service.slowly.start(), 0.1)
                return results

        self.assertEqual(asyncio.run(main()), [float(i) for i in range(64)])
        kit.until(lambda: arm.seen == ["woken"])

    def test_callbacks_run_on_the_loop(self):
        self.host(Arm())

        async def main():
            done = asyncio.get_running_loop().create_future()

            async def moved(to):
                done.set_result((to, threading.current_thread()))

            arm = self.robot.service("Arm")
            with arm.moved.connect(moved):
                await arm.move.start(2)
                return await asyncio.wait_for(done, 30)

        self.assertEqual(asyncio.run(main()), (2.0, threading.main_thread()))


class Connections(unittest.TestCase):
    def test_tell_which_brokers_there_are(self):
        with self.assertRaisesRegex(korvo.NotConnected, "korv.* did you mean korvo"):
            korvo.connect("korv")

    def test_end_by_themselves_unless_something_stands_by_them(self):
        counted = korvo.connect()
        self.addCleanup(counted.close)
        names = counted.services()

        class Forgotten(korvo.Module):
            @korvo.method
            def answer(self) -> int:
                return 42

        korvo.connect().host(Forgotten())
        self.assertEqual(counted.service("Forgotten").answer(), 42)
        robot = korvo.connect()
        robot.close()
        robot.close()
        with self.assertRaises(korvo.NotConnected):
            robot["Key"]
        self.assertEqual(set(counted.services()) - set(names), {"Forgotten"})

    def test_come_back_after_a_restart_with_what_they_host(self):
        robot = korvo.connect(timeout=30)
        self.addCleanup(robot.close)
        arm, notices = Arm(), []
        follow = robot.follow("Arm/Event", "Before")
        view, stream = robot.view("Arm/Event"), robot.stream("Arm/Event")
        next(stream)
        robot.on_notice(lambda kind, text: notices.append(kind))
        robot.host(arm, "Returning")
        robot["Before"] = 1
        self.assertEqual(next(change.key for change in follow if change.what == "stored"), "Before")
        broker.kill()
        kit.until(lambda: not robot.connected)
        with self.assertRaises(korvo.NotConnected):
            robot["Before"]
        kit.until(lambda: view.read().state is korvo.ViewState.DISCONNECTED)
        broker.start()
        kit.until(lambda: "restored" in notices)
        self.assertNotIn("Before", robot)
        with korvo.connect(timeout=30) as other:
            kit.until(lambda: "Returning" in other.services())
            self.assertEqual(other.service("Returning").move(2.0), 2.0)
            kit.until(lambda: "Returning" in self.subscribers(other))
            other.raise_event("Arm/Event", 1)
        self.assertEqual(arm.seen, [("Arm/Event", 1)])
        told = []
        while not told or told[-1].what != "raised":
            told.append(next(follow))
        self.assertEqual([(change.what, change.old) for change in told if change.key == "Before"], [("removed", 1)])
        self.assertEqual(told[-1].value, 1)
        seen = next(seen for seen in stream if seen.state is korvo.ViewState.PRESENT)
        self.assertEqual(seen.value, 1)
        self.assertEqual(view.read().value, 1)

    @staticmethod
    def subscribers(robot):
        with contextlib.suppress(korvo.Error):
            return robot.info("Arm/Event").subscribers
        return []

    def test_a_frozen_broker_is_no_answer(self):
        with korvo.connect() as robot:
            memory = robot.service("HXMemory")
            with broker.frozen(), self.assertRaisesRegex(korvo.Timeout, "broker korvo did not answer HXMemory.getData"):
                memory.getData("Key", timeout=0.2)


if __name__ == "__main__":
    unittest.main()
