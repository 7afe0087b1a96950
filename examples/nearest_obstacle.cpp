// Example: the nearest obstacle in a box in front of the camera, frame after frame.
// Usage: nearest_obstacle DEVICE INTRINSICS EXTRINSICS [FRAMES]
#include <cfloat>
#include <cstdio>
#include <cstdlib>

#include <opencv2/imgcodecs.hpp>

#include <OrvoCamera.h>

int main(int argc, char** argv) {
    if (argc < 4) {
        std::fprintf(stderr, "usage: %s DEVICE INTRINSICS EXTRINSICS [FRAMES]\n", argv[0]);
        return 2;
    }
    OrvoCameraParameterList params;
    params.device_path = argv[1];
    params.intrinsics_file = argv[2];
    params.extrinsics_file = argv[3];
    const int frames = argc > 4 ? std::atoi(argv[4]) : 30;
    OrvoCamera camera(params);

    // The box searched, in metres: 0.5 to each side, up to 0.5 m above the lens axis, up to 3 m
    // ahead, camera level (tilt 0).
    winpar region{0.5, 0.5, 3.0, 0.0};
    static nerapot bins[360];  // one per degree of bearing; the application owns them
    for (int i = 0; i < frames; ++i) {
        if (!camera.Grab()) {
            std::fprintf(stderr, "the calibration gave no rectification maps\n");
            return 1;
        }
        cv::Point3d nearest;
        camera.getNearestPoint(region, bins, nearest);
        if (nearest.z == DBL_MAX) std::printf("frame %d: clear\n", i);
        else std::printf("frame %d: obstacle at x %.2f y %.2f z %.2f m\n", i, nearest.x, nearest.y, nearest.z);

        if (i == frames - 1) {  // the last search seen from above, camera at the centre
            cv::Mat plot(1000, 1000, CV_8UC3, cv::Scalar::all(0));
            camera.getPointImage(bins, nearest, plot);
            cv::imwrite("nearest.png", plot);
        }
    }
    return 0;
}
