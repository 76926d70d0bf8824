#!/usr/bin/env python3
"""Prints a table of docs/performance.md and writes the data of the plots.

    report.py FOLDER [farm]

FOLDER holds the values of a run, *.json by Google Benchmark and *.tsv by measure, and gets *.dat.
"""

import collections
import json
import math
import os
import pathlib
import statistics
import sys

folder = pathlib.Path(sys.argv[1])
values = collections.defaultdict(list)  # by name, in the order of the rounds
for path in sorted(folder.glob("*.json")):
    for run in json.loads(path.read_text())["benchmarks"]:
        values[run["name"]].append(run["cpu_time"] * 1e-9)
for path in folder.glob("*.tsv"):
    for line in path.read_text().splitlines():
        name, value = line.split("\t")
        values[name].append(float(value))


def derive(name, function, *sources):
    values[name] = [function(*each) for each in zip(*(values[source] for source in sources))]


def seconds(value):
    for unit, size in (("s", 1), ("ms", 1e-3), ("µs", 1e-6)):
        if value >= size:
            return f"{value / size:.3g} {unit}"
    return f"{value / 1e-9:.3g} ns"


def row(what, against, ours, theirs=None, limit=None, show=seconds, at_least=False):
    """The ratio of two values, or one value where there is nothing to compare it with."""
    rounds, text, sides = values[ours], show, ""
    if theirs:
        sides = " / ".join(show(statistics.median(values[side])) for side in (ours, theirs))
        rounds, text = [a / b for a, b in zip(rounds, values[theirs])], "{:.2f}".format
    median = statistics.median(rounds)
    bound = verdict = ""
    if limit:
        bound = f"at {'least' if at_least else 'most'} {text(limit)}"
        verdict = "met" if (median >= limit if at_least else median <= limit) else "**not met**"
    spread = f"{text(median)} ({text(min(rounds))} to {text(max(rounds))})"
    print(f"| {what} | {against} | {bound} | {spread} | {sides} | {verdict} |")


def write_data(name, columns, counts):
    """A line a count: the count and the median of each column, nan where it was not measured."""
    lines = [[count] + [statistics.median(values.get(c.format(count), [float("nan")]))
                        for c in columns] for count in counts]
    (folder / name).write_text("".join(" ".join(map(str, line)) + "\n" for line in lines))


HEADER = """| what | compared with | limit | median (lowest to highest) | ours / theirs | |
|---|---|---|---|---|---|"""


def service():
    print(HEADER)

    record = "one log record, level 0, to a file on disk"
    row(record, "`write(2)` of the same bytes, `O_APPEND`", "recordToFile", "bareWrite", 1.6)
    row(record, "spdlog, one file sink, flushed at every record", "recordToFile", "spdlogToFile", 0.9)
    derive("suppressed", lambda a, b: a - b, "suppressedRecord", "emptyLoop")
    row("a log record that the level suppresses", "", "suppressed", limit=2e-9)

    for count in (10, 100, 1000, 10000):
        reading = f"reading a `PrinterList` of {count:,} into a `PrintingCmd`"
        row(reading, "an unchecked walk that copies the same texts to the same place",
            f"parseList/{count}", f"walkList/{count}", 1.3)
    row(reading, "an unchecked walk that copies the texts into one buffer",
        "parseList/10000", "walkFlat/10000")

    kinds = {"same": "none changed", "oneGone": "one gone", "reordered": "all in another order"}
    for kind, words in kinds.items():
        few, many = (f"compare/{kind}/{count}" for count in (1000, 10000))
        derive("ten times", lambda a: 10 * a, few)
        derive("comparison", lambda a, b: a - b, many, "listQueues/10000")
        row(f"comparing 10,000 known queues with a listing, {words}", "", "comparison", limit=2e-3)
        row(f"listing and comparing 10,000 queues, {words}", "ten times the same for 1,000 queues",
            many, "ten times", 2)

    script = "a script of the same command lines"
    row("`CmdAddPrinter` to `CmdResult`", script, "add", "add/sh", 1.05)
    row("`CmdPrinterList` that renames 20 queues", script, "rename", "rename/sh", 1.05)

    for queues in (5, 160):
        idle = f"CPU time of an idle second, {queues} queues"
        row(f"{idle}, children included", "a shell loop of the same pipeline and `sleep`",
            f"idle/{queues}", f"idle/{queues}/sh", 1)
        row(f"{idle}, the service alone", "", f"idle own/{queues}", limit=5e-4)
        row(f"{idle}, cupsd", "", f"idle cupsd/{queues}")
    for daemon, limit in (("earlyoom", 1.2), ("qemu-ga", 0.5)):
        row("resident memory when idle", daemon, "resident/qntspooler", f"resident/{daemon}", limit,
            "{:.0f} KiB".format)
    row("proportional share of memory (PSS) when idle", "", "proportional/qntspooler", show="{:.0f} KiB".format)

    row("start to first request of any kind", "a script of the two start-up checks",
        "start/any", "start/any/sh", 1.3)
    row("start to first request for a command", "the same script with one listing of the queues",
        "start/command", "start/command/sh", 1.3)
    derive("pause", lambda _: 1.0, "stop/cancelled")
    row("stop signal to exit, the open exchange cancelled", "the pause after a failed exchange",
        "stop/cancelled", "pause", 1.01)
    for daemon in ("earlyoom", "qemu-ga"):
        row("stop signal to exit, the open exchange answered", daemon, "stop/answered",
            f"stop/{daemon}")
    row("exchanges a second of the run loop", "a loop that only submits to the same device",
        "exchanges", "exchanges/loop", 0.9, "{:.0f}/s".format, at_least=True)

    write_data("scaling.dat", ["parseList/{}", "listQueues/{}"] + [f"compare/{k}/{{}}" for k in kinds],
               (10, 100, 1000, 10000))
    write_data("idle.dat", ["idle/{}", "idle/{}/sh"], (5, 10, 20, 40, 80, 160))


