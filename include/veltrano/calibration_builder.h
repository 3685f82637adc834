// Calibrating a sensor: gain and defect files made from the sensor's own flat exposures.
//
// A service engineer calibrates a sensor when it is installed or replaced. Flat exposures (nothing
// in the beam) are taken at one dose, or at four doses rising from low to high, several at each
// dose. CalibrationBuilder averages them, finds the defective pixels and writes the gain file and
// the defect file that every acquisition loads from the work directory's Correct/Default folder.
// RunCalibration is the whole workflow on a sensor: it takes the exposures through
// CVeltrano::AcqImageEx, refuses any exposure that is not a usable flat, and replaces the
// sensor's calibration only once everything has succeeded.
//
// Files. Both start with a 1040-byte header (CalibrationHeader; the acquisition skips it). The
// gain file then holds 1 or 4 frames of width x height little-endian unsigned 16-bit values, row
// after row, in increasing dose: each frame is the average of its level's exposures, and its first
// pixel, which lies in a cut corner where the sensor has no pixel, carries the frame's level (the
// bright mean that the acquisition compares with each image to choose a frame). The defect file
// then holds width x height bytes: 0 for a good pixel, else the DefectKind that condemned it.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "veltrano/export.h"
#include "veltrano/imgmat.h"

namespace veltrano {

// Why a pixel is in the defect file. Every non-zero value marks a pixel for repair.
enum DefectKind : uint8_t {
    kDefectNone = 0,
    kDefectDead = 1,          // far below its neighbourhood
    kDefectHot = 2,           // far above its neighbourhood
    kDefectUnresponsive = 3,  // does not follow the dose, or shows no noise at all (stuck)
    kDefectNoisy = 4,         // temporal spread far above its neighbourhood's
    kDefectColumn = 5,        // part of a defective column
    kDefectRow = 6,           // part of a defective row
    kDefectCluster = 7,       // part of a cluster of neighbouring defects
};

// The thresholds of the defect search, with their defaults.
//
// Each pixel is compared with the reference of its neighbourhood: the image is divided into
// blocks of localBlock x localBlock pixels, and the reference is the median of the block means
// over (2 localRadius + 1) x (2 localRadius + 1) blocks around the pixel's block, about 60 x 60
// pixels by default: wide enough that a cluster or a defective column does not pull it along,
// narrow enough to follow the shading of the sensor and the beam. The cut corners are filled by
// mirroring the neighbouring pixels before the blocks are taken, and are never defects.
struct DefectThresholds {
    // Dead: the mean response at some level is below deadFraction x the reference.
    float deadFraction = 0.5f;
    // Hot: the mean response at some level is above hotFraction x the reference.
    float hotFraction = 1.5f;
    // Not following the dose (two or more levels): the rise from the lowest to the highest level
    // differs from the reference's rise by more than this fraction of it.
    float responseTolerance = 0.5f;
    // Noisy: the temporal spread between the exposures of a level, pooled over the levels,
    // is above noisyFactor x the reference spread. Stuck: below frozenFraction x the reference
    // spread (a pixel that shows no noise does not see the radiation). Both need at least six
    // degrees of freedom, levels x (exposures - 1): with fewer, a good pixel's spread scatters too
    // much to be judged, and neither test is made.
    float noisyFactor = 3.0f;
    float frozenFraction = 0.1f;
    // A column or row is defective when more than lineFraction of its pixels are, or when the
    // median of its pixels' response at some level deviates from the reference by more than
    // lineDeviation (a faint line that no single pixel betrays). All its pixels are then marked.
    float lineFraction = 0.25f;
    float lineDeviation = 0.15f;
    // Neighbouring defects (8 neighbours, defective lines left out) of at least clusterMinPixels
    // pixels form a cluster; a pixel next to a cluster whose response deviates from the reference
    // by more than clusterEdgeDeviation at some level joins it.
    int clusterMinPixels = 3;
    float clusterEdgeDeviation = 0.25f;
    int localBlock = 4;
    int localRadius = 7;
};

// Defective pixels by kind (each pixel counted once, under its DefectKind), and the number of
// defective columns, rows and clusters.
struct DefectCounts {
    uint32_t dead = 0;
    uint32_t hot = 0;
    uint32_t unresponsive = 0;
    uint32_t noisy = 0;
    uint32_t columnPixels = 0;
    uint32_t rowPixels = 0;
    uint32_t clusterPixels = 0;
    uint32_t columns = 0;
    uint32_t rows = 0;
    uint32_t clusters = 0;
    uint32_t total = 0;
};

// The 1040-byte header of both files. All numbers little-endian; fields never move, and a later
// format version only adds fields in the space that is zero in version 1:
//   0 magic "VeltranoCalib" and 3 zero bytes   16 format version   20 kind (1 gain, 2 defects)
//   24 header bytes (1040)   28 width   32 height   36 sensor size code   40 corner cut
//   44 serial number (32 bytes, zero-padded)   76 frame count   80 level of each frame (4 x u32)
//   96 dose of each frame (4 x f32)   112 exposures per level   116 creation time (i64)
//   124 thresholds: deadFraction, hotFraction, responseTolerance, noisyFactor, frozenFraction,
//       lineFraction, lineDeviation, clusterEdgeDeviation (8 x f32), clusterMinPixels,
//       localBlock, localRadius (3 x i32)
//   168 defect counts in DefectCounts order (11 x u32)
//   212 coefficient of variation of the check exposure before and after correction (2 x f32)
//   220 .. 1039 zero
struct CalibrationHeader {
    static constexpr uint32_t kFormatVersion = 1;
    static constexpr uint32_t kGainFile = 1;
    static constexpr uint32_t kDefectFile = 2;
    static constexpr uint32_t kBytes = 1040;

