// Stereo engine core: construction, the frame pump with its inertial-trailer decoder, rectified images.
#include "StereoCamera.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <iostream>

#include <opencv2/imgproc.hpp>

#include "ZUNCVHelper.h"
#include "frame_geometry.h"
#include "trailer.h"

namespace layout = orvo::frame;

namespace {

// A calibration path counts as given only when it is longer than one character.
bool pathGiven(const std::string& path) { return path.size() > 1; }

bool isRealMatrix(const cv::Mat& m, int rows, int cols) {
    return (m.type() == CV_64FC1 || m.type() == CV_32FC1) && m.rows == rows && m.cols == cols;
}

// The builder's outputs are usable only when both lenses have maps, the left camera matrix is a
// 3x3 and the right projection a 3x4 matrix of reals; anything else means no rectification and
// no camera constants, so nothing is ever read from an empty or short matrix. Files written in
// single precision are as good as double ones: their elements are widened when read.
bool calibrationUsable(const cv::Mat& map_1, const cv::Mat& map_3, const cv::Mat& camera_matrix,
                       const cv::Mat& projection_2) {
    return !map_1.empty() && !map_3.empty() && isRealMatrix(camera_matrix, 3, 3) &&
           isRealMatrix(projection_2, 3, 4);
}

double element(const cv::Mat& m, int row, int col) {
    return m.depth() == CV_32F ? double(m.at<float>(row, col)) : m.at<double>(row, col);
}

using orvo::trailer::readLE16;
using orvo::trailer::readLE32;

// Raw gyro counts minus the bias, wrapping like the sensor's 32-bit arithmetic instead of
// overflowing when an unusual bias is set.
int32_t unbiased(int16_t raw, int32_t bias) {
    return int32_t(uint32_t(int32_t(raw)) - uint32_t(bias));
}

// One trailer record as the camera encodes it, decoded into sample.
void decodeRecord(const unsigned char* rec, const int32_t bias[3], float deadband_low,
                  float deadband_high, const float accel_offset[3], ImuData& sample) {
    float rate[3];
    for (int axis = 0; axis < 3; ++axis)
        rate[axis] = float(unbiased(readLE16(rec + layout::kRecGyro + 2 * axis), bias[axis])) /
                     layout::kGyroCountsPerDegS;
    for (float& r : rate) r = ValueLimit_min(r, deadband_low, deadband_high);
    for (float& r : rate) r = float(double(r) / layout::kDegPerRad);

    float accel[3];
    for (int axis = 0; axis < 3; ++axis)
        accel[axis] = std::fmaf(float(readLE16(rec + layout::kRecAccel + 2 * axis)),
                                layout::kAccelGPerCount, accel_offset[axis]);

    sample.time = readLE32(rec + layout::kRecTime);
    sample.accel_x = accel[0];
    sample.accel_y = accel[1];
    sample.accel_z = accel[2];
    sample.gyro_x = rate[0];
    sample.gyro_y = rate[1];
    sample.gyro_z = rate[2];
}

}  // namespace

// Returns 0 when low < value < high (both strict), otherwise value; bounds with low not below high
// therefore pass every value through.
float ValueLimit_min(float value, float low, float high) {
    return (low < value && value < high) ? 0.0f : value;
}

