// Test helper: a private temporary directory for generated fixtures, removed with its contents.
#pragma once

#include <string>

namespace orvo_test {

class ScratchDir {
public:
    ScratchDir();
    ~ScratchDir();
    ScratchDir(const ScratchDir&) = delete;
    ScratchDir& operator=(const ScratchDir&) = delete;

    const std::string& path() const { return path_; }
    // path() + "/" + name
    std::string file(const std::string& name) const;

private:
    std::string path_;
};

}  // namespace orvo_test
