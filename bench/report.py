#!/usr/bin/env python3
"""Makes docs/performance.md and its two plots from the values of one run.

    report.py RESULTS DOCS

RESULTS holds what the programs printed: *.json of the micro-benchmarks, one a round, *.tsv of the
others, and facts.tsv, which names the machine and the versions.
"""

import json
import math
import pathlib
import statistics
import sys

import plot

COUNTS = ("10", "100", "1000", "10000")
GUESTS = 1000
# By how much an exponent of growth may differ for the noise of the machine.
SLOPE_TOLERANCE = 0.05


class Results:
    """Every value by (figure, scale, side), in the order of the rounds."""

    def __init__(self, folder):
        self.values = {}
        for path in sorted(folder.glob("*.json")):
            for run in json.loads(path.read_text())["benchmarks"]:
                name, _, scale = run["name"].partition("/")
                self.add(name, scale, "", run["cpu_time"] * 1e-9)
        for path in sorted(folder.glob("*.tsv")):
            for line in path.read_text().splitlines():
                if path.name != "facts.tsv":
                    figure, scale, side, value = line.split("\t")
                    self.add(figure, scale, side, float(value))

    def add(self, figure, scale, side, value):
        self.values.setdefault((figure, scale, side), []).append(value)

    def of(self, figure, scale="", side=""):
        return self.values[figure, scale, side]

    def median(self, figure, scale="", side=""):
        return statistics.median(self.of(figure, scale, side))


OURS = "qntspooler"


def span(values, show):
    return f"{show(statistics.median(values))} ({show(min(values))} to {show(max(values))})"


def ratio_text(value):
    return f"{value:.2f}"


def seconds_text(value):
    for unit, size in (("s", 1), ("ms", 1e-3), ("µs", 1e-6)):
        if value >= size:
            return f"{value / size:.3g} {unit}"
    return f"{value / 1e-9:.3g} ns"


def bytes_text(value):
    return f"{value / 1024:.0f} KiB"


class Row:
    """A line of the table: a value for each round, and what it must not pass."""

    def __init__(self, what, against, rounds, limit, *, at_least=False, show=ratio_text, detail=""):
        self.what, self.against, self.rounds = what, against, rounds
        self.limit, self.at_least, self.show, self.detail = limit, at_least, show, detail
        self.holds = True  # what has to be so besides

    def reached(self):
        median = statistics.median(self.rounds)
        within = median >= self.limit if self.at_least else median <= self.limit
        return within and self.holds

    def text(self):
        bound = "at least" if self.at_least else "at most"
        cells = (
            self.what,
            self.against,
            f"{bound} {self.show(self.limit)}",
            span(self.rounds, self.show),
            self.detail,
            "reached" if self.reached() else "**not reached**",
        )
        return "| " + " | ".join(cells) + " |"


def ratios(ours, theirs):
    return [a / b for a, b in zip(ours, theirs)]


def compared(what, against, ours, theirs, limit, *, at_least=False, show=seconds_text):
    """A row of the ratio between two sides that were measured in turn."""
    detail = f"{show(statistics.median(ours))} / {show(statistics.median(theirs))}"
    return Row(what, against, ratios(ours, theirs), limit, at_least=at_least, detail=detail)


def slope(results, figure):
    """How time grows from the least to the most printers, as an exponent of their number."""
    growth = results.median(figure, COUNTS[-1]) / results.median(figure, COUNTS[0])
    return math.log(growth) / math.log(int(COUNTS[-1]) / int(COUNTS[0]))


def scaled(results, what, against, ours, theirs, limit):
    """A row of the worst count of printers. It also has to grow no faster than the other side: a walk
    is linear and a sort is n log n, whatever the caches add to both on this machine."""
    by_count = {c: ratios(results.of(ours, c), results.of(theirs, c)) for c in COUNTS}
    worst = max(by_count, key=lambda count: statistics.median(by_count[count]))
    medians = ", ".join(ratio_text(statistics.median(by_count[count])) for count in COUNTS)
    exponent, other = slope(results, ours), slope(results, theirs)
    row = Row(what, against, by_count[worst], limit)
    row.detail = f"{medians} for {', '.join(COUNTS)}; time grows as n^{exponent:.2f}, the other's as n^{other:.2f}"
    row.holds = exponent <= other + SLOPE_TOLERANCE
    return row


