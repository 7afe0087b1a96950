// Recording stand-ins for cv::imshow and cv::waitKey.
#include "display_double.h"

namespace orvo_test {

DisplayDouble& display() {
    static DisplayDouble d;
    return d;
}

size_t DisplayDouble::count(const std::string& window) const {
    size_t n = 0;
    for (const Shown& s : shown) n += s.window == window;
    return n;
}

std::vector<cv::Mat> DisplayDouble::images(const std::string& window) const {
    std::vector<cv::Mat> out;
    for (const Shown& s : shown)
        if (s.window == window) out.push_back(s.image);
    return out;
}

}  // namespace orvo_test

namespace cv {

__attribute__((visibility("default"))) void imshow(const String& winname, InputArray mat) {
    orvo_test::DisplayDouble& d = orvo_test::display();
    // highgui refuses an empty image in the same way.
    const Size size = mat.size();
    CV_Assert(size.width > 0 && size.height > 0);
    d.shown.push_back({winname, mat.getMat().clone()});
}

__attribute__((visibility("default"))) int waitKey(int delay) {
    orvo_test::DisplayDouble& d = orvo_test::display();
    d.waits.push_back(delay);
    d.waited.push_back(d.shown.empty() ? std::string() : d.shown.back().window);
    if (d.on_wait) d.on_wait();
    if (d.keys.empty()) return ' ';
    const int key = d.keys.front();
    d.keys.pop_front();
    return key;
}

}  // namespace cv
