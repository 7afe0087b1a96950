// Stereo engine: frames and inertial samples, rectification, depth, attitude and calibration.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <opencv2/core.hpp>

#include "video_device.h"

#ifndef ORVO_API
#define ORVO_API __attribute__((visibility("default")))
#endif

// The engine's construction record. name_0..name_5 and the two flags are carried, never read.
struct DeviceParameter {
    std::string name_0;
    std::string name_1;
    std::string name_2;
    std::string name_3;
    std::string name_4;
    std::string name_5;
    std::string video_path;
    std::string intrinsics_path;
    std::string extrinsics_path;
    std::string fisheye_path;
    int width;
    int height;
    bool flag_a;
    bool flag_b;
};

// One decoded inertial sample: time in camera ticks, acceleration in g, angular rate in rad/s.
struct ImuData {
    uint32_t time;
    float accel_x;
    float accel_y;
    float accel_z;
    float gyro_x;
    float gyro_y;
    float gyro_z;
};

// Search region of the nearest-point search.
struct winpar {
    double half_width;
    double height;
    double max_depth;
    double tilt;
};

// One one-degree bearing bin; the application supplies 360 of them.
struct nerapot {
    double x;
    double y;
    double z;
    double min_depth;
    double angle;
};

// One cluster of neighbouring bins.
struct classfic {
    double x;
    double y;
    double z;
    int32_t members;
};

ORVO_API float ValueLimit_min(float value, float low, float high);
ORVO_API cv::Point get_point(float range, float angle);

// When neither calibration source is given, or a map builder fails or leaves the camera matrix or
// the right projection empty, maps_valid is false and cx, cy, fx, fy and baseline are 0: nothing is
// read from an empty matrix. A trailer whose count byte exceeds the 20 record slots is clamped to
// 20 records, and the frame time is then left as it was: nothing is read past the 480-byte block.
class ORVO_API StereoCamera {
public:
    explicit StereoCamera(DeviceParameter param);
    virtual ~StereoCamera();

    StereoCamera(const StereoCamera&) = delete;
    StereoCamera& operator=(const StereoCamera&) = delete;

    // Frames and inertial samples.
    void update(cv::Mat& first, cv::Mat& second, bool flip);
    void update_cam_imu(cv::Mat& first, cv::Mat& second, std::vector<ImuData>& imu,
                        unsigned int& frame_time);
    void update_imu_raw(std::vector<ImuData>& imu, unsigned int& frame_time);

    // Attitude.
    void imu_init(float deadband_low, float deadband_high, float accel_offset_x,
                  float accel_offset_y, float accel_offset_z);
    void imu_solution(float gx, float gy, float gz, float ax, float ay, float az, float period,
                      float* out);

    // Rectification and camera parameters.
    bool getStereoRemapMat(cv::Mat& first, cv::Mat& second);
    bool getCameraParameter(cv::Mat& out);

    // Depth and nearest point.
    void DispToPointCloud(cv::Mat disparity, nerapot* bins, winpar region);
    void getNoiseFilter(nerapot* bins, classfic* clusters, int& last);
    cv::Point3d getPointMin(classfic* clusters, int last);
    void draw_point_image(nerapot* bins, cv::Point3d nearest, cv::Mat& image);
    bool getDisprateMat(cv::Mat& mat, float* value);

    // Chessboard stereo calibration.
    void OrvoStereoCalib(const std::vector<std::string>& imagelist, cv::Size boardSize,
                         float squareSize, bool useCalibrated, bool showRectified);

    std::string name_0;
    std::string name_1;
    std::string name_2;
    std::string name_3;
    std::string name_4;
    std::string name_5;
    std::string video_path;
    std::string intrinsics_path;
    std::string extrinsics_path;
    std::string fisheye_path;
    int width;
    int height;
    bool flag_a;
    bool flag_b;
    video_device* device;
    unsigned char* colour_buffer;
    unsigned char* even_buffer;
    unsigned char* odd_buffer;
    unsigned char* frame_data;
    unsigned long frame_length;
    int image_width;
    int image_height;
    cv::Mat map_1;
    cv::Mat map_2;
    cv::Mat map_3;
    cv::Mat map_4;
    cv::Mat camera_matrix;
    cv::Mat projection_2;
    bool maps_valid;
    cv::Mat first_image;
    cv::Mat second_image;
    bool new_frame;
    uint8_t imu_count;
    unsigned char imu_block[480];
    ImuData imu_sample;
    double cx;
    double cy;
    double fx;
    double fy;
    double baseline;
    double angle_min;
    double angle_max;
    double deg_to_rad;
    float kp;
    float ki;
    float half_period;   // filter work value
    float filter_scale;  // filter work value
    float quaternion[4];
    float gravity_estimate[3];
    float accel_norm;
    float attitude_error[3];
    float integral_error[3];
    int32_t gyro_bias[3];
    float gyro_deadband_low;
    float gyro_deadband_high;
    float accel_offset[3];
    uint16_t solution_count;
};
