#!/usr/bin/env python3
"""Prints one Markdown table from the JSON files of Google Benchmark programs.

    bench/report.py <file>...

A benchmark whose label holds "control=<name>" is set in relation to the benchmark of that name, from whichever file.
Times are medians over the repetitions, of the real time. A counter called "allocs" is shown as allocations, one
called "writer_waits_ms" as the longest wait of a writer over all repetitions.

Ends with 1 when there is nothing to report, when a benchmark reported an error or did no work, or when a control is
not among the results: a table with a hole in it would be read as one without.
"""

import json
import statistics
import sys

NANOSECONDS = {"ns": 1, "us": 1e3, "ms": 1e6, "s": 1e9}


class ReportError(Exception):
    pass


class Result:
    """All repetitions of one benchmark."""

    def __init__(self, name):
        self.name = name
        self.times = []
        self.allocations = []
        self.waits = []
        self.control = None

    def add(self, run):
        if run.get("error_occurred"):
            raise ReportError(f"{self.name}: {run.get('error_message', 'an error without a message')}")
        if run["iterations"] <= 0 or run["real_time"] <= 0:
            raise ReportError(f"{self.name}: did no work")
        self.times.append(run["real_time"] * NANOSECONDS[run["time_unit"]])
        if "allocs" in run:
            self.allocations.append(run["allocs"])
        if "writer_waits_ms" in run:
            self.waits.append(run["writer_waits_ms"])
        for word in run.get("label", "").split():
            if word.startswith("control="):
                self.control = word.removeprefix("control=")

    @property
    def time(self):
        return statistics.median(self.times)


def read(paths):
    results = {}
    for path in paths:
        try:
            with open(path, encoding="utf-8") as file:
                text = file.read()
            # A program none of whose benchmarks matched the filter writes an empty file.
            runs = json.loads(text)["benchmarks"] if text.strip() else []
            seen = {}
            # Interleaved runs stand in the order in which they ran.
            for run in sorted(runs, key=lambda run: (run["family_index"], run["per_family_instance_index"])):
                if run.get("run_type", "iteration") == "iteration":
                    name = run.get("run_name", run["name"])
                    seen.setdefault(name, Result(name)).add(run)
        except (OSError, ValueError, KeyError, TypeError) as error:
            raise ReportError(f"{path}: not the output of a benchmark program ({error!r})") from error
        for name, result in seen.items():
            if name in results:
                raise ReportError(f"{name}: two programs have a benchmark of this name")
            results[name] = result
    return results


def duration(nanoseconds):
    unit, size = max(((u, s) for u, s in NANOSECONDS.items() if nanoseconds >= s or u == "ns"), key=lambda pair: pair[1])
    return f"{nanoseconds / size:.3g} {unit}" if nanoseconds / size < 1000 else f"{nanoseconds / size:.0f} {unit}"


def table(results):
    controls = {result.control for result in results.values() if result.control}
    withAllocations = any(result.allocations for result in results.values())
    withWaits = any(result.waits for result in results.values())
    rows = [["benchmark", "median", "control", "ratio"] + ["allocations"] * withAllocations + ["writer waits"] * withWaits]
    rows.append(["---", "---:", "---:", "---:"] + ["---:"] * (withAllocations + withWaits))
    for result in results.values():
        if result.name in controls and not result.control:
            continue  # shown in the rows that name it
        row = [result.name, duration(result.time), "", ""]
        if result.control:
            if result.control not in results:
                raise ReportError(f"{result.name}: its control {result.control} is not among the results")
            control = results[result.control]
            row[2:] = [duration(control.time), f"{result.time / control.time:.2f}"]
        if withAllocations:
            row.append(f"{statistics.median(result.allocations):g}" if result.allocations else "")
        if withWaits:
            row.append(duration(max(result.waits) * NANOSECONDS["ms"]) if result.waits else "")
        rows.append(row)
    if len(rows) == 2:
        raise ReportError("no benchmark in the results")
    return "\n".join("| " + " | ".join(cell.replace("|", "\\|") for cell in row) + " |" for row in rows)


def main(paths):
    if not paths or paths[0].startswith("-"):
        print(__doc__.strip())
        return 0 if paths and paths[0] in ("-h", "--help") else 2
    try:
        print(table(read(paths)))
    except ReportError as error:
        print(f"bench/report.py: {error}", file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
