"""What C++ knows of Python by number. The collector sees who refers to whom here, which it would not in C++."""

import itertools

callbacks = {}
_numbers = itertools.count(1)


def keep(callback):
    """Gives a callback a number, under which C++ calls it until it is dropped."""
    number = next(_numbers)
    callbacks[number] = callback
    return number


def drop(number):
    callbacks.pop(number, None)
