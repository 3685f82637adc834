// Pieces shared by the detector object's source files: the sensor size table, the events of an
// object and its copies, the process-wide list of detector objects, and the log output.
#pragma once

#include <atomic>
#include <mutex>
#include <string>
#include <vector>

#include "platform/event.h"

class CVeltrano;

namespace veltrano::detail {

// One row of the sensor size table: the code GetSensorSize returns, the two image dimensions the
// driver reports (attributes 5007 and 5008), and the side of the cut upper corners.
struct SensorSizeRow {
    int code;
    int width;
    int height;
    int cornerCut;
};

// Null when the code is not in the table.
const SensorSizeRow* FindSensorRow(int code);
// The first row, in table order, with these two image dimensions; null when there is none.
const SensorSizeRow* MatchSensorRow(int width, int height);
// The calibration image dimensions for a code: its row's, or 1300 x 1800 when it has none.
void CalibrationSize(int code, unsigned long long& width, unsigned long long& height);

// The next-step event (signalled by the callback once an image has arrived, and by StopAcq) and
// the auxiliary event (signalled when the wait for an image can no longer succeed).
struct DetectorEvents {
    platform::Event nextStep;
    platform::Event auxiliary;
    // Set with the auxiliary event when the driver reports that it could not arm the sensor.
    std::atomic<bool> armFailed{false};
};

// The list through which the driver's callback finds the object an event belongs to. Its lock
// is held while a callback uses an object, so an object removed from the list under the lock
// is never reached by a callback again.
struct DetectorList {
    std::mutex mutex;
    std::vector<CVeltrano*> members;
};
DetectorList& Detectors();

// One line on standard output, written in one piece so lines of different threads do not mix.
void LogLine(const std::string& text);
// Text written exactly as given (it carries its own line breaks, if any).
void LogText(const std::string& text);

}  // namespace veltrano::detail
