// veltrano studio: the chain studio (studio/) on a picture from a file or a fresh exposure.
#include <cstdio>
#include <filesystem>
#include <memory>
#include <thread>

#include "acquisition.h"
#include "commands.h"
#include "host_system.h"
#include "options.h"
#if VELTRANO_STUDIO
#include "studio/studio.h"
#endif

namespace vcli {
namespace fs = std::filesystem;

extern const char kStudioUsage[] =
    "usage: veltrano studio [--image FILE | --workdir DIR] [--chain FILE] [--port N]\n"
    "                       [--width W --height H --type CODE [--header BYTES]] [--no-browser]\n"
    "\n"
    "Serves a page on 127.0.0.1 on which a post-processing chain is tuned against a picture:\n"
    "steps added, removed and reordered, every value changed with the result shown at once,\n"
    "and the chain file saved. The picture is a 16-bit PNG (or a raw file with its layout, as\n"
    "for 'veltrano process'), or with --workdir a fresh exposure from the sensor of DIR. The\n"
    "page reads and writes chain files only in the folder of FILE (default: the chain shipped\n"
    "with the program). The address is printed, and opened where a desktop is available.\n"
    "\n"
    "  --image FILE   picture to tune on\n"
    "  --workdir DIR  take the picture from the sensor of this work folder instead\n"
    "  --chain FILE   chain file to start from (created on the first save if missing)\n"
    "  --port N       port on 127.0.0.1 (default 8765, or any free one when that is taken)\n"
    "  --no-browser   do not open a browser\n";

#if VELTRANO_STUDIO
namespace {

// One exposure as "veltrano acquire" takes it, its progress passed on to the page.
bool TakeStudioExposure(const std::string& workDir, studio::StudioImage& picture,
                        std::string& error, std::atomic<int>& progress) {
    StdoutToFile log((fs::path(workDir) / "veltrano.log").string());
    CVeltrano detector(workDir.c_str());
    if (!OpenDetector(detector, error)) {
        return false;
    }
    std::atomic<bool> done{false};
    std::thread watcher([&] {
        while (!done.load()) {
            progress.store(detector.GetProgressBar());
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
    });
    imgmat frame;
    const ExposureResult exposure = TakeExposure(detector, ExposureSettings{}, frame);
    done.store(true);
    watcher.join();
    progress.store(detector.GetProgressBar());
    CloseDetector(detector);
    if (exposure.outcome != ExposureOutcome::Delivered &&
        exposure.outcome != ExposureOutcome::DeliveredWithWarning) {
        error = "no image: " + DescribeAcquisitionCode(exposure.code) + " (code " +
                std::to_string(exposure.code) + ")";
        return false;
    }
    Image16 image = ToImage16(frame);
    picture.width = image.width;
    picture.height = image.height;
    picture.pixels = std::move(image.pixels);
    return true;
}

}  // namespace
#endif

int RunStudioCommand(int argc, char** argv) {
    const Options options(argc, argv, 2,
                          {"image", "workdir", "chain", "port", "width", "height", "type", "header"},
                          {"no-browser"});
    if (options.Help()) {
        std::fputs(kStudioUsage, stdout);
        return kExitDone;
    }
#if VELTRANO_STUDIO
    if (options.Has("image") == options.Has("workdir")) {
        throw UsageError("give either --image FILE or --workdir DIR");
    }
    studio::StudioOptions studioOptions;
    studioOptions.port = static_cast<int>(options.Integer("port", 0, 1, 65535));
    studioOptions.openBrowser = !options.Has("no-browser");
    studioOptions.chainPath = options.Text("chain", DefaultChainPath());
    std::string error;
    if (fs::exists(studioOptions.chainPath) && !CheckInputFile(studioOptions.chainPath, error)) {
        return Fail(studioOptions.chainPath, error);
    }
    if (options.Has("image")) {
        const std::string in = options.Required("image");
        Image16 image;
        bool read = false;
        if (options.Has("width") || options.Has("height") || options.Has("type")) {
            RawLayout layout;
            layout.width = static_cast<uint64_t>(options.Integer("width", 0, 1, 100000));
            layout.height = static_cast<uint64_t>(options.Integer("height", 0, 1, 100000));
            layout.type = static_cast<int>(options.Integer("type", -1, 0, 9));
            layout.headerBytes = static_cast<uint64_t>(options.Integer("header", 0, 0, 1LL << 40));
            if (!options.Has("width") || !options.Has("height") || !options.Has("type")) {
                throw UsageError("a raw input needs --width, --height and --type");
            }
            read = ReadRawImage(in, layout, image, error);
        } else if (IsPngPath(in)) {
            read = ReadPngImage(in, image, error);
        } else {
            throw UsageError("'" + in + "' is not a .png file: give --width, --height and --type "
                             "to read it as a raw file");
        }
        if (!read) {
            return Fail(in, error);
        }
        studioOptions.image.width = image.width;
        studioOptions.image.height = image.height;
        studioOptions.image.pixels = std::move(image.pixels);
        studioOptions.imageLabel = in;
    } else {
        const std::string workDir = options.Required("workdir");
        std::error_code ec;
        if (!fs::is_directory(workDir, ec)) {
            return Fail(workDir, "is not a folder");
        }
        studioOptions.imageLabel = "exposure from " + workDir;
        studioOptions.acquire = [workDir](studio::StudioImage& picture, std::string& why,
                                          std::atomic<int>& progress) {
            return TakeStudioExposure(workDir, picture, why, progress);
        };
    }
    return studio::RunStudio(studioOptions);
#else
    return Fail("studio", "this build of the program has no studio (it needs cpp-httplib and "
                          "nlohmann-json when it is built)");
#endif
}

}  // namespace vcli
