// Point-cloud writers: binary PLY and binary PCD, skipping invalid (NaN) points.
#pragma once

#include <cstddef>
#include <string>

#include <opencv2/core.hpp>

#include "orvo/export.hpp"

namespace orvo {

ORVO_API std::size_t write_ply(const std::string& path, const cv::Mat& points,
                               const cv::Mat& colour = cv::Mat());
ORVO_API std::size_t write_pcd(const std::string& path, const cv::Mat& points,
                               const cv::Mat& colour = cv::Mat());

}  // namespace orvo
