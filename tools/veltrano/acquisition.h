// Driving the detector as a host does: open the sensor, take one exposure on this thread while
// another thread polls the progress and end sign and draws them, and close it again.
#pragma once

#include <string>

#include "veltrano/detector.h"
#include "veltrano/imgmat.h"

namespace vcli {

struct ExposureSettings {
    int delayMs = 0;
    int triggerMode = 6;
    int threshold = 100;
};

// Initialize and Connect. On failure sets error (with the library's code) and returns false.
bool OpenDetector(CVeltrano& detector, std::string& error);
// Disconnect and Deinit.
void CloseDetector(CVeltrano& detector);

// How an exposure ended, as the host sees it.
enum class ExposureOutcome {
    Delivered,             // an image, code 0
    DeliveredWithWarning,  // an image, but a setting failed (codes -4 to -7)
    Stopped,               // StopAcq ended it without an image
    Failed,                // no image, for the reason the code gives
};

// The outcome from what AcqImageEx left behind: its code, the end sign, whether the image holds
// data, and the user stop flag. An image counts only with end sign 1. A stop before the sensor
// was armed ends AcqImageEx with 0 and end sign 2, without an image: that is a stop, not success.
ExposureOutcome ClassifyExposure(int code, int endSign, bool hasImage, bool userStop);

struct ExposureResult {
    int code = 0;  // AcqImageEx's result
    ExposureOutcome outcome = ExposureOutcome::Failed;
};

// One exposure with the progress shown on standard error (drawn in place on a terminal,
// otherwise one plain line per step). Ctrl-C stops the wait. image holds the corrected frame
// when the outcome is Delivered or DeliveredWithWarning.
ExposureResult TakeExposure(CVeltrano& detector, const ExposureSettings& settings, imgmat& image);

// What an AcqImageEx code means, for messages.
std::string DescribeAcquisitionCode(int code);

}  // namespace vcli
