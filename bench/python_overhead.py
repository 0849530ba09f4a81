#!/usr/bin/env python3
"""What the binding adds to an update: the whole Tracker.update call from Python minus the
time spent inside qbt_bodytracker_update, per frame of a recording.

    PYTHONPATH=build/python /usr/bin/python3 bench/python_overhead.py RECORDING [--size WxH] [--repeat N]

Make a 640x480 recording with: build/tools/sim/qbt-sim walk-in --people 2 --size 640x480 \
--frames 60 --mirrored --out /tmp/walk-in-640
"""
import argparse
import statistics
import time

import quorvik_body_tracking as qbt

parser = argparse.ArgumentParser()
parser.add_argument("recording")
parser.add_argument("--size")
parser.add_argument("--repeat", type=int, default=3)
args = parser.parse_args()

frames = list(qbt.read_recording(args.recording, size=args.size))
total, library, overhead = [], [], []
with qbt.Tracker() as tracker:
    tracker.update(frames[0])  # waits for the data file
    for _ in range(args.repeat):
        tracker.reset()
        for depth in frames:
            start = time.perf_counter()
            tracker.update(depth)
            seconds = time.perf_counter() - start
            total.append(seconds)
            library.append(tracker._native.library_seconds)
            overhead.append(seconds - tracker._native.library_seconds)
h, w = frames[0].shape
print(f"{len(total)} updates of {w}x{h}: median per update {statistics.median(total) * 1e3:.3f} ms, "
      f"inside the library {statistics.median(library) * 1e3:.3f} ms, "
      f"added by the binding {statistics.median(overhead) * 1e3:.3f} ms median, "
      f"{max(overhead) * 1e3:.3f} ms at most")
