"""Quorvik Body Tracking: people, skeletons and floors in depth maps, from Python.

    import numpy as np
    import quorvik_body_tracking as qbt

    with qbt.Tracker() as tracker:
        frame = tracker.update(depth)          # depth: uint16 millimetres, (H, W)
        for body in frame.bodies:
            print(body.id, body.status.name, body.joints_world[qbt.Joint.HEAD])

Every array handed out is a copy that belongs to the caller.
"""

import enum
import os

import numpy as np

from . import _build, _native
from ._errors import ArgumentError, DataFileError, ErrorCode, SizeError, TrackerError, error_for_code
from .draw import overlay
from .recording import Recording, read_recording

__version__ = _build.VERSION

__all__ = [
    "ArgumentError", "Body", "BodyStatus", "DataFileError", "ErrorCode", "Frame", "JOINT_NAMES", "Joint",
    "JointStatus", "PendingFrame", "Recording", "SizeError", "Tracker", "TrackerError", "default_options",
    "find_data_file", "move_library_log_to_stderr", "overlay", "read_recording",
]

JOINT_COUNT = _native.JOINT_COUNT

# Slot j of every joint array holds the joint named JOINT_NAMES[j].
JOINT_NAMES = (
    "Head", "ShoulderSpine", "LeftShoulder", "LeftElbow", "LeftHand", "RightShoulder", "RightElbow", "RightHand",
    "MidSpine", "BaseSpine", "LeftHip", "LeftKnee", "LeftFoot", "RightHip", "RightKnee", "RightFoot",
)


class Joint(enum.IntEnum):
    """Joint types, usable as indices into a body's joint arrays."""

    HEAD = 0
    SHOULDER_SPINE = 1
    LEFT_SHOULDER = 2
    LEFT_ELBOW = 3
    LEFT_HAND = 4
    RIGHT_SHOULDER = 5
    RIGHT_ELBOW = 6
    RIGHT_HAND = 7
    MID_SPINE = 8
    BASE_SPINE = 9
    LEFT_HIP = 10
    LEFT_KNEE = 11
    LEFT_FOOT = 12
    RIGHT_HIP = 13
    RIGHT_KNEE = 14
    RIGHT_FOOT = 15


class JointStatus(enum.IntEnum):
    """How much a joint's position rests on the current frame."""

    NONE = 0
    LOW = 1
    HIGH = 2


class BodyStatus(enum.IntEnum):
    NOT_TRACKING = 0
    TRACKING_LOST = 1
    TRACKING_STARTED = 2
    TRACKING = 3


# The names `qbt track` writes.
_BODY_STATUS_NAMES = ("NotTracking", "TrackingLost", "TrackingStarted", "Tracking")
_JOINT_STATUS_NAMES = ("None", "Low", "High")


def default_options():
    """The camera options a Tracker takes as keywords, with the library's defaults."""
    return _native.default_options()


def find_data_file(data_file=None):
    """The data file a Tracker loads: `data_file` when given (the library reports it if it is
    missing), else the repository's copy, else the one installed next to the library."""
    if data_file is not None:
        return os.fspath(data_file)
    here = os.path.dirname(os.path.abspath(__file__))
    candidates = [_build.SOURCE_DATA, os.path.normpath(os.path.join(here, _build.INSTALLED_DATA))]
    for candidate in candidates:
        if candidate and os.path.isfile(candidate):
            return candidate
    raise DataFileError(ErrorCode.DATAFILE_NOT_FOUND,
                        "no data file: neither " + " nor ".join(candidates) + " exists; pass data_file=PATH")


def move_library_log_to_stderr():
    """The library prints its log lines on standard output (descriptor 1). This sends them to
    standard error and points sys.stdout at the original standard output, so a program can
    keep standard output for its own data. Calling it again does nothing."""
    import sys
    global _stdout_moved
    if _stdout_moved:
        return
    sys.stdout.flush()
    saved = os.dup(1)
    os.dup2(2, 1)
    line_buffered = getattr(sys.stdout, "line_buffering", False)
    sys.stdout = os.fdopen(saved, "w", buffering=1 if line_buffered else -1)
    _stdout_moved = True


_stdout_moved = False


def _round(values, scale):
    # Rounds half away from zero, as `qbt track` does, keeping -0.0.
    v = np.asarray(values, dtype=np.float64) * scale
    r = np.trunc(v)
    r += np.copysign(1.0, v) * (np.abs(v - r) >= 0.5)
    return (r / scale).tolist()


