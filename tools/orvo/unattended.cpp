// Virtual display and key feeder for the unattended calibration (Xvfb and xdotool, run as
// child processes).
#include "unattended.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <vector>

#include "cli.h"

extern char** environ;

namespace orvo_tool {

namespace {

void stopChild(pid_t pid) {
    if (pid <= 0) return;
    kill(pid, SIGTERM);
    for (int i = 0; i < 50; ++i) {
        if (waitpid(pid, nullptr, WNOHANG) == pid) return;
        usleep(20000);
    }
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
}

// Runs a program with its output discarded and waits for it; its exit status, or -1.
int runQuietly(const std::vector<std::string>& argv) {
    std::vector<char*> args;
    for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    pid_t pid = -1;
    int rc = posix_spawn(&pid, args[0], &actions, nullptr, args.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (rc != 0) return -1;
    int status = 0;
    if (waitpid(pid, &status, 0) != pid) return -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace

std::string findProgram(const std::string& name) {
    const char* path = std::getenv("PATH");
    std::string dirs = path ? path : "/usr/bin:/bin";
    size_t start = 0;
    while (start <= dirs.size()) {
        size_t end = dirs.find(':', start);
        if (end == std::string::npos) end = dirs.size();
        std::string candidate = dirs.substr(start, end - start) + "/" + name;
        if (end > start && access(candidate.c_str(), X_OK) == 0) return candidate;
        start = end + 1;
    }
    return "";
}

namespace {

bool connectsTo(const std::string& path, bool abstract) {
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return false;
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const size_t offset = abstract ? 1 : 0;  // an abstract name starts with a zero byte
    if (path.size() + offset >= sizeof(address.sun_path)) {
        close(fd);
        return false;
    }
    std::memcpy(address.sun_path + offset, path.data(), path.size());
    const socklen_t length = socklen_t(offsetof(sockaddr_un, sun_path) + offset + path.size() + (abstract ? 0 : 1));
    const bool ok = connect(fd, reinterpret_cast<const sockaddr*>(&address), length) == 0;
    close(fd);
    return ok;
}

}  // namespace

bool displayReachable(const char* display) {
    if (!display || !*display) return false;
    const std::string text(display);
    const size_t colon = text.rfind(':');
    if (colon == std::string::npos) return false;
    const std::string host = text.substr(0, colon);
    if (!host.empty() && host != "unix") return true;
    const std::string number = text.substr(colon + 1, text.find('.', colon) - colon - 1);
    if (number.empty() || number.find_first_not_of("0123456789") != std::string::npos) return false;
    const std::string socket_path = "/tmp/.X11-unix/X" + number;
    return connectsTo(socket_path, false) || connectsTo(socket_path, true);
}

// Xvfb writes the display number it chose to the -displayfd descriptor once it accepts clients.
VirtualDisplay::VirtualDisplay() {
    const char* display = std::getenv("DISPLAY");
    if (displayReachable(display)) return;
    if (display) {
        had_previous_ = true;
        previous_ = display;
    }
    const std::string xvfb = findProgram("Xvfb");
    if (xvfb.empty()) throw RunError("no display and no Xvfb to make one (apt-get install xvfb)");
    int fds[2];
    if (pipe(fds) != 0) throw RunError(std::string("pipe: ") + std::strerror(errno));
    pid_ = fork();
    if (pid_ < 0) throw RunError(std::string("fork: ") + std::strerror(errno));
    if (pid_ == 0) {
        close(fds[0]);
        int devnull = open("/dev/null", O_RDWR);
        dup2(devnull, STDIN_FILENO);
        dup2(devnull, STDOUT_FILENO);
        dup2(devnull, STDERR_FILENO);
        std::string fd = std::to_string(fds[1]);
        execl(xvfb.c_str(), "Xvfb", "-displayfd", fd.c_str(), "-screen", "0", "1280x1024x24",
              "-nolisten", "tcp", static_cast<char*>(nullptr));
        _exit(127);
    }
    close(fds[1]);
    std::string number;
    char c;
    while (read(fds[0], &c, 1) == 1 && c != '\n') number += c;
    close(fds[0]);
    if (number.empty()) {
        stopChild(pid_);
        pid_ = -1;
        throw RunError("Xvfb did not start");
    }
    setenv("DISPLAY", (":" + number).c_str(), 1);
}

VirtualDisplay::~VirtualDisplay() {
    if (pid_ > 0) {
        stopChild(pid_);
        if (had_previous_)
            setenv("DISPLAY", previous_.c_str(), 1);
        else
            unsetenv("DISPLAY");
    }
}

KeyFeeder::KeyFeeder(const std::string& titles, int interval_ms) {
    const std::string xdotool = findProgram("xdotool");
    if (xdotool.empty()) throw RunError("no xdotool to answer the windows (apt-get install xdotool)");
    const pid_t parent = getpid();
    pid_ = fork();
    if (pid_ < 0) throw RunError(std::string("fork: ") + std::strerror(errno));
    if (pid_ != 0) return;
    // The child: a plain loop of xdotool runs; it ends with its parent.
    const std::vector<std::string> cmd = {xdotool, "search", "--onlyvisible", "--name", titles,
                                          "windowfocus", "key", "space"};
    const timespec pause = {interval_ms / 1000, long(interval_ms % 1000) * 1000000L};
    while (getppid() == parent) {
        runQuietly(cmd);
        nanosleep(&pause, nullptr);
    }
    _exit(0);
}

KeyFeeder::~KeyFeeder() { stopChild(pid_); }

}  // namespace orvo_tool
