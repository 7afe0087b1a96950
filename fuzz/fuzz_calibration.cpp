// Fuzz target: arbitrary bytes as a calibration file, through readYML in all four layouts (and an
// unknown one), getStereoCameraParameter and the three map builders. OpenCV's cv::Exception for a
// malformed file is the library's contract and is caught here; anything else (a crash, a sanitizer
// report, another exception, a broken invariant below) is a finding.
//
// Invariants: the layouts agree on whether the file can be opened; a successful read appends exactly
// the layout's count (layout 2 replaces the list); a failed one leaves the list untouched; the
// parameter row and the builders' outputs are what the file's own matrices say, and a builder that
// returns false leaves every output untouched.
#include <sys/stat.h>

#include <vector>

#include <opencv2/core.hpp>

#include "ZUNCVHelper.h"
#include "harness_support.h"

using namespace orvo_fuzz;

namespace {

std::string g_path;
const cv::Size kMapSize(8, 6);  // small maps: the builders' cost is the file, not the size

enum class Outcome { False, True, Threw };

template <typename Fn>
Outcome attempt(Fn fn) {
    try {
        return fn() ? Outcome::True : Outcome::False;
    } catch (const cv::Exception&) {
        return Outcome::Threw;
    }
}

bool sameBits(const cv::Mat& a, const cv::Mat& b) {
    if (a.empty() || b.empty()) return a.empty() && b.empty();
    if (a.size() != b.size() || a.type() != b.type()) return false;
    for (int r = 0; r < a.rows; ++r)
        if (std::memcmp(a.ptr(r), b.ptr(r), a.cols * a.elemSize()) != 0) return false;
    return true;
}

// A list holding one matrix of the caller's, to see that a read appends rather than replaces.
std::vector<cv::Mat> seededList(const cv::Mat& sentinel) { return {sentinel}; }

Outcome checkReader(zuncvFileType type, size_t count, const cv::Mat& sentinel, std::vector<cv::Mat>& read) {
    std::vector<cv::Mat> list = seededList(sentinel);
    const Outcome o = attempt([&] { return readYML(g_path, type, list); });
    if (o == Outcome::False) {
        FUZZ_CHECK(list.size() == 1 && list[0].data == sentinel.data);
    } else if (o == Outcome::True) {
        if (type == ZUNCV_MONO) {
            FUZZ_CHECK(list.size() == count);
            read = list;
        } else {
            FUZZ_CHECK(list.size() == 1 + count && list[0].data == sentinel.data);
            read.assign(list.begin() + 1, list.end());
        }
    }
    return o;
}

bool isProjection(const cv::Mat& p) { return p.rows == 3 && p.cols == 4 && p.type() == CV_64FC1; }

void checkParameterRow(Outcome extrinsics, const std::vector<cv::Mat>& ex, const cv::Mat& sentinel) {
    cv::Mat out = sentinel;
    const Outcome o = attempt([&] { return getStereoCameraParameter(g_path, out); });
    if (extrinsics != Outcome::Threw) FUZZ_CHECK(o != Outcome::Threw);
    if (o != Outcome::True) {
        FUZZ_CHECK(out.data == sentinel.data);
        return;
    }
    FUZZ_CHECK(extrinsics == Outcome::True && isProjection(ex[4]) && isProjection(ex[5]));
    FUZZ_CHECK(out.rows == 1 && out.cols == 5 && out.type() == CV_64FC1);
    const double want[5] = {ex[4].at<double>(0, 0), ex[4].at<double>(1, 1), ex[4].at<double>(0, 2),
                            ex[4].at<double>(1, 2), ex[5].at<double>(0, 3)};
    FUZZ_CHECK(std::memcmp(out.ptr<double>(), want, sizeof want) == 0);
}

struct Outputs {
    cv::Mat m[6];
    explicit Outputs(const cv::Mat& sentinel) {
        for (cv::Mat& x : m) x = sentinel;
    }
    bool untouched(const cv::Mat& sentinel) const {
        for (const cv::Mat& x : m)
            if (x.data != sentinel.data) return false;
        return true;
    }
};

void checkMaps(const cv::Mat& first, const cv::Mat& second) {
    FUZZ_CHECK(first.size() == kMapSize && first.type() == CV_16SC2);
    FUZZ_CHECK(second.size() == kMapSize && second.type() == CV_16UC1);
}

void checkPinholeBuilder(const std::vector<cv::Mat>& in, const std::vector<cv::Mat>& ex, const cv::Mat& sentinel) {
    Outputs o(sentinel);
    const Outcome r = attempt([&] {
        return get_remap_mat(g_path, g_path, kMapSize, o.m[0], o.m[1], o.m[2], o.m[3], o.m[4], o.m[5]);
    });
    if (r == Outcome::False) FUZZ_CHECK(o.untouched(sentinel));
    if (r != Outcome::True) return;
    checkMaps(o.m[0], o.m[1]);
    checkMaps(o.m[2], o.m[3]);
    FUZZ_CHECK(in.size() == 4 && ex.size() == 6);
    FUZZ_CHECK(sameBits(o.m[4], in[0]) && sameBits(o.m[5], ex[5]));
}

void checkFisheyeBuilder(const std::vector<cv::Mat>& l, const cv::Mat& sentinel) {
    Outputs o(sentinel);
    const Outcome r = attempt([&] {
        return get_remap_mat_fisheye_file(g_path, kMapSize, o.m[0], o.m[1], o.m[2], o.m[3], o.m[4], o.m[5]);
    });
    if (r == Outcome::False) FUZZ_CHECK(o.untouched(sentinel));
    if (r != Outcome::True) return;
    checkMaps(o.m[0], o.m[1]);
    checkMaps(o.m[2], o.m[3]);
    FUZZ_CHECK(l.size() == 8);
    FUZZ_CHECK(sameBits(o.m[4], l[0]) && sameBits(o.m[5], l[7]));
}

void checkMonoBuilder(const cv::Mat& sentinel) {
    cv::Mat a = sentinel, b = sentinel;
    const Outcome r = attempt([&] { return get_monoRemap_mat(g_path, kMapSize, a, b); });
    if (r == Outcome::False) FUZZ_CHECK(a.data == sentinel.data && b.data == sentinel.data);
    if (r == Outcome::True) checkMaps(a, b);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    char dir[] = "/tmp/orvo-fuzz-calib-XXXXXX";
    FUZZ_CHECK(mkdtemp(dir) != nullptr);
    g_path = std::string(dir) + "/calibration.yml";
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::FILE* f = std::fopen(g_path.c_str(), "wb");
    FUZZ_CHECK(f != nullptr);
    FUZZ_CHECK(std::fwrite(data, 1, size, f) == size);
    std::fclose(f);

    const cv::Mat sentinel = (cv::Mat_<double>(1, 1) << 42.0);
    std::vector<cv::Mat> in, ex, mono, fish;
    Outcome outcomes[4];
    quietly([&] {
        outcomes[0] = checkReader(ZUNCV_INTRINSICS, 4, sentinel, in);
        outcomes[1] = checkReader(ZUNCV_EXTRINSICS, 6, sentinel, ex);
        outcomes[2] = checkReader(ZUNCV_MONO, 2, sentinel, mono);
        outcomes[3] = checkReader(ZUNCV_FISHEYE, 8, sentinel, fish);
        // An unknown layout is refused whatever the file holds.
        std::vector<cv::Mat> list = seededList(sentinel);
        const Outcome unknown = attempt([&] { return readYML(g_path, zuncvFileType(7), list); });
        FUZZ_CHECK(unknown != Outcome::True && list.size() == 1);
    });
    // Whether the file can be opened does not depend on the layout asked for (a malformed matrix
    // throws only in the layouts that read its key).
    for (const Outcome o : outcomes) FUZZ_CHECK((o == Outcome::False) == (outcomes[0] == Outcome::False));

    quietly([&] {
        checkParameterRow(outcomes[1], ex, sentinel);
        checkPinholeBuilder(in, ex, sentinel);
        checkFisheyeBuilder(fish, sentinel);
        checkMonoBuilder(sentinel);
    });
    return 0;
}
