# The Python examples run as a user runs them: a pair saved, and the robot loop through an unplug and replug.
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

    # The cable pulled at the tenth frame and plugged back 300 ms later: one reconnect, and the
    # loop acts on frames again afterwards.
    r = run("robot_loop.py", vcam, "60", ORVO_VCAM_FPS="60", ORVO_VCAM_FAULTS="UNPLUG@10+300ms")
    assert r.returncode == 0, r.stderr
    lines = r.stdout.splitlines()
    assert lines[0] == "camera: streaming"
    assert any(l.startswith("camera: reconnected (") for l in lines), lines
    assert lines[-1].startswith("done: ") and ", 1 reconnects," in lines[-1], lines
    assert int(lines[-1].split()[1]) > 10, lines  # frames after the replug were acted on
