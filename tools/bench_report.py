#!/usr/bin/env python3
"""Makes tables and charts of what scripts/bench has measured."""

import argparse
import datetime
import os
import platform
import re
import subprocess
import sys
from collections.abc import Iterable
from pathlib import Path
from typing import NamedTuple

from measuring import Spread

# What we want the ratio to the other module's time to keep below, by the number of key pairs where it depends on that;
# of all other operations 1, and nothing of those that only tell what the module has.
LIMITS: dict[str, dict[int, float] | float] = {
    "search by id": {10: 0.06, 100: 0.01, 500: 0.005},
    "find everything": {10: 0.15, 100: 0.1, 500: 0.1},
    "4 attributes, private key": {10: 0.2, 100: 0.35, 500: 0.8},
    "RSA-2048 signature": 0.55,
    "RSA-2048 SHA-256 signature": 0.55,
    "RSA-2048 PSS signature": 0.55,
    "P-256 signature": 0.55,
    "RSA-2048 decryption v1.5": 0.55,
    "RSA-2048 decryption OAEP": 0.55,
}

GROWTH_CHART = ("search by id", "find everything", "4 attributes, private key", "RSA-2048 signature")


class Call(NamedTuple):
    """An operation on a token of that size. The one that is filled has nine of each at first."""

    operation: str
    key_pairs: int
    certificates: int
    time: Spread


class Comparison(NamedTuple):
    key_pairs: int
    operation: str
    kind: str
    ours: Spread
    theirs: Spread
    ratio: Spread


# --- What was measured ------------------------------------------------------------------------------------------------


def read_calls(file: Path) -> list[Call]:
    """The lines of measure_calls.py."""
    calls = []
    for line in file.read_text(encoding="utf-8").splitlines():
        operation, key_pairs, certificates, *numbers = line.split("\t")
        calls.append(Call(operation, int(key_pairs), int(certificates), Spread(*map(float, numbers))))
    return calls


def read_comparison(file: Path) -> list[Comparison]:
    """The lines of compare_modules.py."""
    rows = []
    for line in file.read_text(encoding="utf-8").splitlines():
        key_pairs, operation, kind, *numbers = line.split("\t")
        spreads = (Spread(*map(float, numbers[place:place + 3])) for place in (0, 3, 6))
        rows.append(Comparison(int(key_pairs), operation, kind, *spreads))
    return rows


# --- Numbers and tables -----------------------------------------------------------------------------------------------


def digits(value: float) -> str:
    """Three digits that count."""
    return f"{value:.0f}" if value >= 99.95 else f"{value:.1f}" if value >= 9.995 else f"{value:.2f}"


def time(microseconds: float) -> str:
    """In the unit that suits it."""
    return f"{digits(microseconds)} µs" if microseconds < 1000 else f"{digits(microseconds / 1000)} ms"


def ratio(value: float) -> str:
    return f"{value:.4f}" if value < 0.01 else f"{value:.3f}" if value < 0.1 else digits(value)


def row(cells: Iterable[str]) -> str:
    return f"| {' | '.join(cells)} |"


def calls_table(calls: list[Call]) -> list[str]:
    """Every operation on a token of ordinary size, then the growth of some."""
    lines = ["| Operation, 10 key pairs and certificates | Median | Quartiles |", "|---|--:|--:|"]
    for operation, *size, spread in calls:
        if size in ([10, 10], [9, 9]):
            lines.append(row((operation, time(spread.median), f"{time(spread.first)} to {time(spread.third)}")))
    lines += ["", "| Growth | with | 1 | 10 | 100 | 500 | for each more |", "|---|---|--:|--:|--:|--:|--:|"]
    medians = {call[:3]: call.time.median for call in calls}
    counts = (1, 10, 100, 500)
    for operation in dict.fromkeys(call.operation for call in calls):
        for kind, sizes in (("key pairs", [(count, 1) for count in counts]),
                            ("certificates", [(1, count) for count in counts])):
            if (operation, *sizes[-1]) in medians:
                times = [medians[operation, *size] for size in sizes]
                # Least squares would give the largest token all the weight; the two ends do as well.
                slope = (times[-1] - times[0]) / (counts[-1] - counts[0]) * 1000
                lines.append(row((operation, kind, *map(time, times), f"{slope:.0f} ns".replace("-0 ", "0 "))))
    return lines


def limit_of(comparison: Comparison) -> float | None:
    limit = LIMITS.get(comparison.operation)
    if isinstance(limit, dict):
        limit = limit.get(comparison.key_pairs)
    return limit if limit is not None else None if comparison.kind == "stored" else 1


def comparison_table(comparisons: list[Comparison]) -> list[str]:
    sizes = list(dict.fromkeys(comparison.key_pairs for comparison in comparisons))
    lines = [row(("Ours / theirs = ratio, its quartiles", *(f"{size} key pairs" for size in sizes), "At most")),
             "|---" * (len(sizes) + 2) + "|"]
    for operation in dict.fromkeys(comparison.operation for comparison in comparisons):
        cells = {}
        limits = []
        for comparison in (each for each in comparisons if each.operation == operation):
            limit = limit_of(comparison)
            over = " (over)" if limit is not None and comparison.ratio.median > limit else ""
            cells[comparison.key_pairs] = (
                f"{time(comparison.ours.median)} / {time(comparison.theirs.median)} = "
                f"**{ratio(comparison.ratio.median)}**{over} "
                f"{ratio(comparison.ratio.first)}–{ratio(comparison.ratio.third)}")
            limits.append("" if limit is None else f"{limit:g}")
        at_most = limits[0] if len(set(limits)) == 1 else " / ".join(limits)
        lines.append(row((operation, *(cells.get(size, "") for size in sizes), at_most)))
    return lines


