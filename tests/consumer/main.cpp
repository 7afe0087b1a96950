// A minimal application: one frame from the virtual camera through the modern API and its matcher,
// then one through the public facade.
#include <OrvoCamera.h>
#include <orvo/orvo.hpp>
#include <orvo/vcam/frame_source.hpp>

#include <cstdio>
#include <cstdlib>
#include <string>

int main() {
    std::string error;
    if (!orvo::vcam::makeFrameSource("pattern", &error)) {
        std::printf("consumer: no pattern source: %s\n", error.c_str());
        return 1;
    }
    setenv("ORVO_VCAM_DEVICE", "/dev/orvo-consumer0", 1);
    setenv("ORVO_VCAM_SOURCE", "pattern", 1);
    setenv("ORVO_VCAM_FPS", "0", 1);

    {
        orvo::Camera modern("/dev/orvo-consumer0");
        const std::optional<orvo::Frame> frame = modern.grab(std::chrono::seconds(5));
        if (!frame) return std::printf("consumer: the modern camera gave no frame\n"), 1;
        const orvo::Depth depth = orvo::StereoMatcher().compute(frame->left, frame->right);
        std::printf("consumer: modern frame %llu, disparity %dx%d\n",
                    static_cast<unsigned long long>(frame->sequence), depth.disparity.cols, depth.disparity.rows);
    }
    OrvoCameraParameterList params;
    params.device_path = "/dev/orvo-consumer0";
    OrvoCamera camera(params);
    camera.Grab();
    cv::Mat first, second;
    camera.getOrgImage(first, second);
    cv::Mat both = combineTwoImg(first, second);
    std::printf("consumer: frame %dx%d, pair %dx%d\n", first.cols, first.rows, both.cols, both.rows);
    return (first.cols == 752 && first.rows == 480 && both.cols == 1504) ? 0 : 1;
}
