// The page's files (HTML, JS, CSS and Debian's three.js), embedded into the program at build time.
#pragma once

#include <string_view>

namespace orvo_viewer {

struct Asset {
    std::string_view name;  // e.g. "viewer.js": served as /static/viewer.js ("index.html" as /)
    std::string_view type;  // Content-Type
    std::string_view body;
};

// The embedded file of that exact name, or null: names are looked up, never used as paths.
const Asset* findAsset(std::string_view name);

}  // namespace orvo_viewer
