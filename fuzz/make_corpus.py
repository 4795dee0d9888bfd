#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Writes the seed corpus of every fuzz target into fuzz/corpus/<target>/: a few valid
frames of each kind and the malformed shapes that matter (short, wrong marker, oversized
and zero data_len, reserved non-zero, a frame cut short, two frames in one input).

Run it again after changing a frame layout; the files are committed. Frames use the
host's byte order (little-endian), as the transports do. A req_id of all ones stands for
the request that the harness keeps pending (fuzz_harness.h)."""
import os
import struct
import sys

LIVE = 0xFFFFFFFFFFFFFFFF
ROOT = os.path.join(os.path.dirname(os.path.abspath(__file__)), "corpus")


def payload(n):
    return bytes((i * 7 + 3) & 0xFF for i in range(n))


def selfloop(data=b"", data_len=None, req_id=42, type_=0, reserved=0):
    addr = struct.pack("<IHHI28s", 97, 1, 0, 0, b"")
    n = len(data) if data_len is None else data_len
    return addr + struct.pack("<IQIHH", 6, req_id, type_, reserved, n) + data


def udp(data=b"", data_len=None, req_id=42, type_=0, marker=1, reserved=0, full=False):
    n = len(data) if data_len is None else data_len
    head = struct.pack("<HHHHHIIQ16s", 40000, 40001, reserved, marker, n, type_, 0, req_id, b"")
    frame = head + data
    return frame + bytes(4138 - len(frame)) if full else frame


def hdc(data=b"", data_len=None, req_id=42, type_=0, session=0x10010):
    n = len(data) if data_len is None else data_len
    return struct.pack("<QIIQIH", session, 0, 7, req_id, type_, n) + data


def ipc_raw(data=b"", magic=0x564D4431, dev_id=5):
    return b"\x01" + struct.pack("<II", magic, dev_id) + data


CORPUS = {
    "selfloop": {
        "request": selfloop(payload(16)),
        "response-live": selfloop(payload(8), req_id=LIVE, type_=1),
        "response-unknown": selfloop(payload(8), req_id=7, type_=1),
        "two-frames": selfloop(payload(12)) + selfloop(payload(3), req_id=LIVE, type_=1),
        "payload-4096": selfloop(payload(4096)),
        "short-header": selfloop(payload(4))[:30],
        "zero-data-len": selfloop(),
        "zero-data-len-timeout-mark": selfloop(req_id=LIVE, type_=1, reserved=0x5A54),
        "reserved-nonzero": selfloop(payload(6), reserved=1),
        "oversized-data-len": selfloop(payload(16), data_len=5000),
        "cut-short": selfloop(payload(10), data_len=100),
        "unknown-type": selfloop(payload(4), type_=7),
    },
    "udp": {
        "request-full": udp(payload(16), full=True),
        "request-bare": udp(payload(16)),
        "response-live": udp(payload(8), req_id=LIVE, type_=1),
        "response-unknown": udp(payload(8), req_id=7, type_=1),
        "payload-4096": udp(payload(4096)),
        "empty": b"",
        "short": udp(payload(4))[:10],
        "wrong-marker": udp(payload(8), marker=2),
        "reserved-nonzero": udp(payload(8), reserved=1),
        "oversized-data-len": udp(payload(16), data_len=5000),
        "zero-data-len": udp(),
        "data-len-beyond-datagram": udp(payload(4), data_len=300),
        "unknown-type": udp(payload(4), type_=9),
    },
    "hdc_pipe": {
        "request": hdc(payload(40)),
        "request-under-12": hdc(payload(10)),
        "response-live": hdc(payload(8), req_id=LIVE, type_=1),
        "two-frames": hdc(payload(20)) + hdc(payload(5), req_id=LIVE, type_=1),
        "payload-4096": hdc(payload(4096)),
        "short-header": hdc(payload(4))[:20],
        "zero-data-len": hdc(),
        "oversized-data-len": hdc(payload(16), data_len=4097),
        "cut-short": hdc(payload(10), data_len=100),
        "unknown-type": hdc(payload(4), type_=3),
    },
    "hdc_session": {
        "request-env1": b"\x01" + hdc(payload(40)),
        "request-env2": b"\x02" + hdc(payload(10)),
        "request-env3": b"\x03" + hdc(payload(12)),
        "request-env4": b"\x04" + hdc(payload(13)),
        "request-env-unknown": b"\x05" + hdc(payload(16)),
        "response-live": b"\x01" + hdc(payload(8), req_id=LIVE, type_=1),
        "payload-4096": b"\x01" + hdc(payload(4096)),
        "below-session-field": b"\x01" + b"\x00" * 5,
        "short-header": b"\x01" + hdc(payload(4))[:20],
        "zero-data-len": b"\x01" + hdc(),
        "oversized-data-len": b"\x01" + hdc(payload(16), data_len=4097),
        "longer-than-data-len": b"\x01" + hdc(payload(40), data_len=8),
        "cut-short": b"\x01" + hdc(payload(10), data_len=100),
    },
    "ipc": {
        "device-empty": b"\x00",
        "device-one": b"\x00" + payload(1),
        "device-32": b"\x00" + payload(32),
        "device-33": b"\x00" + payload(33),
        "raw-valid": ipc_raw(payload(12)),
        "raw-other-device": ipc_raw(payload(12), dev_id=6),
        "raw-wrong-magic": ipc_raw(payload(12), magic=0x12345678),
        "raw-short-header": ipc_raw()[:5],
        "raw-oversized": ipc_raw(payload(40)),
        "raw-empty": b"\x01",
    },
}


def main():
    for target, files in CORPUS.items():
        folder = os.path.join(ROOT, target)
        os.makedirs(folder, exist_ok=True)
        for name, data in files.items():
            with open(os.path.join(folder, name), "wb") as out:
                out.write(data)
    return 0


if __name__ == "__main__":
    sys.exit(main())
