"""ECDSA signatures in DER."""

import contextlib
import io
import tempfile
import unittest
from pathlib import Path

import ecdsa_to_der


class EcdsaToDer(unittest.TestCase):
    def test_takes_zeros_from_small_numbers_and_keeps_one_before_a_set_first_bit(self) -> None:
        for signature, der in (("0001 0080", "3007 020101 02020080"), ("7f ff", "3007 02017f 020200ff"),
                               ("00 00", "3006 020100 020100"), ("0100 0001", "3007 02020100 020101")):
            with self.subTest(signature=signature):
                self.assertEqual(ecdsa_to_der.ecdsa_to_der(bytes.fromhex(signature)), bytes.fromhex(der))

    def test_writes_lengths_from_128_on_in_the_long_form(self) -> None:
        numbers = b"\x01" + bytes(65) + b"\xff" + bytes(65)
        der = ecdsa_to_der.ecdsa_to_der(numbers)
        self.assertEqual(der[:5], bytes.fromhex("30 8189 0242"))
        self.assertEqual(der[5:71], numbers[:66])
        self.assertEqual(der[71:], bytes.fromhex("0243 00") + numbers[66:])
        self.assertEqual(ecdsa_to_der.der_element(0x04, bytes(300))[:4], bytes.fromhex("0482012c"))

    def test_converts_files_and_refuses_what_holds_no_two_numbers(self) -> None:
        with tempfile.TemporaryDirectory() as name, contextlib.redirect_stderr(io.StringIO()) as errors:
            signature, der = Path(name, "signature"), Path(name, "der")
            signature.write_bytes(b"\x01\x02")
            self.assertEqual(ecdsa_to_der.main([str(signature), str(der)]), 0)
            self.assertEqual(der.read_bytes(), bytes.fromhex("3006020101020102"))
            self.assertEqual(errors.getvalue(), "")
            der.unlink()
            for content in (b"", b"\x01", b"\x01\x02\x03"):
                signature.write_bytes(content)
                self.assertEqual(ecdsa_to_der.main([str(signature), str(der)]), 1)
                self.assertIn("aren't two numbers of the same length", errors.getvalue())
            self.assertEqual(ecdsa_to_der.main([str(Path(name, "none")), str(der)]), 1)
            self.assertFalse(der.exists())


if __name__ == "__main__":
    unittest.main()
