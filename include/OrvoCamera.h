// The camera facade that applications use; including this header is all an application needs.
#pragma once

#include <string>
#include <vector>

#include <opencv2/core.hpp>
#include <opencv2/calib3d.hpp>

#include "StereoCamera.h"
#include "ZUNCVHelper.h"

#ifndef ORVO_API
#define ORVO_API __attribute__((visibility("default")))
#endif

// The facade's construction record; only the four paths are read.
struct OrvoCameraParameterList {
    std::string device_path;
    std::string extrinsics_file;
    std::string intrinsics_file;
    std::string fisheye_file;
};

class ORVO_API OrvoCamera {
public:
    explicit OrvoCamera(OrvoCameraParameterList param);
    virtual ~OrvoCamera();

    OrvoCamera(const OrvoCamera&) = delete;
    OrvoCamera& operator=(const OrvoCamera&) = delete;

    bool Grab();
    void getOrgImage(cv::Mat& first, cv::Mat& second);
    void getRectImage(cv::Mat& first, cv::Mat& second);
    unsigned int getImuRawData(std::vector<ImuData>& samples, unsigned int& time);
    unsigned int getImgTime();
    void setImuCorrection(float deadband_low, float deadband_high, float accel_offset_x,
                          float accel_offset_y, float accel_offset_z);
    void ImuRect(ImuData sample, float period, float* out);
    bool getCameraParameter(cv::Mat& out);
    void StartStereoCalib(const std::vector<std::string>& imagelist, cv::Size boardSize,
                          float squareSize);
    void getDisparity(cv::Mat& disparity);
    void getNearestPoint(winpar& region, nerapot* bins, cv::Point3_<double>& nearest);
    void getPointImage(nerapot* bins, cv::Point3_<double> nearest, cv::Mat& image);

    cv::Mat org_image_1;
    cv::Mat org_image_2;
    cv::Mat rect_image_1;
    cv::Mat rect_image_2;
    cv::Mat disparity;
    int bucket_count;
    classfic buckets[360];
    std::vector<ImuData> imu_samples;
    unsigned int frame_time;
};

ORVO_API extern StereoCamera* camera_;
ORVO_API extern cv::Ptr<cv::StereoSGBM> sgbm_;
ORVO_API extern cv::Ptr<cv::StereoBM> bm_;
