"""The package tracks as a C host and `qbt track` do, synchronously and asynchronously."""

import os
import subprocess
import sys

import numpy as np
import pytest

import quorvik_body_tracking as qbt
from conftest import SOURCE_DIR, tool


def test_example_writes_what_qbt_track_writes(recording, data_file, tmp_path):
    expected = tmp_path / "qbt.jsonl"
    subprocess.run([tool("QBT_CLI"), "track", recording, "--data", data_file, "--out", str(expected)],
                   check=True, capture_output=True)
    # Standard output, where the library also logs: the example must keep it clean.
    got = subprocess.run([sys.executable, os.path.join(SOURCE_DIR, "examples", "track.py"), recording],
                         check=True, capture_output=True, text=True).stdout
    assert got == expected.read_text()
    assert '"TrackingStarted"' in got, "the recording should show somebody"


def read_dump(path, width, height):
    body = np.dtype([("id", "u1"), ("joints", [("type", "u1"), ("status", "u1"), ("depth", "<f4", 2),
                                               ("world", "<f4", 3)], 16), ("status", "u1")], align=True)
    assert body.itemsize == 392
    blob, at, frames = open(path, "rb").read(), 0, []
    pixels = width * height
    while at < len(blob):
        count = int(np.frombuffer(blob, "<u4", 1, at)[0])
        at += 4
        bodies = np.frombuffer(blob, body, count, at)
        at += count * body.itemsize
        body_mask = np.frombuffer(blob, "u1", pixels, at).reshape(height, width)
        floor_mask = np.frombuffer(blob, "u1", pixels, at + pixels).reshape(height, width)
        at += 2 * pixels
        detected = bool(blob[at])
        plane = np.frombuffer(blob, "<f4", 4, at + 1)
        at += 17
        frames.append((bodies, body_mask, floor_mask, detected, plane))
    return frames


def test_frames_equal_those_of_a_c_host(raw_recording, depth_frames, data_file, tmp_path):
    height, width = depth_frames[0].shape
    dump = tmp_path / "frames.bin"
    subprocess.run([os.environ["QBT_FRAME_DUMP"], data_file, raw_recording, str(width), str(height), "1", str(dump)],
                   check=True, capture_output=True)
    expected = read_dump(dump, width, height)
    assert len(expected) == len(depth_frames)
    seen_bodies = seen_floor = 0
    with qbt.Tracker(data_file) as tracker:
        for index, (depth, (bodies, body_mask, floor_mask, detected, plane)) in enumerate(zip(depth_frames, expected)):
            frame = tracker.update(depth)
            where = f"frame {index}"
            assert (frame.width, frame.height) == (width, height), where
            assert [b.id for b in frame.bodies] == bodies["id"].tolist(), where
            assert [b.status for b in frame.bodies] == bodies["status"].tolist(), where
            for got, want in zip(frame.bodies, bodies):
                assert isinstance(got.status, qbt.BodyStatus)
                np.testing.assert_array_equal(got.joints_world, want["joints"]["world"], err_msg=where)
                np.testing.assert_array_equal(got.joints_image, want["joints"]["depth"], err_msg=where)
                np.testing.assert_array_equal(got.joint_status, want["joints"]["status"], err_msg=where)
                assert got.joints_world.dtype == np.float32 and got.joints_world.shape == (16, 3)
                assert got.joints_image.dtype == np.float32 and got.joints_image.shape == (16, 2)
                assert got.joint_status.dtype == np.uint8 and got.joint_status.shape == (16,)
            np.testing.assert_array_equal(frame.body_mask, body_mask, err_msg=where)
            np.testing.assert_array_equal(frame.floor_mask, floor_mask, err_msg=where)
            assert frame.floor_detected == detected, where
            np.testing.assert_array_equal(frame.floor_plane, plane, err_msg=where)
            seen_bodies += len(frame.bodies)
            seen_floor += frame.floor_detected
    assert seen_bodies > 0 and seen_floor > 0, "the recording should show people and a floor"


def frame_key(frame):
    return ([(b.id, int(b.status), b.joints_world.tobytes(), b.joints_image.tobytes(), b.joint_status.tobytes())
             for b in frame.bodies],
            frame.body_mask.tobytes(), frame.floor_mask.tobytes(), frame.floor_detected, frame.floor_plane.tobytes())


def test_async_matches_sync(depth_frames, data_file):
    with qbt.Tracker(data_file) as tracker:
        sync = [frame_key(tracker.update(d)) for d in depth_frames]
    with qbt.Tracker(data_file) as tracker:
        got = []
        for index, depth in enumerate(depth_frames):
            scratch = depth.copy()
            pending = tracker.update_async(scratch)
            scratch[:] = 0  # the library copied it
            if index % 3 == 0:
                while not pending.ready():
                    pass
            got.append(frame_key(pending.result()))
            assert pending.result() is pending.result()
    assert got == sync

    # A result not taken before the next update is kept for its PendingFrame, not lost.
    with qbt.Tracker(data_file) as tracker:
        first = tracker.update_async(depth_frames[0])
        second = tracker.update_async(depth_frames[1])
        third = tracker.update(depth_frames[2])
        assert [frame_key(first.result()), frame_key(second.result()), frame_key(third)] == sync[:3]


def test_masks_outlive_the_frame_and_later_updates(depth_frames, data_file):
    with qbt.Tracker(data_file) as tracker:
        frames = [tracker.update(d) for d in depth_frames]
    ids = [set(np.unique(f.body_mask).tolist()) - {0} for f in frames]
    assert any(ids), "the recording should show people"
    for frame, mask_ids in zip(frames, ids):
        assert mask_ids <= {b.id for b in frame.bodies}


def test_readers_agree_and_know_the_mirroring(recording, raw_recording, depth_frames):
    png = qbt.read_recording(recording)
    assert png.mirrored is True and (png.width, png.height) == (320, 240)
    raw = qbt.read_recording(raw_recording, size="320x240")
    assert raw.mirrored is None and len(raw) == len(depth_frames)
    for a, b in zip(raw, depth_frames):
        assert a.dtype == np.uint16 and a.flags.c_contiguous
        np.testing.assert_array_equal(a, b)
    np.testing.assert_array_equal(raw[-1], depth_frames[-1])


def test_mirroring_and_options(data_file):
    with qbt.Tracker(data_file, mirrored=False) as tracker:
        assert tracker.mirrored is False
        tracker.mirrored = True
        assert tracker.mirrored is True
    defaults = qbt.default_options()
    assert defaults["horizontal_fov"] == pytest.approx(58.59) and defaults["pixel_size_factor"] == 1
    defaults.update(max_depth=np.uint16(9000), horizontal_fov=np.float32(60))
    with qbt.Tracker(data_file, **defaults) as tracker:
        frame = tracker.update(np.zeros((120, 160), np.uint16))
        assert frame.bodies == [] and not frame.floor_detected


def test_overlay_draws_bodies_in_their_colours(depth_frames, data_file):
    with qbt.Tracker(data_file) as tracker:
        frames = [tracker.update(d) for d in depth_frames]
    index = max(range(len(frames)), key=lambda i: np.count_nonzero(frames[i].body_mask))
    picture = qbt.overlay(depth_frames[index], frames[index])
    assert picture.shape == (240, 320, 3) and picture.dtype == np.uint8
    body = frames[index].body_mask > 0
    grey = (picture[..., 0] == picture[..., 1]) & (picture[..., 1] == picture[..., 2])
    # Joint markers are white, so a few body pixels are grey.
    assert grey[body].mean() < 0.1 and grey[~body & (frames[index].floor_mask == 0)].mean() > 0.9
