// Test helpers: run code with its standard output and error captured, in this process or a child.
#pragma once

#include <functional>
#include <string>

namespace orvo_test {

struct Captured {
    std::string out;
    std::string err;
    int exit_status = -1;    // exit status of a child; -1 when it did not exit normally
    int signal = 0;          // terminating signal of a child, 0 if none
};

// Runs fn in this process with file descriptors 1 and 2 redirected; stdio and iostreams are flushed
// before and after, so printf, std::cout and std::cerr are all caught.
Captured captureOutput(const std::function<void()>& fn);

// Runs fn in a forked child with its standard streams captured. A child that returns from fn exits
// with status 0; one that calls exit() reports that status. timeout_s bounds the child's life.
Captured runInChild(const std::function<void()>& fn, int timeout_s = 60);

}  // namespace orvo_test
