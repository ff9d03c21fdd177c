#!/usr/bin/env python3
"""Turns the frames of classic pcap files into seed inputs for the packet
decode fuzzer: one file per frame, its first byte choosing the automatic
chain under the capture's link type (0 or 1)."""
import hashlib
import pathlib
import struct
import sys


def frames(path):
    data = pathlib.Path(path).read_bytes()
    magic = struct.unpack_from("<I", data)[0]
    order = "<" if magic == 0xA1B2C3D4 else ">"
    linktype = struct.unpack_from(order + "I", data, 20)[0]
    offset = 24
    while offset + 16 <= len(data):
        _, _, caplen, _ = struct.unpack_from(order + "IIII", data, offset)
        offset += 16
        yield linktype, data[offset:offset + caplen]
        offset += caplen


def main():
    out = pathlib.Path(sys.argv[1])
    out.mkdir(parents=True, exist_ok=True)
    for path in sys.argv[2:]:
        for linktype, frame in frames(path):
            seed = bytes([linktype & 0xFF]) + frame
            (out / hashlib.sha1(seed).hexdigest()).write_bytes(seed)


if __name__ == "__main__":
    main()