class Body:
    """One tracked person of a frame."""

    __slots__ = ("id", "status", "joints_world", "joints_image", "joint_status")

    def __init__(self, id, status, joints_world, joints_image, joint_status):
        self.id = id                      # int, the same for one person across frames
        self.status = status              # BodyStatus
        self.joints_world = joints_world  # float32 (16, 3): x right, y up, z forward, millimetres
        self.joints_image = joints_image  # float32 (16, 2): x, y in pixels of the depth map
        self.joint_status = joint_status  # uint8 (16,): JointStatus values

    def __repr__(self):
        high = int(np.count_nonzero(self.joint_status == JointStatus.HIGH))
        return f"<Body id={self.id} {self.status.name} high_joints={high}>"


class Frame:
    """What one update found: bodies, body mask (id per pixel, 0 for nobody), floor."""

    __slots__ = ("bodies", "body_mask", "floor_mask", "floor_detected", "floor_plane", "width", "height")

    def __init__(self, raw):
        (self.width, self.height, ids, statuses, world, image, joint_status, self.body_mask,
         self.floor_detected, self.floor_plane, self.floor_mask) = raw
        self.bodies = [Body(int(ids[i]), BodyStatus(int(statuses[i])), world[i], image[i], joint_status[i])
                       for i in range(len(ids))]

    def __repr__(self):
        return (f"<Frame {self.width}x{self.height} bodies={[b.id for b in self.bodies]} "
                f"floor={'yes' if self.floor_detected else 'no'}>")

    def to_dict(self, index):
        """The object `qbt track` writes for this frame as frame `index` (positions rounded to
        0.01, the plane to 0.0001); json.dumps(..., separators=(",", ":")) gives its line."""
        bodies = []
        for b in self.bodies:
            depth = _round(b.joints_image, 100.0)
            world = _round(b.joints_world, 100.0)
            joints = [{"type": JOINT_NAMES[j], "status": _JOINT_STATUS_NAMES[b.joint_status[j]],
                       "depth": depth[j], "world": world[j]} for j in range(JOINT_COUNT)]
            bodies.append({"id": b.id, "status": _BODY_STATUS_NAMES[b.status], "joints": joints})
        return {"frame": index, "bodies": bodies,
                "floor": {"detected": bool(self.floor_detected), "plane": _round(self.floor_plane, 1e4)}}


class PendingFrame:
    """The result of Tracker.update_async: poll ready(), then take result()."""

    __slots__ = ("_tracker", "_frame", "_error")

    def __init__(self, tracker):
        self._tracker = tracker
        self._frame = None
        self._error = None

    def ready(self):
        """Whether result() would return without waiting."""
        if self._frame is not None or self._error is not None:
            return True
        return self._tracker._native.ready()

    def result(self):
        """The frame (waits for the update); raises the update's TrackerError if it failed.
        Later calls give the same frame."""
        if self._frame is None and self._error is None:
            self._tracker._collect()
        if self._error is not None:
            raise self._error
        return self._frame

    def _take(self):
        try:
            self._frame = Frame(self._tracker._native.take())
        except TrackerError as error:
            self._error = error


class Tracker:
    """A body tracker.

    data_file: the trained forest; by default the repository's or the installed copy.
    mirrored: whether the depth is mirrored (most cameras deliver it so); the tracker then
    names sides as the person's own.
    camera_options: the camera's fields of view and shift-conversion parameters, by the
    names of default_options(); those not given keep the library's defaults.
    """

    def __init__(self, data_file=None, mirrored=True, **camera_options):
        self._native = _native.Tracker(find_data_file(data_file), camera_options)
        self._pending = None
        self._native.mirrored = bool(mirrored)

    def update(self, depth):
        """Tracks one depth map (uint16 millimetres, (H, W), C-contiguous, H and W the same
        whole multiple of 120 and 160) and returns its Frame."""
        self._collect()
        return Frame(self._native.update(depth))

    def update_async(self, depth):
        """Starts tracking one depth map on the library's worker and returns at once with a
        PendingFrame; the array may be reused as soon as this returns."""
        self._collect()
        self._native.update_async(depth)
        self._pending = PendingFrame(self)
        return self._pending

    def _collect(self):
        # The library keeps one pending result and drops it when the next update starts, so
        # an untaken result is fetched first (the library waits for it anyway).
        pending, self._pending = self._pending, None
        if pending is not None:
            pending._take()

    def reset(self):
        """Forgets every tracked person and the background from the next update on."""
        self._native.reset()

    @property
    def mirrored(self):
        return self._native.mirrored

    @mirrored.setter
    def mirrored(self, value):
        self._native.mirrored = bool(value)

    @property
    def closed(self):
        return self._native.closed

    def close(self):
        """Destroys the library's tracker (after an update still running); further calls raise
        ArgumentError. A result still pending is fetched first."""
        if not self._native.closed:
            self._collect()
        self._native.close()

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.close()
        return False
