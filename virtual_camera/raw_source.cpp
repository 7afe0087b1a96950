// Replay of a recording: the plain concatenation of whole frames, looped.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include <orvo/vcam/frame_source.hpp>

#include "frame_geometry.h"
#include "trailer.h"

namespace orvo {
namespace vcam {
namespace {

using orvo::frame::kBytes;

class RawSource : public FrameSource {
public:
    RawSource(std::string path, const uint8_t* data, size_t frames)
        : path_(std::move(path)), data_(data), frames_(frames) {}
    ~RawSource() override { munmap(const_cast<uint8_t*>(data_), frames_ * kBytes); }

    std::string describe() const override { return "raw:" + path_; }

    void render(uint64_t index, double, uint8_t* dst, FrameTruth& truth) override {
        uint64_t frame = index % frames_;
        const uint8_t* src = data_ + frame * kBytes;
        std::memcpy(dst, src, kBytes);
        if (!trailer::frameTicks(src, kBytes, &truth.frame_ticks)) truth.frame_ticks = 0;
        char extra[64];
        std::snprintf(extra, sizeof extra, "source=raw frame=%llu", static_cast<unsigned long long>(frame));
        truth.extra = extra;
    }

private:
    std::string path_;
    const uint8_t* data_;  // the whole file, mapped read-only
    size_t frames_;
};

}  // namespace

// Maps the file; fails with a message for a file that cannot be read, is empty, or is not a whole
// number of frames.
std::unique_ptr<FrameSource> makeRawSource(const std::string& path, std::string* error) {
    std::string name = "raw:" + path;
    if (path.empty()) {
        *error = "'raw:' needs a file name (raw:FILE)";
        return nullptr;
    }
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC, 0);
    if (fd < 0) {
        *error = "'" + name + "': cannot open the file: " + std::strerror(errno);
        return nullptr;
    }
    struct stat st;
    if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
        ::close(fd);
        *error = "'" + name + "': not a regular file";
        return nullptr;
    }
    size_t size = size_t(st.st_size);
    if (size == 0) {
        ::close(fd);
        *error = "'" + name + "': the file is empty";
        return nullptr;
    }
    if (size % kBytes != 0) {
        ::close(fd);
        *error = "'" + name + "': " + std::to_string(size) + " bytes is not a whole number of " +
                 std::to_string(kBytes) + "-byte frames";
        return nullptr;
    }
    void* data = mmap(nullptr, size, PROT_READ, MAP_PRIVATE, fd, 0);
    int err = errno;
    ::close(fd);
    if (data == MAP_FAILED) {
        *error = "'" + name + "': cannot map the file: " + std::strerror(err);
        return nullptr;
    }
    return std::make_unique<RawSource>(path, static_cast<const uint8_t*>(data), size / kBytes);
}

}  // namespace vcam
}  // namespace orvo
