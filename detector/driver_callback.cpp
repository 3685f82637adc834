// The driver's callback: finds the detector object an event belongs to, hands command
// completions to its binding and takes a delivered frame into its raw image.
#include <cstddef>
#include <cstdint>
#include <mutex>

#include "detector/detector_internal.h"
#include "detector/driver_binding.h"
#include "driver_interface/fpdsys_api.h"
#include "imgproc/scratch_buffers.h"
#include "platform/system.h"
#include "veltrano/detector.h"

using veltrano::detail::Detectors;
using veltrano::detail::LogLine;

int CVeltrano::SDKCallbackHandler(int detectorId, int eventId, int /*unused1*/,
                                  const char* /*message*/, int param1, int param2, int /*unused2*/,
                                  void* data) {
    veltrano::platform::RaiseProcessPriority();
    // The lock stays held while the event is handled, so the object cannot be destroyed, nor
    // its binding or raw image replaced, under the callback.
    std::lock_guard<std::mutex> lock(Detectors().mutex);
    CVeltrano* target = FindByInstanceLocked(detectorId);
    if (target == nullptr) {
        return 0;
    }
    target->m_pDetInstance->OnCallback(detectorId, eventId, param1, param2);

    if (eventId == fpdsys::kEvtCommandFailed && param1 == fpdsys::kCmdWaitExposure) {
        // The driver could not arm the sensor: no image will come, so the wait ends with an
        // error instead of lasting until the host stops it.
        target->m_events->armFailed = true;
        target->m_events->auxiliary.set();
    } else if (eventId == fpdsys::kEvtStatus && param1 == fpdsys::kStatusAcquiring) {
        LogLine("Acquiring image...");
    } else if (eventId == fpdsys::kEvtImage) {
        LogLine("enter Evt_Image");
        target->StoreDeliveredImage(data);
        target->m_events->nextStep.set();
        LogLine("Set s_hNextStep");
        LogLine("Get an image!");
    }
    return 0;
}

void CVeltrano::StoreDeliveredImage(const void* record) {
    if (record == nullptr) {
        return;
    }
    const auto* image = static_cast<const fpdsys::ImageRecord*>(record);
    // A record without pixels or with no extent carries no image; it is treated like a null
    // record rather than read.
    if (image->pixels == nullptr || image->columns <= 0 || image->rows <= 0) {
        return;
    }
    m_rawImage.clearData();
    // A frame larger than any image the library takes on is not believed either: copying it
    // would read gigabytes the driver may not have, and it could never be corrected.
    const uint64_t count64 =
        static_cast<uint64_t>(image->columns) * static_cast<uint64_t>(image->rows);
    if (count64 > veltrano::kMaxElements) {
        return;
    }
    const size_t count = static_cast<size_t>(count64);
    m_rawImage.width = static_cast<unsigned long long>(image->columns);
    m_rawImage.height = static_cast<unsigned long long>(image->rows);
    m_rawImage.depth = 1;
    m_rawImage.callMemory(count);
    if (m_rawImage.data == nullptr) {
        return;  // no room for the frame: the acquisition reports it as not delivered
    }
    // The driver's buffer is only valid during the callback: each pixel is converted straight
    // into the raw image, with no staging copy of the 16-bit frame.
    const uint16_t* pixels = image->pixels;
    float* samples = m_rawImage.data;
    for (size_t i = 0; i < count; ++i) {
        samples[i] = static_cast<float>(pixels[i]);
    }
}
