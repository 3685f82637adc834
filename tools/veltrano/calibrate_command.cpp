// veltrano calibrate: the calibration of a sensor from its own flat exposures, as a service
// engineer runs it when a sensor is installed or replaced, and (--virtual) the virtual sensor's
// own calibration files.
#include <atomic>
#include <cstdio>
#include <filesystem>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "commands.h"
#include "host_system.h"
#include "platform/interrupt.h"
#include "png_io.h"
#include "preview.h"
#include "veltrano/calibration_builder.h"

namespace vcli {
namespace fs = std::filesystem;

namespace {

// Doses of the virtual sensor's levels, as fractions of its configured dose: the same as in the
// four-frame calibration it writes itself.
constexpr double kVirtualDoses[4] = {0.25, 0.5, 1.0, 1.5};
constexpr uint32_t kPanelGap = 12;

// Set by Ctrl-C, read by the calibration's watcher thread: a lock-free atomic serves both.
std::atomic<bool> g_cancel{false};
static_assert(std::atomic<bool>::is_always_lock_free, "the signal handler needs a lock-free flag");
void OnInterrupt(int) { g_cancel.store(true); }

// Ctrl-C cancels the run while the handler is installed; at a prompt the ordinary Ctrl-C ends
// the program, which leaves the previous calibration in place just the same.
class InterruptGuard {
public:
    InterruptGuard() : previous_(veltrano::platform::SetInterruptHandler(OnInterrupt)) {}
    ~InterruptGuard() { veltrano::platform::SetInterruptHandler(previous_); }
    InterruptGuard(const InterruptGuard&) = delete;
    InterruptGuard& operator=(const InterruptGuard&) = delete;

private:
    veltrano::platform::InterruptHandler previous_;
};

// Asks the operator to set the source for a level; false when the operator stops.
bool AskOperator(int level, int levels, int exposures) {
    const char* which = levels == 1  ? "the dose of an ordinary exposure"
                        : level == 0 ? "a low dose"
                                     : "a higher dose than the level before";
    std::fprintf(stderr,
                 "\nLevel %d of %d: set the X-ray source to %s, with nothing between source and "
                 "sensor,\nthen press Enter and release %d exposures one after another "
                 "(q and Enter stops): ",
                 level + 1, levels, which, exposures);
    std::fflush(stderr);
    veltrano::platform::SetInterruptHandler(veltrano::platform::DefaultInterrupt());
    std::string answer;
    const bool read = static_cast<bool>(std::getline(std::cin, answer));
    veltrano::platform::SetInterruptHandler(OnInterrupt);
    return read && answer != "q" && answer != "Q";
}

std::string Percent(double fraction) {
    char text[32];
    std::snprintf(text, sizeof(text), "%.2f %%", 100.0 * fraction);
    return text;
}

// The report image: the check exposure as taken, the same corrected with the new files (both
// windowed to the raw one's range, so that the correction shows as the pattern disappearing),
// and the defect map (defects white, the cut corners dark grey).
bool WriteReport(const std::string& path, const veltrano::CalibrationResult& result,
                 std::string& error) {
    const Image16 raw = ToImage16(result.rawFlat);
    const Image16 corrected = ToImage16(result.correctedFlat);
    const uint32_t w = raw.width, h = raw.height;
    const int cut = result.header.cornerCut;
    auto isCut = [&](uint32_t x, uint32_t y) {
        return static_cast<long long>(y) + x <= cut ||
               static_cast<long long>(x) - y >= static_cast<long long>(w) - cut;
    };
    Image16 active;
    for (uint32_t y = 0; y < h; ++y) {
        for (uint32_t x = 0; x < w; ++x) {
            if (!isCut(x, y)) active.pixels.push_back(raw.pixels[static_cast<size_t>(y) * w + x]);
        }
    }
    active.width = static_cast<uint32_t>(active.pixels.size());
    active.height = 1;
    const std::vector<uint8_t> display = DisplayTable(FindDisplayWindow(active), false);
    const uint32_t width = 3 * w + 2 * kPanelGap;
    std::vector<uint8_t> pixels(static_cast<size_t>(width) * h, 0);
    for (uint32_t y = 0; y < h; ++y) {
        uint8_t* row = pixels.data() + static_cast<size_t>(y) * width;
        for (uint32_t x = 0; x < w; ++x) {
            const size_t i = static_cast<size_t>(y) * w + x;
            row[x] = display[raw.pixels[i]];
            row[w + kPanelGap + x] = display[corrected.pixels[i]];
            row[2 * (w + kPanelGap) + x] = isCut(x, y)                        ? 40
                                           : result.defectMap.data[i] != 0.0f ? 255
                                                                              : 0;
        }
    }
    return WritePreview(path, width, h, pixels, error);
}

void PrintReport(const veltrano::CalibrationResult& result, const veltrano::CalibrationHeader& h,
                 const std::string& reportLine) {
    std::printf("calibration of sensor %s (size %d: %u x %u pixels)\n", h.serialNumber.c_str(),
                h.sensorSize, h.width, h.height);
    std::printf("  %u level(s) of %u exposures, levels", h.frames, h.exposures);
    for (uint32_t l = 0; l < h.frames && l < 4; ++l) std::printf(" %u", h.levels[l]);
    std::printf("\n  gain file:    %s\n  defect file:  %s\n", result.gainPath.c_str(),
                result.defectPath.c_str());
    if (result.gainBackup.empty() && result.defectBackup.empty()) {
        std::printf("  previous:     none\n");
    } else {
        std::printf("  previous:     %s\n                %s\n", result.gainBackup.c_str(),
                    result.defectBackup.c_str());
    }
    const veltrano::DefectCounts& d = h.defects;
    const double pixels = static_cast<double>(h.width) * h.height;
    std::printf("defective pixels: %u (%s of the sensor)\n", d.total,
                Percent(d.total / pixels).c_str());
    std::printf("  dead                     %u\n", d.dead);
    std::printf("  hot                      %u\n", d.hot);
    std::printf("  not following the dose   %u\n", d.unresponsive);
    std::printf("  noisy                    %u\n", d.noisy);
    std::printf("  in defective columns     %u (%u column%s)\n", d.columnPixels, d.columns,
                d.columns == 1 ? "" : "s");
    std::printf("  in defective rows        %u (%u row%s)\n", d.rowPixels, d.rows,
                d.rows == 1 ? "" : "s");
    std::printf("  in clusters              %u (%u cluster%s)\n", d.clusterPixels, d.clusters,
                d.clusters == 1 ? "" : "s");
    std::printf("flat-field variation of the check exposure: %s raw, %s corrected\n",
                Percent(h.cvBefore).c_str(), Percent(h.cvAfter).c_str());
    std::printf("%s\n", reportLine.c_str());
}

}  // namespace

int RunCalibrate(const CalibrateOptions& options) {
    if (options.virtualSensor) {
        return RunVirtualCalibrate(options);
    }
    const std::string& workDir = options.workDir;
    veltrano::CalibrationOptions settings;
    settings.levels = options.levels;
    settings.exposuresPerLevel = options.exposures;
    std::error_code ec;
    if (!fs::is_directory(workDir, ec)) {
        return Fail(workDir, "is not a folder");
    }
    const std::string reportPath = (fs::path(workDir) / "calibration-report.png").string();

    // The virtual sensor has its source set by the program; a real one by the operator.
    const SetFlatDoseFn virtualSource = FindVirtualSensorSource();
    const bool yes = options.yes;
    veltrano::CalibrationCallbacks callbacks;
    callbacks.cancel = &g_cancel;
    callbacks.prepareLevel = [&](int level, int levels) {
        if (virtualSource != nullptr) {
            const double dose = levels == 1 ? 1.0 : kVirtualDoses[level];
            std::fprintf(stderr, "calibrate: level %d of %d: virtual source at %.2f of its dose\n",
                         level + 1, levels, dose);
            return virtualSource(dose) == 0;
        }
        if (yes) {
            std::fprintf(stderr, "calibrate: level %d of %d\n", level + 1, levels);
            return true;
        }
        return AskOperator(level, levels, settings.exposuresPerLevel);
    };
    callbacks.progress = [](const veltrano::CalibrationProgress& p) {
        std::fprintf(stderr, "calibrate: [%3d%%] %s\n", p.percent, p.text.c_str());
    };

    veltrano::CalibrationResult result;
    int code = 0;
    {
        // The library's console lines go to a log in the work folder unless asked for.
        std::unique_ptr<StdoutToFile> log;
        if (!options.verbose) {
            log = std::make_unique<StdoutToFile>((fs::path(workDir) / "veltrano.log").string());
        }
        g_cancel.store(false);
        InterruptGuard interrupts;
        code = veltrano::RunCalibration(workDir.c_str(), settings, callbacks, result);
        if (virtualSource != nullptr) {
            virtualSource(-1.0);
        }
    }
    if (code != veltrano::kCalibrationDone) {
        return Fail(workDir, result.message);
    }

    // The report reads the header back from the file now in place.
    veltrano::CalibrationHeader header;
    if (veltrano::ReadCalibrationHeader(result.gainPath.c_str(), header) != 1) {
        return Fail(result.gainPath, "was written but its header cannot be read back");
    }
    std::string reportLine = "report image: " + reportPath;
    std::string error;
    if (!PngSupported()) {
        reportLine = "report image: not written (" + std::string(kNoPngSupport) + ")";
    } else if (!WriteReport(reportPath, result, error)) {
        reportLine = "report image: " + reportPath + " could not be written: " + error;
    }
    PrintReport(result, header, reportLine);
    return kExitDone;
}

}  // namespace vcli
