#!/usr/bin/env python3
"""Prints one Markdown table from the JSON files of Google Benchmark programs.

    bench/report.py <file>...
    bench/report.py --compare <file>... -- <file>...

The first form sets a benchmark in relation to others as its label says; bench/CMakeLists.txt tells how to write one.
Times are medians over the repetitions: of processor time, for the machine may be shared, or of real time where a
benchmark asks for it, because it waits or because several threads run it; of what it has measured itself, where it
does; of counters called "p50_us" and "p99_us", where single times were taken. A counter called "allocs" is shown as allocations, one called "writer_waits_ms" as the
longest wait of a writer over all repetitions. What a file called *.one-processor.json says is marked so.

The second form tells what is faster or slower in the files after "--" than in those before. Only a difference that
the noise of both does not explain is called one: all repetitions but the worst of one side lie beyond the median of
the other side and by more than a twentieth.

Ends with 1 when there is nothing to report, when a benchmark reported an error or did no work, or when a control is
not among the results: a table with a hole in it would be read as one without.
"""

import json
import re
import statistics
import sys

NANOSECONDS = {"ns": 1, "us": 1e3, "ms": 1e6, "s": 1e9}
NOISE = 1.05
ONE_PROCESSOR = " (one processor)"


class ReportError(Exception):
    pass


class Result:
    """All repetitions of one benchmark."""

    def __init__(self, name, mark=""):
        self.name = name + mark
        self.mark = mark  # of the conditions, which its control shares
        self.times = []
        self.ninetyNinths = []
        self.allocations = []
        self.waits = []
        self.label = {}

    def add(self, run):
        if run.get("error_occurred"):
            raise ReportError(f"{self.name}: {run.get('error_message', 'an error without a message')}")
        if run["iterations"] <= 0 or run["real_time"] <= 0:
            raise ReportError(f"{self.name}: did no work")
        clock = "real_time" if re.search("/(real|manual)_time", self.name) else "cpu_time"
        if "p50_us" in run:
            self.times.append(run["p50_us"] * NANOSECONDS["us"])
            self.ninetyNinths.append(run["p99_us"] * NANOSECONDS["us"])
        else:
            self.times.append(run[clock] * NANOSECONDS[run["time_unit"]])
        if "allocs" in run:
            self.allocations.append(run["allocs"])
        if "writer_waits_ms" in run:
            self.waits.append(run["writer_waits_ms"])
        self.label = dict(word.split("=", 1) for word in run.get("label", "").split() if "=" in word)
        for other in ("control", "relative"):
            if other in self.label:
                self.label[other] += self.mark

    @property
    def time(self):
        return statistics.median(self.times)


class Results(dict):
    """Benchmarks by their names."""

    def of(self, name, wantedBy):
        if name not in self:
            raise ReportError(f"{wantedBy}: {name}, to which it is compared, is not among the results")
        return self[name]

    def ratio(self, result):
        return result.time / self.of(result.label["control"], result.name).time


def read(paths):
    results = Results()
    for path in paths:
        try:
            with open(path, encoding="utf-8") as file:
                text = file.read()
            # A program none of whose benchmarks matched the filter writes an empty file.
            runs = json.loads(text)["benchmarks"] if text.strip() else []
            mark = ONE_PROCESSOR if path.endswith(".one-processor.json") else ""
            # Interleaved runs stand in the order in which they ran.
            for run in sorted(runs, key=lambda run: (run["family_index"], run["per_family_instance_index"])):
                if run.get("run_type", "iteration") == "iteration":
                    name = run.get("run_name", run["name"])
                    results.setdefault(name + mark, Result(name, mark)).add(run)
        except (OSError, ValueError, KeyError, TypeError) as error:
            raise ReportError(f"{path}: not the output of a benchmark program ({error!r})") from error
    if not results:
        raise ReportError("no benchmark in the results")
    return results


def duration(nanoseconds):
    unit, size = max(((u, s) for u, s in NANOSECONDS.items() if nanoseconds >= s or u == "ns"), key=lambda pair: pair[1])
    return f"{nanoseconds / size:.3g} {unit}" if nanoseconds / size < 1000 else f"{nanoseconds / size:.0f} {unit}"


def markdown(rows):
    return "\n".join("| " + " | ".join(cell.replace("|", "\\|") for cell in row) + " |" for row in rows)


def shown(name):
    """Without what Google Benchmark adds to all names of a kind."""
    return re.sub(r"/real_time|/threads:1\b", "", name)


def aimCell(result, reached):
    if "aim" not in result.label:
        return ""
    aim = float(result.label["aim"])
    return f"{aim:g}" if reached <= aim else f"**{aim:g}**"


def table(results):
    controls = {result.label.get("control") for result in results.values()}
    rows = [["benchmark", "median", "control", "ratio", "relative", "aim", "99 %", "allocations", "writer waits"]]
    rows.append(["---"] + ["---:"] * 8)
    for result in results.values():
        row = [shown(result.name), duration(result.time), "", "", "", ""]
        if "control" in result.label:
            control = results.of(result.label["control"], result.name)
            reached = results.ratio(result)
            row[2:4] = [duration(control.time), f"{reached:.2f}"]
            if "relative" in result.label:
                reached /= results.ratio(results.of(result.label["relative"], result.name))
                row[4] = f"{reached:.2f}"
            row[5] = aimCell(result, reached)
        elif result.name in controls:
            continue  # shown in the rows that name it
        row.append(duration(statistics.median(result.ninetyNinths)) if result.ninetyNinths else "")
        row.append(f"{statistics.median(result.allocations):.2g}" if result.allocations else "")
        row.append(duration(max(result.waits) * NANOSECONDS["ms"]) if result.waits else "")
        rows.append(row)
    return markdown(rows)


def verdict(before, after):
    def beyond(slow, fast):
        return statistics.median(fast) * NOISE < min(sorted(slow)[1:] or slow)

    if beyond(after.times, before.times):
        return "slower"
    return "faster" if beyond(before.times, after.times) else ""


def comparison(before, after):
    rows = [["benchmark", "before", "after", "ratio", ""], ["---", "---:", "---:", "---:", "---"]]
    for name, result in after.items():
        if name in before:
            old = before[name]
            rows.append([shown(name), duration(old.time), duration(result.time), f"{result.time / old.time:.2f}"])
            rows[-1].append(verdict(old, result))
        else:
            rows.append([shown(name), "", duration(result.time), "", "new"])
    rows += [[shown(name), duration(old.time), "", "", "gone"] for name, old in before.items() if name not in after]
    return markdown(rows)


def main(arguments):
    if not arguments or arguments[0] in ("-h", "--help"):
        print(__doc__.strip())
        return 0 if arguments else 2
    try:
        if arguments[0] == "--compare" and "--" in arguments:
            split = arguments.index("--")
            print(comparison(read(arguments[1:split]), read(arguments[split + 1 :])))
        else:
            print(table(read(arguments)))
    except ReportError as error:
        print(f"bench/report.py: {error}", file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
