#!/usr/bin/env python3
"""Tracks a recording and writes one JSON object per frame, as `qbt track` does:
python3 examples/track.py RECORDING [--size WxH] [--data FILE] > track.jsonl"""
import argparse
import json
import sys

import quorvik_body_tracking as qbt

parser = argparse.ArgumentParser(description="Track a depth recording into JSON Lines.")
parser.add_argument("recording", help="folder of 16-bit PNG depth frames, or a raw .u16 file with --size")
parser.add_argument("--size", help="frame size of a raw file, WIDTHxHEIGHT")
parser.add_argument("--data", help="data file (default: the shipped one)")
args = parser.parse_args()

qbt.move_library_log_to_stderr()  # standard output is for the JSON only
recording = qbt.read_recording(args.recording, size=args.size)
with qbt.Tracker(args.data, mirrored=recording.mirrored is not False) as tracker:
    for index, depth in enumerate(recording):
        print(json.dumps(tracker.update(depth).to_dict(index), separators=(",", ":")))
