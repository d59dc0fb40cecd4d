#!/usr/bin/env python3
"""Turns an ECDSA signature as PKCS #11 gives it into the form that other programs read."""

import argparse
import sys
from pathlib import Path


def der_element(tag: int, content: bytes) -> bytes:
    """Tag, length and content; the length in its shortest form."""
    length = len(content)
    if length < 0x80:
        return bytes([tag, length]) + content
    digits = length.to_bytes((length.bit_length() + 7) // 8, "big")
    return bytes([tag, 0x80 | len(digits)]) + digits + content


def der_integer(number: int) -> bytes:
    """A number from 0 on; the first bit is the sign's."""
    return der_element(0x02, number.to_bytes(number.bit_length() // 8 + 1, "big"))


def ecdsa_to_der(signature: bytes) -> bytes:
    """The DER SEQUENCE of r and s, given one after the other. Raises ValueError unless they have the same length."""
    half = len(signature) // 2
    if half == 0 or len(signature) % 2 != 0:
        raise ValueError(f"{len(signature)} bytes aren't two numbers of the same length")
    numbers = (int.from_bytes(part, "big") for part in (signature[:half], signature[half:]))
    return der_element(0x30, b"".join(der_integer(number) for number in numbers))


def main(arguments: list[str]) -> int:
    parser = argparse.ArgumentParser(
        description="SIGNATURE holds the numbers r and s one after the other, each as long as the curve's order; "
        "DER-FILE becomes the DER SEQUENCE of both, which `openssl dgst -verify` and `openssl pkeyutl -verify` expect.")
    parser.add_argument("signature", type=Path)
    parser.add_argument("der_file", type=Path)
    files = parser.parse_args(arguments)
    try:
        files.der_file.write_bytes(ecdsa_to_der(files.signature.read_bytes()))
    except (OSError, ValueError) as problem:
        print(f"ecdsa_to_der: {files.signature}: {problem}", file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
