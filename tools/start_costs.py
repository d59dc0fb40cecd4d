#!/usr/bin/env python3
"""Measures a process with the module from its start to its first signature, beside one with OpenSSL only."""

import argparse
import os
import shutil
import subprocess
import sys
import tempfile
import time
from pathlib import Path
from typing import NamedTuple

from measuring import run, spread

ROUNDS = 25
RATIO_LIMIT = 1.6
MEMORY_LIMIT = 10  # MB, of the module with one key used


class Cost(NamedTuple):
    milliseconds: float
    peak_megabytes: float


def cost(program: Path, *arguments: str | Path) -> Cost:
    """From the start of the program to the time that it writes (CLOCK_MONOTONIC, in ns); it also writes its KiB."""
    reading, writing = os.pipe()
    words = [str(word) for word in (program, program.with_name("libZentakPKCS11.so"), *arguments)]
    start = time.monotonic_ns()
    process = os.posix_spawn(words[0], words, os.environ, file_actions=[(os.POSIX_SPAWN_DUP2, writing, 1)])
    os.close(writing)
    with open(reading, encoding="ascii") as output:
        answer = output.read().split()
    _, status = os.waitpid(process, 0)
    if status != 0 or len(answer) != 2:
        raise RuntimeError(f"{' '.join(words)} failed")
    return Cost((int(answer[0]) - start) / 1e6, int(answer[1]) * 1024 / 1e6)


def verdict(kept: bool) -> str:
    return "ok" if kept else "OVER"


def measure_start(program: Path, where: str, key_pairs: int, key: Path) -> None:
    # The last RSA key; RSA and EC keys take turns, RSA first.
    last_rsa_id = str(key_pairs - 1 if key_pairs % 2 == 0 else key_pairs)
    pairs = [(cost(program, "openssl", key).milliseconds, cost(program, "start", last_rsa_id).milliseconds)
             for _ in range(ROUNDS)]
    direct = spread([pair[0] for pair in pairs]).median
    module = spread([pair[1] for pair in pairs]).median
    ratio = spread([pair[1] / pair[0] for pair in pairs])
    what = f"start, sign at {key_pairs} pairs, {where}"
    print(f"{what:<34} {module:6.2f} ms, OpenSSL alone {direct:6.2f} ms, ratio {ratio.median:.2f} "
          f"({ratio.first:.2f}-{ratio.third:.2f}), limit {RATIO_LIMIT}  {verdict(ratio.median <= RATIO_LIMIT)}",
          flush=True)


def measure_memory(program: Path, key_pairs: int, key: Path) -> None:
    own, direct, one, everything = (cost(program, *arguments).peak_megabytes for arguments in (
        ("nothing", "-"), ("openssl", key), ("start", "1"), ("start", "")))
    print(f"peak memory at {key_pairs} pairs: program {own:.1f} MB; on top of it OpenSSL alone {direct - own:.1f}, the "
          f"module {one - own:.1f} with one key used (limit {MEMORY_LIMIT}  {verdict(one - own < MEMORY_LIMIT)}), "
          f"{everything - own:.1f} with all used")


def measure(programs: Path, folder: Path) -> None:
    program = programs / "benchmark_client"
    key = folder / "key.pem"
    # Where the system has it, a store in memory, too: a login flushes the file of the PIN's attempts, and what a disk
    # takes for it may change by the minute.
    memory = Path("/dev/shm")
    for key_pairs in (1, 500):
        tokens = folder / f"tokens-{key_pairs}"
        subprocess.run([programs / "token_benchmark", tokens, str(key_pairs), "0", key], check=True)
        os.environ["ZENTAK_TOKENS"] = str(tokens)
        measure_start(program, "on disk", key_pairs, key)
        if memory.is_dir():
            with tempfile.TemporaryDirectory(prefix="zentak-benchmark-", dir=memory) as copy:
                os.environ["ZENTAK_TOKENS"] = str(shutil.copytree(tokens, Path(copy, "tokens")))
                measure_start(program, "in memory", key_pairs, key)
            os.environ["ZENTAK_TOKENS"] = str(tokens)
    measure_memory(program, 500, key)


def measure_all(programs: Path) -> None:
    with tempfile.TemporaryDirectory(prefix="start-", dir=programs) as folder:
        os.environ["TMPDIR"] = folder
        measure(programs, Path(folder))


def main(arguments: list[str]) -> int:
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("programs", type=Path, help="the folder of the benchmarks' programs")
    programs = parser.parse_args(arguments).programs.resolve()
    return run("start_costs", lambda: measure_all(programs))


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