    uint32_t version = kFormatVersion;
    uint32_t kind = 0;
    uint32_t width = 0;
    uint32_t height = 0;
    int32_t sensorSize = -1;
    int32_t cornerCut = 0;
    std::string serialNumber;  // at most 31 characters are stored
    uint32_t frames = 0;
    // Level of each frame (the value of its first pixel) and dose (the mean raw signal of its
    // exposures outside the cut corners); unused entries 0.
    uint32_t levels[4] = {0, 0, 0, 0};
    float doses[4] = {0, 0, 0, 0};
    uint32_t exposures = 0;
    int64_t created = 0;  // seconds since 1970-01-01 UTC
    DefectThresholds thresholds;
    DefectCounts defects;
    // Coefficient of variation, outside the cut corners, of the check exposure taken after the
    // last level, raw and corrected with the new files; -1 when not measured.
    float cvBefore = -1.0f;
    float cvAfter = -1.0f;
};

// Reads the header of a gain or defect file written by this library (of this or a later format
// version). Returns 1 done; 0 the file cannot be opened or is shorter than a header; -1 null
// path; -2 not a header of ours (wrong magic text or a version of 0).
VELTRANO_API int ReadCalibrationHeader(const char* path, CalibrationHeader& header);

// The bright mean of a raw frame as the acquisition computes it to choose one of four gain
// frames: the mean of the brightest pixels, taken by whole histogram bins of the values truncated
// to integers (values outside 0..65535 not counted), from the top until at least 5000 pixels are
// counted; 0 for a frame without a pixel in range.
VELTRANO_API double BrightMean(const float* pixels, unsigned long long count);

// Averages the flat exposures of each level, finds the defects and makes and writes the files.
class VELTRANO_API CalibrationBuilder {
public:
    // A sensor of width x height pixels whose two upper corners of side cornerCut have no pixels
    // (a pixel at row r, column c is cut when r + c <= cornerCut or c - r >= width - cornerCut),
    // calibrated at `levels` doses: 1 or 4 (the acquisition reads no other count of frames).
    CalibrationBuilder(int width, int height, int cornerCut, int levels);
    ~CalibrationBuilder();
    CalibrationBuilder(const CalibrationBuilder&) = delete;
    CalibrationBuilder& operator=(const CalibrationBuilder&) = delete;

