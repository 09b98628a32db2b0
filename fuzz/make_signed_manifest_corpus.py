#!/usr/bin/env python3
"""Writes the seed corpus of the signed-manifest fuzzer (fuzz/corpus/signed_manifest)
from the committed test PKI, with the openssl command-line tool for signatures.

    fuzz/make_signed_manifest_corpus.py

Each seed is one mode byte (0: real certificate services on the test PKI,
1: services that trust anything; see signed_manifest_harness.h) and a file.
Seeds named "accept-..." must be accepted, all others refused; the corpus
replay test holds the fuzzer to that. Files the fuzzer finds later are added
by hand, named "crash-..." for reproducers.
"""
import os
import plistlib
import subprocess
import sys

HERE = os.path.dirname(os.path.abspath(__file__))
PKI = os.path.join(HERE, "..", "tests", "fixtures", "pki")
OUT = os.path.join(HERE, "corpus", "signed_manifest")


def der(name):
    return subprocess.run(["openssl", "x509", "-in", os.path.join(PKI, name + ".pem"),
                           "-outform", "DER"], check=True, capture_output=True).stdout


def sign(leaf, payload):
    return subprocess.run(["openssl", "dgst", "-sha1", "-sign", os.path.join(PKI, leaf + ".key")],
                          input=payload, check=True, capture_output=True).stdout


def record(kind, mode, uid, xattrs):
    return {
        "VTLManifestFileAttributes": {
            "FileType": kind, "FileSize": 12, "OwnerAccountID": uid, "GroupOwnerAccountID": uid,
            "OwnerAccountName": "mobile", "GroupOwnerAccountName": "mobile",
            "PosixPermissions": mode, "ProtectionClass": "C",
        },
        "VTLManifestFileExtendedAttributes": xattrs,
        "VTLManifestFileHash": bytes(20) if kind == "Regular" else b"",
        "VTLManifestSymbolicLinkTargetFile": "",
    }


def raw(version=3, **changes):
    manifest = {
        "Version": version,
        "Info": {"Name": "seed"},
        "Backup": {"/": record("Directory", 0o755, 501, {}),
                   "/a.txt": record("Regular", 0o644, 501, {"user.tag": b"blue"})},
        "App": ["com.example.app"],
        "AppData": {"com.example.app": {"Manifest": {"/": record("Directory", 0o700, 501, {})}}},
    }
    for key, value in changes.items():
        if value is None:
            manifest.pop(key, None)
        else:
            manifest[key] = value
    return manifest


def envelope(payload, leaf="production-leaf", chain=("production-intermediate",), **changes):
    env = {
        "Version": 2,
        "Certificate": [der(leaf)] + [der(c) for c in chain],
        "Signature": sign(leaf, payload),
        "Payload": payload,
    }
    for key, value in changes.items():
        if value is None:
            env.pop(key, None)
        else:
            env[key] = value
    return env


def binary(value):
    return plistlib.dumps(value, fmt=plistlib.FMT_BINARY, sort_keys=True)


def xml(value):
    return plistlib.dumps(value, fmt=plistlib.FMT_XML, sort_keys=True)


def main():
    os.makedirs(OUT, exist_ok=True)
    for name in os.listdir(OUT):
        if not name.startswith("crash-"):
            os.remove(os.path.join(OUT, name))
    payload = binary(raw())
    tampered = bytearray(payload)
    tampered[len(tampered) // 2] ^= 1
    groups = binary(raw(4, GroupData={"group.a": {"/": record("Directory", 0o770, 501, {})}},
                        ExtensionData={"ext.b": {}}))
    seeds = {
        "accept-production-binary": (0, binary(envelope(payload))),
        "accept-production-xml": (0, xml(envelope(payload))),
        "accept-test-signer": (0, binary(envelope(payload, "test-leaf", ("test-intermediate",)))),
        "accept-trusting-groups": (1, binary(envelope(groups))),
        "accept-trusting-xml-payload": (1, binary(envelope(xml(raw(4))))),
        "refuse-bad-signature-tampered": (0, binary(dict(envelope(payload),
                                                         Payload=bytes(tampered)))),
        "refuse-version-1": (0, binary(envelope(payload, Version=1))),
        "refuse-no-certificate": (0, binary(envelope(payload, Certificate=None))),
        "refuse-certificate-garbage": (0, binary(envelope(payload, Certificate=[b"\x30\x82\x01"]))),
        "refuse-certificate-empty": (0, binary(envelope(payload, Certificate=[]))),
        "refuse-unknown-root": (0, binary(envelope(payload, "unknown-leaf",
                                                   ("unknown-intermediate", "unknown-root")))),
        "refuse-expired": (0, binary(envelope(payload, "production-leaf-expired"))),
        "refuse-no-payload": (0, binary(envelope(payload, Payload=None))),
        "refuse-truncated": (0, binary(envelope(payload))[:-40]),
        "refuse-top-level-array": (0, binary([1, 2, 3])),
        "refuse-trusting-payload-array": (1, binary(envelope(binary([raw()])))),
        "refuse-trusting-raw-version-5": (1, binary(envelope(binary(raw(5))))),
        "refuse-trusting-no-backup": (1, binary(envelope(binary(raw(Backup=None))))),
        "refuse-trusting-payload-text": (1, binary(envelope(b"not a property list"))),
        "refuse-trusting-deep-payload": (1, binary(envelope(
            b"<plist>" + b"<array>" * 2000 + b"</array>" * 2000 + b"</plist>"))),
    }
    for name, (mode, body) in seeds.items():
        with open(os.path.join(OUT, name), "wb") as f:
            f.write(bytes([mode]) + body)
    print(f"wrote {len(seeds)} seeds to {OUT}", file=sys.stderr)


if __name__ == "__main__":
    main()
