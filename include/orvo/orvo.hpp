// The modern API in one include.
#pragma once

#include "orvo/calibration.hpp"
#include "orvo/camera.hpp"
#include "orvo/devices.hpp"
#include "orvo/error.hpp"
#include "orvo/frame.hpp"
#include "orvo/geometry.hpp"
#include "orvo/point_cloud.hpp"
#include "orvo/stereo_matcher.hpp"
