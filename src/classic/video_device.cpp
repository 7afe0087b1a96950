// The capture class: opens the camera's V4L2 node, maps and queues its buffers, streams, and hands
// out frames.
#include "video_device.h"

#include <fcntl.h>
#include <linux/videodev2.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "frame_geometry.h"
#include "v4l2_io.h"

namespace {

constexpr int kBufferSlots = sizeof(video_device::buffers) / sizeof(video_device::buffers[0]);

bool isH264(unsigned int fourcc) { return fourcc == v4l2_fourcc('H', '2', '6', '4'); }

v4l2_buffer mmapCaptureBuffer(unsigned int index) { return orvo::v4l2::captureBuffer(index); }

}  // namespace

// Opens, configures and starts the camera at `path`. A camera that cannot be opened, configured or
// started ends the process with exit(1): there is nothing an application could do with the object.
video_device::video_device(std::string path, int width_, int height_)
    : width(uint32_t(width_)),
      height(uint32_t(height_)),
      pixel_format{'Y', 'U', 'Y', 'V'},
      buffer_count(orvo::frame::kBufferCount),
      buffer_length(0),
      buffers{},
      device_name(std::move(path)),
      fd(-1),
      current_index(-1) {
    int local_fd = -1;
    int rc = camera_v4l2_setting(&local_fd, width, height, V4L2_PIX_FMT_YUYV, device_name.c_str(),
                                 buffer_count, buffers);
    if (local_fd == -1 || rc == -1) {
        int err = errno;
        printf("Cannot open '%s': %d, %s\n", device_name.c_str(), err, strerror(err));
        exit(1);
    }
    if (video_enable(local_fd, 1) == -1) {
        printf("starting video streaming fail");
        exit(1);
    }
}

// Stops streaming, unmaps and closes. Unmapping uses buffer_length, the bytesused seen at setup; a
// driver reports 0 there before any frame, so the unmapping fails and the mappings live on until
// the process ends (the pages stay valid even after the node is closed).
video_device::~video_device() {
    if (video_enable(fd, 0) == -1) printf("stoping video streaming fail");
    for (int i = 0; i < buffer_count; ++i) munmap(buffers[i], buffer_length);
    if (close(fd) == -1) errno_exit("close");
}

// Dequeues the next filled buffer (blocking) and hands out the mapped buffer itself, no copy:
// *frame points into the driver's memory and stays valid until unget_frame. Returns 0, or -1 after
// closing the descriptor: a failed dequeue leaves the object dead (every later call fails). On
// EAGAIN the descriptor is closed before the message, on other errors after it.
int video_device::get_frame(unsigned char** frame, unsigned long* length) {
    if (frame == nullptr || length == nullptr) {
        printf("get_frame: null output pointer\n");
        return -1;
    }
    v4l2_buffer buf = mmapCaptureBuffer(0);
    if (xioctl(fd, VIDIOC_DQBUF, &buf) == -1) {
        if (errno == EAGAIN) {
            close(fd);
            errno_exit("VIDIOC_DQBUF EAGAIN");
        } else {
            errno_exit("VIDIOC_DQBUF");
            close(fd);
        }
        return -1;
    }
    // Only indices 0..buffer_count-1 were ever queued, so the driver can only hand those back.
    *frame = static_cast<unsigned char*>(buffers[buf.index]);
    *length = buf.bytesused;
    current_index = int32_t(buf.index);
    return 0;
}

// Requeues the buffer last handed out. Returns -1 without touching the device when none was ever
// handed out; a refused requeue closes the descriptor (dead state) and returns -1. The index is
// kept after success, so a second call requeues the same buffer again and the driver refuses it.
int video_device::unget_frame() {
    if (current_index == -1) return -1;
    v4l2_buffer buf = mmapCaptureBuffer(uint32_t(current_index));
    if (xioctl(fd, VIDIOC_QBUF, &buf) == 0) return 0;
    errno_exit("VIDIOC_QBUF");
    close(fd);
    return -1;
}

