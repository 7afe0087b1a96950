# The orvo module's camera side: frames as NumPy views, their lifetime, IMU, errors and threads.
import errno
import gc
import os
import threading
import time

import numpy as np
import pytest

import orvo
from conftest import read_truth


def test_frames_are_zero_copy_views_that_outlive_the_camera(vcam):
    with orvo.Camera(vcam) as cam:
        f = cam.grab(timeout=2.0)
        assert isinstance(f, orvo.Frame)
        for img in (f.left, f.right):
            assert img.dtype == np.uint8 and img.shape == (480, 752)
            assert img.base is f  # the array keeps the frame alive
        # The pattern's right lens sees the left one 12 pixels on (the last row carries the IMU).
        assert np.array_equal(f.right[:-1, :-12], f.left[:-1, 12:])
        # Each access is a view of the same memory, not a fresh copy...
        assert f.left.ctypes.data == f.left.ctypes.data
        assert np.shares_memory(f.left, f.left) and not np.shares_memory(f.left, f.right)
        # ...so a write through one view is seen through the next.
        view = f.left
        view[10, 20] = 255 - view[10, 20]
        assert f.left[10, 20] == view[10, 20]
        g = cam.grab(timeout=2.0)
        assert np.array_equal(g.right[:-1, :-12], g.left[:-1, 12:])
        assert g.sequence == f.sequence + 1 and g.host_time_ns > f.host_time_ns

        # A view whose frame object is gone keeps its pixels while the camera recycles buffers.
        kept = cam.grab(timeout=2.0).left
        snapshot = kept.copy()
        gc.collect()
        for _ in range(10):
            assert cam.grab(timeout=2.0) is not None
    assert cam.state == orvo.CameraState.closed
    assert cam.grab(timeout=0.1) is None
    gc.collect()
    assert np.array_equal(kept, snapshot)
    assert cam.stats.frames >= 13


def test_imu_is_a_structured_view_matching_the_truth_file(vcam):
    with orvo.Camera(vcam) as cam:
        frames = [cam.grab(timeout=2.0) for _ in range(8)]
    truth = read_truth(os.environ["ORVO_VCAM_TRUTH"])
    assert set(orvo.IMU_DTYPE.names) == {
        "device_time_us", "host_time_ns", "gyro_rad_s", "accel_m_s2", "gyro_raw", "accel_raw"}
    seen = 0
    for f in frames:
        imu = f.imu
        assert imu.dtype == orvo.IMU_DTYPE and imu.base is f
        t = truth[f.sequence]
        assert int(t["ticks"]) == f.device_time_us
        assert len(imu) == int(t["imu"])
        for i, s in enumerate(imu):
            ticks, gyro, accel, raw_gyro, raw_accel = t[f"imu{i}"].split(":")
            assert s["device_time_us"] == int(ticks)
            assert list(s["gyro_raw"]) == [int(v) for v in raw_gyro.split(",")]
            assert list(s["accel_raw"]) == [int(v) for v in raw_accel.split(",")]
            # SI values: the true ones within one count of the sensor's quantisation.
            np.testing.assert_allclose(s["gyro_rad_s"], [float(v) for v in gyro.split(",")],
                                       atol=0.0011)
            np.testing.assert_allclose(s["accel_m_s2"],
                                       [9.80665 * float(v) for v in accel.split(",")], atol=0.0013)
            assert s["host_time_ns"] > 0
            seen += 1
    assert seen >= 8


def test_errors_carry_errno_and_unplug_ends_in_none(vcam, monkeypatch):
    with pytest.raises(orvo.Error) as missing:
        orvo.Camera("/dev/video-orvo-missing")
    assert isinstance(missing.value, OSError) and missing.value.errno == errno.ENOENT
    assert "/dev/video-orvo-missing" in str(missing.value)

    with orvo.Camera(vcam):
        with pytest.raises(orvo.Error) as busy:
            orvo.Camera(vcam)
        assert busy.value.errno == errno.EBUSY

    monkeypatch.setenv("ORVO_VCAM_FAULTS", "DQBUF@5=ENODEV")
    with orvo.Camera(vcam, reconnect=False) as cam:
        # The fifth dequeue fails: only frames 0-3 exist, handed out in order; a full queue drops
        # its oldest, and a frame still queued when the camera is lost is dropped, never handed out late.
        seqs = []
        while len(seqs) < 6 and (f := cam.grab(timeout=5)) is not None:
            seqs.append(f.sequence)
        assert seqs == sorted(set(seqs)) and all(0 <= q <= 3 for q in seqs), seqs
        assert cam.grab(timeout=0.2) is None
        assert cam.state == orvo.CameraState.disconnected
        assert cam.stats.last_errno == errno.ENODEV

    # The matcher's own errors are orvo.Error too; other C++ exceptions arrive as Python ones, not as aborts.
    with pytest.raises(orvo.Error, match="num_disparities") as bad:
        orvo.StereoMatcher(num_disparities=10).compute(np.zeros((8, 8), np.uint8),
                                                       np.zeros((8, 8), np.uint8))
    assert bad.value.errno == errno.EINVAL
    with pytest.raises(TypeError):
        orvo.StereoMatcher().compute(np.zeros((8, 8), np.float32), np.zeros((8, 8), np.uint8))
    with pytest.raises(orvo.Error) as unwritable:
        orvo.write_ply("/nonexistent-dir/cloud.ply", np.ones((2, 2, 3), np.float32))
    assert unwritable.value.errno == errno.ENOENT


def test_grab_releases_the_gil_and_two_threads_share_the_stream(vcam, monkeypatch):
    # Paced at 10 fps: each grab waits ~0.1 s in C++. The main thread must keep ticking meanwhile.
    monkeypatch.setenv("ORVO_VCAM_FPS", "10")
    with orvo.Camera(vcam) as cam:
        done = threading.Event()

        def grabber():
            for _ in range(5):
                cam.grab(timeout=2.0)
            done.set()

        t = threading.Thread(target=grabber)
        ticks = [time.monotonic()]
        t.start()
        while not done.is_set():
            time.sleep(0.005)
            ticks.append(time.monotonic())
        t.join()
        # Holding the GIL would space the ticks a whole grab (~0.1 s) apart; the median is robust
        # to the odd late tick on a loaded machine.
        assert len(ticks) > 20 and np.median(np.diff(ticks)) < 0.04, np.diff(ticks)

    monkeypatch.setenv("ORVO_VCAM_FPS", "0")
    with orvo.Camera(vcam) as cam:
        seqs = [[], []]

        def worker(out):
            for _ in range(60):
                f = cam.grab(timeout=2.0)
                if f is not None:
                    out.append(f.sequence)

        threads = [threading.Thread(target=worker, args=(s,)) for s in seqs]
        for t in threads:
            t.start()
        for t in threads:
            t.join()
    assert len(seqs[0]) == 60 and len(seqs[1]) == 60
    assert not set(seqs[0]) & set(seqs[1])
    assert seqs[0] == sorted(seqs[0]) and seqs[1] == sorted(seqs[1])
