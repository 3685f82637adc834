#include "xray_source.h"

#include <cmath>
#include <mutex>

#include "virtual_sensor.h"

namespace virtual_sensor {
namespace {

// The largest factor accepted: far past saturation for any configured dose.
constexpr double kMaxFactor = 100.0;

std::mutex& SourceMutex() {
    static std::mutex mutex;
    return mutex;
}

double& Factor() {
    static double factor = -1.0;
    return factor;
}

}  // namespace

double FlatDoseFactor() {
    std::lock_guard<std::mutex> lock(SourceMutex());
    return Factor();
}

void SetFlatDoseFactor(double factor) {
    std::lock_guard<std::mutex> lock(SourceMutex());
    Factor() = factor < 0.0 ? -1.0 : factor;
}

}  // namespace virtual_sensor

extern "C" VIRTUAL_SENSOR_API int VirtualSensor_SetFlatDose(double factor) {
    if (std::isnan(factor) || factor > virtual_sensor::kMaxFactor) {
        return 1;
    }
    virtual_sensor::SetFlatDoseFactor(factor);
    return 0;
}
