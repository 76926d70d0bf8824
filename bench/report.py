#!/usr/bin/env python3
"""Prints the table of docs/performance.md with the values of a run in the column of its release.

    report.py FOLDER PAGE    updates the page as well

FOLDER holds *.json by Google Benchmark, *.tsv by measure, and facts.tsv.
"""

import collections
import json
import pathlib
import platform
import re
import statistics
import sys

folder, page = map(pathlib.Path, sys.argv[1:])
values = collections.defaultdict(list)  # by name, in the order of the rounds
for path in folder.glob("*.json"):
    for run in json.loads(path.read_text())["benchmarks"]:
        if run["run_type"] == "iteration":
            values[run["name"]].append(run["cpu_time"] * 1e-9)
for path in folder.glob("*.tsv"):
    for line in path.read_text().splitlines():
        name, value = line.split("\t")
        values[name].append(value if path.name == "facts.tsv" else float(value))


def derive(name, function, *sources):
    values[name] = [function(*each) for each in zip(*(values[source] for source in sources))]


def seconds(value):
    for unit, size in (("s", 1), ("ms", 1e-3), ("µs", 1e-6)):
        if value >= size:
            return f"{value / size:.3g} {unit}"
    return f"{value / 1e-9:.3g} ns"


table = {}  # what, compared with, limit: the cell


def row(what, against, limit, ours, theirs=None, show=seconds):
    """The ratio of two values, or one value where there is nothing to compare it with."""
    rounds, text, sides = values[ours], show, ""
    if theirs:
        sides = " / ".join(show(statistics.median(values[side])) for side in (ours, theirs)) + " = "
        rounds, text = [a / b for a, b in zip(rounds, values[theirs])], "{:.2f}".format
    median = statistics.median(rounds)
    cell = f"{sides}{text(median)} ({text(min(rounds))} to {text(max(rounds))})"
    if limit:
        cell += ", reached" if median <= limit else ", **not reached**"
    table[what, against, f"at most {text(limit)}" if limit else ""] = cell


def kibibytes(value):
    return f"{value:.0f} KiB"


for queues in (5, 160):
    second = f"CPU time of an idle second, {queues} queues: "
    row(second + "service and tools", "a shell loop of the same pipeline and `sleep`", 1.05,
        f"idle/{queues}", f"idle/sh/{queues}")
    row(second + "the service without its tools", "the shell of that loop without its tools", 0.6,
        f"idle own/{queues}", f"idle own/sh/{queues}")
    row(second + "cupsd", "", None, f"idle cupsd/{queues}")
row("CPU time of an idle second: the unit's look at the device", "", 1e-3, "watch")
row("resident memory when idle", "", 2560, "resident/5", show=kibibytes)
row("proportional share of memory (PSS) when idle", "", None, "proportional/5", show=kibibytes)
script = "a script of the same command lines"
row("`CmdAddPrinter` to `CmdResult`", script, 1.05, "add", "add/sh")
row("`CmdPrinterList` that renames 10 queues", script, 1.05, "rename", "rename/sh")
row("start to first request for a command", script, 1.3, "start", "start/sh")
row("stop signal to exit, the open exchange cancelled", "", 1.01, "stop")
row("one log record, level 0, to a file on disk", "`write(2)` of the same bytes, `O_APPEND`", 1.6,
    "recordToFile", "bareWrite")
derive("suppressed", lambda record, loop: record - loop, "suppressedRecord", "emptyLoop")
row("a log record that the level suppresses", "", 2e-9, "suppressed")
derive("printer of 10", lambda time: time / 10, "parseList/10")
derive("printer of 10000", lambda time: time / 10000, "parseList/10000")
row("reading one printer of a `PrinterList` of 10,000", "one of a list of 10", 2,
    "printer of 10000", "printer of 10")
derive("ten times", lambda time: 10 * time, "compareQueues/100")
row("listing 1,000 queues and comparing them with those known", "ten times the same for 100", 2,
    "compareQueues/1000", "ten times")
for name, (value,) in [item for item in values.items() if isinstance(item[1][0], str)]:
    table[name, "", ""] = value


def cells(line):
    return [cell.strip() for cell in line.strip().strip("|").split("|")]


system = platform.freedesktop_os_release()
release = "Debian " + system.get("VERSION_ID", system.get("VERSION_CODENAME", ""))
begin, old, end = re.fullmatch(r"(.*<!-- begin.*?-->\n)(.*)(<!-- end.*)", page.read_text(),
                               re.DOTALL).groups()
head, _, *rows = old.splitlines()
others = {tuple(cells(line)[:3]): dict(zip(cells(head)[3:], cells(line)[3:])) for line in rows}
releases = sorted({*cells(head)[3:], release})
new = [["what", "compared with", "limit", *releases], ["---"] * (3 + len(releases))]
for key, cell in table.items():
    columns = {**others.get(key, {}), release: cell}
    new.append([*key, *(columns.get(name, "") for name in releases)])
text = "".join("| " + " | ".join(line) + " |\n" for line in new)
page.write_text(begin + text + end)
print(text, end="")
