"""Tables of what scripts/bench has measured."""

import contextlib
import io
import tempfile
import unittest
from pathlib import Path

import bench_report

CALLS = """search by id\t10\t10\t2.5\t2.25\t3
certificate imported\t9\t9\t1240\t1220\t1260
search by id\t1\t1\t2\t2\t2
search by id\t10\t1\t3\t3\t3
search by id\t100\t1\t12\t12\t12
search by id\t500\t1\t501\t501\t501
search by id\t1\t10\t2\t2\t2
search by id\t1\t100\t2\t2\t2
search by id\t1\t500\t1.99\t1.99\t1.99
"""
CALLS_TABLE = """| Operation, 10 key pairs and certificates | Median | Quartiles |
|---|--:|--:|
| search by id | 2.50 µs | 2.25 µs to 3.00 µs |
| certificate imported | 1.24 ms | 1.22 ms to 1.26 ms |

| Growth | with | 1 | 10 | 100 | 500 | for each more |
|---|---|--:|--:|--:|--:|--:|
| search by id | key pairs | 2.00 µs | 3.00 µs | 12.0 µs | 501 µs | 1000 ns |
| search by id | certificates | 2.00 µs | 2.00 µs | 2.00 µs | 1.99 µs | 0 ns |
"""
COMPARISON = """10\tsearch by id\tother\t2.5\t2\t3\t100\t90\t110\t0.025\t0.02\t0.03
10\tlabel changed\tchanging\t2300\t2\t3\t1900\t90\t110\t1.21\t1.19\t1.25
10\tC_GetInfo\tstored\t0.14\t0.1\t0.2\t0.05\t0.05\t0.05\t2.85\t2.84\t2.86
100\tsearch by id\tother\t3\t2\t3\t1140\t90\t110\t0.0126\t0.0126\t0.0127
100\tlabel changed\tchanging\t1000\t2\t3\t2000\t90\t110\t0.5\t0.5\t0.5
100\tC_GetInfo\tstored\t0.17\t0.1\t0.2\t0.05\t0.05\t0.05\t3.6\t3.5\t3.72
"""
COMPARISON_TABLE = """| Ours / theirs = ratio, its quartiles | 10 key pairs | 100 key pairs | At most |
|---|---|---|---|
| search by id | 2.50 µs / 100 µs = **0.025** 0.020–0.030 | 3.00 µs / 1.14 ms = **0.013** (over) 0.013–0.013 | 0.06 / 0.01 |
| label changed | 2.30 ms / 1.90 ms = **1.21** (over) 1.19–1.25 | 1.00 ms / 2.00 ms = **0.50** 0.50–0.50 | 1 |
| C_GetInfo | 0.14 µs / 0.05 µs = **2.85** 2.84–2.86 | 0.17 µs / 0.05 µs = **3.60** 3.50–3.72 |  |
"""


class BenchReport(unittest.TestCase):
    def setUp(self) -> None:
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.results = Path(folder.name)

    def test_writes_numbers_with_three_digits_that_count(self) -> None:
        self.assertEqual([bench_report.time(value) for value in (0.149, 9.994, 9.995, 99.94, 99.95, 999.4, 1000, 5e6)],
                         ["0.15 µs", "9.99 µs", "10.0 µs", "99.9 µs", "100 µs", "999 µs", "1.00 ms", "5000 ms"])
        self.assertEqual([bench_report.ratio(value) for value in (0.00071, 0.0126, 0.25, 75.04)],
                         ["0.0007", "0.013", "0.25", "75.0"])

    def test_tells_the_calls_on_an_ordinary_token_and_how_they_grow(self) -> None:
        (self.results / "module.tsv").write_text(CALLS, encoding="utf-8")
        calls = bench_report.read_calls(self.results / "module.tsv")
        self.assertEqual("\n".join(bench_report.calls_table(calls)) + "\n", CALLS_TABLE)

    def test_tells_the_ratios_and_which_are_over_their_limit(self) -> None:
        (self.results / "comparison.tsv").write_text(COMPARISON, encoding="utf-8")
        comparisons = bench_report.read_comparison(self.results / "comparison.tsv")
        self.assertEqual("\n".join(bench_report.comparison_table(comparisons)) + "\n", COMPARISON_TABLE)

    def test_takes_the_measurements_that_are_there(self) -> None:
        (self.results / "token.tsv").write_text(CALLS, encoding="utf-8")
        (self.results / "openssl.txt").write_text("a row   \n\nanother\n", encoding="utf-8")
        (self.results / "module.tsv").write_text("", encoding="utf-8")
        text = bench_report.tables(self.results)
        self.assertRegex(text, r"^Measured on \d{4}-\d\d-\d\d, a.* machine with \d+ processors \(.*\), .+\.\n\n### With")
        self.assertEqual([line for line in text.splitlines() if line.startswith("###")],
                         ["### With the software token", "### The software token beside OpenSSL"])
        self.assertTrue(text.endswith("```\na row\n\nanother\n```\n"))

    def test_puts_the_tables_between_the_marks_of_a_document(self) -> None:
        (self.results / "token.tsv").write_text(CALLS, encoding="utf-8")
        document = self.results / "page.md"
        begin, end = "before\n<!-- measured: begin; by -->\n", "<!-- measured: end -->\nafter\n"
        document.write_text(f"{begin}old\n{end}", encoding="utf-8")
        with contextlib.redirect_stdout(io.StringIO()):
            self.assertEqual(bench_report.main([str(self.results), str(document)]), 0)
        tables = (self.results / "tables.md").read_text(encoding="utf-8")
        self.assertIn(CALLS_TABLE, tables)
        self.assertEqual(document.read_text(encoding="utf-8"), f"{begin}{tables}{end}")

    def test_refuses_a_folder_without_measurements_and_a_document_without_marks(self) -> None:
        document = self.results / "page.md"
        document.write_text("before\n<!-- measured: end -->\n", encoding="utf-8")
        for reason in ("nothing is measured yet", "0 places for measurements"):
            with contextlib.redirect_stderr(io.StringIO()) as errors:
                self.assertEqual(bench_report.main([str(self.results), str(document)]), 1)
            self.assertIn(reason, errors.getvalue())
            (self.results / "token.tsv").write_text(CALLS, encoding="utf-8")
        self.assertEqual(document.read_text(encoding="utf-8"), "before\n<!-- measured: end -->\n")

    def test_gives_the_charts_their_points(self) -> None:
        (self.results / "both.tsv").write_text(COMPARISON, encoding="utf-8")
        comparisons = bench_report.read_comparison(self.results / "both.tsv")
        self.assertEqual(bench_report.comparison_points(comparisons, 100),
                         "1\t0.0126\t0.0126\t0.0127\tsearch by id\n2\t0.5\t0.5\t0.5\tlabel changed\n")
        (self.results / "both.tsv").write_text(CALLS, encoding="utf-8")
        points = bench_report.growth_points(bench_report.read_calls(self.results / "both.tsv"))
        self.assertEqual(points, "1\t2\t2\t2\n10\t3\t3\t3\n100\t12\t12\t12\n500\t501\t501\t501\n" + "\n\n" * 4)


if __name__ == "__main__":
    unittest.main()
