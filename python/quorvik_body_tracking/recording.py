"""Depth recordings as `qbt track` reads them: a folder of 16-bit greyscale PNG frames in
millimetres (the simulator's depth_NNNNNN.png files when there are any, else every *.png in
name order), or a raw file of concatenated little-endian 16-bit frames of a given size."""

import json
import os
import re
import struct

import numpy as np

from . import _native

_PNG_SIGNATURE = b"\x89PNG\r\n\x1a\n"


def _png_header(path):
    # Signature, then IHDR: length, type, width, height, bit depth, colour type,
    # compression, filter, interlace.
    with open(path, "rb") as f:
        head = f.read(29)
    if len(head) != 29 or head[:8] != _PNG_SIGNATURE or head[12:16] != b"IHDR":
        raise ValueError(f"{path} is not a PNG file")
    width, height, bit_depth, colour = struct.unpack(">IIBB", head[16:26])
    if colour != 0 or bit_depth != 16:
        raise ValueError(f"{path} is a {bit_depth}-bit PNG of colour type {colour}; depth frames must be 16-bit "
                         "greyscale PNGs holding millimetres (an 8-bit or colour picture of depth has lost the "
                         "distances)")
    if head[28] != 0:
        raise ValueError(f"{path} is an interlaced PNG; save the depth frames without interlacing")
    return width, height


def _parse_size(size):
    if isinstance(size, str):
        m = re.fullmatch(r"(\d+)x(\d+)", size)
        if not m:
            raise ValueError(f"size wants WIDTHxHEIGHT, for example 320x240, not {size!r}")
        size = int(m.group(1)), int(m.group(2))
    width, height = (int(v) for v in size)
    if width <= 0 or height <= 0:
        raise ValueError(f"size must be positive, not {width}x{height}")
    return width, height


class Recording:
    """The frames of a recording; iterating yields (H, W) uint16 arrays in frame order.

    width, height: the frame size; mirrored: True or False when the recording says (a
    simulator recording's recording.json), else None.
    """

    def __init__(self, path, size=None):
        path = os.fspath(path)
        if not os.path.exists(path):
            raise FileNotFoundError(f"no such file or folder: {path}; give a folder of 16-bit PNG depth frames "
                                    "or a raw .u16 file with its size")
        self.path = path
        self.mirrored = None
        if os.path.isdir(path):
            self._open_folder(path)
        else:
            if size is None:
                raise ValueError(f"{path} is not a folder; a raw file of 16-bit frames needs its frame size "
                                 "(size=(width, height) or 'WxH')")
            self._open_raw(path, _parse_size(size))

    def _open_folder(self, path):
        names = sorted(e.name for e in os.scandir(path) if e.is_file() and e.name.lower().endswith(".png"))
        depth_names = [n for n in names if n.startswith("depth_")]
        names = depth_names or names
        if not names:
            raise ValueError(f"no PNG files in {path}; a recording is a folder of 16-bit PNG depth frames")
        self._files = [os.path.join(path, n) for n in names]
        # Every header is checked before the first frame is tracked.
        sizes = [_png_header(f) for f in self._files]
        for f, s in zip(self._files, sizes):
            if s != sizes[0]:
                raise ValueError(f"mixed frame sizes: {names[0]} is {sizes[0][0]}x{sizes[0][1]} but "
                                 f"{os.path.basename(f)} is {s[0]}x{s[1]}; every frame of a recording must "
                                 "have the same size")
        self.width, self.height = sizes[0]
        self._count = len(self._files)
        self._raw = False
        try:
            with open(os.path.join(path, "recording.json"), encoding="utf-8") as f:
                mirrored = json.load(f)["camera"]["mirrored"]
            if isinstance(mirrored, bool):
                self.mirrored = mirrored
        except (OSError, ValueError, KeyError, TypeError):
            pass

    def _open_raw(self, path, size):
        self.width, self.height = size
        frame_bytes = self.width * self.height * 2
        total = os.path.getsize(path)
        if total % frame_bytes:
            raise ValueError(f"{path} holds {total} bytes, not a whole number of {self.width}x{self.height} "
                             f"frames of 16-bit depth ({frame_bytes} bytes each); check the size")
        self._count = total // frame_bytes
        self._raw = True

    def __len__(self):
        return self._count

    def __getitem__(self, index):
        if index < 0:
            index += self._count
        if not 0 <= index < self._count:
            raise IndexError(f"frame {index} of a recording of {self._count} frames")
        if self._raw:
            pixels = self.width * self.height
            depth = np.fromfile(self.path, dtype="<u2", count=pixels, offset=index * pixels * 2)
            return depth.astype(np.uint16, copy=False).reshape(self.height, self.width)
        depth = _native.read_depth_png(self._files[index])
        if depth.shape != (self.height, self.width):
            raise ValueError(f"{self._files[index]} changed size while it was being read")
        return depth

    def __iter__(self):
        for i in range(self._count):
            yield self[i]


def read_recording(path, size=None):
    """Opens a recording (a folder of 16-bit PNG depth frames, or a raw .u16 file with
    size=(width, height) or 'WxH'); iterate it for (H, W) uint16 depth arrays."""
    return Recording(path, size)
