#!/usr/bin/env python3
"""Turns the frames of classic pcap files into seed inputs. For the packet
decode fuzzer: one file per frame, its first byte choosing the automatic
chain under the capture's link type (0 or 1). With --flows, for the flow
table fuzzer: one file per capture, each frame as its time step in whole
seconds, a big-endian 16-bit length and its bytes."""
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
        seconds, _, caplen, _ = struct.unpack_from(order + "IIII", data, offset)
        offset += 16
        yield linktype, data[offset:offset + caplen], seconds
        offset += caplen


def write(out, seed):
    (out / hashlib.sha1(seed).hexdigest()).write_bytes(seed)


def main():
    args = sys.argv[1:]
    flows = args[0] == "--flows"
    out = pathlib.Path(args[1] if flows else args[0])
    out.mkdir(parents=True, exist_ok=True)
    for path in args[2 if flows else 1:]:
        if not flows:
            for linktype, frame, _ in frames(path):
                write(out, bytes([linktype & 0xFF]) + frame)
            continue
        seed, last = b"", None
        for linktype, frame, seconds in frames(path):
            if linktype != 1:
                break
            step = 0 if last is None else min(seconds - last, 255)
            last = seconds
            seed += struct.pack(">BH", step, len(frame)) + frame
        if seed:
            write(out, seed)


if __name__ == "__main__":
    main()
