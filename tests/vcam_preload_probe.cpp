// A program that knows nothing of the virtual camera: run with it preloaded, it must find the node,
// stream a few frames from it, and see every other file as usual.
#include <fcntl.h>
#include <linux/videodev2.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#define CHECK(cond)                                                  \
    do {                                                             \
        if (!(cond)) {                                               \
            std::fprintf(stderr, "%d: failed: %s\n", __LINE__, #cond); \
            return 1;                                                \
        }                                                            \
    } while (0)

int main() {
    const char* node = std::getenv("ORVO_VCAM_DEVICE");
    CHECK(node != nullptr);
    int fd = open(node, O_RDWR);
    CHECK(fd >= 0);
    v4l2_capability cap;
    CHECK(ioctl(fd, VIDIOC_QUERYCAP, &cap) == 0);
    CHECK(std::strcmp(reinterpret_cast<const char*>(cap.driver), "orvo_vcam") == 0);
    v4l2_requestbuffers rb;
    std::memset(&rb, 0, sizeof rb);
    rb.count = 2;
    rb.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    rb.memory = V4L2_MEMORY_MMAP;
    CHECK(ioctl(fd, VIDIOC_REQBUFS, &rb) == 0 && rb.count == 2);
    const auto buffer = [&](unsigned index) {
        v4l2_buffer b;
        std::memset(&b, 0, sizeof b);
        b.index = index, b.type = rb.type, b.memory = rb.memory;
        return b;
    };
    for (unsigned i = 0; i < 2; ++i) {
        v4l2_buffer b = buffer(i);
        CHECK(ioctl(fd, VIDIOC_QUERYBUF, &b) == 0);
        CHECK(mmap(nullptr, b.length, PROT_READ, MAP_SHARED, fd, b.m.offset) != MAP_FAILED);
        CHECK(ioctl(fd, VIDIOC_QBUF, &b) == 0);
    }
    int type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    CHECK(ioctl(fd, VIDIOC_STREAMON, &type) == 0);
    for (unsigned k = 0; k < 5; ++k) {
        v4l2_buffer b = buffer(0);
        CHECK(ioctl(fd, VIDIOC_DQBUF, &b) == 0 && b.sequence == k && b.bytesused == 721920);
        CHECK(ioctl(fd, VIDIOC_QBUF, &b) == 0);
    }
    CHECK(close(fd) == 0);
    int null = open("/dev/null", O_RDWR);
    CHECK(null >= 0 && ioctl(null, VIDIOC_QUERYCAP, &cap) == -1 && errno == ENOTTY);
    CHECK(close(null) == 0);
    std::puts("preloaded virtual camera: 5 frames");
    return 0;
}
