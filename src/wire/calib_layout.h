// The calibration files' layouts: which key stands in which slot of the list the reader returns.
// The reader, the writers, the tools and the virtual camera's rig all name slots through here.
#pragma once

#include <array>
#include <cstddef>

#include <opencv2/core/persistence.hpp>

namespace orvo {
namespace layout {

// Stereo intrinsics file: the left and right camera matrices and distortion coefficients.
namespace intrinsics {
enum Slot : size_t { M1, D1, M2, D2, kCount };
constexpr const char* kKeys[kCount] = {"M1", "D1", "M2", "D2"};
}  // namespace intrinsics

// Stereo extrinsics file: the right lens's pose relative to the left and the stored rectification.
// Q is written by the calibration beside them but never read back.
namespace extrinsics {
enum Slot : size_t { R, T, R1, R2, P1, P2, kCount };
constexpr const char* kKeys[kCount] = {"R", "T", "R1", "R2", "P1", "P2"};
constexpr const char* kQ = "Q";
}  // namespace extrinsics

// One-lens camera file.
namespace mono {
enum Slot : size_t { camera_matrix, distortion_coefficients, kCount };
constexpr const char* kKeys[kCount] = {"camera_matrix", "distortion_coefficients"};
}  // namespace mono

// Fisheye stereo file: both lenses and their stored rectification in one file.
namespace fisheye {
enum Slot : size_t { K1, K2, D1, D2, R1, R2, P1, P2, kCount };
constexpr const char* kKeys[kCount] = {"K1", "K2", "D1", "D2", "R1", "R2", "P1", "P2"};
}  // namespace fisheye

// Writes one matrix per key, in slot order (the order the calibration has always written them).
template <size_t N>
void write(cv::FileStorage& fs, const char* const (&keys)[N], const std::array<cv::Mat, N>& mats) {
    for (size_t i = 0; i < N; ++i) fs << keys[i] << mats[i];
}

}  // namespace layout
}  // namespace orvo
