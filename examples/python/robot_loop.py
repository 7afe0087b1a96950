#!/usr/bin/env python3
"""A control loop that survives an unplug: it acts only on fresh frames, holds still while the
camera is gone, and carries on when the SDK has reconnected it.

    python3 robot_loop.py [NODE] [CYCLES]
"""
import sys

import orvo

node = sys.argv[1] if len(sys.argv) > 1 else "/dev/video0"
cycles = int(sys.argv[2]) if len(sys.argv) > 2 else 300

# queue_depth=1: only the newest frame matters to a controller.
with orvo.Camera(node, queue_depth=1, reconnect_backoff_max=0.5) as cam:
    state = cam.state
    reconnects = 0
    print(f"camera: {state.name}")
    acted = 0
    for cycle in range(cycles):
        frame = cam.grab(timeout=0.1)  # a frame older than 100 ms is no basis for a decision
        # A reconnect can begin and end inside one grab, so the count tells what polling the state may miss.
        stats = cam.stats
        if stats.reconnects != reconnects:
            reconnects = stats.reconnects
            print(f"camera: reconnected ({stats.last_error})")
        if cam.state != state:
            state = cam.state
            why = f" ({stats.last_error})" if state != orvo.CameraState.streaming else ""
            print(f"camera: {state.name}{why}")
        if frame is None:
            continue  # hold still
        acted += 1
        brightness = float(frame.left[::8, ::8].mean())
        # ... steer from the frame here ...
    stats = cam.stats
    print(f"done: {acted} of {cycles} cycles acted on a frame, "
          f"{stats.reconnects} reconnects, brightness {brightness:.0f}")