// Opens `path`, checks it, sets the format, 30 frames per second and `count` buffers, maps them
// into `bufs` and queues them. *out_fd receives the descriptor (also kept in `fd`). Returns 0, or
// -1 with a message; the descriptor is closed on the way out except when opening failed or an H264
// format was refused. Buffers already mapped are left mapped on failure.
int video_device::camera_v4l2_setting(int* out_fd, unsigned int width_, unsigned int height_,
                                      unsigned int fourcc, const char* path, int count,
                                      void** bufs) {
    if (out_fd == nullptr || path == nullptr || bufs == nullptr || count > kBufferSlots) {
        printf("camera_v4l2_setting: bad arguments\n");
        return -1;
    }
    int dev = video_open(path);
    *out_fd = dev;
    if (dev < 0) {
        int err = errno;
        printf("Cannot identify '%s': %d, %s\n", path, err, strerror(err));
        return -1;
    }
    fd = dev;

    if (video_set_format(dev, width_, height_, fourcc) == -1) {
        if (isH264(fourcc)) {
            fprintf(stderr, " === Set Format Failed : skip for H264 ===  \n");
            return -1;
        }
        close(dev);
        return -1;
    }
    if (video_set_framerate(dev) == -1) {
        close(dev);
        return -1;
    }
    int free_bytes = 0;
    if (GetFreeRam(&free_bytes) == -1) {
        close(dev);
        return -1;
    }
    if (video_reqbufs(dev, count) == -1) {
        close(dev);
        return -1;
    }

    for (int i = 0; i < count; ++i) {
        v4l2_buffer buf = mmapCaptureBuffer(uint32_t(i));
        if (xioctl(dev, VIDIOC_QUERYBUF, &buf) == -1) {
            errno_exit("VIDIOC_QUERYBUF");
            close(dev);
            return -1;
        }
        void* p = mmap(nullptr, buf.length, PROT_READ, MAP_SHARED, dev, off_t(buf.m.offset));
        if (p == MAP_FAILED) {
            printf("Unable to map buffer %u (%d)\n", unsigned(i), errno);
            close(dev);
            return -1;
        }
        bufs[i] = p;
        // bytesused, not length: the destructor unmaps with what the driver reported here.
        buffer_length = buf.bytesused;
    }

    for (int i = 0; i < count; ++i) {
        v4l2_buffer buf = mmapCaptureBuffer(uint32_t(i));
        if (xioctl(dev, VIDIOC_QBUF, &buf) == -1) {
            errno_exit("VIDIOC_QBUF");
            close(dev);
            return -1;
        }
    }
    printf("Orvo Camera Setting OK \n");
    return 0;
}

// Opens `path` read-write and blocking, and checks that it is a V4L2 capture node with streaming
// I/O; resets cropping to the default rectangle where the driver supports cropping. Returns the
// descriptor, or -1 with a message. A descriptor that fails the checks is left open.
int video_device::video_open(const char* path) {
    int dev = open(path, O_RDWR);
    if (dev == -1) {
        int err = errno;
        printf("Cannot open '%s': %d, %s\n", path, err, strerror(err));
        errno = err;  // the caller's message reports the same cause
        return -1;
    }

    v4l2_capability cap;
    std::memset(&cap, 0, sizeof cap);
    if (xioctl(dev, VIDIOC_QUERYCAP, &cap) == -1) {
        if (errno == EINVAL)
            printf("%s is no V4L2 device\n", path);
        else
            errno_exit("VIDIOC_QUERYCAP");
        return -1;
    }
    if (!(cap.capabilities & V4L2_CAP_VIDEO_CAPTURE)) {
        printf("%s is no video capture device\n", path);
        return -1;
    }
    if (!(cap.capabilities & V4L2_CAP_STREAMING)) {
        printf("%s does not support streaming i/o\n", path);
        return -1;
    }

    v4l2_cropcap cropcap;
    std::memset(&cropcap, 0, sizeof cropcap);
    cropcap.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    if (xioctl(dev, VIDIOC_CROPCAP, &cropcap) == 0) {
        v4l2_crop crop;
        std::memset(&crop, 0, sizeof crop);
        crop.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        crop.c = cropcap.defrect;
        xioctl(dev, VIDIOC_S_CROP, &crop);  // cropping is optional; a refusal changes nothing
    }

    printf("Orvo Video Open Finish\n");
    return dev;
}

