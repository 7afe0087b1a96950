// Calibration image pairs: pairing by file name and reading list files.
#include "image_pairs.h"

#include <dirent.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>

#include "cli.h"
#include "imaging.h"

namespace orvo_tool {

namespace {

const char* const kPairPrefixes[][2] = {{"left", "right"}, {"first", "second"}};

std::string lower(std::string s) {
    std::transform(s.begin(), s.end(), s.begin(), [](unsigned char c) { return char(std::tolower(c)); });
    return s;
}

}  // namespace

// Reports unpaired images; the library itself would drop them without a word.
std::vector<std::string> pairsFromDirectory(const std::string& dir) {
    DIR* d = opendir(dir.c_str());
    if (!d) throw RunError("cannot read directory " + dir + ": " + std::strerror(errno));
    std::vector<std::string> names;
    while (dirent* e = readdir(d)) names.push_back(e->d_name);
    closedir(d);
    std::sort(names.begin(), names.end());
    std::vector<std::string> list, used;
    for (const std::string& name : names) {
        for (const auto& prefix : kPairPrefixes) {
            const std::string p0 = prefix[0], p1 = prefix[1];
            if (lower(name).compare(0, p0.size(), p0) != 0) continue;
            const std::string rest = name.substr(p0.size());
            std::string partner;
            for (const std::string& other : names)
                if (lower(other.substr(0, p1.size())) == p1 && other.substr(p1.size()) == rest) partner = other;
            if (partner.empty()) {
                std::fprintf(stderr, "calibrate: %s has no %s partner; left out\n", name.c_str(), prefix[1]);
                continue;
            }
            list.push_back(joinPath(dir, name));
            list.push_back(joinPath(dir, partner));
            used.push_back(partner);
        }
    }
    for (const std::string& name : names)
        for (const auto& prefix : kPairPrefixes) {
            const std::string p1 = prefix[1];
            if (lower(name).compare(0, p1.size(), p1) == 0 &&
                std::find(used.begin(), used.end(), name) == used.end())
                std::fprintf(stderr, "calibrate: %s has no %s partner; left out\n", name.c_str(), prefix[0]);
        }
    return list;
}

std::vector<std::string> imagesFromList(const std::string& path) {
    std::ifstream in(path);
    if (!in) throw RunError("cannot read image list " + path);
    const size_t slash = path.rfind('/');
    const std::string base = slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
    std::vector<std::string> list;
    std::string line;
    while (std::getline(in, line)) {
        while (!line.empty() && (line.back() == '\r' || line.back() == ' ')) line.pop_back();
        if (line.empty() || line[0] == '#') continue;
        list.push_back(line[0] == '/' ? line : joinPath(base, line));
    }
    return list;
}

}  // namespace orvo_tool
