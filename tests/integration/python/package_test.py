#!/usr/bin/env python3
"""The package `korvo`: calls, hosting, asyncio, connections, against a broker of its own."""

import asyncio
import contextlib
import logging
import pydoc
import threading
import unittest

import kit
import korvo


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


class Services(kit.PackageTest):
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
        with self.assertRaisesRegex(TimeoutError, "did not answer Arm.slowly within 2 s"):
            service.slowly(timeout=2)  # Long enough for it to have begun; else nothing is woken.
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

    def test_what_leaves_together_keeps_its_order(self):
        self.host(Arm())
        move, moved, outer = self.robot.service("Arm").move, [], korvo.Batch()
        with self.robot.service("Arm").moved.connect(moved.append):
            with outer, korvo.Batch() as inner:
                futures = [move.start(i) for i in range(50)]
                inner.flush()
                outer.__exit__()  # Not the inner one.
                futures += [move.start(i) for i in range(50, 100)]
            self.assertEqual([future.result(30) for future in futures], [float(i) for i in range(100)])
            kit.until(lambda: moved == [float(i) for i in range(100)])

    def test_a_batch_belongs_to_its_thread(self):
        self.host(Arm())
        batch, taken, failed = korvo.Batch(), [], []

        def begin():
            batch.__enter__()
            taken.append(korvo.Batch().__enter__())
            failed.extend(self.failures(batch.__enter__))

        thread = threading.Thread(target=begin)
        thread.start()
        thread.join()
        failed += self.failures(batch.flush) + self.failures(batch.__exit__) + self.failures(korvo.Batch().flush)
        self.assertEqual([str(error) for error in failed], [
            "this batch has begun already", "a batch is used by the thread that began it only",
            "a batch is used by the thread that began it only", "this batch has not begun, or has ended"])
        taken.clear()  # On this thread, which goes on as before.
        self.assertEqual(self.robot.service("Arm").move.start(1).result(30), 1.0)

    @staticmethod
    def failures(work):
        try:
            work()
        except RuntimeError as error:
            return [error]
        return []

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

    def test_boxes_and_mappings_find_who_leaves_and_returns(self):
        class HXFrameManager(korvo.Module):
            def __init__(self):
                self.boxes = []

            @korvo.method
            def _subscribeBoxToEvent(self, event: str, box: str, message, method: str, micro: bool):
                self.boxes.append((event, box, message, method, micro))

        def subscribe():
            try:
                memory.subscribeToMicroEvent("Boxed", "_BehaviorBox", "message", "method")
            except korvo.Error as error:
                return error.message

        memory = self.robot.service("HXMemory")
        for _ in range(2):
            manager = HXFrameManager()
            with self.robot.host(manager):
                self.assertIsNone(subscribe())
                self.assertEqual(manager.boxes, [("Boxed", "_BehaviorBox", "message", "method", True)])
            kit.until(lambda: subscribe() == "Cannot get frame manager proxy")
        memory.addMapping("Mapped", {"moved": "Mapped/Moved"})
        for to in (1.0, 2.0):
            with self.robot.host(Arm(), "Mapped"):
                move = self.robot.service("Mapped").move  # The memory connects a moment later.
                kit.until(lambda: move(to) == self.robot.get("Mapped/Moved"))

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


class Asyncio(kit.PackageTest):
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
        self.assertIn(1, (seen.last for seen in stream))  # The subscription may have come first, without a value.
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