// Requests width x height in `fourcc`, leaving field, stride and image size to the driver. The
// format the driver settles on is not read back. Returns 0, or -1 with a message.
int video_device::video_set_format(int dev, unsigned int width_, unsigned int height_,
                                   unsigned int fourcc) {
    v4l2_format fmt;
    std::memset(&fmt, 0, sizeof fmt);
    fmt.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    fmt.fmt.pix.width = width_;
    fmt.fmt.pix.height = height_;
    fmt.fmt.pix.pixelformat = fourcc;
    if (xioctl(dev, VIDIOC_S_FMT, &fmt) == -1) {
        errno_exit("VIDIOC_S_FMT");
        return -1;
    }
    return 0;
}

// Sets the fixed rate of 30 frames per second and reads the parameters back. Returns 0, or -1 with
// a message naming the request that failed.
int video_device::video_set_framerate(int dev) {
    v4l2_streamparm parm;
    std::memset(&parm, 0, sizeof parm);
    parm.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    if (xioctl(dev, VIDIOC_G_PARM, &parm) == 0) {
        parm.parm.capture.timeperframe.numerator = 1;
        parm.parm.capture.timeperframe.denominator = orvo::frame::kFps;
        if (xioctl(dev, VIDIOC_S_PARM, &parm) == -1) {
            errno_exit("VIDIOC_S_PARM");
            return -1;
        }
        if (xioctl(dev, VIDIOC_G_PARM, &parm) == 0) return 0;
    }
    errno_exit("VIDIOC_G_PARM");
    return -1;
}

// Reads the "MemFree:" line of /proc/meminfo into *free_bytes, in bytes as a 32-bit signed value
// (more than 2 GiB wraps; nothing decides on the value). Returns 1, or -1 when the file cannot be
// opened (with a message) or has no such line (silently).
int video_device::GetFreeRam(int* free_bytes) {
    FILE* f = fopen("/proc/meminfo", "r");
    if (f == nullptr) {
        printf("/proc/meminfo can't open\n");
        return -1;
    }
    char line[256];
    int kib = 0;
    while (fgets(line, sizeof line, f) != nullptr) {
        if (sscanf(line, "MemFree: %d kB", &kib) == 1) {
            if (free_bytes != nullptr) *free_bytes = int(uint32_t(kib) << 10);
            fclose(f);
            return 1;
        }
    }
    fclose(f);
    return -1;
}

// Requests `count` memory-mapped capture buffers. Returns 0 when the driver grants at least two
// (even fewer than asked), else -1 with a message naming the descriptor.
int video_device::video_reqbufs(int dev, int count) {
    v4l2_requestbuffers req;
    std::memset(&req, 0, sizeof req);
    req.count = uint32_t(count);
    req.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    req.memory = V4L2_MEMORY_MMAP;
    if (xioctl(dev, VIDIOC_REQBUFS, &req) == -1) {
        if (errno == EINVAL)
            printf("%d does not support memory mapping\n", dev);
        else
            errno_exit("VIDIOC_REQBUFS");
        return -1;
    }
    if (req.count < 2) {
        printf("Insufficient buffer memory on %d\n", dev);
        return -1;
    }
    return 0;
}

// Starts (on != 0) or stops streaming. Returns 0 or -1, silently.
int video_device::video_enable(int dev, int on) {
    uint32_t type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    return xioctl(dev, on ? VIDIOC_STREAMON : VIDIOC_STREAMOFF, &type) == -1 ? -1 : 0;
}

// ioctl, reissued for as long as a signal interrupts it. Returns the final result; no other error
// is retried.
int video_device::xioctl(int dev, unsigned long request, void* arg) {
    return orvo::v4l2::retryIoctl(dev, request, arg);
}

// Prints "<label> error <errno>, <text>" on standard output and returns: despite the name it never
// ends the process; callers report the failure themselves. errno survives the printing, so a later
// message reports the same cause.
void video_device::errno_exit(const char* label) {
    int err = errno;
    printf("%s error %d, %s\n", label, err, strerror(err));
    errno = err;
}
