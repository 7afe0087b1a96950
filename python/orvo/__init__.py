"""Orvo stereo camera SDK for Python.

    import orvo
    with orvo.Camera("/dev/video0") as cam:
        frame = cam.grab(timeout=1.0)        # orvo.Frame or None
        left, right = frame.left, frame.right  # numpy.uint8 (480, 752), no copy
        gyro = frame.imu["gyro_rad_s"]       # structured array of the IMU samples

Failures raise orvo.Error, an OSError carrying the errno. Camera.grab, opening a camera and
StereoMatcher.compute release the GIL, so other Python threads run meanwhile.
"""
from ._orvo import (  # noqa: F401
    IMU_DTYPE,
    Calibration,
    Camera,
    CameraState,
    CameraStats,
    Depth,
    DeviceInfo,
    Error,
    Frame,
    HostTimeSource,
    StereoGeometry,
    StereoMatcher,
    list_devices,
    write_pcd,
    write_ply,
)

__all__ = [
    "IMU_DTYPE", "Calibration", "Camera", "CameraState", "CameraStats", "Depth", "DeviceInfo",
    "Error", "Frame", "HostTimeSource", "StereoGeometry", "StereoMatcher", "list_devices",
    "write_pcd", "write_ply",
]

# Shown as orvo.X rather than orvo._orvo.X in help() and reprs.
for _name in __all__:
    try:
        getattr(globals()[_name], "__module__")
        globals()[_name].__module__ = __name__
    except (AttributeError, TypeError):
        pass
del _name
