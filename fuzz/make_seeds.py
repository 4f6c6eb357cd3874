#!/usr/bin/env python3
"""Writes the seed corpora of the fuzz targets into fuzz/corpus/.

receive_path_fuzz: byte 0 is the mode (bits 0-5: size of the pieces the
rest goes on the line in, 0 for all at once; bit 6: the rack is brought up
first; bit 7: the receive thread comes back late to every pass), the rest
is what the rack sends. atr_walk_fuzz: an ATR.
"""
import os

here = os.path.dirname(os.path.abspath(__file__))


def frame(address, status, data=b""):
    body = bytes([0x55, address, len(data), status]) + bytes(data)
    return body + bytes([(0x100 - sum(body) % 256) % 256])


def extended(address, data):
    n = len(data)
    body = bytes([0x55, address, n & 0xFF, 0x0D, n >> 8]) + bytes(data)
    return body + bytes([(0x100 - sum(body) % 256) % 256])


UP, ALL, LATE = 0x40, 0x00, 0x80
ack1 = frame(1, 0x06)
answer1 = frame(1, 0x04, b"\x90\x00")
slot_map = frame(0, 0xC5, bytes([0x01, 0x01, 0x03, 0x15] + [0x00] * 236))

receive = {
    "ack_then_answer": bytes([UP]) + ack1 + answer1,
    "answer_byte_at_a_time": bytes([UP | 1]) + ack1 + answer1,
    "card_inserted": bytes([UP]) + frame(4, 0x05, b"\x3b\x80\x01"),
    "card_removed_and_mute": bytes([UP | 3]) + frame(1, 0x01) + frame(2, 0x03),
    "invalid_status": bytes([UP]) + frame(2, 0x2D, b"\x01"),
    "extended_answer": bytes([UP | 7]) + ack1 + extended(1, bytes(range(256)) * 2),
    "garbage_before_frame": bytes([UP]) + b"\xfe\x00\x13\xaa\x7f" + answer1,
    "truncated_then_whole": bytes([UP]) + answer1[:-2] + answer1,
    "two_frames_split": bytes([UP | 5]) + answer1 + frame(2, 0x05, b"\x3b\x00"),
    "slot_map_before_bring_up": bytes([ALL]) + slot_map,
    "slot_map_then_status": bytes([ALL | 9]) + slot_map + ack1 + frame(1, 0x05, b"\x3b\x80\x01"),
    "master_frames": bytes([ALL]) + frame(0, 0xC2) + frame(0, 0x06) + frame(0, 0xC3),
    "unknown_address": bytes([UP]) + frame(200, 0x04, b"\x01\x02") + frame(200, 0x06),
    "oversized_extended": bytes([UP | 63]) + extended(1, bytes(1600)),
    "late_passes_answer_with_sync_bytes": bytes([LATE | UP | 40]) + ack1 + extended(1, b"\x55\x56" * 128),
}

atrs = {
    "t1_only": bytes([0x3B, 0x80, 0x01]),
    "t0_then_t1": bytes([0x3B, 0x80, 0x80, 0x01]),
    "t1_with_ta2_tb2": bytes([0x3B, 0x81, 0x31, 0xFE, 0x45, 0x80]),
    "no_td1": bytes([0x3B, 0x60, 0x00, 0x00]),
    "announces_more_than_sent": bytes([0x3B, 0xF0, 0x11]),
    "long": bytes([0x3B, 0xFF, 0x96, 0x00, 0x00, 0x81, 0x31, 0xFE, 0x43, 0x80, 0x31, 0x80, 0x65, 0xB0, 0x84,
                   0x65, 0x66, 0xFB, 0x12, 0x01, 0x78, 0x82, 0x90, 0x00, 0x85]),
}

for target, seeds in (("receive_path_fuzz", receive), ("atr_walk_fuzz", atrs)):
    folder = os.path.join(here, "corpus", target)
    os.makedirs(folder, exist_ok=True)
    for name, data in seeds.items():
        with open(os.path.join(folder, name), "wb") as f:
            f.write(data)
