#!/usr/bin/env python3
"""The lessons in Python print what they should, with the types that the package states; `korvo host` hosts them.

    lessons_test.py <examples>
"""

import ast
import inspect
import pathlib
import signal
import subprocess
import sys
import unittest

import kit
import korvo

EXAMPLES = pathlib.Path(sys.argv.pop(1))
LESSONS = sorted(EXAMPLES.glob("*/expected_python.txt"))


def setUpModule():
    kit.prepare()


class Lessons(unittest.TestCase):
    def setUp(self):
        broker = kit.Broker()
        self.addCleanup(broker.stop)

    def test_print_what_they_should(self):
        self.assertEqual(len(LESSONS), 5)
        for expected in LESSONS:
            with self.subTest(lesson=expected.parent.name):
                (lesson,) = expected.parent.glob("*.py")
                ran = subprocess.run([sys.executable, lesson], capture_output=True, text=True, timeout=60, check=False)
                self.assertEqual((ran.returncode, ran.stdout, ran.stderr), (0, expected.read_text(), ""))

    def test_are_hosted_by_the_program(self):
        lesson = next(EXAMPLES.glob("*/greeter.py"))
        hosting = subprocess.Popen([kit.KORVO, "host", "--module", lesson], stdout=subprocess.PIPE,
                                   stderr=subprocess.PIPE, text=True)
        self.addCleanup(hosting.kill)
        self.assertEqual(hosting.stderr.readline(), "korvo: hosting for broker korvo: Greeter\n")
        told = subprocess.run([kit.KORVO, "methods", "Greeter"], capture_output=True, text=True, check=True).stdout
        self.assertIn("greet(string whom) -> string\n    Makes a greeting.\n      whom: Whom to greet.\n"
                      "      returns result: One sentence.\n", told)
        called = subprocess.run([kit.KORVO, "call", "Greeter", "greet", '"Ada"'], capture_output=True, text=True, check=True)
        self.assertEqual(called.stdout, '"Hello, Ada!"\n')
        hosting.send_signal(signal.SIGTERM)
        self.assertEqual(kit.ended(hosting), (0, "", ""))

    def test_what_cannot_be_hosted_is_an_error(self):
        for arguments, status, words in (([kit.__file__], 1, "no class that derives"), (["/nowhere.py"], 1, "nowhere"),
                                         ([kit.__file__, "arm"], 2, "a process each"),
                                         ([LESSONS[0].parent / "greeter.py", "--broker", "nobody"], 3, "nobody")):
            with self.subTest(arguments=arguments):
                options = [word for one in arguments[:2 if "arm" in arguments else 1] for word in ("--module", one)]
                ran = subprocess.run([kit.KORVO, "host", *options, *arguments[len(options) // 2:]], capture_output=True,
                                     text=True, timeout=60, check=False)
                self.assertEqual(ran.returncode, status, ran.stderr)
                self.assertIn(words, ran.stderr)


class Types(unittest.TestCase):
    def test_stubs_name_what_there_is(self):
        stubs = pathlib.Path(korvo.__file__).with_suffix(".pyi").read_text(encoding="utf-8")
        stated = {}
        for node in ast.parse(stubs).body:
            if isinstance(node, (ast.ClassDef, ast.FunctionDef)) and not node.name.startswith("_"):
                members = node.body if isinstance(node, ast.ClassDef) else []
                stated[node.name] = {one.name for one in members if isinstance(one, ast.FunctionDef)}
        self.assertEqual(set(stated), set(korvo.__all__))
        for name, members in stated.items():
            kind = getattr(korvo, name)
            if inspect.isclass(kind) and name != "signal":  # What one gets of it is another class.
                self.assertEqual({member for member in members if not hasattr(kind, member)}, set(), name)
                own = {member for member in vars(kind) if not member.startswith("_")}
                documented = {one for base in kind.__mro__ if base.__module__.startswith("korvo")
                              for one in stated.get(base.__name__, ())} | {"stop"}
                fields = {*getattr(kind, "_fields", ()), *getattr(kind, "__members__", ()), "robot"}
                self.assertLessEqual(own - fields, documented, name)
            self.assertTrue(kind.__doc__, name)

    def test_the_lessons_are_typed(self):
        if subprocess.run([sys.executable, "-c", "import mypy"], capture_output=True, check=False).returncode:
            self.skipTest("mypy is not installed")
        lessons = [lesson for expected in LESSONS for lesson in expected.parent.glob("*.py")]
        ran = subprocess.run([sys.executable, "-m", "mypy", "--strict", "--cache-dir=/dev/null", *lessons],
                             capture_output=True, text=True, check=False)
        self.assertEqual(ran.returncode, 0, ran.stdout + ran.stderr)


if __name__ == "__main__":
    unittest.main()
