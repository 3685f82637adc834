// The sensor as a physical model: what each pixel reads for a given exposure.
//
// A pixel at (x, y) reads  gain(x, y) * dose * scene(x, y) + darkOffset(x, y) + noise,  rounded
// and clipped to 16 bits, except where the sensor has no pixel (the two cut upper corners, which
// read 0) and where the pixel is defective (stuck at a value of its own, dark or hot, whatever the
// exposure). The gain map, dark offsets and defects form the sensor's fixed pattern: they depend
// only on the seed and the frame size, so the calibration written for a seed matches every
// frame that a sensor with that seed delivers. The noise is drawn afresh for every frame.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "settings.h"

namespace virtual_sensor {

// A defective pixel: its index in the frame and the value it is stuck at.
struct StuckPixel {
    size_t index;
    int32_t value;
};

// What a sensor of a given seed and geometry is made of: per-pixel gain and dark offset, and the
// defective pixels, as a map and as a list in increasing index order with the values they are
// stuck at. A frame is made row by row between the defects of the list.
struct FixedPattern {
    std::vector<float> gain;
    std::vector<float> darkOffset;
    std::vector<uint8_t> defects;
    std::vector<StuckPixel> stuck;
};

class SensorModel {
public:
    // Takes the fixed pattern of the seed and geometry (built once per process, see the source);
    // the scene is rendered on first use.
    explicit SensorModel(const Settings& settings);

    int columns() const { return columns_; }
    int rows() const { return rows_; }

    // One raw frame of the configured scene and dose, or, when flatDose is 0 or more, a flat field
    // of that dose whatever the scene. frameIndex selects the noise, so successive frames differ
    // and a given sequence repeats for the same seed.
    void expose(uint64_t frameIndex, std::vector<uint16_t>& frame, double flatDose = -1.0);

    // A calibration flat of the given dose: the noise-free mean of many flat exposures, with the
    // defective pixels holding what a good pixel there would read (the defect file flags them)
    // and the first pixel holding the frame's gain level: the level that the system compares
    // with an image's bright mean when it picks one of several gain frames, the bright mean of
    // this flat with its defective pixels reading what they are stuck at.
    std::vector<uint16_t> calibrationFlat(double dose) const;

    // 1 at every defective pixel, 0 elsewhere (the cut corners are not defects).
    const std::vector<uint8_t>& defectMap() const { return pattern_->defects; }
    // Raw signal per unit of dose, and the dark offset, of every pixel.
    const std::vector<float>& gainMap() const { return pattern_->gain; }
    const std::vector<float>& darkOffsets() const { return pattern_->darkOffset; }

private:
    int flatLevel(double dose, std::vector<uint16_t>& flat) const;

    Settings settings_;
    int columns_;
    int rows_;
    CutCorners cut_;
    // Shared by every model of the same seed and geometry in the process (see FixedPatternFor).
    std::shared_ptr<const FixedPattern> pattern_;
    // Transmitted fraction of the dose; null until first needed.
    std::shared_ptr<const std::vector<float>> scene_;
};

// The bright mean of a frame, from its histogram of 65536 bins, as the gain correction computes
// it: the mean of the brightest pixels, taken by whole bins from the top until at least 5000
// pixels are counted.
double BrightMeanOf(const std::vector<uint32_t>& histogram);

}  // namespace virtual_sensor