// Builds the engine: maps first (so that a builder's exception leaves no device behind), then the
// streaming capture device, the buffers and the camera constants. A camera that cannot be opened
// ends the process inside the capture class. Without a usable calibration maps_valid is false and
// cx, cy, fx, fy and baseline are 0.
StereoCamera::StereoCamera(DeviceParameter param)
    : name_0(param.name_0),
      name_1(param.name_1),
      name_2(param.name_2),
      name_3(param.name_3),
      name_4(param.name_4),
      name_5(param.name_5),
      video_path(param.video_path),
      intrinsics_path(param.intrinsics_path),
      extrinsics_path(param.extrinsics_path),
      fisheye_path(param.fisheye_path),
      width(param.width),
      height(param.height),
      flag_a(param.flag_a),
      flag_b(param.flag_b),
      device(nullptr),
      colour_buffer(nullptr),
      even_buffer(nullptr),
      odd_buffer(nullptr),
      frame_data(nullptr),
      frame_length(0),
      image_width(0),
      image_height(0),
      maps_valid(false),
      new_frame(false),
      imu_count(0),
      imu_block{},
      imu_sample{},
      cx(0),
      cy(0),
      fx(0),
      fy(0),
      baseline(0),
      angle_min(-3.141592653589793),
      angle_max(3.141592653589793),
      deg_to_rad(0.017453292519943295),
      kp(10.0f),
      ki(0.0f),
      half_period(0),
      filter_scale(0),
      quaternion{1.0f, 0.0f, 0.0f, 0.0f},
      gravity_estimate{},
      accel_norm(0),
      attitude_error{},
      integral_error{},
      gyro_bias{},
      gyro_deadband_low(0),
      gyro_deadband_high(0),
      accel_offset{},
      solution_count(0) {
    const cv::Size size(width, height);
    if (pathGiven(extrinsics_path) && pathGiven(intrinsics_path))
        maps_valid = get_remap_mat(intrinsics_path, extrinsics_path, size, map_1, map_2, map_3,
                                   map_4, camera_matrix, projection_2);
    else if (pathGiven(fisheye_path))
        maps_valid = get_remap_mat_fisheye_file(fisheye_path, size, map_1, map_2, map_3, map_4,
                                                camera_matrix, projection_2);

    device = new video_device(video_path, width, height);

    image_width = width;
    image_height = height;
    colour_buffer = new unsigned char[width * height * 3];
    // Zeroed: a first frame that never arrives (failed or empty dequeue) leaves the split buffers
    // as they are, and the rectified pair is made from them.
    even_buffer = new unsigned char[width * height]();
    odd_buffer = new unsigned char[width * height]();

    if (maps_valid && calibrationUsable(map_1, map_3, camera_matrix, projection_2)) {
        cx = element(camera_matrix, 0, 2);
        cy = element(camera_matrix, 1, 2);
        fx = element(camera_matrix, 0, 0);
        fy = element(camera_matrix, 1, 1);
        // The baseline is kept at single precision on purpose: the depth code was tuned with it.
        const float quotient = float(element(projection_2, 0, 3) / element(projection_2, 0, 0));
        baseline = double(std::fabs(quotient));
    } else {
        maps_valid = false;
    }

    first_image = cv::Mat::zeros(height, width, CV_8UC1);
    second_image = cv::Mat::zeros(height, width, CV_8UC1);
    new_frame = false;
}

// Stops the camera first, then releases the buffers; the matrices and strings follow as members.
StereoCamera::~StereoCamera() {
    if (device) delete device;
    if (colour_buffer) delete[] colour_buffer;
    if (even_buffer) delete[] even_buffer;
    if (odd_buffer) delete[] odd_buffer;
}

namespace {

// Dequeues the next frame into the engine's frame pointer and length. A failed dequeue is only
// reported; the caller carries on with the frame the engine already holds.
void acquireFrame(StereoCamera& cam) {
    if (cam.device->get_frame(&cam.frame_data, &cam.frame_length) == -1)
        std::cout << " QAXMStereoCamera get_frame errr" << std::endl;
}

// Splits the held frame into the odd and even grey buffers and points the image matrices at them
// (the first image is the odd bytes). The split never writes more than one image per buffer, even
// if a driver reports more bytes than the frame geometry holds.
void splitFrame(StereoCamera& cam) {
    const size_t pixels = size_t(cam.image_width) * size_t(cam.image_height);
    const size_t bytes = std::min<size_t>(cam.frame_length, 2 * pixels);
    video_device::yuyv_2_lr_gray(cam.frame_data, int(bytes), cam.even_buffer, cam.odd_buffer);
    if (cam.first_image.data != cam.odd_buffer)
        cam.first_image = cv::Mat(cam.image_height, cam.image_width, CV_8UC1, cam.odd_buffer);
    if (cam.second_image.data != cam.even_buffer)
        cam.second_image = cv::Mat(cam.image_height, cam.image_width, CV_8UC1, cam.even_buffer);
}

// Latches the held frame's trailer: the count byte, the 480-byte record block that starts
// block_from_end bytes before the frame's end, and the frame time in the slot after the last
// record. Nothing outside the frame or the block is read:
// - a frame too short to hold the block carries no trailer: the count becomes 0 and frame_time is
//   left as it was;
// - a count above the 20 slots is clamped to 20;
// - with 20 records there is no slot left for the frame time, so frame_time is left as it was.
void latchTrailer(StereoCamera& cam, size_t block_from_end, unsigned int& frame_time) {
    if (!orvo::trailer::latch(cam.frame_data, cam.frame_length, block_from_end, cam.imu_count,
                              cam.imu_block))
        return;
    if (cam.imu_count < layout::kRecordSlots)
        frame_time = readLE32(cam.imu_block + layout::kRecordSize * cam.imu_count);
}

// Replaces imu with the latched block's records (capacity kept).
void decodeLatchedRecords(StereoCamera& cam, std::vector<ImuData>& imu) {
    imu.clear();
    for (size_t i = 0; i < cam.imu_count; ++i) {
        decodeRecord(cam.imu_block + layout::kRecordSize * i, cam.gyro_bias, cam.gyro_deadband_low,
                     cam.gyro_deadband_high, cam.accel_offset, cam.imu_sample);
        imu.push_back(cam.imu_sample);
    }
}

}  // namespace

