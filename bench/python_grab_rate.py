#!/usr/bin/env python3
"""Python's grab loop rate against the C++ one on the free-running virtual camera.

    LD_PRELOAD=<build>/virtual_camera/libOrvo_virtual_camera.so \\
    ORVO_VCAM_DEVICE=/dev/video-virtual0 PYTHONPATH=<build>/python \\
    /usr/bin/python3 bench/python_grab_rate.py <build>/bench/grab_rate [FRAMES] [ROUNDS]

Both loops grab FRAMES frames and look at one pixel of each; each runs ROUNDS times, alternating,
and the best round of each counts (the machine is shared). Prints both rates and their ratio.
"""
import os
import subprocess
import sys
import time

import orvo


def python_rate(node, frames):
    with orvo.Camera(node) as cam:
        if cam.grab(timeout=5.0) is None:
            raise SystemExit("no first frame")
        touched = 0
        start = time.perf_counter()
        for _ in range(frames):
            f = cam.grab(timeout=5.0)
            touched += int(f.left[0, 0])
        return frames / (time.perf_counter() - start)


def cpp_rate(program, node, frames):
    out = subprocess.run([program, node, str(frames)], check=True, capture_output=True, text=True)
    return float(out.stdout.split()[3])


def main():
    if len(sys.argv) < 2:
        raise SystemExit(__doc__)
    program = sys.argv[1]
    frames = int(sys.argv[2]) if len(sys.argv) > 2 else 1000
    rounds = int(sys.argv[3]) if len(sys.argv) > 3 else 3
    node = os.environ.get("ORVO_VCAM_DEVICE", "/dev/video-virtual0")
    os.environ.setdefault("ORVO_VCAM_FPS", "0")
    os.environ.setdefault("ORVO_VCAM_SOURCE", "pattern")
    py, cpp = [], []
    for _ in range(rounds):
        py.append(python_rate(node, frames))
        cpp.append(cpp_rate(program, node, frames))
    print(f"python grab loop: {max(py):8.1f} frames/s  (rounds: {', '.join(f'{r:.0f}' for r in py)})")
    print(f"C++ grab loop:    {max(cpp):8.1f} frames/s  (rounds: {', '.join(f'{r:.0f}' for r in cpp)})")
    print(f"ratio python/C++: {max(py) / max(cpp):.3f}")


if __name__ == "__main__":
    main()
