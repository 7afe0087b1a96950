// Example: the free helpers, no camera needed: calibration files, remap tables, composition,
// and splitting a raw frame into its two images.
// Usage: helpers_tour INTRINSICS EXTRINSICS [RAW_RECORDING]
#include <cstdio>
#include <fstream>
#include <vector>

#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include <OrvoCamera.h>

int main(int argc, char** argv) {
    if (argc < 3) {
        std::fprintf(stderr, "usage: %s INTRINSICS EXTRINSICS [RAW_RECORDING]\n", argv[0]);
        return 2;
    }
    std::vector<cv::Mat> intr, extr;  // readYML appends: start from empty lists
    if (!readYML(argv[1], ZUNCV_INTRINSICS, intr) || !readYML(argv[2], ZUNCV_EXTRINSICS, extr)) return 1;
    std::printf("M1 (left camera matrix):\n");
    printMatInfo(intr[0]);
    cv::Mat row;  // fx fy cx cy and P2(0,3) = -focal * baseline
    getStereoCameraParameter(argv[2], row);
    std::printf("fx %.1f  fy %.1f  cx %.1f  cy %.1f  baseline %.4f\n", row.at<double>(0),
                row.at<double>(1), row.at<double>(2), row.at<double>(3), -row.at<double>(4) / row.at<double>(0));

    const cv::Size size(752, 480);
    cv::Mat m1, m2, m3, m4, camera_matrix, projection;
    get_remap_mat(argv[1], argv[2], size, m1, m2, m3, m4, camera_matrix, projection);

    // One raw frame: even bytes one lens, odd bytes the other (a flat grey frame without a file).
    std::vector<unsigned char> frame(size.area() * 2, 128);
    if (argc > 3) std::ifstream(argv[3], std::ios::binary).read(reinterpret_cast<char*>(frame.data()), long(frame.size()));
    cv::Mat even(size, CV_8UC1), odd(size, CV_8UC1);
    video_device::yuyv_2_lr_gray(frame.data(), int(frame.size()), even.data, odd.data);

    cv::Mat left, right;  // the engine takes the odd bytes as its first image
    cv::remap(odd, left, m1, m2, cv::INTER_LINEAR);
    cv::remap(even, right, m3, m4, cv::INTER_LINEAR);
    cv::Mat pair = combineTwoImg(left, right);                     // side by side
    cv::Mat stack = combineTwoImgUpDown(odd, left, right);         // raw, then both rectified
    cv::Mat left_again = splitMat(pair, true);                     // a view, no copy
    std::printf("pair %dx%d, stack %dx%d, left half %dx%d\n", pair.cols, pair.rows, stack.cols,
                stack.rows, left_again.cols, left_again.rows);
    cv::imwrite("helpers_pair.png", pair);
    return 0;
}
