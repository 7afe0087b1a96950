// Capture class of the stereo camera: opens its V4L2 node, maps the buffers and hands out frames.
#pragma once

#include <cstdint>
#include <string>

#ifndef ORVO_API
#define ORVO_API __attribute__((visibility("default")))
#endif

class ORVO_API video_device {
public:
    video_device(std::string path, int width, int height);
    ~video_device();

    video_device(const video_device&) = delete;
    video_device& operator=(const video_device&) = delete;

    int get_frame(unsigned char** frame, unsigned long* length);
    int unget_frame();

    // Pixel splitters. They touch no field, so they are usable without a camera.
    static int yuyv_2_lr_gray(const void* src, int size, unsigned char* first, unsigned char* second);
    static int yuyv_2_y_gray(const void* src, int size, unsigned char* out);
    static int yuyv_2_rgb888(const void* src, int unused, unsigned char* out);

    // Building blocks of the constructor, public so that tools and tests can drive them one by one.
    int camera_v4l2_setting(int* out_fd, unsigned int width, unsigned int height,
                            unsigned int fourcc, const char* path, int count, void** buffers);
    int video_open(const char* path);
    int video_set_format(int fd, unsigned int width, unsigned int height, unsigned int fourcc);
    int video_set_framerate(int fd);
    int GetFreeRam(int* free_bytes);
    int video_reqbufs(int fd, int count);
    int video_enable(int fd, int on);
    int xioctl(int fd, unsigned long request, void* arg);
    void errno_exit(const char* label);

    uint32_t width;
    uint32_t height;
    char pixel_format[4];
    int32_t buffer_count;
    uint32_t buffer_length;
    void* buffers[16];
    std::string device_name;
    int32_t fd;
    int32_t current_index;
};
