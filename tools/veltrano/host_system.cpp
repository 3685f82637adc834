#include "host_system.h"

#include "platform/dynamic_library.h"

namespace vcli {

namespace {

using WriteCalibrationFn = int (*)(const char*, int);

// The driver library, loaded on first use and kept for the rest of the run: the Veltrano
// library opens the same driver by name right after, and then finds this very copy among the
// loaded libraries, and the entry points handed out stay valid. Null when it cannot be loaded.
const veltrano::platform::DynamicLibrary* DriverLibrary() {
    static veltrano::platform::DynamicLibrary* const driver = [] {
        auto* library = new veltrano::platform::DynamicLibrary;  // never unloaded
        library->open("FpdSys");
        return library;
    }();
    return driver->isOpen() ? driver : nullptr;
}

}  // namespace

bool WriteVirtualSensorCalibration(const std::string& workDir, int frames, std::string& error) {
    const veltrano::platform::DynamicLibrary* driver = DriverLibrary();
    if (driver == nullptr) {
        error = "the driver library " + veltrano::platform::DynamicLibrary::fileNameFor("FpdSys") +
                " cannot be loaded";
        return false;
    }
    const auto write =
        reinterpret_cast<WriteCalibrationFn>(driver->symbol("VirtualSensor_WriteCalibration"));
    if (write == nullptr) {
        error = "the driver library is not the virtual sensor (no VirtualSensor_WriteCalibration)";
        return false;
    }
    const int result = write(workDir.c_str(), frames);
    if (result != 0) {
        error = "the virtual sensor could not write its calibration (code " +
                std::to_string(result) + ")";
        return false;
    }
    return true;
}

SetFlatDoseFn FindVirtualSensorSource() {
    const veltrano::platform::DynamicLibrary* driver = DriverLibrary();
    return driver == nullptr
               ? nullptr
               : reinterpret_cast<SetFlatDoseFn>(driver->symbol("VirtualSensor_SetFlatDose"));
}

}  // namespace vcli
