// Test double of highgui's cv::imshow and cv::waitKey: records the windows shown and answers
// scripted keys. Linking a test that uses display() puts these definitions in the executable,
// where they stand in front of libopencv_highgui's for the library too.
#pragma once

#include <deque>
#include <functional>
#include <string>
#include <vector>

#include <opencv2/core.hpp>

namespace orvo_test {

struct Shown {
    std::string window;
    cv::Mat image;  // a deep copy taken at the imshow call
};

struct DisplayDouble {
    std::vector<Shown> shown;
    std::vector<int> waits;           // delay argument of every waitKey call
    std::vector<std::string> waited;  // window last shown at every waitKey call
    std::deque<int> keys;             // answers of the next waitKey calls (then a space)
    std::function<void()> on_wait;    // runs at every waitKey call, before it answers

    void reset() { *this = DisplayDouble(); }
    size_t count(const std::string& window) const;
    std::vector<cv::Mat> images(const std::string& window) const;
};

DisplayDouble& display();

}  // namespace orvo_test
