// Pieces shared by the detector object's source files: the events of an object and its copies,
// the process-wide list of detector objects, and the log output. The sensor size table and the
// driver's interface are in driver_interface/, which the virtual sensor shares.
#pragma once

#include <atomic>
#include <mutex>
#include <string>
#include <vector>

#include "platform/event.h"

class CVeltrano;

namespace veltrano::detail {

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
// Appends a detector to the list (the constructor and RegisterMember).
void AddDetector(CVeltrano* detector);
// The destructor's removal of a detector from the list (see registry.cpp).
void RemoveDetector(const CVeltrano* detector);

// One line on standard output, written in one piece so lines of different threads do not mix.
void LogLine(const std::string& text);
// Text written exactly as given (it carries its own line breaks, if any).
void LogText(const std::string& text);

}  // namespace veltrano::detail