def log_rows(r):
    record, write, other = r.of("recordToFile"), r.of("bareWrite"), r.of("spdlogToFile")
    added = [a - b for a, b in zip(r.of("suppressedRecord"), r.of("emptyLoop"))]
    return [
        compared("one log record, level 0, to a real file",
                 "`write(2)` of the finished bytes, `O_APPEND`", record, write, 1.6),
        compared("the same", "spdlog, one file sink, flushed at every record", record, other, 0.9),
        Row("a record that the level suppresses", "an empty loop, subtracted", added, 2e-9,
            show=seconds_text),
    ]


def protocol_rows(r):
    def comparing(how, figure):
        return scaled(r, f"comparing known and listed queues, {how}", "sorting the same ids once",
                      figure, "sortIds", 2)

    return [
        scaled(r, "reading a `PrinterList` into a `PrintingCmd`",
               "a bare walk over the same headers that copies the texts", "parseList", "walkList",
               1.3),
        comparing("none changed", "compareSame"),
        comparing("one gone", "compareOneGone"),
        comparing("all in another order", "compareReordered"),
    ]


def command_rows(r):
    script = "the same command lines in one `sh` script"
    return [
        compared("`CmdAddPrinter` to `CmdResult`", script, r.of("add", "", OURS),
                 r.of("add", "", "sh"), 1.05),
        compared("`CmdPrinterList` that renames 20 queues", script, r.of("rename", "", OURS),
                 r.of("rename", "", "sh"), 1.05),
    ]


def idle_rows(r):
    loop = "a shell loop of the same pipeline and `sleep`"
    rows = [
        compared(f"CPU of an idle second, children included, {count} queues", loop,
                 r.of("idle", count, OURS), r.of("idle", count, "sh"), 1.0)
        for count in ("5", "160")
    ]
    rows += [
        Row(f"the service's own CPU in it, {count} queues", "", r.of("idle own", count, OURS),
            0.5e-3, show=seconds_text)
        for count in ("5", "160")
    ]
    resident = r.of("memory", "resident", OURS)
    for name, limit in (("earlyoom", 1.2), ("qemu-ga", 0.5)):
        rows.append(compared("resident memory when idle", name, resident,
                             r.of("memory", "resident", name), limit, show=bytes_text))
    return rows


def life_rows(r):
    checks = r.of("start", "", "sh")
    rows = [
        compared(f"start to first {kind}", "one `sh` script of the two start-up checks",
                 r.of("start", kind, OURS), checks, 1.3)
        for kind in ("request for a command", "request of any kind")
    ]
    rows += [
        compared("stop signal to exit, the open exchange cancelled at once", name,
                 r.of("stop", "", OURS), r.of("stop", "", name), 1.0)
        for name in ("earlyoom", "qemu-ga")
    ]
    exchanges = r.of("exchanges", "", OURS)
    rows.append(compared("exchanges a second of the run loop",
                         "a bare loop of submissions to the same device", exchanges,
                         r.of("exchanges", "", "bare loop"), 0.9, at_least=True,
                         show=lambda rate: f"{rate:.0f}/s"))
    return rows


def limit_notes(r, rows):
    """What keeps the rows that are not reached from it."""
    missed = {row.what.split(",")[0] for row in rows if not row.reached()}
    notes = []
    if "start to first request for a command" in missed:
        listing = r.median("start", "request for a command", OURS) - r.median(
            "start", "request of any kind", OURS)
        notes.append(
            "**Start.** Before it asks the host for its first command, the service lists the "
            "queues once, so that those which are there already count as known and none of them "
            f"is missed later. That listing, with the opening of the link, takes "
            f"{seconds_text(listing)}; the script of the two checks has nothing like it.")
    if "stop signal to exit" in missed:
        stop = r.median("stop", "", OURS)
        notes.append(
            "**Stop.** An exchange that failed, and a cancelled one is such, is followed by a "
            "pause of one second before the stop flag is looked at. Of the "
            f"{seconds_text(stop)} that is 1 s; all else (ending both workers, saying \"stopped\" "
            f"over the link, the last records) takes {seconds_text(max(stop - 1, 0))}. A host that "
            "answers the open exchange instead of cancelling it sees the service gone after "
            f"{seconds_text(r.median('stop answered', '', OURS))}.")
    if "start to first request of any kind" in missed:
        more = r.median("start", "request of any kind", OURS) - r.median("start", "", "sh")
        notes.append(
            "Up to its first request of any kind, the opening of the link, the service takes "
            f"{seconds_text(more)} more than the script: its own start, and a shell for each of "
            "the two checks where the script has one for both, as each is a command of its own.")
    others = missed - {"start to first request for a command",
                       "start to first request of any kind", "stop signal to exit"}
    if others:
        notes.append("**Not explained:** " + "; ".join(sorted(others)) + ".")
    return notes


