#!/usr/bin/env python3
"""Does what a document tells its reader to do, and sees that it answers what the document says.

    run.py <build folder> <document>...

Each document is read from top to bottom, in a shell of its own whose home and folder are empty but for `build/release`,
the given build, which holds what ./start or the command that the document names has built.

    ```console           is carried out:
    $ COMMAND            run by the shell, and must succeed; the lines below are what it prints
    korvo> LINE          typed into the console that was started last
    …                    stands for any lines, and within a line for any text

A command without lines below may print what it likes; one that shows `error: ` is to fail. What the console prints
must have the shown lines in their order. A broker, a hub, `korvo host`, `korvo watch` and `korvo top` go on until the
document ends, or until it starts the next broker.

    <!-- file: NAME -->  the next block is a file of that name
"""

import os
import pathlib
import re
import signal
import subprocess
import sys
import tempfile
import threading
import time

LIMIT = 300  # Seconds after which a command is taken to hang: some of them compile.
DONE = "~~~done"
LASTING = re.compile(r"^\S*korvo (run|host|watch|top|fleet (demo|hub))\b(?!.*(\||--help|--version))")


class Failure(Exception):
    pass


def fits(shown, printed):
    """Whether all printed lines are as shown, where `…` may stand for lines."""
    if not shown:
        return not printed
    if shown[0] == "…":
        return any(fits(shown[1:], printed[i:]) for i in range(len(printed) + 1))
    return bool(printed) and fits_line(shown[0], printed[0]) and fits(shown[1:], printed[1:])


def fits_line(shown, printed):
    return re.fullmatch(".*".join(re.escape(part) for part in shown.split("…")), printed) is not None


class Reader:
    """Collects the lines of a stream, so that its writer never waits."""

    def __init__(self, stream):
        self.lines = []
        self.changed = threading.Condition()
        self.thread = threading.Thread(target=self.read, args=(stream,), daemon=True)
        self.thread.start()

    def read(self, stream):
        for line in stream:
            with self.changed:
                self.lines.append(line.rstrip("\n"))
                self.changed.notify_all()
        with self.changed:
            self.lines.append(DONE + " end")
            self.changed.notify_all()

    def until(self, found, begin=0):
        """Waits for a line of which `found` is true. Returns its index."""
        end = time.monotonic() + LIMIT
        with self.changed:
            while True:
                for i in range(begin, len(self.lines)):
                    if found(self.lines[i]):
                        return i
                    if self.lines[i] == DONE + " end":
                        raise Failure("ended early; printed:\n" + "\n".join(self.lines[begin:]))
                if not self.changed.wait(end - time.monotonic()):
                    raise Failure("does not go on; printed:\n" + "\n".join(self.lines[begin:]))


class Lasting:
    """A program that runs beside the commands that follow. Its pipes are the shell's, which starts it."""

    def __init__(self, shell, command, number):
        self.command = command = re.sub(r"\s+#.*", "", command)  # What follows it here would be a comment, too.
        self.name = f"lasting{number}"
        pipes = [os.path.join(shell.folder, self.name + end) for end in (".in", ".out")]
        for pipe in pipes:
            os.mkfifo(pipe)
        shell.execute(f"{command} <{pipes[0]} >{pipes[1]} 2>&1 & {self.name}=$!")
        self.input = open(pipes[0], "w", buffering=1)
        self.reader = Reader(open(pipes[1]))
        self.typed = 0
        self.shown = []
        if "--console" in command:
            self.type("")
        elif " fleet demo" in command:
            self.reader.until(lambda line: "are running" in line)
        elif " run" in command or " fleet hub" in command:
            self.reader.until(lambda line: "is running" in line or line.startswith("KEY "))

    def type(self, line):
        """Types a line, and waits until what follows it was carried out."""
        if line == "exit":
            self.input.write("exit\n")
            self.reader.until(lambda printed: printed == DONE + " end")
            return
        self.typed += 1
        self.input.write(f"{line}\nset ~typed {self.typed}\nget ~typed\n")
        self.reader.until(lambda printed: printed == str(self.typed))

    def end(self, shell):
        shell.execute(f"kill -TERM ${self.name} 2>/dev/null; wait ${self.name}")
        self.input.close()
        self.reader.until(lambda line: line == DONE + " end")
        wrong = [line for line in self.reader.lines if line.startswith("error: ") and line not in self.shown]
        if wrong and "--console" in self.command:
            raise Failure(f"{self.command}\n" + "\n".join(wrong))
        printed = iter(self.reader.lines)
        for line in self.shown:
            if line != "…" and not any(fits_line(line, other) for other in printed):
                raise Failure(f"{self.command}\ndid not print\n{line}\nwhere it is shown, but:\n" + "\n".join(self.reader.lines))


