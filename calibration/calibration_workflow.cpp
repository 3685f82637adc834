// RunCalibration: the calibration of a connected sensor, from the first exposure to the files in
// place. Raw frames come through the detector's own acquisition under a neutral calibration;
// the new files are checked with the detector's own loader and corrections before they
// replace anything.
#include <atomic>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <memory>
#include <new>
#include <thread>

#include "calibration/calibration_internal.h"
#include "driver_interface/sensor_sizes.h"
#include "platform/system.h"
#include "veltrano/calibration_builder.h"
#include "veltrano/detector.h"

namespace veltrano {
namespace {

namespace fs = std::filesystem;
using calibration::FlatStatistics;

// The constant of the neutral gain file: any positive value makes every gain mean / value = 1.
constexpr uint16_t kNeutralValue = 1000;
constexpr int kMaxExposures = 64;
constexpr uint32_t kWatchMs = 20;

std::string Format(const char* format, double a, double b = 0.0, double c = 0.0) {
    char text[256];
    std::snprintf(text, sizeof(text), format, a, b, c);
    return text;
}

bool LimitsUsable(const FlatCheckLimits& l) {
    auto positive = [](float v) { return std::isfinite(v) && v > 0.0f; };
    return positive(l.saturationLevel) && std::isfinite(l.maxSaturatedFraction) &&
           l.maxSaturatedFraction >= 0.0f && std::isfinite(l.minSignal) && l.minSignal >= 0.0f &&
           positive(l.maxNonUniformity) && positive(l.maxDoseChange) &&
           std::isfinite(l.minLevelStep) && l.minLevelStep >= 0.0f && positive(l.maxCorrectedCv);
}

// The neutral calibration of the scratch folder: one gain frame of a constant value (every gain
// exactly 1.0, so the gain correction multiplies by 1) and a defect map without defects (the
// repair changes nothing). AcqImageEx then hands out the driver's frame as it came.
bool WriteNeutralCalibration(const std::string& folder, int width, int height) {
    CalibrationHeader header;
    header.width = static_cast<uint32_t>(width);
    header.height = static_cast<uint32_t>(height);
    header.frames = 1;
    header.levels[0] = kNeutralValue;
    const size_t pixels = static_cast<size_t>(width) * static_cast<size_t>(height);
    std::vector<uint8_t> gain(pixels * 2);
    for (size_t i = 0; i < pixels; ++i) {
        gain[2 * i] = static_cast<uint8_t>(kNeutralValue & 0xFF);
        gain[2 * i + 1] = static_cast<uint8_t>(kNeutralValue >> 8);
    }
    header.kind = CalibrationHeader::kGainFile;
    if (!calibration::WriteWholeFile(folder + "/neutral.gn", calibration::EncodeHeader(header),
                                     gain)) {
        return false;
    }
    header.kind = CalibrationHeader::kDefectFile;
    return calibration::WriteWholeFile(folder + "/neutral.dft", calibration::EncodeHeader(header),
                                       std::vector<uint8_t>(pixels, 0));
}

// The detector object of a run, disconnected and released however the run ends.
struct RunDetector {
    explicit RunDetector(const std::string& scratch) : detector(scratch.c_str()) {}
    ~RunDetector() {
        if (connected) detector.Disconnect();
        detector.Deinit();
    }
    CVeltrano detector;
    bool connected = false;
};

// Removes the scratch folder however the run ends (after the detector, declared later, is gone).
struct ScratchFolder {
    explicit ScratchFolder(std::string p) : path(std::move(p)) {}
    ~ScratchFolder() {
        std::error_code ignored;
        fs::remove_all(path, ignored);
    }
    std::string path;
};

// What a run keeps of the builder once the exposures are analysed: the files' contents.
struct NewFiles {
    std::vector<std::vector<uint16_t>> frames;
    std::vector<uint8_t> defects;
    int write(const std::string& gainPath, const std::string& defectPath,
              const CalibrationHeader& header) const {
        std::vector<const uint16_t*> pointers;
        for (const std::vector<uint16_t>& frame : frames) pointers.push_back(frame.data());
        return calibration::WriteCalibrationFiles(gainPath.c_str(), defectPath.c_str(), header,
                                                  pointers, defects.data(), defects.size());
    }
};

class Run {
public:
    Run(const std::string& workDir, const CalibrationOptions& options,
        const CalibrationCallbacks& callbacks, CalibrationResult& result)
        : workDir_(workDir), options_(options), callbacks_(callbacks), result_(result) {}

