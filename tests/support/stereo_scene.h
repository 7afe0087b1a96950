// Rectified stereo pairs with per-pixel truth: textured planes rendered into both views.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <vector>

#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

namespace orvo_test {

// A textured plane with disparity d0 + dx * x + dy * y in left-image pixels, covering the whole
// view or a rectangle or an ellipse (centre and half sizes in left-image pixels).
struct Layer {
    double d0 = 0, dx = 0, dy = 0;
    enum Shape { Full, Rect, Disc } shape = Full;
    double cx = 0, cy = 0, rx = 0, ry = 0;

    double disparity(double x, double y) const { return d0 + dx * x + dy * y; }
    bool covers(double x, double y) const {
        if (shape == Full) return true;
        const double u = (x - cx) / rx, v = (y - cy) / ry;
        return shape == Rect ? std::abs(u) <= 1 && std::abs(v) <= 1 : u * u + v * v <= 1;
    }
    // The left-image column that right-image column xr shows on this plane (row y).
    double left_x(double xr, double y) const { return (xr + d0 + dy * y) / (1 - dx); }
};

struct StereoPair {
    cv::Mat left, right;  // CV_8UC1
    cv::Mat truth;        // CV_32F left-view disparity
    cv::Mat visible;      // CV_8U, 255 where the left pixel is also seen by the right camera
};

// Natural-looking texture: random noise summed over octaves (coarse structure, fine grain).
inline cv::Mat texture(cv::Size size, cv::RNG& rng) {
    cv::Mat sum = cv::Mat::zeros(size, CV_32F);
    for (int scale = 1; scale <= 128; scale *= 2) {
        cv::Mat small(size.height / scale + 2, size.width / scale + 2, CV_32F), big;
        rng.fill(small, cv::RNG::UNIFORM, -1.0, 1.0);
        cv::resize(small, big, size, 0, 0, scale == 1 ? cv::INTER_NEAREST : cv::INTER_CUBIC);
        sum += big * std::pow(scale, 0.6);
    }
    cv::Mat out;
    cv::normalize(sum, out, 25, 230, cv::NORM_MINMAX);
    return out;
}

// Renders the layers into both views; where layers overlap the nearest (largest disparity) wins.
inline StereoPair render(cv::Size size, const std::vector<Layer>& layers, uint64_t seed,
                         double noise_sigma = 1.5) {
    cv::RNG rng(seed);
    const int margin = 160;  // texture beyond the left image for what the right camera sees
    std::vector<cv::Mat> tex;
    for (size_t i = 0; i < layers.size(); ++i)
        tex.push_back(texture(cv::Size(size.width + 2 * margin, size.height), rng));
    StereoPair p;
    cv::Mat left(size, CV_32F), right(size, CV_32F), right_layer(size, CV_32S);
    p.truth.create(size, CV_32F);
    cv::Mat left_layer(size, CV_32S);
    for (int y = 0; y < size.height; ++y) {
        for (int x = 0; x < size.width; ++x) {
            // Left view: the covering layer with the largest disparity (the nearest).
            int best = -1;
            double bd = -1e9;
            for (size_t i = 0; i < layers.size(); ++i)
                if (layers[i].covers(x, y) && layers[i].disparity(x, y) > bd) {
                    best = static_cast<int>(i);
                    bd = layers[i].disparity(x, y);
                }
            left_layer.at<int>(y, x) = best;
            p.truth.at<float>(y, x) = static_cast<float>(bd);
            left.at<float>(y, x) = tex[best].at<float>(y, x + margin);
            // Right view: each layer is seen at the left column that maps onto this one.
            int rbest = -1;
            double rd = -1e9, rx = 0;
            for (size_t i = 0; i < layers.size(); ++i) {
                const double lx = layers[i].left_x(x, y);
                if (layers[i].covers(lx, y) && layers[i].disparity(lx, y) > rd) {
                    rbest = static_cast<int>(i);
                    rd = layers[i].disparity(lx, y);
                    rx = lx;
                }
            }
            right_layer.at<int>(y, x) = rbest;
            const double u = rx + margin;
            const int u0 = static_cast<int>(std::floor(u));
            const double f = u - u0;
            const float* t = tex[rbest].ptr<float>(y);
            right.at<float>(y, x) = static_cast<float>(t[u0] * (1 - f) + t[u0 + 1] * f);
        }
    }
    // A left pixel is visible to the right camera where its layer is the nearest there too.
    p.visible = cv::Mat::zeros(size, CV_8U);
    for (int y = 0; y < size.height; ++y)
        for (int x = 0; x < size.width; ++x) {
            const double xr = x - p.truth.at<float>(y, x);
            const int xi = static_cast<int>(std::lround(xr));
            if (xi >= 0 && xi < size.width && right_layer.at<int>(y, xi) == left_layer.at<int>(y, x))
                p.visible.at<uint8_t>(y, x) = 255;
        }
    cv::Mat n1(size, CV_32F), n2(size, CV_32F);
    rng.fill(n1, cv::RNG::NORMAL, 0, noise_sigma);
    rng.fill(n2, cv::RNG::NORMAL, 0, noise_sigma);
    cv::Mat(left + n1).convertTo(p.left, CV_8U);
    cv::Mat(right * 0.96 + 4 + n2).convertTo(p.right, CV_8U);
    return p;
}

// A slanted background (8..24 px), and nearer boxes and discs up to 56 px, some at the edges.
inline std::vector<Layer> default_layers(cv::Size s) {
    const double w = s.width, h = s.height;
    std::vector<Layer> l;
    l.push_back({8, 10.0 / w, 6.0 / h});
    l.push_back({30, 0, 0, Layer::Rect, 0.30 * w, 0.35 * h, 0.12 * w, 0.15 * h});
    l.push_back({42, 0, 0, Layer::Disc, 0.62 * w, 0.55 * h, 0.10 * w, 0.16 * h});
    l.push_back({55, 0, 0, Layer::Rect, 0.88 * w, 0.78 * h, 0.10 * w, 0.12 * h});
    l.push_back({24, -4.0 / w, 0, Layer::Rect, 0.15 * w, 0.80 * h, 0.10 * w, 0.10 * h});
    return l;
}

// Bad-pixel rate (|d - truth| > threshold) and density (valid estimates) over the pixels that are
// visible to both cameras at or right of column first_x. NaN or negative estimates are invalid.
struct Score {
    double bad = 0, density = 0;
    long pixels = 0;
};
inline Score score(const cv::Mat& disparity, const StereoPair& p, int first_x, double threshold = 2) {
    Score s;
    long valid = 0, bad = 0;
    for (int y = 0; y < disparity.rows; ++y)
        for (int x = first_x; x < disparity.cols; ++x) {
            if (!p.visible.at<uint8_t>(y, x)) continue;
            ++s.pixels;
            const float d = disparity.at<float>(y, x);
            if (!(d >= 0)) continue;
            ++valid;
            bad += std::abs(d - p.truth.at<float>(y, x)) > threshold;
        }
    s.density = s.pixels ? double(valid) / s.pixels : 0;
    s.bad = valid ? double(bad) / valid : 1;
    return s;
}

}  // namespace orvo_test
