import os
import subprocess

import numpy as np
import pytest

SOURCE_DIR = os.environ.get("QBT_SOURCE_DIR", os.path.join(os.path.dirname(__file__), "..", ".."))
DATA_FILE = os.path.join(SOURCE_DIR, "data", "QuorvikBodyTracking.data")


def tool(name):
    path = os.environ.get(name)
    if not path or not os.path.exists(path):
        pytest.skip(f"{name} is not built (the tools are off)")
    return path


@pytest.fixture(scope="session")
def data_file():
    if not os.path.isfile(DATA_FILE):
        pytest.skip("no trained data file in data/")
    return DATA_FILE


@pytest.fixture(scope="session")
def recording(tmp_path_factory):
    """A simulated mirrored recording: two people walking in at 320x240."""
    out = tmp_path_factory.mktemp("walk-in")
    subprocess.run([tool("QBT_SIM"), "walk-in", "--people", "2", "--size", "320x240", "--frames", "80",
                    "--seed", "11", "--mirrored", "--out", str(out)], check=True, capture_output=True)
    return str(out)


@pytest.fixture(scope="session")
def depth_frames(recording):
    import quorvik_body_tracking as qbt
    return list(qbt.read_recording(recording))


@pytest.fixture(scope="session")
def raw_recording(depth_frames, tmp_path_factory):
    path = tmp_path_factory.mktemp("raw") / "walk-in.u16"
    np.stack(depth_frames).astype("<u2").tofile(path)
    return str(path)
