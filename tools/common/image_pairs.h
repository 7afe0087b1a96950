// Calibration image pairs from a directory (paired by name) or a list file (left, right, ...).
#pragma once

#include <string>
#include <vector>

namespace orvo_tool {

// Pairs a directory's images by name: leftXX with rightXX, or firstXX with secondXX (any case of
// the prefix), in name order, as the list left, right, left, right ... Images without a partner
// are reported on standard error and left out. Throws RunError when the directory cannot be read.
std::vector<std::string> pairsFromDirectory(const std::string& dir);

// The images a list file names, one per line, in its order; blank lines and lines starting with
// # are skipped, trailing spaces and carriage returns dropped, relative names taken from the
// list's own directory. Throws RunError when the file cannot be read.
std::vector<std::string> imagesFromList(const std::string& path);

}  // namespace orvo_tool
