// The page's files (studio/web/), compiled into the program so that it serves them itself.
#pragma once

#include <vector>

namespace studio {

struct WebAsset {
    const char* path;  // "/" for the page itself
    const char* type;  // content type
    const char* body;
};

const std::vector<WebAsset>& WebAssets();

}  // namespace studio
