#!/usr/bin/env python3
"""Writes the seed corpora of zmra_header_fuzz and partition_map_fuzz.

Seeds follow the input layouts of partition_harness.h: well-formed headers
and disks of each block size, and a few damaged on purpose.
"""
import os
import struct
import sys
import uuid
import zlib

CURRENT = bytes.fromhex("6a9088cf8afd630ae351e24887e0b98b")
OLDER = bytes.fromhex("b189a5194f594b1dad441e127aaf4539")
JRF = bytes.fromhex("af3dc60f838472478e793d69d8477de4")
BLOCK_CHOICE = {4096: 0, 8192: 1, 16384: 2, 512: 3}


def geometry(media, block):
    shift = (((media - 1) >> 10) & 0xFFFFFFFF).bit_length()
    count = media >> shift
    return shift, count, (count - 8) << shift


def zmra_header(media, block, identifier=CURRENT, partitions=1):
    shift, count, usable = geometry(media, block)
    h = bytearray(4096)
    h[0:16] = identifier
    h[16:32] = uuid.UUID(int=media).bytes
    struct.pack_into("<QI", h, 32, media, partitions)
    begin = 16384 + 2 * block
    step = usable // partitions
    for p in range(partitions):
        r = 512 + 128 * p
        h[r:r + 16] = JRF
        h[r + 16:r + 32] = uuid.UUID(int=p + 1).bytes
        start = begin + p * step
        end = begin + usable if p == partitions - 1 else start + step
        struct.pack_into("<QQQ", h, r + 32, start, end, 0)
        h[r + 56:r + 64] = "Zmra".encode("utf-16-le")
    struct.pack_into("<H", h, 2048, 0xF000)
    for k in range(1, 1024):
        if k >= count:
            v = 0xF3FF
        elif k <= count - 8:
            v = k - 1
        else:
            v = 0xF111
        struct.pack_into("<H", h, 2048 + 2 * k, v)
    if identifier == CURRENT:
        struct.pack_into("<I", h, 44, zlib.crc32(bytes(h)))
    return bytes(h)


def disk(block, names, count=None):
    d = bytearray(3 * block)
    d[440:444] = b"armZ"
    h = block
    d[h:h + 8] = b"EFI PART"
    first, lba = 6, 6
    struct.pack_into("<QQ", d, h + 40, first, 2048 - 6)
    struct.pack_into("<I", d, h + 80, len(names) if count is None else count)
    for i, name in enumerate(names[:8]):
        e = 2 * block + 128 * i
        d[e:e + 16] = JRF
        d[e + 16:e + 32] = uuid.UUID(int=i + 7).bytes
        struct.pack_into("<QQ", d, e + 32, lba, lba + 99)
        encoded = name.encode("utf-16-le")[:72]
        d[e + 56:e + 56 + len(encoded)] = encoded
        lba += 100
    return bytes(d)


def main(out):
    z = os.path.join(out, "zmra_header")
    m = os.path.join(out, "partition_map")
    os.makedirs(z, exist_ok=True)
    os.makedirs(m, exist_ok=True)
    seeds = {
        "1g-4k": (1 << 30, 4096, CURRENT, 1),
        "3g-4k": (3 << 30, 4096, CURRENT, 1),
        "64m-16k": (64 << 20, 16384, CURRENT, 1),
        "4t-4k": (1 << 42, 4096, CURRENT, 1),
        "1g-older": (1 << 30, 8192, OLDER, 1),
        "1g-three": (1 << 30, 4096, CURRENT, 3),
    }
    for name, (media, block, ident, parts) in seeds.items():
        with open(os.path.join(z, name), "wb") as f:
            f.write(struct.pack("<QB", media, BLOCK_CHOICE[block]))
            f.write(zmra_header(media, block, ident, parts))
    maps = {
        "sim-4k": (4096, ["System", "Data", "Update"], None),
        "sim-16k": (16384, ["System", "Data", "Update"], None),
        "two-data": (4096, ["System", "Data", "Data"], None),
        "count-200": (4096, ["System", "Data", "Update"], 200),
        "count-0": (4096, ["System", "Data", "Update"], 0),
        "long-name": (4096, ["System", "D" * 36, "Update"], None),
    }
    for name, (block, names, count) in maps.items():
        with open(os.path.join(m, name), "wb") as f:
            f.write(bytes([BLOCK_CHOICE[block], 0]))
            f.write(disk(block, names, count))


if __name__ == "__main__":
    main(sys.argv[1] if len(sys.argv) > 1 else os.path.join(os.path.dirname(__file__), "corpus"))
