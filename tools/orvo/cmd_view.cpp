// orvo view: a live viewer served over HTTP, for a robot without a screen; runs until interrupted.
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <ctime>
#include <memory>
#include <stdexcept>
#include <string>

#include <orvo/orvo.hpp>

#include "commands.h"
#include "live_pipeline.h"
#include "session.h"
#include "viewer_server.h"

namespace orvo_tool {

int runView(int argc, char** argv, int first) {
    Command cmd("orvo view", "[--port N] [--bind ADDR] [--device PATH | --virtual[=SCENE]] [--intrinsics F --extrinsics F]",
                "Serves a page with the live left and right images, the disparity, the point cloud,\n"
                "the IMU, the nearest obstacle and the camera's health, and runs until interrupted\n"
                "(Ctrl-C). It listens on the loopback address only, unless --bind names another.\n"
                "Without calibration files the page shows the images and the IMU, no depth.");
    addDeviceOptions(cmd, true);
    cmd.option({"port", Value::Required, "N", "TCP port; 0 picks a free one", "8080"});
    cmd.option({"bind", Value::Required, "ADDR", "address to listen on", "127.0.0.1"});
    Args args = cmd.parse(argc, argv, first);
    if (printedHelp(cmd, args)) return kExitOk;
    orvo_viewer::ServerOptions server_options;
    server_options.port = args.count("port", 8080);
    if (server_options.port > 65535) throw UsageError("--port: at most 65535");
    server_options.bind = args.text("bind", "127.0.0.1");
    const std::string& bind = server_options.bind;
    if (bind.rfind("127.", 0) != 0 && bind != "localhost" && bind != "::1")
        std::fprintf(stderr,
                     "orvo view: warning: listening on %s: anyone who can reach this address sees the camera "
                     "and can change the viewer's settings (there is no password)\n",
                     server_options.bind.c_str());

    Session session(args);
    if (!session.calibration().fisheye.empty())
        throw UsageError("view works with the pinhole calibration (--intrinsics and --extrinsics)");
    probeDevice(session.device().path);

    // SIGINT and SIGTERM are taken by this thread alone (sigtimedwait below): every thread the
    // camera and the server start inherits the blocked mask.
    sigset_t stop_signals;
    sigemptyset(&stop_signals);
    sigaddset(&stop_signals, SIGINT);
    sigaddset(&stop_signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stop_signals, nullptr);

    orvo::CameraOptions options;
    options.intrinsics_file = session.calibration().intrinsics;
    options.extrinsics_file = session.calibration().extrinsics;
    options.queue_depth = 16;  // the loop drains it each turn: newest images, every IMU sample
    orvo::Camera camera(session.device().path, options);
    orvo_viewer::LivePipeline pipeline(camera, camera.calibration());
    std::unique_ptr<orvo_viewer::ViewerServer> server;
    try {
        server = std::make_unique<orvo_viewer::ViewerServer>(pipeline, server_options);
    } catch (const std::runtime_error& e) {
        throw RunError(e.what());
    }
    server->start();
    // Listening on every address: the machine's name is what a browser elsewhere can open.
    std::string host = bind;
    if (bind == "0.0.0.0" || bind == "::") {
        char name[256] = "";
        host = gethostname(name, sizeof name - 1) == 0 && name[0] ? name : "THIS-MACHINE";
    } else if (bind.find(':') != std::string::npos) {
        host = "[" + bind + "]";
    }
    std::printf("orvo view: %s on http://%s:%d/ (Ctrl-C to stop)\n", session.describe().c_str(), host.c_str(),
                server->port());
    std::fflush(stdout);

    int signal_number = -1;
    while (signal_number < 0) {
        const timespec tick{1, 0};
        signal_number = sigtimedwait(&stop_signals, nullptr, &tick);
    }
    std::fprintf(stderr, "orvo view: %s, stopping\n", signal_number == SIGINT ? "interrupted" : "terminated");
    server->stop();
    pipeline.stop();
    camera.close();
    return kExitOk;
}

}  // namespace orvo_tool
