// The detector object's device queries (state, identity, sensor size) and the three exposure
// settings that each acquisition writes.
#include <memory>
#include <string>

#include "detector/detector_internal.h"
#include "detector/driver_binding.h"
#include "driver_interface/fpdsys_api.h"
#include "driver_interface/sensor_sizes.h"
#include "veltrano/detector.h"

using veltrano::detail::DriverBinding;
using veltrano::detail::LogLine;

// ---------------------------------------------------------------------------------------------
// Device queries

Enm_Online CVeltrano::GetDectectorState() {
    std::shared_ptr<DriverBinding> binding = CurrentBinding();
    if (binding == nullptr) {
        LogLine("m_pDetInstance is nullptr");
        return Enm_Online_Unknown;
    }
    switch (binding->ReadIntAttribute(fpdsys::kAttrOnlineState)) {
    case 0:
        return Enm_Online_Offline;
    case 1:
        return Enm_Online_Online;
    case 2:
        return Enm_Online_Standby;
    default:
        return Enm_Online_Unknown;
    }
}

std::string CVeltrano::GetDectectorSerialNum() {
    std::shared_ptr<DriverBinding> binding = CurrentBinding();
    m_serialNum = binding != nullptr ? binding->ReadStringAttribute(fpdsys::kAttrSerialNumber)
                                     : std::string();
    return m_serialNum;
}

std::string CVeltrano::GetDectectorUSBInfo() {
    std::shared_ptr<DriverBinding> binding = CurrentBinding();
    m_usbInfo =
        binding != nullptr ? binding->ReadStringAttribute(fpdsys::kAttrUsbInfo) : std::string();
    return m_usbInfo;
}

int CVeltrano::JudgeSensorSize() {
    std::shared_ptr<DriverBinding> binding = CurrentBinding();
    int size = -1;
    if (binding != nullptr) {
        const int width = binding->ReadIntAttribute(fpdsys::kAttrImageWidth);
        const int height = binding->ReadIntAttribute(fpdsys::kAttrImageHeight);
        if (const auto* row = fpdsys::MatchSensorRow(width, height)) {
            size = row->code;
        }
    }
    m_sensorSize = size;
    return size;
}

int CVeltrano::GetSensorSize() { return m_sensorSize; }

// ---------------------------------------------------------------------------------------------
// Exposure settings

namespace {
// The four messages of a setter: old value, unchanged, write result, new value.
constexpr const char* kDelayMessages[] = {
    "Old Delaytime is:", "There is no need to change DelayTime!",
    "Set Delaytime result:", "New Delaytime is:"};
constexpr const char* kModeMessages[] = {
    "Old Triggermode is:", "There is no need to change Triggermode!",
    "Set TriggerMode result:", "New Triggermode is:"};
constexpr const char* kThresholdMessages[] = {
    "Old TriggerThreshold is:", "There is no need to change TriggerThreshold!",
    "Set TriggerThreshold result:", "New TriggerThreshold is:"};
}  // namespace

int CVeltrano::ApplySetting(int attribute, int value, const char* const* messages) {
    std::shared_ptr<DriverBinding> binding = CurrentBinding();
    if (binding == nullptr) {
        return fpdsys::kErrNotLoaded;
    }
    const int old = binding->ReadIntAttribute(attribute);
    LogLine(messages[0] + std::to_string(old));
    int result = 0;
    if (old == value) {
        LogLine(messages[1]);
    } else {
        result = binding->WriteInt(attribute, value);
    }
    // The result line comes in both cases; with nothing written it carries the text for 0.
    LogLine(messages[2] + binding->ErrorText(result));
    LogLine(messages[3] + std::to_string(binding->ReadIntAttribute(attribute)));
    LogLine("");
    return result;
}

int CVeltrano::SetDelayTime(int delayTime) {
    return ApplySetting(fpdsys::kAttrDelayTime, delayTime >= 1 ? delayTime : 0, kDelayMessages);
}

int CVeltrano::SetTriggerMode(int triggerMode) {
    if (triggerMode != 6 && triggerMode != 7) {
        // Deliberately not an error for the caller: the driver keeps its mode.
        LogLine("triggermode must b type 6 and 7");
        return 0;
    }
    return ApplySetting(fpdsys::kAttrTriggerMode, triggerMode, kModeMessages);
}

int CVeltrano::SetTriggerThreshold(int triggerThreshold) {
    return ApplySetting(fpdsys::kAttrTriggerThreshold, triggerThreshold, kThresholdMessages);
}
