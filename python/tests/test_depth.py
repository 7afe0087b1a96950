# The orvo module's depth side: the matcher on the test pattern (true disparity 12), results as
# views, and the point-cloud writers.
import numpy as np

import orvo


def test_matcher_finds_the_pattern_disparity_and_metric_depth(vcam, tmp_path):
    with orvo.Camera(vcam) as cam:
        f = cam.grab(timeout=2.0)
    geometry = orvo.StereoGeometry(fx=400.0, fy=400.0, cx=376.0, cy=240.0, baseline=0.12)
    d = orvo.StereoMatcher().compute(f.left, f.right, geometry)
    disp, depth, points = d.disparity, d.depth, d.points
    assert disp.dtype == np.float32 and disp.shape == (480, 752)
    assert points.dtype == np.float32 and points.shape == (480, 752, 3)
    assert disp.base is d and depth.base is d
    inner = disp[48:-48, 96:-96]
    valid = np.isfinite(inner)
    assert valid.mean() > 0.9
    assert np.mean(np.abs(inner[valid] - 12.0) < 0.5) > 0.95
    # Metric depth of the matched pixels and the cloud's z agree with the geometry.
    ok = np.isfinite(disp)
    np.testing.assert_allclose(depth[ok], 400.0 * 0.12 / disp[ok], rtol=1e-5)
    np.testing.assert_allclose(points[..., 2][ok], depth[ok], rtol=1e-6)

    # Without a geometry only disparities; the same ones.
    plain = orvo.StereoMatcher().compute(f.left, f.right)
    assert plain.depth is None and plain.points is None
    np.testing.assert_array_equal(plain.disparity, disp)

    n_ply = orvo.write_ply(str(tmp_path / "c.ply"), points, f.left)
    n_pcd = orvo.write_pcd(str(tmp_path / "c.pcd"), points)
    assert n_ply == n_pcd == int(np.isfinite(points).all(axis=2).sum())
    assert f"element vertex {n_ply}".encode() in (tmp_path / "c.ply").read_bytes()[:300]
