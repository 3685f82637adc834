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

// One exposure with the progress shown on standard error (drawn in place on a terminal,
// otherwise one plain line per step). Ctrl-C stops the wait. Returns AcqImageEx's code; image
// holds the corrected frame when imageDelivered is set (the code may then still report a
// failed setting).
int TakeExposure(CVeltrano& detector, const ExposureSettings& settings, imgmat& image,
                 bool& imageDelivered);

// What an AcqImageEx code means, for messages.
std::string DescribeAcquisitionCode(int code);

}  // namespace vcli
