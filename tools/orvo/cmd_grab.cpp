// orvo grab: N frames saved as the original pair and the rectified pair with guide lines.
#include <cmath>
#include <cstdio>

#include <ZUNCVHelper.h>

#include "commands.h"
#include "imaging.h"
#include "pipeline.h"
#include "session.h"

namespace orvo_tool {

int runGrab(int argc, char** argv, int first) {
    Command cmd("orvo grab", "[--frames N] [--out DIR] [--device PATH | --virtual[=SCENE]] [calibration options]",
                "Captures N frames. For each writes DIR/original_NNNN.png (first and second image\n"
                "side by side) and, when the camera is calibrated, DIR/rectified_NNNN.png (the\n"
                "rectified pair with a green guide line every 16 rows: matching points should sit\n"
                "on the same row). --skip drops frames first, e.g. while exposure settles.");
    addDeviceOptions(cmd, true);
    cmd.option({"frames", Value::Required, "N", "frames to save", "1"});
    cmd.option({"skip", Value::Required, "N", "frames to drop before saving", "0"});
    cmd.option({"out", Value::Required, "DIR", "output directory (created if missing)", "."});
    cmd.option({"separate", Value::None, "", "also write each image on its own (first_/second_)", ""});
    cmd.option({"interval", Value::Required, "SECONDS",
                "time between saved frames (at 30 frames per second), e.g. to move a chessboard", "0"});
    cmd.option({"quiet", Value::None, "", "no progress on standard error", ""});
    Args args = cmd.parse(argc, argv, first);
    if (printedHelp(cmd, args)) return kExitOk;
    const int frames = args.positiveInt("frames", 1);
    const int skip = args.count("skip", 0);
    const double interval = args.has("interval") ? args.positiveNumber("interval", 0) : 0;
    const int frames_between = int(std::lround(interval * 30));
    const std::string out = args.text("out", ".");
    ensureDirectory(out);

    Session session(args);
    auto camera = session.open();
    for (int i = 0; i < skip; ++i) camera->Grab();

    Progress progress("grab", frames, !args.has("quiet"));
    bool rectified = false;
    for (int i = 0; i < frames; ++i) {
        if (i > 0 && frames_between > 0) {
            if (!args.has("quiet")) std::fprintf(stderr, "grab: next frame in %g s\n", interval);
            for (int k = 1; k < frames_between; ++k) camera->Grab();
        }
        rectified = camera->Grab();
        cv::Mat first_img, second_img, rect1, rect2;
        camera->getOrgImage(first_img, second_img);
        writePng(joinPath(out, numbered("original", i, ".png")), combineTwoImg(first_img, second_img));
        if (args.has("separate")) {
            writePng(joinPath(out, numbered("first", i, ".png")), first_img);
            writePng(joinPath(out, numbered("second", i, ".png")), second_img);
        }
        if (rectified) {
            camera->getRectImage(rect1, rect2);
            writePng(joinPath(out, numbered("rectified", i, ".png")), pairWithGuideLines(rect1, rect2));
        }
        progress.step(i + 1);
    }
    progress.finish();
    std::printf("%d frame%s from %s written to %s%s\n", frames, frames == 1 ? "" : "s",
                session.describe().c_str(), out.c_str(),
                rectified ? "" : " (originals only: no calibration, so nothing to rectify)");
    return kExitOk;
}

}  // namespace orvo_tool
