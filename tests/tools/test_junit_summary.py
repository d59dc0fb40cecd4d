"""The reader of JUnit files."""

import contextlib
import io
import tempfile
import unittest
from pathlib import Path

import junit_summary

CTEST = """<?xml version="1.0" encoding="UTF-8"?>
<testsuite name="Linux-c++"
	tests="4"
	failures="1"
	disabled="1"
	skipped="1"
	hostname=""
	time="3">
	<testcase name="good" status="run"><system-out>tests="99" failures="98"</system-out></testcase>
	<testcase name="bad" status="fail"><failure message=""/></testcase>
	<testcase name="skipped" status="notrun"><skipped message=""/></testcase>
	<testcase name="disabled" status="disabled"/>
</testsuite>
"""
GOOGLETEST = """<testsuites tests="5" failures="2" disabled="0" errors="1" name="AllTests">
  <testsuite name="First" tests="3" failures="2" disabled="0" errors="0"/>
  <testsuite name="Second" tests="2" failures="0" disabled="0" skipped="0" errors="1"/>
</testsuites>
"""


class JunitSummary(unittest.TestCase):
    def setUp(self) -> None:
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = Path(folder.name)

    def file(self, name: str, text: str) -> str:
        path = self.folder / name
        path.write_text(text, encoding="utf-8")
        return str(path)

    def run_main(self, *arguments: str) -> tuple[int, str, str]:
        with contextlib.redirect_stdout(io.StringIO()) as output, contextlib.redirect_stderr(io.StringIO()) as errors:
            status = junit_summary.main(list(arguments))
        return status, output.getvalue(), errors.getvalue()

    def test_takes_the_counts_of_the_suite_and_none_of_what_a_test_printed(self) -> None:
        self.assertEqual(self.run_main(self.file("a.xml", CTEST)), (0, "4 1 2\n", ""))

    def test_adds_up_suites_without_their_sums_and_takes_errors_for_failures(self) -> None:
        self.assertEqual(self.run_main(self.file("a.xml", GOOGLETEST)), (0, "5 3 0\n", ""))

    def test_adds_up_files(self) -> None:
        files = [self.file("a.xml", CTEST), self.file("b.xml", GOOGLETEST)]
        self.assertEqual(self.run_main(*files), (0, "9 4 2\n", ""))

    def test_refuses_what_it_cannot_count(self) -> None:
        for text, reason in (("", "is no XML"), (CTEST[:200], "is no XML"), ("<html/>", "holds no test suite"),
                             ('<testsuite tests="many"/>', "a count that is no number")):
            with self.subTest(text=text):
                status, output, errors = self.run_main(self.file("a.xml", text))
                self.assertEqual((status, output), (1, ""))
                self.assertIn(reason, errors)

    def test_refuses_a_missing_file_beside_a_good_one(self) -> None:
        status, output, errors = self.run_main(self.file("a.xml", CTEST), str(self.folder / "none.xml"))
        self.assertEqual((status, output), (1, ""))
        self.assertIn("none.xml", errors)


if __name__ == "__main__":
    unittest.main()
