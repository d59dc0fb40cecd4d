#!/usr/bin/env python3
"""Checks the layout of the product's sources: who includes whom, how long a file may be, and that
docs/architecture.md tells the same rule.

The rule is include_rules.json: for each tree (src, softtoken) its folders, and for each folder the folders of the same
tree that it may include. Every folder may include its own files. The software token may also include what it shares
with the module.
"""

import json
import re
import sys
from pathlib import Path

RULES = Path("tools/include_rules.json")
LONGEST_FILE = 300
# What softtoken/ shares with src/: the base, and the boundary that it implements.
SHARED = ("base/", "device/zentak_dsc_library.h")
INCLUDE = re.compile(r'^\s*#\s*include\s+"([^"]+)"')


def sources(folder: Path) -> list[Path]:
    """The C++ files under `folder`, sorted."""
    return sorted(path for path in folder.rglob("*") if path.suffix in (".h", ".cpp", ".inc", ".c"))


def includes(path: Path) -> list[tuple[int, str]]:
    """Line number and text of each include in quotation marks."""
    lines = path.read_text(encoding="utf-8").splitlines()
    return [(number, match[1]) for number, line in enumerate(lines, 1) if (match := INCLUDE.match(line))]


def complaint_about(tree: str, rule: dict[str, list[str]], folder: str, included: str) -> str | None:
    """Why a file of `folder` may not include `included`; None if it may."""
    target = included.split("/")[0] if "/" in included else folder
    if target == folder or target in rule.get(folder, []):
        return None
    if target in rule:
        return f"{tree}/{folder}/ may not include {tree}/{target}/"
    if tree == "softtoken" and included.startswith(SHARED):
        return None
    return f"{tree}/{folder}/ may not include {included}"


def check_tree(root: Path, tree: str, rule: dict[str, list[str]]) -> list[str]:
    """Complaints about one tree's includes and lengths of files."""
    complaints = []
    for path in sources(root / tree):
        name = path.relative_to(root)
        folder = name.parts[1]
        if folder not in rule:
            complaints.append(f"{name}: its folder isn't in {RULES.name}")
            continue
        for number, included in includes(path):
            complaint = complaint_about(tree, rule, folder, included)
            if complaint:
                complaints.append(f"{name}:{number}: {complaint}")
        length = len(path.read_text(encoding="utf-8").splitlines())
        if length > LONGEST_FILE:
            complaints.append(f"{name}: {length} lines, more than {LONGEST_FILE}")
    return complaints


def rule_in_document(text: str, tree: str) -> dict[str, list[str]]:
    """The rule that docs/architecture.md tells: the rows "| `tree/folder/` | `one/`, `two/` |"."""
    rows = re.findall(rf"^\| `{tree}/(\w+)/` \| (.*?) \|", text, re.MULTILINE)
    return {folder: re.findall(r"`(\w+)/`", cell) for folder, cell in rows}


def check(root: Path) -> list[str]:
    """All complaints about the project in `root`."""
    rules = json.loads((root / RULES).read_text(encoding="utf-8"))
    document = (root / "docs/architecture.md").read_text(encoding="utf-8")
    complaints = []
    for tree, rule in rules.items():
        complaints += check_tree(root, tree, rule)
        told = rule_in_document(document, tree)
        complaints += [
            f"docs/architecture.md: {tree}/{folder}/ includes {told.get(folder)} there, {rule.get(folder)} in {RULES.name}"
            for folder in sorted(rule.keys() | told.keys())
            if told.get(folder) != rule.get(folder)
        ]
    return complaints


def main() -> int:
    complaints = check(Path(sys.argv[1]) if len(sys.argv) > 1 else Path(__file__).parents[1])
    print(*complaints, sep="\n")
    return 1 if complaints else 0


if __name__ == "__main__":
    sys.exit(main())
