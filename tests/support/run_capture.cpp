// Output capture and child-process runner for the test suites.
#include "run_capture.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <iostream>
#include <stdexcept>

namespace orvo_test {
namespace {

void flushAll() {
    std::cout.flush();
    std::cerr.flush();
    std::fflush(nullptr);
}

std::string slurp(int fd) {
    std::string s;
    lseek(fd, 0, SEEK_SET);
    char buf[4096];
    ssize_t n;
    while ((n = read(fd, buf, sizeof buf)) > 0) s.append(buf, size_t(n));
    return s;
}

int tempFile() {
    char name[] = "/tmp/orvo-capture-XXXXXX";
    int fd = mkstemp(name);
    if (fd < 0) throw std::runtime_error("mkstemp failed");
    unlink(name);
    return fd;
}

}  // namespace

Captured captureOutput(const std::function<void()>& fn) {
    flushAll();
    struct Redirect {  // undone also when fn throws
        int out = tempFile(), err = tempFile(), saved_out = dup(1), saved_err = dup(2);
        Redirect() { dup2(out, 1), dup2(err, 2); }
        ~Redirect() {
            flushAll();
            dup2(saved_out, 1), dup2(saved_err, 2);
            for (int fd : {out, err, saved_out, saved_err}) close(fd);
        }
    };
    Captured c;
    const Redirect r;
    fn();
    flushAll();
    c.out = slurp(r.out);
    c.err = slurp(r.err);
    c.exit_status = 0;
    return c;
}

Captured runInChild(const std::function<void()>& fn, int timeout_s) {
    flushAll();
    int out = tempFile(), err = tempFile();
    pid_t pid = fork();
    if (pid < 0) throw std::runtime_error("fork failed");
    if (pid == 0) {
        dup2(out, 1);
        dup2(err, 2);
        alarm(unsigned(timeout_s));
        try {
            fn();
        } catch (const std::exception& e) {
            std::cerr << "uncaught exception: " << e.what() << std::endl;
            flushAll();
            _exit(98);
        }
        std::exit(0);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    Captured c;
    if (WIFEXITED(status)) c.exit_status = WEXITSTATUS(status);
    if (WIFSIGNALED(status)) c.signal = WTERMSIG(status);
    c.out = slurp(out);
    c.err = slurp(err);
    close(out);
    close(err);
    return c;
}

}  // namespace orvo_test
