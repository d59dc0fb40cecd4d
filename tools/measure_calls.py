#!/usr/bin/env python3
"""Measures all that a program of bench/ offers, and writes the times in microseconds.

One line each, separated by tabs: OPERATION, KEY PAIRS, CERTIFICATES, MEDIAN, QUARTILES.
"""

import argparse
import itertools
import random
import sys

from measuring import Client, Measurable, run, spread

BATCH = 5000  # microseconds


def of_size(measurable: Measurable) -> tuple[int, int]:
    return measurable.key_pairs, measurable.certificates


def measure(client: Client, rounds: int) -> dict[Measurable, list[float]]:
    """Every operation takes its turn in each round: a slow moment of the machine hits one of the rounds of all."""
    # Those on a token of one size one after the other: to enter another token takes time.
    groups = [list(group) for _, group in itertools.groupby(sorted(client.measurables, key=of_size), of_size)]
    repetitions = {each: client.repetitions(each, BATCH) for group in groups for each in group}
    times: dict[Measurable, list[float]] = {each: [] for each in client.measurables}
    for _ in range(rounds):
        for group in random.sample(groups, len(groups)):
            for each in random.sample(group, len(group)):
                times[each].append(client.measure(each, repetitions[each]))
    return times


def write(rounds: int, command: list[str]) -> None:
    with Client(*command) as client:
        times = measure(client, rounds)
    for each, samples in times.items():
        numbers = (f"{value:.6g}" for value in spread(samples))
        print(each.operation, each.key_pairs, each.certificates, *numbers, sep="\t")


def main(arguments: list[str]) -> int:
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("rounds", type=int)
    parser.add_argument("command", nargs="+", help="the program and what runs it")
    options = parser.parse_args(arguments)
    return run("measure_calls", lambda: write(options.rounds, options.command))


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
