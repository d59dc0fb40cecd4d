"""The tools that measure, with clients that only say what they would have measured."""

import contextlib
import io
import sys
import unittest

import beside_openssl
import compare_modules
import measure_calls
from measuring import Client, Measurable, spread

# Takes 10 µs for its first operation and 2000 for the second; says other things, too.
FAKE = """
print("= fast\\tother\\t10\\t10\\n= slow\\tchanging\\t500\\t1\\n= ", flush=True)
while True:
    try:
        place, repetitions = map(int, input().split())
    except EOFError:
        raise SystemExit(STATUS)
    print("a module speaks\\n\\n= " + ("10.5", "2000")[place], flush=True)
"""


def fake(status: int = 0) -> list[str]:
    return [sys.executable, "-c", FAKE.replace("STATUS", str(status))]


class Scripted:
    """A client in this process: each operation takes its times one after the other."""

    def __init__(self, *times: float) -> None:
        self.times = list(times)
        self.asked: list[int] = []

    def repetitions(self, _: Measurable, batch: float) -> int:
        return int(batch)

    def measure(self, _: Measurable, repetitions: int) -> float:
        self.asked.append(repetitions)
        return self.times.pop(0)


class Measuring(unittest.TestCase):
    def test_quartiles_are_samples_or_between_two(self) -> None:
        self.assertEqual(spread([3.0]), (3, 3, 3))
        self.assertEqual(spread([5.0, 1.0, 2.0, 4.0, 3.0]), (3, 2, 4))
        self.assertEqual(spread([1.0, 2.0]), (1.5, 1.25, 1.75))

    def test_a_client_offers_and_answers(self) -> None:
        with Client(*fake()) as client:
            fast, slow = client.measurables
            self.assertEqual(slow, Measurable(1, "slow", "changing", 500, 1))
            self.assertEqual([client.measure(slow, 7), client.measure(fast, 1)], [2000, 10.5])
            self.assertEqual([client.repetitions(each, 1050) for each in (fast, slow)], [100, 1])

    def test_a_client_that_fails_or_ends_early_is_told(self) -> None:
        with self.assertRaisesRegex(RuntimeError, "failed"), Client(*fake(3)):
            pass
        with self.assertRaisesRegex(RuntimeError, "has ended"):
            Client(sys.executable, "-c", "print('= fast\\tother\\t1\\t1')")

    def test_calls_are_written_in_their_order(self) -> None:
        with contextlib.redirect_stdout(io.StringIO()) as output:
            self.assertEqual(measure_calls.main(["3", "--", *fake()]), 0)
        self.assertEqual(output.getvalue(), "fast\t10\t10\t10.5\t10.5\t10.5\nslow\t500\t1\t2000\t2000\t2000\n")
        with contextlib.redirect_stderr(io.StringIO()) as errors:
            self.assertEqual(measure_calls.main(["1", "no such program"]), 1)
        self.assertIn("no such program", errors.getvalue())

    def test_ratios_are_of_neighbouring_measurements(self) -> None:
        ours, theirs = Scripted(1, 4, 3), Scripted(2, 2, 6)
        compared = compare_modules.compare(ours, theirs, Measurable(0, "fast", "other", 1, 1), 3)
        self.assertEqual([each.median for each in compared], [3, 2, 0.5])
        self.assertEqual(ours.asked, [compare_modules.BATCH] * 3)

    def test_a_row_beside_openssl_tells_ratio_difference_and_what_is_left_without_the_log(self) -> None:
        row = beside_openssl.operation_row("P-256 signature", [[10.0, 20.0], [20.0, 30.0], [9.0, 9.0]], 5, 0.5)
        self.assertEqual(row.split(), ["P-256", "signature", "15.0", "(", "12.5-", "17.5)", "25.0", "(", "22.5-",
                                       "27.5)", "9.0", "(", "9.0-", "9.0)", "1.75", "(1.62-1.88)", "+10.0", "5.0",
                                       "22.5", "+7", "OVER"])
        row = beside_openssl.operation_row("P-256 ECDH", [[10.0], [10.0], [9.0]], 5, 0.5)
        self.assertTrue(row.endswith(" 1.00 ok"))


if __name__ == "__main__":
    unittest.main()
