// orvo vcam: runs any program with the virtual camera preloaded, or prints the environment that
// does it for scripts.
#include <dlfcn.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include <orvo/vcam/statistics.hpp>

#include "commands.h"
#include "session.h"

namespace orvo_tool {

namespace {

constexpr const char* kDefaultNode = "/dev/video-virtual0";

// The virtual camera library this tool runs with, found through one of its functions: wherever
// the installed tree (or the build tree) has been moved, it is the one beside this tool.
std::string virtualCameraLibrary() {
    Dl_info info;
    if (!dladdr(reinterpret_cast<void*>(static_cast<orvo::vcam::Statistics (*)()>(&orvo::vcam::statistics)), &info) || !info.dli_fname)
        throw RunError("cannot find the virtual camera library this tool was built with");
    std::string path = info.dli_fname;
    if (path.size() < 3 || path.find(".so") == std::string::npos)
        throw RunError("this tool has the virtual camera built in, not as a library to preload");
    char resolved[PATH_MAX];
    if (realpath(path.c_str(), resolved)) path = resolved;
    return path;
}

// 'text' for a POSIX shell: single quotes, with each quote inside closed, escaped and reopened.
std::string shellQuoted(const std::string& text) {
    std::string out = "'";
    for (char c : text) out += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return out + "'";
}

// The variables that make a program see the virtual camera, in the order they are printed.
std::vector<std::pair<std::string, std::string>> environmentFor(const Args& args) {
    // What is preloaded already keeps its place ahead (a sanitizer runtime has to stay first).
    std::string preload = virtualCameraLibrary();
    const char* earlier = std::getenv("LD_PRELOAD");
    if (earlier && *earlier)
        preload = std::string(earlier).find(preload) == std::string::npos ? std::string(earlier) + ":" + preload
                                                                          : std::string(earlier);
    std::vector<std::pair<std::string, std::string>> env = {
        {"LD_PRELOAD", preload}, {"ORVO_VCAM_DEVICE", args.text("device", kDefaultNode)}};
    if (args.has("source")) env.emplace_back("ORVO_VCAM_SOURCE", virtualSource(args.text("source")));
    if (args.has("faults")) env.emplace_back("ORVO_VCAM_FAULTS", args.text("faults"));
    if (args.has("fps")) env.emplace_back("ORVO_VCAM_FPS", args.text("fps"));
    if (args.has("log")) env.emplace_back("ORVO_VCAM_LOG", "1");
    return env;
}

}  // namespace

// Replaces this process with the program, so that its exit status (or the signal that ended it)
// is the caller's to see; 127 when it cannot be started, as the shell has it.
int runVcam(int argc, char** argv, int first) {
    Command cmd("orvo vcam", "[OPTIONS] -- PROGRAM [ARGS...] | --print-env",
                "Runs PROGRAM with the virtual camera preloaded: it sees a camera node at the\n"
                "--device path (no file is needed there) and can use it with any V4L2 client,\n"
                "e.g. 'orvo vcam -- v4l2-ctl -d /dev/video-virtual0 --all'. The program's exit\n"
                "status is passed through. --print-env prints the same settings as shell\n"
                "'export' lines instead: eval \"$(orvo vcam --print-env)\".");
    cmd.option({"device", Value::Required, "PATH", "the node path the virtual camera takes", kDefaultNode});
    cmd.option({"source", Value::Required, "SCENE",
                "what it shows: 'pattern', a scene file, a recording (FILE.raw or raw:FILE)", "built-in scene"});
    cmd.option({"faults", Value::Required, "LIST", "faults to inject, e.g. DQBUF@10=EIO (see the virtual camera's README)", ""});
    cmd.option({"fps", Value::Required, "RATE", "frame rate; 0 = free-running", "the rate the program asks for"});
    cmd.option({"log", Value::None, "", "log every request of the node on standard error", ""});
    cmd.option({"print-env", Value::None, "", "print the variables as shell 'export' lines and exit", ""});
    Args args = cmd.parse(argc, argv, first);
    if (printedHelp(cmd, args)) return kExitOk;
    if (args.has("fps")) args.number("fps", 0);  // checked here rather than by the camera at open
    const std::vector<std::string>& program = args.positional();
    if (args.has("print-env") == !program.empty())
        throw UsageError(program.empty() ? "name a program to run after '--', or give --print-env"
                                         : "--print-env runs no program");
    std::vector<std::pair<std::string, std::string>> env = environmentFor(args);
    if (args.has("print-env")) {
        for (const auto& kv : env) std::printf("export %s=%s\n", kv.first.c_str(), shellQuoted(kv.second).c_str());
        return kExitOk;
    }
    for (const auto& kv : env) setenv(kv.first.c_str(), kv.second.c_str(), 1);
    std::vector<char*> child;
    for (const std::string& a : program) child.push_back(const_cast<char*>(a.c_str()));
    child.push_back(nullptr);
    std::fflush(nullptr);
    execvp(child[0], child.data());
    std::fprintf(stderr, "orvo vcam: cannot run %s: %s\n", child[0], std::strerror(errno));
    return 127;
}

}  // namespace orvo_tool
