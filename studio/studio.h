// The chain studio: a small local web server on which a post-processing chain is tuned against
// a live picture. RunStudio serves the page and its JSON endpoints until the process ends.
//
// The program does not link the studio: it is a module of its own (libveltrano_studio.so) that
// "veltrano studio" loads, so that the web server's libraries (cpp-httplib, OpenSSL, ...) are
// loaded by that command alone and not at every start of the program.
#pragma once

#include <atomic>
#include <cstddef>
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

// The module's one entry point, looked up by this name: RunStudio on the options. The program
// and the module pass C++ objects, so they must come from the same build; `optionsSize` is the
// program's sizeof(StudioOptions), and a module built with another layout returns
// kStudioEntryMismatch without doing anything.
inline constexpr char kStudioEntryName[] = "veltrano_studio_run";
inline constexpr int kStudioEntryMismatch = -1;

}  // namespace studio

#if defined(VELTRANO_STUDIO_MODULE) && !defined(_WIN32)
#define VELTRANO_STUDIO_ENTRY __attribute__((visibility("default")))
#elif defined(VELTRANO_STUDIO_MODULE)
#define VELTRANO_STUDIO_ENTRY __declspec(dllexport)
#else
#define VELTRANO_STUDIO_ENTRY
#endif

extern "C" VELTRANO_STUDIO_ENTRY int veltrano_studio_run(const studio::StudioOptions* options,
                                                         size_t optionsSize);
