// Recording stand-ins for cv::imshow and cv::waitKey, with an optional pass-through to highgui.
#include "display_double.h"

#include <dlfcn.h>

#include <stdexcept>

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

namespace {

template <typename Fn>
Fn realHighgui(const char* mangled) {
    void* f = dlsym(RTLD_NEXT, mangled);
    if (!f) throw std::runtime_error(std::string("highgui symbol not found: ") + mangled);
    return reinterpret_cast<Fn>(f);
}

}  // namespace
}  // namespace orvo_test

namespace cv {

__attribute__((visibility("default"))) void imshow(const String& winname, InputArray mat) {
    orvo_test::DisplayDouble& d = orvo_test::display();
    // highgui refuses an empty image in the same way.
    const Size size = mat.size();
    CV_Assert(size.width > 0 && size.height > 0);
    d.shown.push_back({winname, mat.getMat().clone()});
    if (d.passthrough) {
        using Fn = void (*)(const String&, InputArray);
        static Fn real = orvo_test::realHighgui<Fn>(
            "_ZN2cv6imshowERKNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEERKNS_11_"
            "InputArrayE");
        real(winname, mat);
    }
}

__attribute__((visibility("default"))) int waitKey(int delay) {
    orvo_test::DisplayDouble& d = orvo_test::display();
    d.waits.push_back(delay);
    d.waited.push_back(d.shown.empty() ? std::string() : d.shown.back().window);
    if (d.on_wait) d.on_wait();
    if (d.passthrough) {
        using Fn = int (*)(int);
        static Fn real = orvo_test::realHighgui<Fn>("_ZN2cv7waitKeyEi");
        return real(delay);
    }
    if (d.keys.empty()) return d.default_key;
    const int key = d.keys.front();
    d.keys.pop_front();
    return key;
}

}  // namespace cv
