// The few operating-system services the program needs beyond the standard library: where the
// executable lies, whether standard error is a terminal, sending standard output to a log file
// for a while, and calling into the driver library by name. POSIX and Windows live in
// host_system.cpp side by side; the driver library is loaded through the platform layer.
#pragma once

#include <string>

namespace vcli {

// Folder of the running executable (with a trailing separator), or empty if unknown.
std::string ExecutableDir();

// True when standard error is an interactive terminal (progress is then drawn in place).
bool StderrIsTerminal();

// Sends everything written to standard output (by this program or by the library, through
// printf or std::cout) to a file until the object is destroyed. If the file cannot be opened
// standard output is left as it is.
class StdoutToFile {
public:
    explicit StdoutToFile(const std::string& path);
    ~StdoutToFile();
    StdoutToFile(const StdoutToFile&) = delete;
    StdoutToFile& operator=(const StdoutToFile&) = delete;

private:
    int saved_ = -1;
};

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