    // False for dimensions below 1, above 65535 or of more than 2^28 pixels, a corner cut below 0
    // or not below the width, or a level count other than 1 and 4; every call then fails.
    bool IsValid() const;
    int Width() const;
    int Height() const;
    int CornerCut() const;
    int Levels() const;
    // True for a pixel inside the cut corners.
    bool IsCut(int column, int row) const;

    // Adds a raw flat exposure (width x height values) to a level. Levels are taken in order of
    // rising dose: each exposure belongs to the current level or starts the next one. Returns 1
    // done; -1 null pixels; -2 a level out of range or out of order; -3 an invalid builder; -4 no
    // memory for the sums.
    int AddExposure(int level, const float* pixels);
    int Exposures(int level) const;

    // Builds the gain frames and the defect map from the exposures. Returns 1 done; -1 a level
    // without exposures; -2 a threshold out of range (fractions and factors must be positive and
    // finite, deadFraction below 1, hotFraction above 1, clusterMinPixels, localBlock and
    // localRadius at least 1, localRadius at most 2047); -3 the frames' levels do not rise with
    // the dose, so the acquisition could not tell them apart; -4 out of memory. Analysing again
    // with other thresholds is allowed.
    int Analyse(const DefectThresholds& thresholds);
    bool IsAnalysed() const;

    // After Analyse. A level's gain frame (width x height values: the average of its exposures,
    // the reference of its neighbourhood at defective pixels, the level in the first pixel), its
    // level, and its dose (the mean raw signal outside the cut corners); null or 0 before.
    const uint16_t* GainFrame(int level) const;
    uint32_t FrameLevel(int level) const;
    float LevelDose(int level) const;
    // width x height DefectKind values; null before Analyse.
    const uint8_t* DefectMap() const;
    DefectCounts Counts() const;
    const DefectThresholds& Thresholds() const;

