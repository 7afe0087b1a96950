// Example: open the camera, grab frames, show the original and the rectified pair.
// Usage: grab_and_show DEVICE [INTRINSICS EXTRINSICS]   (no display: writes grab.png instead)
#include <cstdio>
#include <cstdlib>

#include <opencv2/highgui.hpp>
#include <opencv2/imgcodecs.hpp>

#include <OrvoCamera.h>

int main(int argc, char** argv) {
    if (argc != 2 && argc != 4) {
        std::fprintf(stderr, "usage: %s DEVICE [INTRINSICS EXTRINSICS]\n", argv[0]);
        return 2;
    }
    OrvoCameraParameterList params;
    params.device_path = argv[1];  // the process ends here with a message if it does not open
    if (argc == 4) {
        params.intrinsics_file = argv[2];
        params.extrinsics_file = argv[3];
    }
    OrvoCamera camera(params);
    const bool display = std::getenv("DISPLAY") != nullptr;

    for (int i = 0; i < (display ? 100000 : 5); ++i) {
        const bool rectified = camera.Grab();  // false: no calibration, "rectified" = original
        cv::Mat left, right, rect_left, rect_right;
        camera.getOrgImage(left, right);
        camera.getRectImage(rect_left, rect_right);
        if (!display) continue;
        cv::Mat view;
        cv::vconcat(combineTwoImg(left, right), combineTwoImg(rect_left, rect_right), view);
        cv::imshow(rectified ? "original / rectified" : "original (no calibration)", view);
        if ((cv::waitKey(1) & 0xff) == 'q') break;
    }
    if (!display) {
        cv::Mat left, right;
        camera.getRectImage(left, right);
        cv::imwrite("grab.png", combineTwoImg(left, right));
        std::printf("no display: wrote grab.png\n");
    }
    return 0;
}