// One frame, images only: fresh copies of the two grey images, upside down when flip is set (the
// engine's own buffers are flipped too, so a following getStereoRemapMat sees the flipped pair).
void StereoCamera::update(cv::Mat& first, cv::Mat& second, bool flip) {
    acquireFrame(*this);
    splitFrame(*this);
    if (flip) {
        cv::flip(first_image, first_image, 0);
        cv::flip(second_image, second_image, 0);
    }
    first = first_image.clone();
    second = second_image.clone();
    device->unget_frame();
    new_frame = true;
}

// One frame: fresh copies of the two grey images, the trailer's decoded samples and the frame
// time. A zero-length frame leaves every output untouched; a frame too short to carry the trailer
// gives the images, no samples, and leaves frame_time as it was.
void StereoCamera::update_cam_imu(cv::Mat& first, cv::Mat& second, std::vector<ImuData>& imu,
                                  unsigned int& frame_time) {
    acquireFrame(*this);
    splitFrame(*this);
    if (frame_length == 0) {
        device->unget_frame();
        return;
    }
    latchTrailer(*this, layout::kBlockFromEnd, frame_time);
    first = first_image.clone();
    second = second_image.clone();
    decodeLatchedRecords(*this, imu);
    device->unget_frame();
}

// One frame, inertial samples only. The block is taken directly in front of the count byte, eight
// bytes later than update_cam_imu takes it; applications written against this method rely on it.
// Zero-length and too-short frames are handled as in update_cam_imu.
void StereoCamera::update_imu_raw(std::vector<ImuData>& imu, unsigned int& frame_time) {
    acquireFrame(*this);
    if (frame_length == 0) {
        device->unget_frame();
        return;
    }
    latchTrailer(*this, layout::kRawBlockFromEnd, frame_time);
    decodeLatchedRecords(*this, imu);
    device->unget_frame();
}

// The latest pair through the rectification maps (true), or plain copies of it when the engine
// has no usable calibration (false). The outputs never share the engine's buffers.
bool StereoCamera::getStereoRemapMat(cv::Mat& first, cv::Mat& second) {
    new_frame = false;
    if (maps_valid) {
        cv::remap(first_image, first, map_1, map_2, cv::INTER_LINEAR, cv::BORDER_CONSTANT,
                  cv::Scalar());
        cv::remap(second_image, second, map_3, map_4, cv::INTER_LINEAR, cv::BORDER_CONSTANT,
                  cv::Scalar());
    } else {
        first = first_image.clone();
        second = second_image.clone();
    }
    return maps_valid;
}

// Fills out with a 1x7 row of doubles: fx, fy, cx, cy of the rectified left camera, focal length
// times baseline (positive for a right lens to the right), width and height. The extrinsics file
// is read on every call; when it cannot be read, returns false and leaves out as it was.
bool StereoCamera::getCameraParameter(cv::Mat& out) {
    cv::Mat values;
    if (!getStereoCameraParameter(extrinsics_path, values)) return false;
    if (values.type() != CV_64FC1 || values.total() < 5 || !values.isContinuous()) return false;
    const double* v = values.ptr<double>();
    out = cv::Mat::zeros(1, 7, CV_64F);
    double* row = out.ptr<double>();
    row[0] = v[0];
    row[1] = v[1];
    row[2] = v[2];
    row[3] = v[3];
    row[4] = -v[4];
    row[5] = double(image_width);
    row[6] = double(image_height);
    return true;
}
