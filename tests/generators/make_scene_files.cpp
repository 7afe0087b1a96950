// Writes the calibration files a scene names, from its rig, or the whole default scene.
#include <cstdio>
#include <string>

#include <orvo/vcam/scene.hpp>

namespace {

int usage() {
    std::fprintf(stderr,
                 "usage: make_scene_files SCENE.yml      write the calibration files the scene names\n"
                 "       make_scene_files --default DIR  write the default scene and its calibration\n");
    return 2;
}

}  // namespace

int main(int argc, char** argv) {
    std::string error;
    if (argc == 3 && std::string(argv[1]) == "--default") {
        if (orvo::vcam::writeDefaultScene(argv[2], &error)) return 0;
    } else if (argc == 2 && argv[1][0] != '-') {
        orvo::vcam::Scene scene;
        if (orvo::vcam::loadScene(argv[1], scene, &error) &&
            orvo::vcam::writeSceneCalibration(scene, &error))
            return 0;
    } else {
        return usage();
    }
    std::fprintf(stderr, "make_scene_files: %s\n", error.c_str());
    return 1;
}
