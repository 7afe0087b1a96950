#!/usr/bin/env python3
"""Live depth: rectified frames through the stereo matcher, each depth map saved as a PNG
(near = bright, nothing beyond 5 m, black where there is no match).

    python3 live_depth.py NODE INTRINSICS EXTRINSICS [FRAMES] [OUT_DIR]
"""
import os
import sys

import numpy as np

import orvo
from png import write_png

if len(sys.argv) < 4:
    sys.exit(__doc__)
node, intrinsics, extrinsics = sys.argv[1:4]
frames = int(sys.argv[4]) if len(sys.argv) > 4 else 10
out = sys.argv[5] if len(sys.argv) > 5 else "."
FAR_M = 5.0

calib = orvo.Calibration(intrinsics, extrinsics)
matcher = orvo.StereoMatcher(num_disparities=64)
with orvo.Camera(node, intrinsics_file=intrinsics, extrinsics_file=extrinsics, rectify=True) as cam:
    for i in range(frames):
        frame = cam.grab(timeout=2.0)
        if frame is None:
            print(f"no frame ({cam.state.name})")
            continue
        result = matcher.compute(frame.left, frame.right, calib)  # releases the GIL
        depth = result.depth
        valid = np.isfinite(depth)
        shade = np.zeros(depth.shape, np.uint8)
        shade[valid] = (255 * np.clip(1.0 - depth[valid] / FAR_M, 0, 1)).astype(np.uint8)
        path = os.path.join(out, f"depth_{i:03d}.png")
        write_png(path, shade)
        near = float(np.nanmin(depth)) if valid.any() else float("nan")
        print(f"frame {frame.sequence}: {valid.mean():.0%} matched, nearest {near:.2f} m -> {path}")
