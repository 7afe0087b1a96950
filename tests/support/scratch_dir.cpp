// Temporary fixture directories for the test suites.
#include "scratch_dir.h"

#include <stdlib.h>

#include <filesystem>
#include <stdexcept>
#include <system_error>

namespace orvo_test {

ScratchDir::ScratchDir() {
    std::string pattern = (std::filesystem::temp_directory_path() / "orvo-test-XXXXXX").string();
    if (!mkdtemp(pattern.data())) throw std::runtime_error("mkdtemp failed");
    path_ = pattern;
}

ScratchDir::~ScratchDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

std::string ScratchDir::file(const std::string& name) const { return path_ + "/" + name; }

}  // namespace orvo_test
