// Running the interactive calibration without a person: a virtual X display when there is none,
// and a helper that keeps pressing space in the procedure's windows.
#pragma once

#include <sys/types.h>

#include <string>

namespace orvo_tool {

// Full path of a program found on PATH, or "" when there is none.
std::string findProgram(const std::string& name);

// Whether an X server answers at `display` (":N", "unix:N" or "host:N"). A local display is tried
// on its socket; a remote one is taken on trust. False for null or empty.
bool displayReachable(const char* display);

// Starts Xvfb on a free display number and points DISPLAY at it, unless DISPLAY names a display
// that answers (a DISPLAY left over from a desktop that is gone is replaced, then restored).
class VirtualDisplay {
public:
    VirtualDisplay();
    ~VirtualDisplay();
    VirtualDisplay(const VirtualDisplay&) = delete;
    VirtualDisplay& operator=(const VirtualDisplay&) = delete;
    bool started() const { return pid_ > 0; }

private:
    pid_t pid_ = -1;
    std::string previous_;
    bool had_previous_ = false;
};

// A child process that focuses any window whose title matches `titles` (a regular expression)
// and sends it a space, every `interval_ms`, until destroyed.
class KeyFeeder {
public:
    KeyFeeder(const std::string& titles, int interval_ms);
    ~KeyFeeder();
    KeyFeeder(const KeyFeeder&) = delete;
    KeyFeeder& operator=(const KeyFeeder&) = delete;

private:
    pid_t pid_ = -1;
};

}  // namespace orvo_tool
