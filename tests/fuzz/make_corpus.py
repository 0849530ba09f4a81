#!/usr/bin/env python3
"""Writes the seed corpus of the forest data file fuzzer (valid and broken files)."""
import os
import struct

here = os.path.join(os.path.dirname(os.path.abspath(__file__)), "corpus")
SIG = bytes([0x88]) + b"QCF" + bytes([0x0D, 0x0A, 0x1A, 0x0A])


def chunk(kind, body=b""):
    return struct.pack("<I", len(body)) + kind + body + bytes(8)


def header(version=1, kind=b"QHDR"):
    return SIG + chunk(kind, struct.pack("<I", version))


def offsets(entries):
    return chunk(b"oFFS", struct.pack("<II", 0, len(entries)) +
                 b"".join(struct.pack("<4h", *e) for e in entries))


def tree(nodes, dists):
    return chunk(b"TREE", struct.pack("<II", nodes, dists) + b"tree")


def leaf(i):
    return (0x80000000 | i, 0, 0.0)


def split(child, kind, offset, threshold):
    return (child, kind << 24 | offset, threshold)


def nodes(records):
    return chunk(b"NODE", struct.pack("<II", 0, len(records)) +
                 b"".join(struct.pack("<IIf", *r) for r in records))


def dists(records):
    body = struct.pack("<I", len(records))
    for labels, values in records:
        body += bytes([len(labels)]) + bytes(labels) + b"".join(struct.pack("<H", v) for v in values)
    return chunk(b"DIST", body)


END = chunk(b"QEOF")

stump = (offsets([(10, -20, 30, -40), (0, 0, 5, 5)]) + tree(3, 2) +
         nodes([split(1, 0, 1, 5.0), leaf(0), leaf(1)]) +
         dists([([3, 28], [65535, 100]), ([7, 9, 29, 31], [100, 200, 300, 400])]))
deeper = (tree(7, 4) + nodes([split(1, 2, 0, 0.5), split(3, 0, 0, -3.0), split(5, 12, 0, 0.1)]) +
          nodes([leaf(0), leaf(1), leaf(2), leaf(3)]) +
          dists([([], []), ([1], [1]), ([2, 2], [5, 6]), ([30], [65535])]))

files = {
    "valid_stump": header() + stump + END,
    "valid_two_trees": header() + stump + deeper + END,
    "valid_no_tree": header() + END,
    "valid_other_header_type": header(1, b"ABCD") + stump + END,
    "bad_version": header(2) + stump + END,
    "bad_meta": header() + chunk(b"mETA", b"x") + stump + END,
    "bad_node_first": header() + nodes([leaf(0)]) + END,
    "bad_label": header() + tree(1, 1) + nodes([leaf(0)]) + dists([([32], [1])]) + END,
    "bad_child": header() + tree(2, 1) + nodes([split(1, 3, 0, 0.0), leaf(0)]) + dists([([1], [1])]) + END,
    "bad_cycle": header() + tree(3, 1) + nodes([split(1, 3, 0, 0.0), split(0, 3, 0, 0.0), leaf(0)]) +
                 dists([([1], [1])]) + END,
    "bad_kind": header() + tree(3, 1) + nodes([split(1, 13, 0, 0.0), leaf(0), leaf(0)]) +
                dists([([1], [1])]) + END,
    "bad_truncated": (header() + stump + END)[:-13],
    "bad_huge_counts": header() + chunk(b"TREE", struct.pack("<II", 0xFFFFFFFF, 0xFFFFFFFF) + b"tree") +
                       chunk(b"oFFS", struct.pack("<II", 0, 0xFFFFFFFF)) + END,
}

os.makedirs(here, exist_ok=True)
for name, data in files.items():
    with open(os.path.join(here, name), "wb") as f:
        f.write(data)
