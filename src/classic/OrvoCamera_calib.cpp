// The facade's entry to the chessboard stereo calibration.
#include "OrvoCamera.h"

// Runs the engine's calibration on the list, rectifying the preview with the calibrated model
// and showing it; the engine's own maps are left as they are.
void OrvoCamera::StartStereoCalib(const std::vector<std::string>& imagelist, cv::Size boardSize,
                                  float squareSize) {
    camera_->OrvoStereoCalib(imagelist, boardSize, squareSize, true, true);
}