def machine(files: Iterable[Path]) -> str:
    """The day of the oldest measurement, and the kind of machine."""
    day = datetime.date.fromtimestamp(min(file.stat().st_mtime for file in files))
    information = Path("/proc/cpuinfo").read_text(encoding="utf-8")
    processor = re.search(r"^model name\s*: *(.*)$", information, re.MULTILINE)
    kind = " virtual" if re.search("^flags.* hypervisor", information, re.MULTILINE) else ""
    return (f"{day}, a{kind} machine with {os.cpu_count()} processors ({processor[1] if processor else 'unknown'}), "
            f"{platform.freedesktop_os_release()['PRETTY_NAME']}")


def tables(results: Path) -> str:
    """All tables of what the folder has measurements of. Raises ValueError when there are none."""
    def measured(name: str) -> bool:
        return (results / name).is_file() and (results / name).stat().st_size > 0

    files = [file for pattern in ("*.tsv", "*.txt") for file in results.glob(pattern)]
    if not files:
        raise ValueError(f"nothing is measured yet in {results}")
    lines = [f"Measured on {machine(files)}."]
    sections = [("The module alone", "module.tsv"), ("With the software token", "token.tsv"),
                ("The software token beside OpenSSL", "openssl.txt"), ("Beside SoftHSM", "comparison.tsv"),
                ("On Windows under Wine: the module alone", "windows-module.tsv"),
                ("On Windows under Wine: with the software token", "windows-token.tsv")]
    for title, name in sections:
        if measured(name):
            lines += ["", f"### {title}", ""]
            if name == "comparison.tsv":
                lines += comparison_table(read_comparison(results / name))
            elif name.endswith(".tsv"):
                lines += calls_table(read_calls(results / name))
            else:
                text = (results / name).read_text(encoding="utf-8")
                lines += ["```", *(line.rstrip() for line in text.splitlines()), "```"]
    return "\n".join(lines) + "\n"


def with_tables(document: str, text: str) -> str:
    """The document with the text between its two marks. Raises ValueError unless it has both."""
    marks = "(?ms)(^<!-- measured: begin[^\n]*\n).*?(^<!-- measured: end -->$)"
    replaced, number = re.subn(marks, lambda found: found[1] + text + found[2], document)
    if number != 1:
        raise ValueError(f"the document has {number} places for measurements")
    return replaced


# --- Charts -----------------------------------------------------------------------------------------------------------


def comparison_points(comparisons: list[Comparison], size: int) -> str:
    """One line an operation, with the ratio and its quartiles."""
    rows = [each for each in comparisons if each.key_pairs == size and each.kind != "stored"]
    return "".join(f"{number}\t{each.ratio.median:g}\t{each.ratio.first:g}\t{each.ratio.third:g}\t{each.operation}\n"
                   for number, each in enumerate(rows, start=1))


def growth_points(calls: list[Call]) -> str:
    """A block for each line of the chart, with key pairs, median and quartiles; an empty line twice ends one."""
    return "".join("".join(f"{call.key_pairs}\t" + "\t".join(f"{value:g}" for value in call.time) + "\n"
                           for call in calls if call.operation == operation and call.certificates == 1) + "\n\n"
                   for operation in GROWTH_CHART)


def draw(results: Path, chart: str, points: dict[str, str]) -> None:
    """Writes CHART.svg by CHART.gnuplot, which reads the points from files of these names."""
    files = [results / name for name in points]
    for file, text in zip(files, points.values()):
        file.write_text(text, encoding="utf-8")
    script = Path(__file__).with_name(f"{chart}.gnuplot")
    subprocess.run(["gnuplot", "-e", f"results='{results}'", script], check=True)
    for file in files:
        file.unlink()


def draw_charts(results: Path) -> None:
    """The charts of what the folder has measurements of."""
    if (results / "comparison.tsv").exists():
        comparisons = read_comparison(results / "comparison.tsv")
        draw(results, "comparison", {f"ratios-{size}.points": comparison_points(comparisons, size)
                                     for size in (10, 100, 500)})
    parts = ("module", "token")
    if all((results / f"{part}.tsv").exists() for part in parts):
        draw(results, "growth", {f"growth-{part}.points": growth_points(read_calls(results / f"{part}.tsv"))
                                 for part in parts})


def main(arguments: list[str]) -> int:
    parser = argparse.ArgumentParser(
        description="Writes RESULTS/tables.md and RESULTS/*.svg from the measurements in the folder RESULTS, as far as "
        "they are there. With a document, also replaces the tables in it, between its two marks.")
    parser.add_argument("results", type=Path)
    parser.add_argument("document", type=Path, nargs="?")
    options = parser.parse_args(arguments)
    try:
        text = tables(options.results)
        (options.results / "tables.md").write_text(text, encoding="utf-8")
        draw_charts(options.results)
        if options.document:
            options.document.write_text(with_tables(options.document.read_text(encoding="utf-8"), text),
                                        encoding="utf-8")
    except (OSError, ValueError, KeyError, subprocess.CalledProcessError) as problem:
        print(f"bench_report: {problem}", file=sys.stderr)
        return 1
    charts = " ".join(sorted(str(chart) for chart in options.results.glob("*.svg")))
    print(f"The tables are {options.results / 'tables.md'}; charts: {charts}")
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
