#!/usr/bin/env python3
"""Counts the results in JUnit files, such as ctest and GoogleTest write them."""

import argparse
import sys
import xml.etree.ElementTree
from pathlib import Path
from typing import NamedTuple


class Summary(NamedTuple):
    """Each test is in `tests`; a test that was disabled counts as skipped."""

    tests: int
    failures: int
    skipped: int


def summarize(file: Path) -> Summary:
    """Adds up the suites of a file. Raises ValueError where it is no JUnit file, OSError where it can't be read."""
    try:
        root = xml.etree.ElementTree.parse(file).getroot()
    except xml.etree.ElementTree.ParseError as problem:
        raise ValueError(f"{file} is no XML: {problem}") from problem
    # What holds suites repeats their sums.
    suites = [suite for suite in root.iter("testsuite") if suite.find("testsuite") is None]
    if not suites:
        raise ValueError(f"{file} holds no test suite")

    def total(*names: str) -> int:
        try:
            return sum(int(suite.get(name, "0")) for suite in suites for name in names)
        except ValueError as problem:
            raise ValueError(f"{file} has a count that is no number: {problem}") from problem

    return Summary(total("tests"), total("failures", "errors"), total("skipped", "disabled"))


def main(arguments: list[str]) -> int:
    parser = argparse.ArgumentParser(description="Prints the sums of JUnit files as one line: TESTS FAILURES SKIPPED")
    parser.add_argument("file", type=Path, nargs="+")
    try:
        summaries = [summarize(file) for file in parser.parse_args(arguments).file]
    except (OSError, ValueError) as problem:
        print(f"junit_summary: {problem}", file=sys.stderr)
        return 1
    print(*(sum(numbers) for numbers in zip(*summaries)))
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
