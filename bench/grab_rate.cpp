// The C++ side of bench/python_grab_rate.py: orvo::Camera's grab loop rate on one node, frames/s.
// Usage: grab_rate NODE [FRAMES]   (prints "grab_rate FRAMES SECONDS FPS")
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>

#include <orvo/orvo.hpp>

int main(int argc, char** argv) {
    if (argc < 2) {
        std::fprintf(stderr, "usage: grab_rate NODE [FRAMES]\n");
        return 2;
    }
    const int frames = argc > 2 ? std::atoi(argv[2]) : 1000;
    try {
        orvo::Camera camera(argv[1]);
        // The first frame is not timed: it includes opening the stream.
        if (!camera.grab(std::chrono::seconds(5))) return 1;
        const auto start = std::chrono::steady_clock::now();
        uint64_t touched = 0;
        for (int i = 0; i < frames; ++i) {
            auto f = camera.grab(std::chrono::seconds(5));
            if (!f) return 1;
            touched += f->left.data[0];  // what the Python loop does too: look at the pixels
        }
        const double s = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        std::printf("grab_rate %d %.6f %.1f (%llu)\n", frames, s, frames / s,
                    static_cast<unsigned long long>(touched % 10));
    } catch (const orvo::Error& e) {
        std::fprintf(stderr, "grab_rate: %s\n", e.what());
        return 1;
    }
    return 0;
}