    int execute();

private:
    int fail(int code, const std::string& message) {
        result_.message = message;
        return code;
    }
    bool cancelled() const { return callbacks_.cancel != nullptr && callbacks_.cancel->load(); }
    void report(int level, int exposure, const std::string& text, int percent = -1);
    // One raw frame; false with the result's code and message when none came.
    bool expose(CVeltrano& detector, imgmat& frame, int& code);
    // The checks of one exposure; empty when it is a usable flat.
    std::string check(const FlatStatistics& s, const FlatStatistics* previous,
                      const FlatStatistics* previousLevel, const std::string& which) const;
    int verifyAndCommit(CVeltrano& detector, const NewFiles& files, const imgmat& check,
                        const std::string& scratchFolder);

    const std::string workDir_;
    const CalibrationOptions& options_;
    const CalibrationCallbacks& callbacks_;
    CalibrationResult& result_;
    int width_ = 0;
    int height_ = 0;
    int cut_ = 0;
    int taken_ = 0;
};

void Run::report(int level, int exposure, const std::string& text, int percent) {
    if (!callbacks_.progress) return;
    CalibrationProgress p;
    p.level = level;
    p.levels = options_.levels;
    p.exposure = exposure;
    p.exposures = options_.exposuresPerLevel;
    const int total = options_.levels * options_.exposuresPerLevel + 1;
    p.percent = percent >= 0 ? percent : 90 * taken_ / total;
    p.text = text;
    callbacks_.progress(p);
}

bool Run::expose(CVeltrano& detector, imgmat& frame, int& code) {
    // The hand-shake wants both back at 0; a stop left from an earlier exposure is cleared.
    detector.SetEndSign(0);
    detector.SetProgressBar(0);
    detector.ResetUserStop();
    std::atomic<bool> done{false};
    std::thread watcher;
    if (callbacks_.cancel != nullptr) {
        // The acquisition blocks this thread until the image arrives: a cancel must stop it.
        watcher = std::thread([&] {
            while (!done.load()) {
                if (callbacks_.cancel->load()) {
                    detector.StopAcq();
                    return;
                }
                platform::SleepMs(kWatchMs);
            }
        });
    }
    code = detector.AcqImageEx(frame, options_.delayTime, options_.triggerMode,
                               options_.triggerThreshold);
    done.store(true);
    if (watcher.joinable()) watcher.join();
    return detector.GetEndSign() == 1 && frame.data != nullptr &&
           frame.width == static_cast<unsigned long long>(width_) &&
           frame.height == static_cast<unsigned long long>(height_);
}

std::string Run::check(const FlatStatistics& s, const FlatStatistics* previous,
                       const FlatStatistics* previousLevel, const std::string& which) const {
    const FlatCheckLimits& l = options_.checks;
    if (s.saturatedFraction > l.maxSaturatedFraction) {
        return which +
               Format(" is saturated: %.2f %% of the pixels read %.0f or more; lower the dose",
                      100.0 * s.saturatedFraction, l.saturationLevel);
    }
    if (s.median < l.minSignal) {
        return which + Format(" is too dark: median %.0f, at least %.0f needed; raise the dose",
                              s.median, l.minSignal);
    }
    const double spread = s.median > 0 ? 0.5 * (s.p84 - s.p16) / s.median : 0.0;
    if (spread > l.maxNonUniformity) {
        return which + Format(
                           " is not a uniform flat field: spread %.1f %% of the median, at most "
                           "%.1f %%; clear the beam and centre the source on the sensor",
                           100.0 * spread, 100.0 * l.maxNonUniformity);
    }
    if (previous != nullptr && previous->mean > 0.0) {
        const double change = s.mean / previous->mean - 1.0;
        if (std::fabs(change) > l.maxDoseChange) {
            return which + Format(
                               " does not match the exposure before it: mean %.0f against %.0f "
                               "(%+.1f %%); the dose changed",
                               s.mean, previous->mean, 100.0 * change);
        }
    }
    if (previousLevel != nullptr && s.mean < (1.0 + l.minLevelStep) * previousLevel->mean) {
        return which + Format(
                           " is not bright enough for a new level: mean %.0f against %.0f for "
                           "the level before, at least %.0f %% more needed; raise the dose",
                           s.mean, previousLevel->mean, 100.0 * l.minLevelStep);
    }
    return std::string();
}

int Run::execute() {
    if (options_.levels != 1 && options_.levels != 4) {
        return fail(kCalibrationBadArguments, "the number of levels must be 1 or 4");
    }
    if (options_.exposuresPerLevel < 2 || options_.exposuresPerLevel > kMaxExposures) {
        return fail(kCalibrationBadArguments, "the number of exposures per level must be 2 to 64");
    }
    if (!calibration::ThresholdsUsable(options_.thresholds) || !LimitsUsable(options_.checks)) {
        return fail(kCalibrationBadArguments, "a defect threshold or check limit is out of range");
    }
    std::error_code ec;
    if (!fs::is_directory(workDir_, ec)) {
        return fail(kCalibrationBadArguments,
                    "the work directory " + workDir_ + " is not a folder");
    }
    std::string recovery;
    if (RecoverCalibrationFolder(workDir_.c_str(), recovery) < 0) {
        return fail(kCalibrationWriteFailed,
                    "an interrupted calibration could not be undone: " + recovery);
    }
    if (!recovery.empty()) {
        report(0, 0, recovery, 0);
    }

    const std::string scratch = calibration::ScratchFolderOf(workDir_);
    ScratchFolder scratchGuard(scratch);
    const std::string scratchCalibration = calibration::CalibrationFolderOf(scratch);
    fs::create_directories(scratchCalibration, ec);
    if (!fs::is_directory(scratchCalibration, ec)) {
        return fail(kCalibrationWriteFailed, "the scratch folder " + scratch + " cannot be made");
    }

    // The detector's calibration folder is the scratch folder's; the driver gets the real work
    // directory, where it keeps its own configuration.
    RunDetector run(scratch);
    CVeltrano& detector = run.detector;
    report(0, 0, "opening the sensor", 0);
    const int init = detector.InitializeByPath(workDir_.c_str());
    if (init != 0) {
        return fail(kCalibrationNoSensor,
                    "the driver library could not be loaded or started (code " +
                        std::to_string(init) + ")");
    }
    const int connected = detector.Connect();
    if (connected != 0) {
        return fail(kCalibrationNoSensor,
                    "the sensor could not be connected (code " + std::to_string(connected) + ")");
    }
    run.connected = true;
    const fpdsys::SensorSizeRow* row = fpdsys::FindSensorRow(detector.GetSensorSize());
    if (row == nullptr) {
        return fail(kCalibrationNoSensor, "the sensor reports a size that is not supported");
    }
    width_ = row->width;
    height_ = row->height;
    cut_ = row->cornerCut;
    if (!WriteNeutralCalibration(scratchCalibration, width_, height_)) {
        return fail(kCalibrationWriteFailed,
                    "the scratch folder " + scratch + " cannot be written");
    }

    auto made = std::make_unique<CalibrationBuilder>(width_, height_, cut_, options_.levels);
    CalibrationBuilder& builder = *made;
    FlatStatistics lastOfLevel;
    FlatStatistics levelBefore;
    imgmat frame;
    for (int level = 0; level < options_.levels; ++level) {
        if (cancelled()) return fail(kCalibrationCancelled, "cancelled; nothing was changed");
        report(level, 0,
               "level " + std::to_string(level + 1) + " of " + std::to_string(options_.levels));
        if (callbacks_.prepareLevel && !callbacks_.prepareLevel(level, options_.levels)) {
            return fail(kCalibrationCancelled, "cancelled; nothing was changed");
        }
        for (int e = 0; e < options_.exposuresPerLevel; ++e) {
            const std::string which =
                "exposure " + std::to_string(e + 1) + " of level " + std::to_string(level + 1);
            if (cancelled()) return fail(kCalibrationCancelled, "cancelled; nothing was changed");
            report(level, e, which + ": waiting for the exposure");
            int code = 0;
            const bool delivered = expose(detector, frame, code);
            if (cancelled()) return fail(kCalibrationCancelled, "cancelled; nothing was changed");
            if (!delivered) {
                return fail(kCalibrationExposureFailed,
                            which + " delivered no image (code " + std::to_string(code) + ")");
            }
            const FlatStatistics s = calibration::MeasureFlat(frame.data, width_, height_, cut_,
                                                              options_.checks.saturationLevel);
            const std::string problem = check(s, e > 0 ? &lastOfLevel : nullptr,
                                              e == 0 && level > 0 ? &levelBefore : nullptr, which);
            if (!problem.empty()) {
                return fail(kCalibrationRefused, problem + "; nothing was changed");
            }
            if (builder.AddExposure(level, frame.data) != 1) {
                return fail(kCalibrationAnalysisFailed, "out of memory for the exposures");
            }
            ++taken_;
            lastOfLevel = s;
            report(level, e + 1, which + Format(": accepted, mean %.0f", s.mean));
        }
        levelBefore = lastOfLevel;
    }

    // One more exposure at the last dose, taken after the calibration data: the new files are
    // judged on a frame that did not go into them.
    if (cancelled()) return fail(kCalibrationCancelled, "cancelled; nothing was changed");
    report(options_.levels, 0, "check exposure: waiting for the exposure");
    imgmat checkFrame;
    int code = 0;
    const bool delivered = expose(detector, checkFrame, code);
    if (cancelled()) return fail(kCalibrationCancelled, "cancelled; nothing was changed");
    if (!delivered) {
        return fail(kCalibrationExposureFailed,
                    "the check exposure delivered no image (code " + std::to_string(code) + ")");
    }
    const FlatStatistics s = calibration::MeasureFlat(checkFrame.data, width_, height_, cut_,
                                                      options_.checks.saturationLevel);
    const std::string problem = check(s, &lastOfLevel, nullptr, "the check exposure");
    if (!problem.empty()) return fail(kCalibrationRefused, problem + "; nothing was changed");
    ++taken_;

    frame.clearData();  // the last exposure is in the sums

    if (cancelled()) return fail(kCalibrationCancelled, "cancelled; nothing was changed");
    report(options_.levels, 0, "finding the defective pixels", 91);
    const int analysed = builder.Analyse(options_.thresholds);
    if (analysed == -3) {
        return fail(kCalibrationRefused,
                    "the levels cannot be told apart by their brightest pixels; make each level's "
                    "dose clearly higher than the last; nothing was changed");
    }
    if (analysed != 1) {
        return fail(kCalibrationAnalysisFailed,
                    "the exposures could not be analysed (code " + std::to_string(analysed) + ")");
    }
    // Only the files' contents go on from here. They are copied out and the builder, whose
    // sums and level maps are several times their size, is released before the detector loads
    // the new files to try them.
    builder.DescribeIn(result_.header);
    NewFiles files;
    const size_t pixels = static_cast<size_t>(width_) * static_cast<size_t>(height_);
    files.frames.resize(static_cast<size_t>(options_.levels));
    for (int l = 0; l < options_.levels; ++l) {
        files.frames[static_cast<size_t>(l)].assign(builder.GainFrame(l),
                                                    builder.GainFrame(l) + pixels);
    }
    files.defects.assign(builder.DefectMap(), builder.DefectMap() + pixels);
    made.reset();
    return verifyAndCommit(detector, files, checkFrame, scratchCalibration);
}

int Run::verifyAndCommit(CVeltrano& detector, const NewFiles& files, const imgmat& check,
                         const std::string& scratchFolder) {
    CalibrationHeader& header = result_.header;
    header.sensorSize = detector.GetSensorSize();
    header.serialNumber = detector.GetDectectorSerialNum();
    header.created = static_cast<int64_t>(std::time(nullptr));

    // The new files replace the neutral ones in the scratch folder, and the detector's own loader
    // and corrections apply them to the check exposure.
    report(options_.levels, 0, "checking the new calibration", 94);
    const std::string gain = scratchFolder + "/neutral.gn";
    const std::string defects = scratchFolder + "/neutral.dft";
    imgmat map;
    if (files.write(gain, defects, header) != 1 || detector.GetAndCaliFile_Gain() != 0 ||
        map.readRawFile(defects.c_str(), static_cast<unsigned long long>(width_),
                        static_cast<unsigned long long>(height_), CalibrationHeader::kBytes,
                        1) != 1) {
        return fail(kCalibrationWriteFailed,
                    "the new calibration could not be tried in " + scratchFolder);
    }
    result_.rawFlat = check;
    result_.correctedFlat = check;
    detector.DoGainCorrection(result_.correctedFlat);
    detector.DoFixBadPixel(result_.correctedFlat, map);
    result_.defectMap = map;
    header.cvBefore =
        static_cast<float>(calibration::CoefficientOfVariation(check.data, width_, height_, cut_));
    header.cvAfter = static_cast<float>(
        calibration::CoefficientOfVariation(result_.correctedFlat.data, width_, height_, cut_));
    if (!(header.cvAfter <= options_.checks.maxCorrectedCv)) {
        return fail(
            kCalibrationRefused,
            Format("the new calibration leaves the check exposure uneven: variation %.2f %%, "
                   "at most %.2f %%; nothing was changed",
                   100.0 * header.cvAfter, 100.0 * options_.checks.maxCorrectedCv));
    }

    // The last moment a cancel is heeded: once the files are being replaced, that finishes.
    if (cancelled()) return fail(kCalibrationCancelled, "cancelled; nothing was changed");
    report(options_.levels, 0, "replacing the calibration", 97);
    calibration::Replaced replaced;
    std::string message;
    const bool done = calibration::ReplaceCalibration(
        workDir_,
        [&](const std::string& g, const std::string& d) { return files.write(g, d, header) == 1; },
        replaced, message);
    if (!done) {
        return fail(kCalibrationWriteFailed, message);
    }
    result_.gainPath = replaced.gain;
    result_.defectPath = replaced.defect;
    result_.gainBackup = replaced.gainBackup;
    result_.defectBackup = replaced.defectBackup;
    if (ReadCalibrationHeader(replaced.gain.c_str(), header) != 1) {
        return fail(kCalibrationWriteFailed,
                    "the new gain file " + replaced.gain + " cannot be read back");
    }
    report(options_.levels, 0, "done", 100);
    result_.message = "calibrated: " + std::to_string(options_.levels) + " level(s) of " +
                      std::to_string(options_.exposuresPerLevel) + " exposures, " +
                      std::to_string(header.defects.total) + " defective pixels" +
                      Format(", variation %.2f %% before and %.2f %% after correction",
                             100.0 * header.cvBefore, 100.0 * header.cvAfter);
    return kCalibrationDone;
}

}  // namespace

int RunCalibration(const char* workDir, const CalibrationOptions& options,
                   const CalibrationCallbacks& callbacks, CalibrationResult& result) {
    result = CalibrationResult();
    if (workDir == nullptr || *workDir == '\0') {
        result.message = "no work directory";
        return kCalibrationBadArguments;
    }
    try {
        return Run(workDir, options, callbacks, result).execute();
    } catch (const std::bad_alloc&) {
        result.message = "out of memory; nothing was changed";
        return kCalibrationAnalysisFailed;
    } catch (const std::exception& e) {
        // A thread that could not be started, a file system error: nothing left the scratch.
        result.message = std::string("failed: ") + e.what() + "; nothing was changed";
        return kCalibrationAnalysisFailed;
    }
}

}  // namespace veltrano
