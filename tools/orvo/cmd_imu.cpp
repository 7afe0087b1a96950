// orvo imu: gyro bias calibration, then every inertial sample of N frames with the attitude
// filter's quaternion as CSV, and a plot of roll, pitch and yaw over time.
#include <cstdio>
#include <fstream>
#include <sstream>

#include "commands.h"
#include "imaging.h"
#include "pipeline.h"
#include "session.h"

namespace orvo_tool {

namespace {

void parseTriple(const std::string& option, const std::string& text, float out[3]) {
    std::istringstream in(text);
    char c1 = 0, c2 = 0;
    if (!(in >> out[0] >> c1 >> out[1] >> c2 >> out[2]) || c1 != ',' || c2 != ',' || !in.eof())
        throw UsageError("--" + option + ": expected X,Y,Z such as 0,0,0.02, got '" + text + "'");
}

}  // namespace

int runImu(int argc, char** argv, int first) {
    Command cmd("orvo imu", "[--frames N] [--out DIR] [filter options] [--device PATH | --virtual[=SCENE]]",
                "Measures the gyro bias over 100 frames (keep the camera still), then feeds every\n"
                "inertial sample of N frames to the attitude filter. Writes DIR/imu.csv, one row per\n"
                "sample: frame,frame_time,time,accel_x,accel_y,accel_z (g),gyro_x,gyro_y,gyro_z\n"
                "(rad/s),period (s),qw,qx,qy,qz,roll,pitch,yaw (degrees). The quaternion is zero for\n"
                "the filter's first 500 samples while it settles. DIR/attitude.png plots roll, pitch\n"
                "and yaw against time once settled.");
    addDeviceOptions(cmd, false);
    cmd.option({"frames", Value::Required, "N", "frames after the bias calibration", "300"});
    cmd.option({"out", Value::Required, "DIR", "output directory (created if missing)", "."});
    cmd.option({"deadband", Value::Required, "LOW,HIGH", "gyro dead band in deg/s after bias removal", "0,0"});
    cmd.option({"accel-offset", Value::Required, "X,Y,Z", "accelerometer offsets added, in g", "0,0,0"});
    cmd.option({"imu-rate", Value::Required, "HZ",
                "inertial sample rate; default: the frame interval shared by the frame's samples", ""});
    cmd.option({"quiet", Value::None, "", "no progress on standard error", ""});
    Args args = cmd.parse(argc, argv, first);
    if (printedHelp(cmd, args)) return kExitOk;
    const int frames = args.positiveInt("frames", 300);
    const std::string out = args.text("out", ".");
    float offsets[3] = {0, 0, 0};
    if (args.has("accel-offset")) parseTriple("accel-offset", args.text("accel-offset"), offsets);
    float deadband[2] = {0, 0};
    if (args.has("deadband")) {
        std::istringstream in(args.text("deadband"));
        char c = 0;
        if (!(in >> deadband[0] >> c >> deadband[1]) || c != ',' || !in.eof())
            throw UsageError("--deadband: expected LOW,HIGH such as -0.5,0.5, got '" + args.text("deadband") + "'");
    }
    const double rate = args.positiveNumber("imu-rate", 0);

    Session session(args, 0);
    ensureDirectory(out);
    const std::string csv_path = joinPath(out, "imu.csv");
    std::ofstream csv(csv_path);
    if (!csv) throw RunError("cannot write " + csv_path);
    csv << "frame,frame_time,time,accel_x,accel_y,accel_z,gyro_x,gyro_y,gyro_z,period,qw,qx,qy,qz,roll,pitch,yaw\n";

    auto camera = session.open();
    const bool verbose = !args.has("quiet");
    if (verbose) std::fprintf(stderr, "imu: measuring the gyro bias over 100 frames; keep the camera still\n");
    withLibraryOutputOnStderr([&] {
        camera->setImuCorrection(deadband[0], deadband[1], offsets[0], offsets[1], offsets[2]);
    });
    const int32_t* bias = camera_->gyro_bias;
    std::printf("gyro bias (counts): %d %d %d\n", bias[0], bias[1], bias[2]);

    AttitudeTracker tracker(rate);
    Progress progress("imu", frames, verbose);
    std::vector<double> t, roll, pitch, yaw;
    double clock = 0;
    std::vector<ImuData> samples;
    for (int i = 0; i < frames; ++i) {
        camera->Grab();
        unsigned int frame_time = 0;
        camera->getImuRawData(samples, frame_time);
        tracker.feed(*camera, samples);
        for (const AttitudeTracker::Step& s : tracker.lastFrame()) {
            clock += s.period;
            bool settled = s.q[0] != 0 || s.q[1] != 0 || s.q[2] != 0 || s.q[3] != 0;
            cv::Vec3d e = settled ? eulerDegrees(s.q) : cv::Vec3d(0, 0, 0);
            char row[400];
            std::snprintf(row, sizeof row,
                          "%d,%u,%u,%.7g,%.7g,%.7g,%.7g,%.7g,%.7g,%.7g,%.7g,%.7g,%.7g,%.7g,%.4f,%.4f,%.4f\n",
                          i, frame_time, s.sample.time, s.sample.accel_x, s.sample.accel_y,
                          s.sample.accel_z, s.sample.gyro_x, s.sample.gyro_y, s.sample.gyro_z,
                          s.period, s.q[0], s.q[1], s.q[2], s.q[3], e[0], e[1], e[2]);
            csv << row;
            if (settled) t.push_back(clock), roll.push_back(e[0]), pitch.push_back(e[1]), yaw.push_back(e[2]);
        }
        progress.step(i + 1);
    }
    progress.finish();
    csv.close();
    if (!csv) throw RunError("cannot write " + csv_path);

    std::printf("%zu samples in %d frames written to %s\n", tracker.steps(), frames, csv_path.c_str());
    if (!tracker.settled()) {
        std::fprintf(stderr, "imu: the attitude filter settles after 500 samples and got %zu; "
                             "no attitude plot (try more --frames)\n", tracker.steps());
        return kExitOk;
    }
    cv::Vec3d e = eulerDegrees(tracker.quaternion());
    std::printf("attitude: roll %.2f pitch %.2f yaw %.2f degrees\n", e[0], e[1], e[2]);
    writePng(joinPath(out, "attitude.png"),
             plotSeries(t, {{"roll", cv::Scalar(40, 40, 220), roll},
                            {"pitch", cv::Scalar(40, 160, 40), pitch},
                            {"yaw", cv::Scalar(200, 90, 30), yaw}},
                        "Attitude from the inertial unit", "time (s)", "degrees"));
    return kExitOk;
}

}  // namespace orvo_tool
