"""What the harness of tests/system finds good and bad."""

import contextlib
import io
import sys
import unittest
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parents[1] / "system"))

import harness


class Checks:
    """Only the checks of a harness.SystemTest, without its folder."""

    checks = failures = 0
    check = harness.SystemTest.check
    same = harness.SystemTest.same


class HarnessTest(unittest.TestCase):
    TEXT = "first  line\n  second line:   2\nfirst thing\n"

    def failures(self, ask, text: str = TEXT) -> int:
        """How many of the checks fail that `ask` makes of an output."""
        checks = Checks()
        with contextlib.redirect_stdout(io.StringIO()) as said:
            ask(harness.Output(checks, "output", text))
        self.assertEqual(checks.checks, 1)
        self.assertEqual(said.getvalue().startswith("FAILED: "), checks.failures == 1)
        return checks.failures

    def test_accepts_what_is_there(self) -> None:
        for ask in (lambda output: output.says("cond line"), lambda output: output.counts(2, "first"),
                    lambda output: output.counts(0, "third"), lambda output: output.has_line("first  line"),
                    lambda output: output.begins(2, "first "), lambda output: output.begins(1, " second line: 2"),
                    lambda output: output.shows("second line: 2"), lambda output: output.shows("first line", 1),
                    lambda output: output.matches(2, "first .*"),
                    lambda output: output.is_text("\nfirst  line\n# why\n  second line:   2  \nfirst thing\n")):
            self.assertEqual(self.failures(ask), 0)

    def test_refuses_what_is_not_there(self) -> None:
        for ask in (lambda output: output.says("third"), lambda output: output.says("line\n"),
                    lambda output: output.counts(1, "first"), lambda output: output.counts(0, "first"),
                    lambda output: output.has_line("first line"), lambda output: output.has_line("first"),
                    lambda output: output.begins(1, "second"), lambda output: output.begins(1, "first"),
                    lambda output: output.shows("second line"), lambda output: output.shows("first line", 2),
                    lambda output: output.matches(1, "first"), lambda output: output.is_text("first  line\n"),
                    lambda output: output.is_text("first  line\n  second line:   2\nfirst thing\n\n"),
                    lambda output: output.is_text("first  line\n second line:   2\nfirst thing\n")):
            self.assertEqual(self.failures(ask), 1)

    def test_compares_files_and_bytes(self) -> None:
        here = Path(__file__)
        content = here.read_bytes()
        for expected, actual, failures in ((here, content, 0), (content, str(here), 0), (content, content + b"\0", 1),
                                           (here, b"", 1)):
            self.assertEqual(self.failures(lambda output, pair=(expected, actual): output.test.same("they", *pair)),
                             failures)


if __name__ == "__main__":
    unittest.main()
