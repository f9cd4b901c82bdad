"""Lesson 1 in Python: a module.

A module is a class with methods that anybody may call by name. Hints and docstrings tell callers what it takes. While a
broker runs:

    $ korvo host --module ./greeter.py
    $ korvo methods Greeter
    $ korvo call Greeter greet '"Ada"'
"""

import korvo


class Greeter(korvo.Module):
    """Greets people."""

    @korvo.method
    def greet(self, whom: str) -> str:
        """Makes a greeting.

        whom: Whom to greet.
        returns: One sentence.
        """
        return f"Hello, {whom}!"


def main() -> None:
    with korvo.connect() as robot, robot.host(Greeter()):
        greeter = robot.service("Greeter")
        print(greeter.greet.__doc__)
        print(greeter.greet("Ada"))
        try:
            greeter.greet(7)  # Refused before it is sent.
        except korvo.CallError as error:
            print("error:", error)


if __name__ == "__main__":
    main()
