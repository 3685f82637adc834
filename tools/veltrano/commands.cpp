// The subcommands process, acquire, calibrate and info.
#include "commands.h"

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <memory>

#include "acquisition.h"
#include "host_system.h"
#include "options.h"
#include "png_io.h"
#include "usage.h"
#include "veltrano/detector.h"
#include "veltrano/imgmat.h"

namespace vcli {
namespace fs = std::filesystem;

namespace {

// The work directory must exist: the driver creates nothing there on its own.
bool CheckWorkDir(const std::string& dir) {
    std::error_code ec;
    return fs::is_directory(dir, ec);
}

std::string LogPathIn(const std::string& dir) { return (fs::path(dir) / "veltrano.log").string(); }

}  // namespace

int ReportExposure(const std::string& subject, const ExposureResult& exposure) {
    const std::string code = " (code " + std::to_string(exposure.code) + ")";
    switch (exposure.outcome) {
        case ExposureOutcome::Delivered:
            return kExitDone;
        case ExposureOutcome::DeliveredWithWarning:
            std::fprintf(stderr, "veltrano: warning: %s%s; the image was taken\n",
                         DescribeAcquisitionCode(exposure.code).c_str(), code.c_str());
            return kExitDone;
        case ExposureOutcome::Stopped:
            std::fprintf(stderr, "veltrano: %s: stopped: no image was taken%s\n", subject.c_str(),
                         code.c_str());
            return kExitStopped;
        case ExposureOutcome::Failed:
            break;
    }
    return Fail(subject, "no image: " + DescribeAcquisitionCode(exposure.code) + code);
}

int RunProcess(int argc, char** argv) {
    const Options options(argc, argv, 2, {"chain", "in", "out", "width", "height", "type", "header"});
    if (options.Help()) {
        std::fputs(kProcessUsage, stdout);
        return kExitDone;
    }
    const std::string chain = options.Required("chain");
    const std::string in = options.Required("in");
    const std::string out = options.Required("out");
    const bool raw = options.Has("width") || options.Has("height") || options.Has("type") ||
                     options.Has("header");
    RawLayout layout;
    if (raw) {
        layout.width = static_cast<uint64_t>(options.Integer("width", 0, 1, 100000));
        layout.height = static_cast<uint64_t>(options.Integer("height", 0, 1, 100000));
        layout.type = static_cast<int>(options.Integer("type", -1, 0, 9));
        layout.headerBytes = static_cast<uint64_t>(options.Integer("header", 0, 0, 1LL << 40));
        if (!options.Has("width") || !options.Has("height") || !options.Has("type")) {
            throw UsageError("a raw input needs --width, --height and --type");
        }
    } else if (!IsPngPath(in)) {
        throw UsageError("'" + in + "' is not a .png file: give --width, --height and --type "
                         "to read it as a raw file");
    }

    std::string error;
    if (!CheckInputFile(chain, error)) {
        return Fail(chain, error);
    }
    if (IsPngPath(out) && !PngSupported()) {
        return Fail(out, kNoPngSupport);
    }
    Image16 image;
    const bool read = raw ? ReadRawImage(in, layout, image, error) : ReadPngImage(in, image, error);
    if (!read) {
        return Fail(in, error);
    }
    // The output is checked, and its temporary file made, before the chain runs.
    PendingOutput output;
    if (!output.Open(out, error)) {
        return Fail(out, error);
    }
    Image16 result;
    if (!RunChain(chain, image, result, error)) {
        return Fail(chain, error);
    }
    if (!WriteImage(output, out, result, error)) {
        return Fail(out, error);
    }
    std::printf("wrote %s (%u x %u)\n", out.c_str(), result.width, result.height);
    return kExitDone;
}

int RunAcquire(int argc, char** argv) {
    const Options options(argc, argv, 2,
                          {"workdir", "delay", "trigger-mode", "threshold", "chain", "out"},
                          {"verbose"});
    if (options.Help()) {
        std::fputs(kAcquireUsage, stdout);
        return kExitDone;
    }
    const std::string workDir = options.Required("workdir");
    const std::string out = options.Required("out");
    ExposureSettings settings;
    settings.delayMs = static_cast<int>(options.Integer("delay", 0, 0, 600000));
    settings.triggerMode = static_cast<int>(options.Integer("trigger-mode", 6, 6, 7));
    settings.threshold = static_cast<int>(options.Integer("threshold", settings.threshold, 0,
                                                          1000000));
    const std::string chain = options.Text("chain", "");
    if (!CheckWorkDir(workDir)) {
        return Fail(workDir, "is not a folder");
    }
    std::string error;
    if (!chain.empty() && !CheckChain(chain, error)) {
        return Fail(chain, error);
    }
    if (IsPngPath(out) && !PngSupported()) {
        return Fail(out, kNoPngSupport);  // before the exposure, not after it
    }
    const std::string logPath = LogPathIn(workDir);
    if (!options.Has("verbose") && !CheckWritableFile(logPath, error)) {
        return Fail(logPath, error);
    }
    PendingOutput output;
    if (!output.Open(out, error)) {
        return Fail(out, error);
    }

    imgmat frame;
    ExposureResult exposure;
    {
        // The library's console lines go to a log in the work folder unless asked for.
        std::unique_ptr<StdoutToFile> log;
        if (!options.Has("verbose")) {
            log = std::make_unique<StdoutToFile>(logPath);
        }
        CVeltrano detector(workDir.c_str());
        if (!OpenDetector(detector, error)) {
            return Fail(workDir, error);
        }
        exposure = TakeExposure(detector, settings, frame);
        CloseDetector(detector);
    }
    if (const int exit = ReportExposure(workDir, exposure); exit != kExitDone) {
        return exit;
    }
    Image16 image = ToImage16(frame);
    if (!chain.empty()) {
        Image16 processed;
        if (!RunChain(chain, image, processed, error)) {
            return Fail(chain, error);
        }
        image.pixels.swap(processed.pixels);
    }
    if (!WriteImage(output, out, image, error)) {
        return Fail(out, error);
    }
    std::printf("wrote %s (%u x %u)\n", out.c_str(), image.width, image.height);
    return kExitDone;
}

int RunVirtualCalibrate(int argc, char** argv) {
    const Options options(argc, argv, 2, {"workdir", "frames"});
    if (options.Help()) {
        std::fputs(kCalibrateUsage, stdout);
        return kExitDone;
    }
    const std::string workDir = options.Required("workdir");
    const int frames = static_cast<int>(options.Integer("frames", 1, 1, 4));
    if (frames != 1 && frames != 4) {
        throw UsageError("option --frames needs 1 or 4");
    }
    std::error_code ec;
    fs::create_directories(workDir, ec);
    if (!CheckWorkDir(workDir)) {
        return Fail(workDir, "cannot be created");
    }
    std::string error;
    const int result = WriteVirtualSensorCalibration(workDir, frames, error);
    if (result == -1000) {
        return Fail(workDir, error);
    }
    if (result != 0) {
        return Fail(workDir, "the virtual sensor could not write its calibration (code " +
                                 std::to_string(result) + ")");
    }
    std::printf("wrote the %d-frame calibration below %s\n", frames,
                (fs::path(workDir) / "Correct" / "Default").string().c_str());
    return kExitDone;
}

int RunInfo(int argc, char** argv) {
    const Options options(argc, argv, 2, {"workdir"}, {"verbose"});
    if (options.Help()) {
        std::fputs(kInfoUsage, stdout);
        return kExitDone;
    }
    const std::string workDir = options.Required("workdir");
    if (!CheckWorkDir(workDir)) {
        return Fail(workDir, "is not a folder");
    }
    std::string error;
    int state = 0;
    std::string serial, usb;
    int size = -1;
    {
        std::unique_ptr<StdoutToFile> log;
        if (!options.Has("verbose")) {
            log = std::make_unique<StdoutToFile>(LogPathIn(workDir));
        }
        CVeltrano detector(workDir.c_str());
        if (!OpenDetector(detector, error)) {
            return Fail(workDir, error);
        }
        state = static_cast<int>(detector.GetDectectorState());
        serial = detector.GetDectectorSerialNum();
        usb = detector.GetDectectorUSBInfo();
        size = detector.GetSensorSize();
        CloseDetector(detector);
    }
    const char* stateName = state == Enm_Online_Offline   ? "offline"
                            : state == Enm_Online_Online  ? "online"
                            : state == Enm_Online_Standby ? "standby"
                                                          : "unknown";
    std::printf("state:           %d (%s)\n", state, stateName);
    std::printf("serial number:   %s\n", serial.c_str());
    std::printf("USB information: %s\n", usb.c_str());
    switch (size) {
        case 1000: std::printf("sensor size:     1000 (1000 x 1500 pixels)\n"); break;
        case 1500: std::printf("sensor size:     1500 (1200 x 1650 pixels)\n"); break;
        case 2000: std::printf("sensor size:     2000 (1300 x 1800 pixels)\n"); break;
        default: std::printf("sensor size:     %d (unknown)\n", size); break;
    }
    return kExitDone;
}

}  // namespace vcli
