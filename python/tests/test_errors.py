"""Every failure comes out as a TrackerError with the library's code and text; bad arrays
are refused before they reach the library."""

import os

import numpy as np
import pytest

import quorvik_body_tracking as qbt

FRAME = np.zeros((120, 160), np.uint16)


@pytest.mark.parametrize("case, error, code, text", [
    ("missing data file", qbt.DataFileError, 3, "bodytracker_update(): Data file not found. "),
    ("invalid data file", qbt.DataFileError, 2, "bodytracker_update(): Data file not loaded: invalid format. "),
    ("bad size", qbt.SizeError, 6, "bodytracker_update(): Input depth map has an invalid size. "
                                   "Depth map size must be a multiple of 160x120. "),
    ("async missing data file", qbt.DataFileError, 3, "qbt_asyncbodyframe_take_frame(): Data file not found. "),
    ("async bad size", qbt.SizeError, 6, "qbt_asyncbodyframe_take_frame(): Input depth map has an invalid size."),
])
def test_library_failures_carry_code_and_text(case, error, code, text, data_file, tmp_path):
    junk = tmp_path / "junk.data"
    junk.write_bytes(b"not a forest" * 100)
    path = {"missing data file": tmp_path / "none.data", "invalid data file": junk,
            "async missing data file": tmp_path / "none.data"}.get(case, data_file)
    depth = np.zeros((100, 100), np.uint16) if "size" in case else FRAME
    with qbt.Tracker(path) as tracker:
        with pytest.raises(error) as caught:
            if case.startswith("async"):
                tracker.update_async(depth).result()
            else:
                tracker.update(depth)
        assert isinstance(caught.value, qbt.TrackerError)
        assert caught.value.code == code
        assert caught.value.message.startswith(text)
        assert (int(caught.value.code), caught.value.message) == qbt._native.last_error()
        if "size" in case:  # the tracker goes on after a refused map
            assert tracker.update(FRAME).width == 160


def non_native_uint16():
    return FRAME.astype(FRAME.dtype.newbyteorder())


@pytest.mark.parametrize("depth, words", [
    (FRAME.astype(np.float32), "uint16"),
    (FRAME.astype(np.int16), "uint16"),
    (FRAME.astype(np.uint8), "uint16"),
    (non_native_uint16(), "uint16"),
    (np.zeros((120, 320), np.uint16)[:, ::2], "contiguous"),
    (np.asfortranarray(np.zeros((240, 320), np.uint16)), "contiguous"),
    (np.zeros((1, 120, 160), np.uint16), "2-D"),
    (np.zeros(160 * 120, np.uint16), "2-D"),
    ([[0] * 160] * 120, None),
])
def test_bad_arrays_are_refused_clearly(depth, words, data_file):
    with qbt.Tracker(data_file) as tracker:
        for call in (tracker.update, tracker.update_async):
            with pytest.raises((qbt.ArgumentError, TypeError)) as caught:
                call(depth)
            if words is not None:
                assert isinstance(caught.value, qbt.ArgumentError) and caught.value.code == 7
                assert words in caught.value.message
        assert tracker.update(FRAME).height == 120


@pytest.mark.parametrize("options, words", [
    ({"focal_length": 1.0}, "unknown camera option 'focal_length'"),
    ({"pixel_size_factor": 0}, "must not be 0"),
    ({"zero_plane_distance": 70000}, "out of range"),
    ({"max_depth": -1}, "out of range"),
    ({"horizontal_fov": "wide"}, "must be a number"),
    ({"const_shift": 2.5}, "must be an integer"),
    ({"device_max_depth": 2 ** 70}, "out of range"),
])
def test_bad_options_are_refused(options, words, data_file):
    with pytest.raises(qbt.ArgumentError, match=words):
        qbt.Tracker(data_file, **options)


def test_closed_tracker_refuses_calls(data_file):
    tracker = qbt.Tracker(data_file)
    pending = tracker.update_async(FRAME)
    tracker.close()
    assert tracker.closed and pending.result().width == 160  # fetched before the close
    for call in (lambda: tracker.update(FRAME), tracker.reset, lambda: tracker.mirrored):
        with pytest.raises(qbt.ArgumentError, match="closed"):
            call()
    tracker.close()


def test_no_data_file_found_is_said_at_once(monkeypatch, tmp_path):
    monkeypatch.setattr(qbt._build, "SOURCE_DATA", str(tmp_path / "none.data"))
    monkeypatch.setattr(qbt._build, "INSTALLED_DATA", str(tmp_path / "neither.data"))
    with pytest.raises(qbt.DataFileError, match="no data file") as caught:
        qbt.Tracker()
    assert caught.value.code == qbt.ErrorCode.DATAFILE_NOT_FOUND


def rss_bytes():
    with open("/proc/self/statm") as f:
        return int(f.read().split()[1]) * os.sysconf("SC_PAGE_SIZE")


@pytest.mark.skipif(os.environ.get("QBT_SANITIZED") == "1", reason="sanitizers keep freed memory on purpose")
def test_a_thousand_updates_do_not_grow_memory(depth_frames, data_file):
    small = [np.ascontiguousarray(d[::2, ::2]) for d in depth_frames]
    with qbt.Tracker(data_file) as tracker:
        for d in small * 3:
            tracker.update(d)
        before = rss_bytes()
        for i in range(1000):
            frame = tracker.update(small[i % len(small)]) if i % 2 else tracker.update_async(small[i % len(small)]).result()
            del frame
        grown = rss_bytes() - before
    # A frame held on to or not freed would be ~40 kB (two masks and the bodies): 40 MB here.
    assert grown < 8 << 20, f"memory grew by {grown >> 10} kB over 1000 updates"
