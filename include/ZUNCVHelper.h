// Free helpers: calibration files, remap tables, image composition and ordinary-camera tools.
#pragma once

#include <string>
#include <vector>

#include <opencv2/core.hpp>

#ifndef ORVO_API
#define ORVO_API __attribute__((visibility("default")))
#endif

enum zuncvFileType : int {
    ZUNCV_INTRINSICS = 0,
    ZUNCV_EXTRINSICS = 1,
    ZUNCV_MONO = 2,
    ZUNCV_FISHEYE = 3,
};

// Calibration parameter files.
ORVO_API bool readYML(std::string path, zuncvFileType type, std::vector<cv::Mat>& out);
ORVO_API bool getStereoCameraParameter(const std::string& path, cv::Mat& out);

// Remap-map builders.
ORVO_API bool get_remap_mat(std::string intrinsics_path, std::string extrinsics_path,
                            cv::Size size, cv::Mat& map_1, cv::Mat& map_2, cv::Mat& map_3,
                            cv::Mat& map_4, cv::Mat& camera_matrix, cv::Mat& projection_2);
ORVO_API bool get_remap_mat_fisheye_file(const std::string& path, const cv::Size& size,
                                         cv::Mat& map_1, cv::Mat& map_2, cv::Mat& map_3,
                                         cv::Mat& map_4, cv::Mat& camera_matrix,
                                         cv::Mat& projection_2);
ORVO_API bool get_monoRemap_mat(std::string path, cv::Size size, cv::Mat& map_1, cv::Mat& map_2);

// Image composition.
ORVO_API cv::Mat combineTwoImg(const cv::Mat& left, const cv::Mat& right);
ORVO_API cv::Mat combineTwoImgUpDown(const cv::Mat& top, const cv::Mat& middle,
                                     const cv::Mat& bottom);
ORVO_API cv::Mat splitMat(cv::Mat frame, bool left);
ORVO_API bool printMatInfo(const cv::Mat& m);

// Capture and recording tools for an ordinary camera.
ORVO_API bool getMatByPath(std::string directory, int index, cv::Mat& out);
ORVO_API bool recodeVideo(std::string path, int index);
ORVO_API int capImage(std::string directory, int index);
