// Camera facade: construction, the process-wide engine and matchers, frame capture and its getters.
#include "OrvoCamera.h"

#include "frame_geometry.h"

// One facade, one engine and one pair of matchers per process.
StereoCamera* camera_ = nullptr;
cv::Ptr<cv::StereoSGBM> sgbm_;
cv::Ptr<cv::StereoBM> bm_;

namespace {

// The semi-global matcher: 64 disparities from 0, 5x5 blocks, P1/P2 = 8 and 32 times the block
// area, full two-pass mode. The zeros given to create are all overridden by the setters.
cv::Ptr<cv::StereoSGBM> makeSemiGlobalMatcher() {
    cv::Ptr<cv::StereoSGBM> m = cv::StereoSGBM::create(0, 64, 5, 0, 0, 0, 0, 0, 0, 0, 0);
    m->setBlockSize(5);
    m->setP1(200);
    m->setP2(800);
    m->setDisp12MaxDiff(5);
    m->setPreFilterCap(63);
    m->setUniquenessRatio(10);
    m->setSpeckleWindowSize(100);
    m->setSpeckleRange(2);
    m->setMinDisparity(0);
    m->setMode(cv::StereoSGBM::MODE_HH);
    return m;
}

// The block matcher of the nearest-point search: 128 disparities from 0 with 15x15 blocks and a
// normalised-response pre-filter; the values given to create are overridden by the setters.
cv::Ptr<cv::StereoBM> makeBlockMatcher() {
    cv::Ptr<cv::StereoBM> m = cv::StereoBM::create(16, 9);
    m->setPreFilterType(cv::StereoBM::PREFILTER_NORMALIZED_RESPONSE);
    m->setPreFilterSize(9);
    m->setPreFilterCap(31);
    m->setBlockSize(15);
    m->setMinDisparity(0);
    m->setNumDisparities(128);
    m->setTextureThreshold(10);
    m->setUniquenessRatio(15);
    m->setSpeckleWindowSize(100);
    m->setSpeckleRange(32);
    m->setDisp12MaxDiff(1);
    return m;
}

cv::Mat zeroImage() {
    return cv::Mat::zeros(orvo::frame::kHeight, orvo::frame::kWidth, CV_8UC1);
}

}  // namespace

// Opens the camera (a camera that cannot be opened ends the process) and publishes the engine in
// camera_. A second facade silently replaces camera_ without destroying the engine it pointed to:
// after a facade's destruction camera_ dangles, so no liveness test is possible; applications keep
// one facade per process. The matchers are replaced by freshly configured ones.
OrvoCamera::OrvoCamera(OrvoCameraParameterList param)
    : bucket_count(0), buckets{}, frame_time(0) {
    DeviceParameter device{};
    device.extrinsics_path = param.extrinsics_file;
    device.intrinsics_path = param.intrinsics_file;
    device.fisheye_path = param.fisheye_file;
    device.video_path = param.device_path;
    device.width = orvo::frame::kWidth;
    device.height = orvo::frame::kHeight;
    device.flag_a = false;
    device.flag_b = false;

    camera_ = new StereoCamera(device);

    org_image_1 = zeroImage();
    org_image_2 = zeroImage();
    rect_image_1 = zeroImage();
    rect_image_2 = zeroImage();
    frame_time = 0;

    sgbm_ = makeSemiGlobalMatcher();
    bm_ = makeBlockMatcher();
}

// Destroys the engine (stopping the camera); camera_ is left dangling and the matchers stay
// configured until the library is unloaded.
OrvoCamera::~OrvoCamera() {
    if (camera_) delete camera_;
}

// Captures one frame: fresh copies of both grey images, the inertial samples and frame time, and
// the rectified pair. Returns true when the pair went through the calibration maps, false when
// the rectified images are plain copies. A capture failure only prints and reuses the last frame.
bool OrvoCamera::Grab() {
    camera_->update_cam_imu(org_image_1, org_image_2, imu_samples, frame_time);
    return camera_->getStereoRemapMat(rect_image_1, rect_image_2);
}

// Shares (does not copy) the last grabbed grey images. Grab gives them new storage each time, so
// pixels obtained earlier stay as they were.
void OrvoCamera::getOrgImage(cv::Mat& first, cv::Mat& second) {
    first = org_image_1;
    second = org_image_2;
}

// Shares (does not copy) the last rectified images. Grab rectifies into the same storage, so a
// result obtained earlier shows the pixels of later grabs unless the caller clones it.
void OrvoCamera::getRectImage(cv::Mat& first, cv::Mat& second) {
    first = rect_image_1;
    second = rect_image_2;
}

// Copies out the last grab's samples and frame time; returns the frame time.
unsigned int OrvoCamera::getImuRawData(std::vector<ImuData>& samples, unsigned int& time) {
    if (&samples != &imu_samples) samples = imu_samples;
    time = frame_time;
    return frame_time;
}

// The last grab's frame time; 0 before the first grab.
unsigned int OrvoCamera::getImgTime() { return frame_time; }

// The engine's 1x7 camera parameter row; false (out untouched) when the extrinsics cannot be read.
bool OrvoCamera::getCameraParameter(cv::Mat& out) { return camera_->getCameraParameter(out); }
