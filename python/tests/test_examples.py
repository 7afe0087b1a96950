# The Python examples run as a user runs them: a pair saved, and the robot loop through an unplug.
import os
import subprocess
import sys

EXAMPLES = os.path.join(os.path.dirname(__file__), "..", "..", "examples", "python")


def run(script, *args, **env):
    return subprocess.run([sys.executable, os.path.join(EXAMPLES, script), *args],
                          env={**os.environ, **env}, capture_output=True, text=True, timeout=120)


def test_grab_pair_and_robot_loop_through_an_unplug(vcam, tmp_path):
    r = run("grab_pair.py", vcam, str(tmp_path))
    assert r.returncode == 0, r.stderr
    for name in ("left.png", "right.png"):
        assert (tmp_path / name).read_bytes()[:8] == b"\x89PNG\r\n\x1a\n"

    r = run("robot_loop.py", vcam, "60", ORVO_VCAM_FPS="60", ORVO_VCAM_FAULTS="DQBUF@10=ENODEV:1")
    assert r.returncode == 0, r.stderr
    lines = r.stdout.splitlines()
    assert lines[0] == "camera: streaming"
    assert any(l.startswith("camera: reconnected (") and "No such device" in l for l in lines), lines
    assert " 0 reconnects" not in lines[-1]
