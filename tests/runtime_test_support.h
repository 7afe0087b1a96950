// Shared fixtures of the modern API's suites: the virtual camera's settings, resource counts, truth.
#pragma once

#include <dirent.h>
#include <stdlib.h>

#include <cstdint>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

namespace runtime_test {

constexpr const char* kNode = "/dev/video-virtual-runtime";
constexpr const char* kSecondNode = "/dev/video-virtual-runtime-b";  // listed after kNode when two are wanted

// Sets the virtual camera's variables for the sessions started in its lifetime, and clears them.
class VcamEnv {
public:
    explicit VcamEnv(const std::string& faults = "", const std::string& source = "pattern",
                     const std::string& fps = "100", const std::string& truth = "") {
        with("ORVO_VCAM_DEVICE", kNode).with("ORVO_VCAM_SOURCE", source).with("ORVO_VCAM_FPS", fps);
        for (const auto& [name, value] : {std::pair<const char*, std::string>{"ORVO_VCAM_FAULTS", faults},
                                          {"ORVO_VCAM_TRUTH", truth}}) {
            if (value.empty()) unsetenv(name);
            else with(name, value);
        }
    }
    // One more variable for the same lifetime, set even when empty (ORVO_VCAM_SOURCE_1="" is the
    // second node's default scene).
    VcamEnv& with(const std::string& name, const std::string& value) {
        setenv(name.c_str(), value.c_str(), 1);
        names_.push_back(name);
        return *this;
    }
    ~VcamEnv() {
        for (const std::string& name : names_) unsetenv(name.c_str());
    }
    VcamEnv(const VcamEnv&) = delete;
    VcamEnv& operator=(const VcamEnv&) = delete;

private:
    std::vector<std::string> names_;
};

inline size_t openDescriptors() {
    size_t n = 0;
    if (DIR* d = opendir("/proc/self/fd")) {
        while (readdir(d) != nullptr) ++n;
        closedir(d);
    }
    return n;
}

// Lines of /proc/self/maps, or only those naming `containing` (the virtual camera's buffers are
// "/memfd:orvo-vcam" mappings).
inline size_t mappings(const char* containing = nullptr) {
    std::ifstream maps("/proc/self/maps");
    std::string line;
    size_t n = 0;
    while (std::getline(maps, line)) n += !containing || line.find(containing) != std::string::npos;
    return n;
}

constexpr const char* kBufferMapping = "memfd:orvo-vcam";

// One line of the truth file: its key=value pairs.
using TruthLine = std::map<std::string, std::string>;

inline std::vector<TruthLine> readTruth(const std::string& path) {
    std::vector<TruthLine> lines;
    std::ifstream in(path);
    std::string text;
    while (std::getline(in, text)) {
        std::istringstream words(text);
        std::string word;
        TruthLine line;
        while (words >> word) {
            const size_t eq = word.find('=');
            if (eq != std::string::npos) line[word.substr(0, eq)] = word.substr(eq + 1);
        }
        lines.push_back(line);
    }
    return lines;
}

// "a,b,c" into numbers.
inline std::vector<double> numbers(const std::string& csv) {
    std::vector<double> out;
    std::stringstream s(csv);
    std::string item;
    while (std::getline(s, item, ',')) out.push_back(std::stod(item));
    return out;
}

// imuI: ticks:gx,gy,gz:ax,ay,az:rgx,rgy,rgz:rax,ray,raz
struct TruthSample {
    uint64_t ticks = 0;
    std::vector<double> gyro, accel_g, raw_gyro, raw_accel;
};

inline TruthSample truthSample(const std::string& text) {
    std::vector<std::string> parts;
    std::stringstream s(text);
    std::string part;
    while (std::getline(s, part, ':')) parts.push_back(part);
    TruthSample t;
    if (parts.size() != 5) return t;
    t.ticks = std::stoull(parts[0]);
    t.gyro = numbers(parts[1]);
    t.accel_g = numbers(parts[2]);
    t.raw_gyro = numbers(parts[3]);
    t.raw_accel = numbers(parts[4]);
    return t;
}

}  // namespace runtime_test
