// orvo record: raw frames straight from the capture class into a file that the virtual camera
// replays (its raw: source): whole frames, back to back, nothing else.
#include <cstdio>
#include <memory>

#include <video_device.h>

#include "commands.h"
#include "frame_geometry.h"
#include "pipeline.h"
#include "session.h"

namespace orvo_tool {

namespace {

struct FileCloser {
    void operator()(FILE* f) const {
        if (f) std::fclose(f);
    }
};

}  // namespace

int runRecord(int argc, char** argv, int first) {
    Command cmd("orvo record", "[--frames N] [--out FILE] [--device PATH | --virtual[=SCENE]]",
                "Records N raw frames (752 x 480 x 2 = 721,920 bytes each, the two images\n"
                "interleaved and the inertial trailer at the end) to FILE, back to back. Replay\n"
                "them with 'orvo COMMAND --virtual=FILE' (a .raw name) or ORVO_VCAM_SOURCE=raw:FILE.\n"
                "Frames the driver hands over incomplete are left out and counted.");
    addDeviceOptions(cmd, false);
    cmd.option({"frames", Value::Required, "N", "frames to record", "300"});
    cmd.option({"out", Value::Required, "FILE", "recording to write", "orvo.raw"});
    cmd.option({"quiet", Value::None, "", "no progress on standard error", ""});
    Args args = cmd.parse(argc, argv, first);
    if (printedHelp(cmd, args)) return kExitOk;
    const int frames = args.positiveInt("frames", 300);
    const std::string path = args.text("out", "orvo.raw");

    Session session(args, 0);
    std::unique_ptr<FILE, FileCloser> file(std::fopen(path.c_str(), "wb"));
    if (!file) throw RunError("cannot write " + path);
    probeDevice(session.device().path);
    auto device = withLibraryOutputOnStderr([&] {
        return std::make_unique<video_device>(session.device().path, orvo::frame::kWidth,
                                              orvo::frame::kHeight);
    });

    Progress progress("record", frames, !args.has("quiet"));
    int written = 0, incomplete = 0;
    while (written < frames) {
        unsigned char* data = nullptr;
        unsigned long length = 0;
        if (withLibraryOutputOnStderr([&] { return device->get_frame(&data, &length); }) != 0)
            throw RunError("the camera stopped delivering frames after " + std::to_string(written));
        if (length == orvo::frame::kBytes) {
            if (std::fwrite(data, 1, length, file.get()) != length) throw RunError("cannot write " + path);
            progress.step(++written);
        } else if (++incomplete > frames) {
            throw RunError("the camera hands over incomplete frames only (" + std::to_string(length) +
                           " bytes instead of " + std::to_string(orvo::frame::kBytes) + ")");
        }
        if (withLibraryOutputOnStderr([&] { return device->unget_frame(); }) != 0)
            throw RunError("the camera refused a buffer back after " + std::to_string(written) + " frames");
    }
    progress.finish();
    if (std::fflush(file.get()) != 0) throw RunError("cannot write " + path);
    withLibraryOutputOnStderr([&] { device.reset(); });
    std::printf("%d frames (%.1f MB) recorded to %s", written,
                double(written) * orvo::frame::kBytes / 1e6, path.c_str());
    if (incomplete) std::printf("; %d incomplete frames left out", incomplete);
    std::printf("\n");
    return kExitOk;
}

}  // namespace orvo_tool
