#!/usr/bin/env python3
"""Wraps an archive in the signed package envelope following only the byte
layout written in docs/package-format.md, with the openssl command-line tool for
Ed25519, so tests can show that a second, independent publisher interoperates.

usage: envelope_by_hand.py ARCHIVE PRIVATE_PEM KEY_TYPE OUT [BINDING]
With BINDING (a file holding the binding's JSON text) it writes format 2."""
import hashlib
import struct
import subprocess
import sys
import tempfile


def main():
    archive_path, private_pem, key_type, out_path = sys.argv[1:5]
    binding = open(sys.argv[5], "rb").read() if len(sys.argv) > 5 else None
    version = 1 if binding is None else 2
    archive = open(archive_path, "rb").read()
    # The raw Ed25519 public key is the last 32 bytes of its DER SubjectPublicKeyInfo.
    der = subprocess.run(["openssl", "pkey", "-in", private_pem, "-pubout", "-outform", "DER"],
                         check=True, capture_output=True).stdout
    key_id = hashlib.sha256(der[-32:]).digest()
    header = b"VESKPKG1" + struct.pack(">Q", len(archive))
    signed_tail = (key_id + struct.pack(">IIQ", int(key_type), version, len(archive)) +
                   b"VESKDBUD-SIGNED\n")
    section = b"" if binding is None else struct.pack(">Q", len(binding)) + binding
    message = hashlib.sha512(header + archive).digest() + signed_tail
    if binding is not None:
        message += hashlib.sha512(section).digest()
    with tempfile.NamedTemporaryFile() as msg:
        msg.write(message)
        msg.flush()
        signature = subprocess.run(["openssl", "pkeyutl", "-sign", "-rawin", "-inkey", private_pem,
                                    "-in", msg.name], check=True, capture_output=True).stdout
    assert len(signature) == 64
    with open(out_path, "wb") as out:
        out.write(header + archive + signature + signed_tail + section)


if __name__ == "__main__":
    sys.exit(main())
