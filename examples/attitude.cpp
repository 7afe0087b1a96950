// Example: attitude from the inertial unit: gyro bias calibration, then the filter per sample.
// Usage: attitude DEVICE [FRAMES]
#include <cstdio>
#include <cstdlib>
#include <vector>

#include <OrvoCamera.h>

int main(int argc, char** argv) {
    if (argc < 2) {
        std::fprintf(stderr, "usage: %s DEVICE [FRAMES]\n", argv[0]);
        return 2;
    }
    OrvoCameraParameterList params;
    params.device_path = argv[1];
    const int frames = argc > 2 ? std::atoi(argv[2]) : 150;
    OrvoCamera camera(params);

    // Measures the gyro bias over the next 100 frames: keep the camera still. No dead band, no
    // accelerometer offsets.
    camera.setImuCorrection(0.0f, 0.0f, 0.0f, 0.0f, 0.0f);

    std::vector<ImuData> samples;
    unsigned int frame_time = 0;
    for (int i = 0; i < frames; ++i) {
        camera.Grab();
        camera.getImuRawData(samples, frame_time);
        float q[4] = {0, 0, 0, 0};
        // The frame's samples share its 1/30 s; the filter wants each one's period in seconds.
        const float period = samples.empty() ? 0.0f : (1.0f / 30.0f) / float(samples.size());
        for (const ImuData& s : samples) camera.ImuRect(s, period, q);
        if (q[0] == 0 && q[1] == 0 && q[2] == 0 && q[3] == 0)
            std::printf("frame %d: %zu samples, filter settling\n", i, samples.size());
        else
            std::printf("frame %d: %zu samples, q = (%.4f, %.4f, %.4f, %.4f)\n", i, samples.size(),
                        q[0], q[1], q[2], q[3]);
    }
    return 0;
}
