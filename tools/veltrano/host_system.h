// What the program needs from its host beyond the standard library: sending standard output to a
// log file for a while, and calling into the driver library by name. The operating-system calls
// themselves are in the platform layer.
#pragma once

#include <string>

#include "platform/console.h"

namespace vcli {

// Standard output to a log file for a while; the platform layer does the redirection.
using veltrano::platform::StdoutToFile;

// Calls VirtualSensor_WriteCalibration(workDir, frames) in the driver library that the Veltrano
// library loads ("FpdSys"). False with error set when the library cannot be loaded, when it has
// no such entry point (a real sensor's driver does not) or when the call fails (its code is in
// the message).
bool WriteVirtualSensorCalibration(const std::string& workDir, int frames, std::string& error);

// VirtualSensor_SetFlatDose of the same driver library: the X-ray source of the virtual sensor.
// Null when the driver is not the virtual sensor (a real sensor's driver).
using SetFlatDoseFn = int (*)(double);
SetFlatDoseFn FindVirtualSensorSource();

}  // namespace vcli
