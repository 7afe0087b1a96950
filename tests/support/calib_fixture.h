// Shared fixtures of the calibration and tool suites: scratch directories, the process's camera
// on the virtual node, and the rendered chessboard set of the default rig.
#pragma once

#include <string>
#include <vector>

#include "OrvoCamera.h"
#include <orvo/vcam/chessboard.hpp>
#include "scratch_dir.h"

namespace orvo_test {

// Makes `dir` the working directory for the scope of the object.
class ScopedCwd {
public:
    explicit ScopedCwd(const std::string& dir);
    ~ScopedCwd();
    ScopedCwd(const ScopedCwd&) = delete;
    ScopedCwd& operator=(const ScopedCwd&) = delete;

private:
    std::string previous_;
};

// Names in a directory, sorted; empty when it does not exist.
std::vector<std::string> listDirectory(const std::string& dir);
std::string readFile(const std::string& path);
// Keeps OpenCV's own warnings (a missing image, a camera index with nothing there) off stderr.
void silenceOpenCvLog();

// The process's one facade, created on first use on a free-running virtual node without
// calibration files, and never destroyed (children that exit must not tear it down twice).
OrvoCamera& calibrationCamera();

struct RenderedSet {
    ScratchDir scratch;
    orvo::vcam::Rig rig;
    orvo::vcam::BoardSpec board;
    orvo::vcam::ChessboardRenderer renderer;
    orvo::vcam::CalibrationSet set;
    std::string dir;
    RenderedSet();
};
// The default rig's calibration set, rendered once per process and removed when the process
// that rendered it ends (not when a forked child exits).
const RenderedSet& renderedSet();

}  // namespace orvo_test
