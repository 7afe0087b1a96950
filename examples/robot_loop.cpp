// A control loop on the modern API: survives an unplug and replug, reports the camera's state
// changes and never acts on an old frame.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>

#include <orvo/orvo.hpp>

int main(int argc, char** argv) {
    using namespace std::chrono;
    const std::string node = argc > 1 ? argv[1] : "/dev/video0";
    const int cycles = argc > 2 ? std::atoi(argv[2]) : 300;

    orvo::CameraOptions options;
    options.queue_depth = 1;  // only the newest frame matters to a controller
    options.on_state_change = [](orvo::CameraState s) {
        std::printf("camera: %s\n", orvo::to_string(s));
        std::fflush(stdout);
    };
    try {
        orvo::Camera camera(node, options);
        uint64_t last_sequence = 0;
        bool have_frame = false;
        for (int cycle = 0; cycle < cycles; ++cycle) {
            // A frame older than 100 ms is no basis for a decision: the loop holds still instead.
            std::optional<orvo::Frame> frame = camera.grab(100ms);
            if (!frame) {
                std::printf("cycle %d: no fresh frame (%s): holding still\n", cycle,
                            orvo::to_string(camera.state()));
                continue;
            }
            if (have_frame && frame->sequence <= last_sequence) return 1;  // cannot happen: grab's promise
            if (have_frame && frame->sequence > last_sequence + 1)
                std::printf("cycle %d: %llu frame(s) missed\n", cycle,
                            static_cast<unsigned long long>(frame->sequence - last_sequence - 1));
            have_frame = true;
            last_sequence = frame->sequence;
            // host_time_ns is CLOCK_MONOTONIC, the clock steady_clock reads on Linux. A frame that
            // waited in the queue while this loop was busy elsewhere is as useless as none.
            const auto age = steady_clock::now().time_since_epoch() - nanoseconds(frame->host_time_ns);
            if (age > 100ms) {
                std::printf("cycle %d: frame %llu is %lld ms old: holding still\n", cycle,
                            static_cast<unsigned long long>(frame->sequence),
                            static_cast<long long>(duration_cast<milliseconds>(age).count()));
                continue;
            }
            const double mean = cv::mean(frame->left)[0];
            std::printf("cycle %d: frame %llu at %.3f s device time, %zu IMU samples, mean grey %.1f\n", cycle,
                        static_cast<unsigned long long>(frame->sequence), double(frame->device_time_us) * 1e-6,
                        frame->imu.size(), mean);
        }
        const orvo::CameraStats s = camera.stats();
        std::printf("frames %llu, drops %llu, reconnects %llu, last error: %s\n",
                    static_cast<unsigned long long>(s.frames), static_cast<unsigned long long>(s.drops),
                    static_cast<unsigned long long>(s.reconnects), s.last_error.empty() ? "none" : s.last_error.c_str());
    } catch (const orvo::Error& e) {
        std::fprintf(stderr, "robot_loop: %s\n", e.what());
        return 1;
    }
    return 0;
}
