#!/usr/bin/env python3
"""Grabs one stereo pair and saves it as left.png and right.png; prints the frame's IMU.

    python3 grab_pair.py [NODE] [OUT_DIR]
"""
import os
import sys

import orvo
from png import write_png

node = sys.argv[1] if len(sys.argv) > 1 else "/dev/video0"
out = sys.argv[2] if len(sys.argv) > 2 else "."

try:
    with orvo.Camera(node) as cam:
        frame = cam.grab(timeout=2.0)
except orvo.Error as e:  # an OSError: e.errno tells what happened (ENOENT, EBUSY, ...)
    sys.exit(f"grab_pair: {e.strerror}")
if frame is None:
    sys.exit("grab_pair: no frame within 2 s")

# frame.left / frame.right view the frame's memory; they stay valid after the camera closed.
for name, image in (("left", frame.left), ("right", frame.right)):
    write_png(os.path.join(out, f"{name}.png"), image)
print(f"frame {frame.sequence}: saved left.png and right.png ({frame.left.shape[1]}x"
      f"{frame.left.shape[0]}), {len(frame.imu)} IMU samples")
for s in frame.imu:
    print(f"  t={s['device_time_us']} us gyro={s['gyro_rad_s']} rad/s accel={s['accel_m_s2']} m/s^2")