def parsing_note(r):
    flat = ratio_text(r.median("parseList", COUNTS[-1]) / r.median("walkFlat", COUNTS[-1]))
    return (
        "The bare walk checks nothing, but copies the texts to where the command keeps them, a "
        "linked list of pairs of texts. Against a walk that copies them into one flat buffer, "
        f"reading takes {flat} times as long for 10,000 printers: the price of the list.")


def guests_paragraph(r):
    few, many, own = (r.median(*key, OURS) for key in
                      (("idle", "5"), ("idle", "160"), ("idle own", "5")))
    cups = r.median("idle cupsd", "5", OURS)
    resident, proportional = (r.median("memory", kind, OURS) for kind in
                              ("resident", "proportional"))
    mebibyte = 1024 * 1024
    return (
        f"One idle guest with 5 queues spends {seconds_text(few)} of processor time a second on "
        f"looking at its queues; {GUESTS:,} of them spend {few * GUESTS:.1f} s a second, that is "
        f"{few * GUESTS:.1f} processors of this machine, and with 160 queues each "
        f"{many * GUESTS:.1f}. The service itself has {own * GUESTS:.2f} of the "
        f"{few * GUESTS:.1f} ({own / few:.0%}); the rest is the shell, `lpstat` and `sed` of the "
        "one pipeline a second by which deleted queues are noticed, and a shell loop would pay "
        f"it as well. The guests' own CUPS servers answer for another {cups * GUESTS:.1f}. In "
        f"memory, {GUESTS:,} services hold {resident * GUESTS / mebibyte:.0f} MiB resident, "
        f"or {proportional * GUESTS / mebibyte:.0f} MiB when a page is split among all of a "
        "guest's processes that share it.")


def facts_list(folder):
    lines = (folder / "facts.tsv").read_text().splitlines()
    return [f"- {name}: {value}" for name, value in (line.split("\t") for line in lines)]


def write_plots(r, docs):
    def by_count(figure):
        return [(int(count), r.median(figure, count)) for count in COUNTS]

    series = {"reading": by_count("parseList"), "comparing, none changed": by_count("compareSame"),
              "comparing, all in another order": by_count("compareReordered"),
              "sorting once": by_count("sortIds")}
    (docs / "scaling.svg").write_text(plot.chart(
        "Time of one reading and one comparison", "printers", "time", series,
        lambda value: f"{value:,.0f}", seconds_text, logarithmic=True))

    def by_queues(side):
        counts = sorted({int(key[1]) for key in r.values if key[0] == "idle"})
        return [(count, r.median("idle", str(count), side) * 1e3) for count in counts]

    series = {"service and children": by_queues(OURS), "shell loop": by_queues("sh")}
    (docs / "idle.svg").write_text(plot.chart(
        "Processor time of an idle second", "queues", "ms a second", series,
        lambda value: f"{value:g}", lambda value: f"{value:g}", logarithmic=False))


def document(r, folder):
    rows = log_rows(r) + protocol_rows(r) + command_rows(r) + idle_rows(r) + life_rows(r)
    table = [
        "| what | against | to reach | measured: median (lowest to highest) | ours / theirs | |",
        "|---|---|---|---|---|---|",
        *(row.text() for row in rows),
    ]
    missed = sum(not row.reached() for row in rows)
    parts = [
        "# Performance",
        "Written by `scripts/bench`, which measures everything anew; see there how. Each figure is "
        "a ratio against something measured in the same run: the two take turns, each turn gives "
        "a ratio, and the table shows the median of these with their spread. Figures of the log "
        "and the protocol are processor time, the others time on the clock where nothing else "
        "is said. Both sides start in the same environment. "
        f"{len(rows) - missed} of {len(rows)} rows are reached.",
        "\n".join(table),
        "## What keeps a figure from its mark",
        *limit_notes(r, rows),
        parsing_note(r),
        "## Growth",
        "![Time of one reading and one comparison against the number of printers](scaling.svg)",
        "![Processor time of an idle second against the number of queues](idle.svg)",
        f"## A host with {GUESTS:,} guests",
        guests_paragraph(r),
        "## Measured on",
        "\n".join(facts_list(folder)),
    ]
    return "\n\n".join(parts) + "\n"


def main():
    folder, docs = (pathlib.Path(argument) for argument in sys.argv[1:])
    results = Results(folder)
    docs.mkdir(exist_ok=True)
    write_plots(results, docs)
    (docs / "performance.md").write_text(document(results, folder))


main()
