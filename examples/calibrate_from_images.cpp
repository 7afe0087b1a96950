// Example: stereo calibration from chessboard photographs, left and right alternating.
// Usage: calibrate_from_images DEVICE BOARD_W BOARD_H SQUARE LEFT1 RIGHT1 LEFT2 RIGHT2 ...
// Shows each board (any key: next, q: abandon) and each rectified pair (q: finish); writes
// params/intrinsics.yml and params/extrinsics.yml under the working directory (make params/ first).
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include <OrvoCamera.h>

int main(int argc, char** argv) {
    if (argc < 9 || (argc - 5) % 2 != 0) {
        std::fprintf(stderr, "usage: %s DEVICE BOARD_W BOARD_H SQUARE LEFT RIGHT LEFT RIGHT ...\n", argv[0]);
        return 2;
    }
    OrvoCameraParameterList params;
    params.device_path = argv[1];  // the procedure runs inside a camera session
    OrvoCamera camera(params);

    const cv::Size board(std::atoi(argv[2]), std::atoi(argv[3]));  // inner corners
    const float square = std::strtof(argv[4], nullptr);             // metres, say 0.025
    std::vector<std::string> images(argv + 5, argv + argc);
    camera.StartStereoCalib(images, board, square);

    // Load the result back to see what the depth code will use.
    cv::Mat row;
    if (getStereoCameraParameter("params/extrinsics.yml", row))
        std::printf("focal %.1f px, baseline %.4f\n", row.at<double>(0), -row.at<double>(4) / row.at<double>(0));
    return 0;
}