class Shell:
    def __init__(self, folder, environment):
        self.folder = str(folder)
        self.process = subprocess.Popen(
            ["bash", "--norc"], cwd=folder / "clone", env=environment, text=True, bufsize=1,
            start_new_session=True, stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
        self.reader = Reader(self.process.stdout)

    def execute(self, command):
        """Returns the exit status, and the lines that were printed."""
        begin = len(self.reader.lines)
        self.process.stdin.write(f"{{ {command}\n}} </dev/null\nprintf '\\n%s %d\\n' '{DONE}' $?\n")
        try:
            end = self.reader.until(lambda line: line.startswith(DONE), begin)
        except Failure as failure:
            raise Failure(f"{command}\n{failure}") from None
        printed = self.reader.lines[begin:end]
        if printed and not printed[-1]:
            printed.pop()  # The line end before the mark, which ends a line that the command left open.
        return int(self.reader.lines[end].split()[-1]), printed

    def close(self):
        """Takes along what it has started."""
        os.killpg(self.process.pid, signal.SIGKILL)
        self.process.wait()


class Document:
    def __init__(self, shell):
        self.shell = shell
        self.lasting = []

    def run(self, text):
        file = None
        for mark, language, block in re.findall(
                r"^<!-- file: (\S+) -->$|^```(\w*)\n(.*?)^```$", text, re.MULTILINE | re.DOTALL):
            if mark:
                file = mark
            elif file:
                status, folder = self.shell.execute("pwd")
                pathlib.Path(folder[0], file).write_text(block)
                file = None
            elif language == "console":
                self.carry_out(block.splitlines())
        self.end_lasting()

    def carry_out(self, lines):
        while lines:
            line = lines.pop(0)
            while line.endswith("\\"):
                line += "\n" + lines.pop(0)
            shown = []
            while lines and not lines[0].startswith(("$ ", "korvo> ")):
                shown.append(lines.pop(0))
            if line.startswith("korvo> "):
                console = [each for each in self.lasting if "--console" in each.command][-1]
                console.shown += shown
                console.type(line.removeprefix("korvo> "))
            elif LASTING.match(line.removeprefix("$ ")):
                self.start(line.removeprefix("$ "), shown)
            elif line.startswith("$ "):
                self.command(line.removeprefix("$ "), shown)
            else:
                raise Failure(f"neither a command nor below one: {line}")

    def start(self, command, shown):
        if " run" in command and "--name" not in command:
            self.end_lasting()
        self.lasting.append(Lasting(self.shell, command, len(self.lasting)))
        self.lasting[-1].shown += shown

    def command(self, command, shown):
        status, printed = self.shell.execute(command)
        if (status == 0) == any(line.startswith("error: ") for line in shown) or (shown and not fits(shown, printed)):
            raise Failure(f"{command}\nprinted (status {status}):\n" + "\n".join(printed))

    def end_lasting(self):
        while self.lasting:
            self.lasting.pop().end(self.shell)


def check(build, document):
    with tempfile.TemporaryDirectory(prefix="korvo") as scratch:
        folder = pathlib.Path(scratch)
        for name in ("home", "clone/build", "runtime"):
            (folder / name).mkdir(parents=True, mode=0o700)
        (folder / "clone/build/release").symlink_to(build)
        environment = {
            "HOME": str(folder / "home"), "XDG_RUNTIME_DIR": str(folder / "runtime"), "PATH": os.environ["PATH"],
            "LANG": "C.UTF-8", "CXX": os.environ.get("CXX", "g++")}
        shell = Shell(folder, environment)
        try:
            Document(shell).run(document.read_text())
        finally:
            shell.close()


def main():
    build = pathlib.Path(sys.argv[1]).resolve()
    failed = 0
    for name in sys.argv[2:]:
        try:
            check(build, pathlib.Path(name))
        except Failure as failure:
            print(f"{name}: {failure}", file=sys.stderr)
            failed = 1
    return failed


if __name__ == "__main__":
    sys.exit(main())
