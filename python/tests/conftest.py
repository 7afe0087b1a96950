# Fixtures of the orvo Python tests: the preloaded virtual camera, set up afresh for each test.
import os

import pytest

NODE = os.environ.get("ORVO_VCAM_DEVICE", "")


def pytest_configure(config):
    # Without the virtual camera every test would fail to open; say why once instead.
    if not NODE or "Orvo_virtual_camera" not in os.environ.get("LD_PRELOAD", ""):
        raise pytest.UsageError(
            "run with LD_PRELOAD=<build>/virtual_camera/libOrvo_virtual_camera.so and "
            "ORVO_VCAM_DEVICE=/dev/video-virtual0 (the CTest test python_orvo does)")


@pytest.fixture
def vcam(tmp_path, monkeypatch):
    """The virtual camera's node, serving the test pattern free-running, with a truth file.

    The variables are read when a session opens the node, so a test may change them (faults,
    pacing) before it opens a Camera."""
    monkeypatch.setenv("ORVO_VCAM_SOURCE", "pattern")
    monkeypatch.setenv("ORVO_VCAM_FPS", "0")
    monkeypatch.setenv("ORVO_VCAM_TRUTH", str(tmp_path / "truth.txt"))
    monkeypatch.delenv("ORVO_VCAM_FAULTS", raising=False)
    return NODE


def read_truth(path):
    """The truth file's lines as {sequence: {key: value}}."""
    frames = {}
    with open(path) as f:
        for line in f:
            pairs = dict(kv.split("=", 1) for kv in line.split())
            frames[int(pairs["sequence"])] = pairs
    return frames
