"""What the tools that measure have in common: the other end of bench/measuring_client.h, and what describes samples."""

import os
import statistics
import subprocess
import sys
from collections.abc import Callable, Sequence
from pathlib import Path
from typing import NamedTuple


class Spread(NamedTuple):
    """Of times, or of ratios."""

    median: float
    first: float
    third: float


def spread(samples: Sequence[float]) -> Spread:
    """The quartiles of samples, of which there is one at least."""
    if len(samples) == 1:
        return Spread(samples[0], samples[0], samples[0])
    first, median, third = statistics.quantiles(samples, n=4, method="inclusive")
    return Spread(median, first, third)


class Measurable(NamedTuple):
    """What a client can measure: an operation on a token of that size."""

    place: int
    operation: str
    kind: str
    key_pairs: int
    certificates: int


class Client:
    """A process that measures what it is asked for.

    Attributes:
        measurables: what that can be
    """

    def __init__(self, *command: str | Path) -> None:
        self._process = subprocess.Popen(command, stdin=subprocess.PIPE, stdout=subprocess.PIPE, encoding="utf-8")
        self.measurables: list[Measurable] = []
        while line := self._line():
            name, kind, key_pairs, certificates = line.split("\t")
            self.measurables.append(Measurable(len(self.measurables), name, kind, int(key_pairs), int(certificates)))

    def __enter__(self) -> "Client":
        return self

    def __exit__(self, failure: type | None, *_: object) -> None:
        """Lets the process end. Raises RuntimeError unless it ends well."""
        if self._end() != 0 and failure is None:
            raise RuntimeError(f"{self._process.args[0]} failed")

    def _end(self) -> int:
        self._process.stdin.close()
        self._process.stdout.close()
        return self._process.wait()

    def _line(self) -> str:
        # Other lines come from modules: ours says there when it can't write its log.
        for line in self._process.stdout:
            if line.startswith("= "):
                return line[2:].rstrip("\n")
        self._end()
        raise RuntimeError(f"{self._process.args[0]} has ended")

    def measure(self, measurable: Measurable, repetitions: int) -> float:
        """The microseconds that one of the repetitions took."""
        self._process.stdin.write(f"{measurable.place} {repetitions}\n")
        self._process.stdin.flush()
        return float(self._line())

    def repetitions(self, measurable: Measurable, batch: float) -> int:
        """How many take `batch` microseconds together, about."""
        self.measure(measurable, 1)
        often = self.measure(measurable, max(1, min(1000, int(batch / 2 / max(self.measure(measurable, 1), 0.01)))))
        return max(1, min(100000, int(batch / max(often, 0.01))))


def run(name: str, work: Callable[[], None]) -> int:
    """The exit code of a tool: 1 after what went wrong is told."""
    # The log level is looked for in its usual folder, as with most applications.
    os.environ.pop("ZENTAK_CONFIG", None)
    try:
        work()
        return 0
    except (OSError, RuntimeError, ValueError, subprocess.CalledProcessError) as problem:
        print(f"{name}: {problem}", file=sys.stderr)
        return 1
