"""The check of the sources' layout."""

import json
import tempfile
import unittest
from pathlib import Path

import check_layout

RULES = {"src": {"base": [], "device": ["base"], "slots": ["base", "device"], "crypto": ["base", "device"]}}
DOCUMENT = """| Folder | may include |
|---|---|
| `src/base/` | nothing of ours |
| `src/device/` | `base/` |
| `src/slots/` | `base/`, `device/` |
| `src/crypto/` | `base/`, `device/` |
"""


class CheckLayout(unittest.TestCase):
    def setUp(self) -> None:
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.root = Path(folder.name)
        self.write("tools/include_rules.json", json.dumps(RULES))
        self.write("docs/architecture.md", DOCUMENT)

    def write(self, name: str, text: str) -> None:
        path = self.root / name
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_text(text, encoding="utf-8")

    def complaints(self) -> list[str]:
        return check_layout.check(self.root)

    def test_permits_includes_downwards_and_within_a_folder(self) -> None:
        self.write("src/slots/a.cpp", '#include <vector>\n#include "slots/a.h"\n#include "device/b.h"\n#include "c.h"\n')
        self.assertEqual(self.complaints(), [])

    def test_refuses_an_include_upwards_and_names_its_line(self) -> None:
        self.write("src/base/a.h", '#include <vector>\n  #  include "device/b.h"\n')
        self.assertEqual(self.complaints(), ["src/base/a.h:2: src/base/ may not include src/device/"])

    def test_refuses_an_include_of_a_neighbour(self) -> None:
        self.write("src/crypto/a.cpp", '#include "slots/b.h"\n')
        self.assertEqual(self.complaints(), ["src/crypto/a.cpp:1: src/crypto/ may not include src/slots/"])

    def test_refuses_a_folder_that_nobody_knows(self) -> None:
        self.write("src/base/a.h", '#include "elsewhere/b.h"\n')
        self.write("src/new/a.h", "")
        self.assertEqual(
            self.complaints(),
            ["src/base/a.h:1: src/base/ may not include elsewhere/b.h", "src/new/a.h: its folder isn't in include_rules.json"],
        )

    def test_permits_what_the_software_token_shares_with_the_module(self) -> None:
        rules = {"softtoken": {"keys": []}}
        self.write("tools/include_rules.json", json.dumps(rules))
        self.write("docs/architecture.md", "| `softtoken/keys/` | nothing of ours |\n")
        self.write("softtoken/keys/a.h", '#include "base/secrets.h"\n#include "device/zentak_dsc_library.h"\n')
        self.assertEqual(self.complaints(), [])
        self.write("softtoken/keys/b.h", '#include "device/token.h"\n')
        self.assertEqual(self.complaints(), ["softtoken/keys/b.h:1: softtoken/keys/ may not include device/token.h"])

    def test_refuses_a_file_that_is_too_long(self) -> None:
        self.write("src/base/a.h", "\n" * 300)
        self.assertEqual(self.complaints(), [])
        self.write("src/base/a.h", "\n" * 301)
        self.assertEqual(self.complaints(), ["src/base/a.h: 301 lines, more than 300"])

    def test_compares_the_document_with_the_rule(self) -> None:
        self.write("docs/architecture.md", DOCUMENT.replace("`src/device/` | `base/`", "`src/device/` | nothing"))
        self.assertEqual(
            self.complaints(),
            ["docs/architecture.md: src/device/ includes [] there, ['base'] in include_rules.json"],
        )


if __name__ == "__main__":
    unittest.main()