    // Fills a header with what this builder knows (size, corner cut, frames, levels, doses,
    // exposures, thresholds, defect counts); the caller adds the rest.
    void DescribeIn(CalibrationHeader& header) const;
    // Writes the gain file and the defect file, each with `header` (its kind set per file).
    // Returns 1 done; 0 a file could not be written completely (what was written of it is
    // removed); -1 null or empty path; -2 not analysed.
    int WriteFiles(const char* gainPath, const char* defectPath,
                   const CalibrationHeader& header) const;

private:
    struct State;
    std::unique_ptr<State> state_;
};

// Limits of the checks that each exposure of a calibration run must pass.
struct FlatCheckLimits {
    // Saturated: more than maxSaturatedFraction of the pixels outside the cut corners read
    // saturationLevel or more.
    float saturationLevel = 65000.0f;
    float maxSaturatedFraction = 0.001f;
    // Too dark: the median outside the cut corners is below minSignal.
    float minSignal = 1000.0f;
    // Not uniform: half the distance between the 16th and the 84th percentile (one standard
    // deviation of a normal spread, not moved by defects) exceeds this fraction of the median.
    float maxNonUniformity = 0.25f;
    // Inconsistent: the mean differs from the mean of the exposure before it in the same level
    // (for the check exposure: the last exposure of the last level) by more than this fraction.
    float maxDoseChange = 0.1f;
    // Each level's mean must exceed the previous level's by at least this fraction of it.
    float minLevelStep = 0.15f;
    // After the last level one more exposure is taken at its dose and corrected with the new
    // files; its coefficient of variation must not exceed this, or nothing is replaced.
    float maxCorrectedCv = 0.03f;
};

struct CalibrationOptions {
    int levels = 4;             // 1 or 4
    int exposuresPerLevel = 8;  // 2 to 64
    // Passed to AcqImageEx with every exposure.
    int delayTime = 0;
    int triggerMode = 6;
    int triggerThreshold = 100;
    DefectThresholds thresholds;
    FlatCheckLimits checks;
};

// Where a calibration run stands, for a progress display.
struct CalibrationProgress {
    int level = 0;  // 0-based level being taken; levels for the check exposure and after
    int levels = 0;
    int exposure = 0;   // exposures of this level accepted so far
    int exposures = 0;  // per level
    int percent = 0;    // of the whole run
    std::string text;   // one line saying what is happening
};

struct CalibrationCallbacks {
    // Called before the exposures of each level (0-based): the moment to set the source. For a
    // real sensor the host asks the operator; for the virtual sensor it sets the dose itself.
    // Returning false cancels the run. The check exposure follows the last level at its dose,
    // without a call. May be empty.
    std::function<bool(int level, int levels)> prepareLevel;
    // Called on the calling thread at each step. May be empty.
    std::function<void(const CalibrationProgress&)> progress;
    // Set by another thread or a signal handler to cancel the run: a pending exposure is stopped
    // (StopAcq) and nothing is written. May be null.
    const std::atomic<bool>* cancel = nullptr;
};

// Results of RunCalibration.
enum CalibrationResultCode {
    kCalibrationDone = 0,
    kCalibrationBadArguments = -1,    // null or empty work directory, options out of range
    kCalibrationNoSensor = -2,        // the driver could not be loaded, or the sensor connected
    kCalibrationExposureFailed = -3,  // AcqImageEx delivered no image
    kCalibrationRefused = -4,         // an exposure failed a check, or the result is not flat
    kCalibrationCancelled = -5,
    kCalibrationAnalysisFailed = -6,
    kCalibrationWriteFailed = -7,  // the files could not be written or put in place
};

struct CalibrationResult {
    // What went wrong, in one line for the operator; after success a one-line summary.
    std::string message;
    // The header written into both files (and read back from the gain file after success).
    CalibrationHeader header;
    // The files in place after success, and the backups of the files they replaced (empty when
    // there were none).
    std::string gainPath;
    std::string defectPath;
    std::string gainBackup;
    std::string defectBackup;
    // The check exposure as taken (raw) and corrected with the new files, and the defect map
    // (DefectKind values), each width x height; empty when the run did not get that far.
    imgmat rawFlat;
    imgmat correctedFlat;
    imgmat defectMap;
};

// Calibrates the sensor of workDir: the driver library is loaded and the sensor connected as
// CVeltrano::Initialize and Connect do with workDir, but the detector object's own calibration
// folder is a private scratch folder, workDir/calibration-scratch, holding a neutral calibration
// (one gain frame of a constant value, which makes every gain exactly 1.0, and an empty defect
// map), so that AcqImageEx delivers each raw frame unchanged. The run then takes, for each level,
// options.exposuresPerLevel exposures and one check exposure after the last level, and builds,
// checks and writes the files. Only when all of that has succeeded are the files in
// workDir/Correct/Default replaced: the new ones are written under temporary names and renamed
// over the old ones, which are kept beside them with ".previous" appended to their names (so
// that the acquisition, which takes the files by their "gn" and "dft" extensions, never finds
// them). A run that fails, is cancelled, or is interrupted by a crash leaves the previous
// calibration as it was; what an interrupted run left behind is cleaned up at the start of the
// next one (RecoverCalibrationFolder). The sensor must not be open in another detector object.
// Returns a CalibrationResultCode; result.message says why in one line.
VELTRANO_API int RunCalibration(const char* workDir, const CalibrationOptions& options,
                                const CalibrationCallbacks& callbacks, CalibrationResult& result);

// Tidies what an interrupted calibration run left in workDir: a replacement of the files that
// was under way is undone from its backups (the journal "calibration-commit.journal" in
// Correct/Default says which), and temporary files and the scratch folder are removed. Returns 1
// when something had to be undone, 0 when there was nothing to undo, -1 for a null or empty
// workDir or when undoing failed (message says which file).
VELTRANO_API int RecoverCalibrationFolder(const char* workDir, std::string& message);

}  // namespace veltrano