def farm():
    sizes = sorted({int(name.split("/")[1]) for name in values if name.startswith("farm load/")})
    most, processors = sizes[-1], os.cpu_count()
    median, two_digits = statistics.median, "{:.2f}".format
    values["farm add first all/1"] = values["farm add first alone/1"]
    values["farm add first each/1"] = values["farm add first alone/1"]

    def milliseconds(value):
        return f"{value * 1e3:.2f} ms"

    def kibibytes(value):
        return f"{value:.0f} KiB"

    def percentile99(samples):
        return sorted(samples)[math.ceil(0.99 * len(samples)) - 1]

    print("| each guest | " + " | ".join(f"{n} guest{'s' * (n > 1)}" for n in sizes) + " |")
    print("|---|" + "---|" * len(sizes))
    for what, name, of, text in (
            ("CPU time a second: the service alone", "farm own/{}", median, milliseconds),
            ("... its tools", "farm tools/{}", median, milliseconds),
            ("... service and tools", "farm all/{}", median, milliseconds),
            ("... the shell loop", "farm all/sh/{}", median, milliseconds),
            ("... cupsd", "farm cupsd/{}", median, milliseconds),
            ("wake-ups of the service a second", "farm wake-ups/{}", median, two_digits),
            ("memory of the service: resident", "resident/farm/{}", median, kibibytes),
            ("... proportional share (PSS)", "proportional/farm/{}", median, kibibytes),
            ("first add, alone on the machine", "farm add first alone/{}", median, seconds),
            ("... in a guest for each processor at once", "farm add first each/{}", median, seconds),
            ("... in all guests at once, the slowest", "farm add first all/{}", max, seconds),
            ("later add, alone on the machine", "farm add alone/{}", median, seconds),
            ("... in a guest for each processor at once", "farm add each/{}", median, seconds),
            ("... in one guest, the others idle", "farm add one/{}", median, seconds),
            ("... in a tenth of the guests at once, the slowest", "farm add tenth/{}", max, seconds),
            ("... in all guests at once, the slowest", "farm add all/{}", max, seconds),
            ("deletion to report, 99th percentile", "farm deletion/{}", percentile99, seconds),
            ("load average at the end", "farm load/{}", median, "{:.1f}".format)):
        print(f"| {what} | " + " | ".join(text(of(values[name.format(n)])) for n in sizes) + " |")

    def ratio(name, other):
        return median(values[name]) / median(values[other])

    def adds(which, kind, compared, alone, limit):
        every = values[f"farm add {kind}all/{most}"]
        return (f"{len(every)} {which} adds at once, the slowest, over {len(every)} times {compared}, "
                f"divided by {processors} processors",
                max(every) * processors / (len(every) * alone), limit, two_digits)

    print("\n| figure | limit | measured | |\n|---|---|---|---|")
    for what, value, limit, text in (
            (f"service alone, {most} guests over 1", ratio(f"farm own/{most}", "farm own/1"), 1.1, two_digits),
            (f"service and tools over the shell loop, {most} guests",
             ratio(f"farm all/{most}", f"farm all/sh/{most}"), 1, two_digits),
            (f"proportional share of memory, {most} guests",
             median(values[f"proportional/farm/{most}"]), 500, kibibytes),
            *(adds(which, kind, compared, median(values[f"farm add {kind}{other}/{guests}"]), limit)
              for which, kind in (("first", "first "), ("later", ""))
              for compared, other, guests, limit in (
                  (f"one of {processors} at once", "each", most, 1.1),
                  ("one alone", "alone", most, 1.1),
                  ("one of the only guest", "alone", 1, None))),
            (f"deletion to report, {most} guests, 99th percentile",
             percentile99(values[f"farm deletion/{most}"]), 1.5, seconds)):
        bound = f"at most {text(limit)}" if limit else ""
        verdict = ("met" if value <= limit else "**not met**") if limit else ""
        print(f"| {what} | {bound} | {text(value)} | {verdict} |")
    write_data("farm.dat", ["farm own/{}", "farm all/{}", "farm all/sh/{}", "proportional/farm/{}"],
               sizes)


farm() if sys.argv[2:] == ["farm"] else service()
