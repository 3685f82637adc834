// veltrano studio: the chain studio (studio/) on a picture from a file or a fresh exposure.
#include <cstdio>
#include <filesystem>
#include <memory>
#include <thread>

#include "acquisition.h"
#include "commands.h"
#include "host_system.h"
#if VELTRANO_STUDIO
#include "platform/dynamic_library.h"
#include "platform/system.h"
#include "studio/studio.h"
#endif

namespace vcli {
namespace fs = std::filesystem;

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

using StudioEntry = decltype(&veltrano_studio_run);

// Loads the studio module: beside the program in a build tree, in the module folder once
// installed. Null after the one line that says what is wrong when it is missing or broken.
StudioEntry LoadStudioModule(veltrano::platform::DynamicLibrary& module, std::string& path) {
    const std::string folder = veltrano::platform::ExecutableFolder();
    const std::string fileName = VELTRANO_STUDIO_MODULE_FILE;
    const std::string installed = folder + VELTRANO_MODULE_DIR_FROM_BIN + "/" + fileName;
    path.clear();
    if (!folder.empty()) {
        for (const std::string& place : {folder + fileName, installed}) {
            std::error_code ec;
            if (fs::exists(place, ec)) {
                path = place;
                break;
            }
        }
    }
    if (path.empty()) {
        Fail("studio", "its module " + fileName + " is missing (looked for " + folder + fileName +
                           " and " + installed + ")");
        return nullptr;
    }
    if (!module.openFile(path)) {
        // The system's reason usually begins with the path already given.
        std::string why = module.error();
        if (why.compare(0, path.size() + 2, path + ": ") == 0) {
            why.erase(0, path.size() + 2);
        }
        Fail(path, "cannot be loaded as the studio module: " + why);
        return nullptr;
    }
    StudioEntry entry = reinterpret_cast<StudioEntry>(module.symbol(studio::kStudioEntryName));
    if (entry == nullptr) {
        Fail(path, std::string("is not the studio module: it has no entry point ") +
                       studio::kStudioEntryName);
    }
    return entry;
}

}  // namespace
#endif

int RunStudioCommand(const StudioCommandOptions& options) {
#if VELTRANO_STUDIO
    veltrano::platform::DynamicLibrary module;
    std::string modulePath;
    const StudioEntry runStudio = LoadStudioModule(module, modulePath);
    if (runStudio == nullptr) {
        return kExitFailure;
    }
    studio::StudioOptions studioOptions;
    studioOptions.port = options.port;
    studioOptions.openBrowser = !options.noBrowser;
    studioOptions.chainPath = options.chain.empty() ? DefaultChainPath() : options.chain;
    std::string error;
    if (fs::exists(studioOptions.chainPath) && !CheckInputFile(studioOptions.chainPath, error)) {
        return Fail(studioOptions.chainPath, error);
    }
    if (!options.image.empty()) {
        const std::string& in = options.image;
        Image16 image;
        const bool read = options.raw ? ReadRawImage(in, options.layout, image, error)
                                      : ReadPngImage(in, image, error);
        if (!read) {
            return Fail(in, error);
        }
        studioOptions.image.width = image.width;
        studioOptions.image.height = image.height;
        studioOptions.image.pixels = std::move(image.pixels);
        studioOptions.imageLabel = in;
    } else {
        const std::string workDir = options.workDir;
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
    const int code = runStudio(&studioOptions, sizeof studioOptions);
    if (code == studio::kStudioEntryMismatch) {
        return Fail(modulePath, "is a studio module from another build of the program");
    }
    return code;
#else
    (void)options;
    return Fail("studio",
                "this build of the program has no studio (it needs cpp-httplib and "
                "nlohmann-json when it is built)");
#endif
}

}  // namespace vcli
