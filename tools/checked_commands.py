#!/usr/bin/env python3
"""Chooses from a build's compile_commands.json what static analysis reads.

A source may be compiled several times: into the module's two forms, into tests, into benchmarks. For each form of
Cryptoki a source of the project is in one of the new files once, with the command of its own target.
"""

import argparse
import json
import sys
from pathlib import Path

FOLDERS = ("src", "softtoken", "examples")
WINDOWS_FORM = "-DZENTAK_WINDOWS_CRYPTOKI"


def choose(commands: list[dict[str, str]], repository: Path) -> dict[str, list[dict[str, str]]]:
    """The commands by form, "platform" and "windows-form"; those of other folders' targets are left out."""
    chosen: dict[str, dict[Path, dict[str, str]]] = {"platform": {}, "windows-form": {}}
    for command in commands:
        words = command["command"].split()
        file = Path(command["file"])
        target_folder = words[words.index("-o") + 1].split("/")[0]
        if target_folder in FOLDERS and file.is_relative_to(repository / target_folder):
            form = "windows-form" if WINDOWS_FORM in words else "platform"
            chosen[form].setdefault(file, command)
    # The sources of the tool take longest, and should not be last.
    return {form: sorted(kept.values(), key=lambda command: command["file"], reverse=True)
            for form, kept in chosen.items()}


def main(arguments: list[str]) -> int:
    parser = argparse.ArgumentParser(
        description="Writes FORM/compile_commands.json and the list FORM/sources below FOLDER, for each form of Cryptoki")
    parser.add_argument("build", type=Path, help="folder of a build by Ninja, such as build/linux")
    parser.add_argument("folder", type=Path)
    options = parser.parse_args(arguments)
    try:
        commands = json.loads((options.build / "compile_commands.json").read_text())
        chosen = choose(commands, Path(__file__).resolve().parents[1])
    except (OSError, ValueError, KeyError) as problem:
        print(f"checked_commands: {options.build}: {problem}", file=sys.stderr)
        return 1
    for form, kept in chosen.items():
        if not kept:
            print(f"checked_commands: {options.build} compiles nothing in the form {form}", file=sys.stderr)
            return 1
        (options.folder / form).mkdir(parents=True, exist_ok=True)
        (options.folder / form / "compile_commands.json").write_text(json.dumps(kept, indent=1))
        (options.folder / form / "sources").write_text("".join(command["file"] + "\n" for command in kept))
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
