// The chain studio: a small local web server on which a post-processing chain is tuned against
// a live picture. RunStudio serves the page and its JSON endpoints until the process ends.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace studio {

// A 16-bit grayscale picture, row-major, width x height.
struct StudioImage {
    uint32_t width = 0;
    uint32_t height = 0;
    std::vector<uint16_t> pixels;
};

// Takes one exposure for the studio. `progress` receives the detector's progress value (0 to
// 11) while the exposure runs. False with a one-line description when no image came.
using AcquireFunction =
    std::function<bool(StudioImage& image, std::string& error, std::atomic<int>& progress)>;

struct StudioOptions {
    // The picture to tune on, with a short description of where it came from. Left empty when
    // `acquire` is given: the studio then takes a fresh exposure at start and on request.
    StudioImage image;
    std::string imageLabel;
    AcquireFunction acquire;
    // The chain shown at start. Its folder is the only one whose chain files the page may read
    // and write.
    std::string chainPath;
    // 0 picks a free port.
    int port = 0;
    // Where a desktop browser is available, the page is opened in it.
    bool openBrowser = true;
};

// Serves the studio on 127.0.0.1 until the process is ended. Prints the address on standard
// output. Returns the process exit code: 1 after a one-line message when it cannot start.
int RunStudio(const StudioOptions& options);

}  // namespace studio
