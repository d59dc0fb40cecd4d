#!/usr/bin/env python3
"""Measures the software token beside the same work done by OpenSSL directly with a loaded key.

Operations are measured in three ways by turns, a few of each at a time, so that whatever else the machine does hits all
three alike: OpenSSL; the module; and the device library at its boundary, without the module. A row's ratio and
difference are medians over the rounds.
"""

import argparse
import sys
from pathlib import Path
from typing import NamedTuple

from measuring import Client, Measurable, Spread, run, spread

ROUNDS = 60
BATCH = 15  # repetitions
CHANGES = 100


class Limit(NamedTuple):
    """Of the module beside OpenSSL: a ratio, or what may be added in microseconds."""

    ratio: float | None = None
    difference: float | None = None

    def __str__(self) -> str:
        return f"{self.ratio:.2f}" if self.ratio is not None else f"{self.difference:+.0f}"

    def verdict(self, ratio: float, difference: float) -> str:
        return verdict(ratio <= self.ratio if self.ratio is not None else difference <= self.difference)


LIMITS = {
    "RSA-2048 signature": Limit(ratio=1.05),
    "RSA-2048 decryption v1.5": Limit(ratio=1.05),
    "RSA-2048 decryption OAEP": Limit(ratio=1.05),
    "RSA-2048 verification": Limit(ratio=1.3),
    "P-256 signature": Limit(difference=7),
    "P-256 verification": Limit(ratio=1.15),
    "P-256 ECDH": Limit(ratio=1.0),
}
CHANGE_LIMITS = {10: 2.0, 500: 5.0}  # milliseconds, by the number of key pairs


def verdict(kept: bool) -> str:
    return "ok" if kept else "OVER"


def operation_row(name: str, times: list[list[float]], reads: float, read_cost: float) -> str:
    """The table's row of the times by OpenSSL, module and device library, which are of the same rounds."""
    direct, module, _ = times
    ratio = spread([ours / theirs for ours, theirs in zip(module, direct)])
    difference = spread([ours - theirs for ours, theirs in zip(module, direct)]).median
    spreads = "".join(f" {each.median:7.1f} ({each.first:7.1f}-{each.third:7.1f})" for each in map(spread, times))
    limit = LIMITS[name]
    return (f"{name:<26}{spreads} {ratio.median:5.2f} ({ratio.first:.2f}-{ratio.third:.2f}) {difference:+6.1f}  "
            f"{reads:5.1f} {spread(module).median - reads * read_cost:7.1f}  {limit!s:>6} "
            f"{limit.verdict(ratio.median, difference)}")


def in_milliseconds(times: Spread) -> str:
    return f"{times.median / 1e3:6.2f} ({times.first / 1e3:.2f}-{times.third / 1e3:.2f}) ms"


def change_row(key_pairs: int, whole: Spread, least: Spread) -> str:
    limit = CHANGE_LIMITS[key_pairs]
    return (f"{f'generate, destroy at {key_pairs} pairs':<34} {in_milliseconds(whole)}, OpenSSL and two flushed files "
            f"{in_milliseconds(least)}, limit {limit:.0f} ms  {verdict(whole.median / 1e3 < limit)}")


def by_turns(client: Client, measurables: list[Measurable], rounds: int, repetitions: int) -> list[list[float]]:
    """The times of each of the measurables."""
    taken = [[client.measure(each, repetitions) for each in measurables] for _ in range(rounds)]
    return [list(times) for times in zip(*taken)]


def measure(client: Client) -> None:
    found = {(each.operation, each.key_pairs): each for each in client.measurables}
    key_pairs = client.measurables[0].key_pairs
    read_cost = spread(by_turns(client, [found["look for the log level", key_pairs]], 20, 100)[0]).median
    print(f"Medians (quartiles) in microseconds, {key_pairs} key pairs. A look for the log level takes "
          f"{read_cost:.2f}.\n")
    for heads in (("operation", "OpenSSL", "module", "device library", "module / OpenSSL", "differ", "level", "module",
                   "limit"), ("", "", "", "", "", "ence", "reads", "without", "")):
        print("{:<26} {:>25} {:>25} {:>25} {:>17} {:>7}  {:>5} {:>7}  {:>6}".format(*heads).rstrip())
    for name in LIMITS:
        ways = [found[f"{name}, {way}", key_pairs] for way in ("OpenSSL", "module", "device library")]
        reads = client.measure(found[f"{name}, reads", key_pairs], 1)
        print(operation_row(name, by_turns(client, ways, ROUNDS, BATCH), reads, read_cost), flush=True)
    print()
    for size in CHANGE_LIMITS:
        ways = [found["generate, destroy", size], found["OpenSSL and two flushed files", size]]
        print(change_row(size, *map(spread, by_turns(client, ways, CHANGES, 1))), flush=True)


def measure_with(program: Path) -> None:
    with Client(program) as client:
        measure(client)


def main(arguments: list[str]) -> int:
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("program", type=Path, help="software_token_benchmark")
    program = parser.parse_args(arguments).program.resolve()
    return run("beside_openssl", lambda: measure_with(program))


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
