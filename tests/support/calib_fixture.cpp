// Scratch directories, the virtual camera's facade and the rendered chessboard set for the tests.
#include "calib_fixture.h"

#include <dirent.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include <opencv2/core/utils/logger.hpp>

#include "v4l2_client.h"

namespace orvo_test {

ScopedCwd::ScopedCwd(const std::string& dir) {
    char buf[4096];
    if (!getcwd(buf, sizeof buf)) throw std::runtime_error("getcwd failed");
    previous_ = buf;
    if (chdir(dir.c_str()) != 0) throw std::runtime_error("chdir failed: " + dir);
}

ScopedCwd::~ScopedCwd() {
    if (chdir(previous_.c_str()) != 0) std::abort();
}

std::vector<std::string> listDirectory(const std::string& dir) {
    std::vector<std::string> names;
    DIR* d = opendir(dir.c_str());
    if (!d) return names;
    while (dirent* e = readdir(d)) {
        const std::string n = e->d_name;
        if (n != "." && n != "..") names.push_back(n);
    }
    closedir(d);
    std::sort(names.begin(), names.end());
    return names;
}

std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

void silenceOpenCvLog() {
    cv::utils::logging::setLogLevel(cv::utils::logging::LOG_LEVEL_SILENT);
}

OrvoCamera& calibrationCamera() {
    static OrvoCamera* camera = [] {
        const char* node = "/dev/video-orvo-calib";
        static VirtualNode env(node);  // kept for the rest of the process and the children the tests fork
        OrvoCameraParameterList list;
        list.device_path = node;
        return new OrvoCamera(list);
    }();
    return *camera;
}

RenderedSet::RenderedSet() : renderer(rig, board), dir(scratch.path()) {
    std::string error;
    if (!orvo::vcam::writeCalibrationSet(renderer, dir, set, &error))
        throw std::runtime_error(error);
}

namespace {

struct OwnedRenderedSet {
    const pid_t owner = getpid();
    RenderedSet* set = new RenderedSet;
    ~OwnedRenderedSet() {
        if (getpid() == owner) delete set;
    }
};

}  // namespace

const RenderedSet& renderedSet() {
    static const OwnedRenderedSet owned;
    return *owned.set;
}

}  // namespace orvo_test
