#!/usr/bin/env python3
"""Measures the module with the software token beside another PKCS #11 module with the same keys and certificates.

Two clients measure the same operation by turns, so that whatever else the machine does hits both alike. Writes one line
an operation and token size, separated by tabs:

  PAIRS  OPERATION  KIND  OURS  QUARTILES  THEIRS  QUARTILES  RATIO  QUARTILES

with times in microseconds. A ratio is ours to theirs, of neighbouring measurements, and its median is told.
"""

import argparse
import os
import subprocess
import sys
import tempfile
from pathlib import Path

from measuring import Client, Measurable, Spread, run, spread

BATCH = 1000  # microseconds


def compare(ours: Client, theirs: Client, operation: Measurable, rounds: int) -> tuple[Spread, Spread, Spread]:
    """Our time, their time and the ratio."""
    sides = [(client, client.repetitions(operation, BATCH), []) for client in (ours, theirs)]
    for number in range(rounds):
        # The one that begins changes, so that neither is always the one that finds the other's traces in the caches.
        for client, repetitions, times in sides if number % 2 == 0 else reversed(sides):
            times.append(client.measure(operation, repetitions))
    our_times, their_times = (times for _, _, times in sides)
    return spread(our_times), spread(their_times), spread([our / their for our, their in zip(our_times, their_times)])


def compare_tokens(programs: Path, peer: Path, folder: Path, key_pairs: int, rounds: int) -> None:
    """Compares all operations on tokens with so many key pairs."""
    tokens, peer_tokens, configuration, keys = (folder / name for name in ("tokens", "peer", "peer.conf", "keys.pem"))
    peer_tokens.mkdir(parents=True)
    configuration.write_text(f"directories.tokendir = {peer_tokens}\nobjectstore.backend = file\nlog.level = ERROR\n",
                             encoding="utf-8")
    os.environ.update(ZENTAK_TOKENS=str(tokens), SOFTHSM2_CONF=str(configuration))
    subprocess.run([programs / "token_benchmark", tokens, str(key_pairs), str(key_pairs), keys], check=True)
    subprocess.run(["softhsm2-util", "--init-token", "--free", "--label", "Benchmark", "--so-pin", "87654321", "--pin",
                    "12345678"], check=True, stdout=subprocess.DEVNULL)
    program = programs / "benchmark_client"
    subprocess.run([program, peer, "fill", keys], check=True)
    ours, theirs = (Client(program, module, "measure", str(key_pairs))
                    for module in (programs / "libZentakPKCS11.so", peer))
    with ours, theirs:
        for operation in ours.measurables:
            # A change of the token reaches the disk, and an RSA key takes as long as chance will have it.
            spreads = compare(ours, theirs, operation, rounds if operation.kind != "changing" else (rounds + 2) // 3)
            numbers = (f"{number:.4g}" for measured in spreads for number in measured)
            print(key_pairs, operation.operation, operation.kind, *numbers, sep="\t", flush=True)


def compare_all(programs: Path, peer: Path, rounds: int, sizes: list[int]) -> None:
    with tempfile.TemporaryDirectory(prefix="compare-", dir=programs) as folder:
        os.environ["TMPDIR"] = folder
        for key_pairs in sizes:
            compare_tokens(programs, peer, Path(folder, str(key_pairs)), key_pairs, rounds)


def main(arguments: list[str]) -> int:
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("programs", type=Path, help="the folder of the benchmarks' programs and of the module")
    parser.add_argument("peer", type=Path, help="the other module")
    parser.add_argument("rounds", type=int)
    parser.add_argument("key_pairs", type=int, nargs="*", default=[10, 100, 500])
    options = parser.parse_args(arguments)
    return run("compare_modules", lambda: compare_all(options.programs.resolve(), options.peer, options.rounds,
                                                      options.key_pairs))


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
