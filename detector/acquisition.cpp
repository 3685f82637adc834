// One exposure: the hand-shake with the host, arming the sensor, waiting for the callback's
// image, the corrections and the outlier statistics.
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "detector/detector_internal.h"
#include "detector/driver_binding.h"
#include "driver_interface/fpdsys_api.h"
#include "driver_interface/sensor_sizes.h"
#include "imgproc/frame_statistics.h"
#include "platform/system.h"
#include "veltrano/detector.h"

using veltrano::detail::DetectorEvents;
using veltrano::detail::Detectors;
using veltrano::detail::DriverBinding;
using veltrano::detail::LogLine;
using veltrano::detail::LogText;
using veltrano::platform::Event;
using veltrano::platform::SleepMs;

namespace {

// The two commands issued before each exposure: command 6 with 0x20000, then the user-RAM write,
// whose result is logged. False when either failed.
bool PrepareSensor(DriverBinding& binding) {
    const int prepared =
        binding.RunCommand(fpdsys::kCmdPrepare, {DriverBinding::IntParam(0x20000)}, 2000);
    const int userRam = binding.RunCommand(fpdsys::kCmdWriteUserRam, {}, 1000);
    LogLine("Write User RAM Result:" + binding.ErrorText(userRam));
    LogLine("");
    return prepared == 0 && userRam == 0;
}

}  // namespace

int CVeltrano::GetProgressBar() { return m_progress; }
void CVeltrano::SetProgressBar(int progress) { m_progress = progress; }
int CVeltrano::GetEndSign() { return m_endSign; }
void CVeltrano::SetEndSign(int endSign) { m_endSign = endSign; }
bool CVeltrano::GetUserStop() { return m_userStop; }
void CVeltrano::ResetUserStop() { m_userStop = false; }

void CVeltrano::StopAcq() {
    m_userStop = true;
    // The flag is set first: a wait that starts after this signal has been dropped still sees
    // the flag before it sleeps.
    m_events->nextStep.set();
}

int CVeltrano::AcqImageEx(imgmat& image, int delayTime, int triggerMode, int triggerThreshold) {
    LogLine("//////////////////start//////////////////////");
    const int sensorSize = m_sensorSize;
    LogLine("SensorSize:" + std::to_string(sensorSize));
    const fpdsys::SensorSizeRow* sensor = fpdsys::FindSensorRow(sensorSize);
    if (!ReadyForExposure(sensor != nullptr)) {
        return -1;
    }
    std::shared_ptr<DriverBinding> binding = CurrentBinding();
    if (binding == nullptr) {
        LogText("Please Connect firmWare!\n");
        return -2;
    }
    const int code = ExposeAndCorrect(*binding, sensor->cornerCut, image, delayTime, triggerMode,
                                      triggerThreshold);
    return FinishAcquisition(code);
}

bool CVeltrano::ReadyForExposure(bool sizeKnown) {
    const int endSign = m_endSign;
    const int progress = m_progress;
    if (endSign == 0 && progress == 0 && sizeKnown) {
        return true;
    }
    if (endSign != 0 && progress != 0) {
        LogLine("Please reset endSign and progress!");
    }
    if (!sizeKnown) {
        LogLine("Sensor Size is not right!");
    }
    return false;
}

int CVeltrano::ExposeAndCorrect(DriverBinding& binding, int cornerCut, imgmat& image, int delayTime,
                                int triggerMode, int triggerThreshold) {
    // A stop leaves with the code reached so far; the caller still ends the acquisition.
    if (m_userStop) {
        return 0;
    }
    if (!LoadCalibration()) {
        return -3;
    }
    if (m_userStop) {
        return 0;
    }
    // Failed settings and preparation are recorded, but the exposure goes on.
    int code = ApplyExposureSettings(delayTime, triggerMode, triggerThreshold);
    if (!PrepareSensor(binding)) {
        code = -7;
    }

    m_progress = 6;
    const int waited = WaitForImage();
    if (waited == -1) {
        LogLine("Detector has an Error when getting an image!");
        return -8;
    }
    if (waited == -2) {
        LogLine("Stop waitting!");
        return -9;
    }
    m_progress = 7;
    SleepMs(veltrano::detail::ScaledForTesting(100));
    m_progress = 8;
    SleepMs(veltrano::detail::ScaledForTesting(100));

    if (!TakeDeliveredImage(image)) {
        LogLine("Post Processs Failed!");
        return -10;
    }
    CorrectImage(image, cornerCut);
    m_endSign = 1;
    m_progress = 9;
    SleepMs(veltrano::detail::ScaledForTesting(100));
    m_progress = 10;
    return code;
}

bool CVeltrano::LoadCalibration() {
    if (GetAndCaliFile_Gain() != 0 || GetBadPixelInfo() != 0) {
        LogText("No CaliFile!\n");
        return false;
    }
    return true;
}

int CVeltrano::ApplyExposureSettings(int delayTime, int triggerMode, int triggerThreshold) {
    // Each setting is written whatever the one before answered; the last failure wins.
    int code = 0;
    if (SetDelayTime(delayTime) != 0) {
        code = -4;
    }
    if (SetTriggerMode(triggerMode) != 0) {
        code = -5;
    }
    if (SetTriggerThreshold(triggerThreshold) != 0) {
        code = -6;
    }
    return code;
}

bool CVeltrano::TakeDeliveredImage(imgmat& image) {
    {
        std::lock_guard<std::mutex> lock(Detectors().mutex);
        image = m_rawImage;
    }
    return image.data != nullptr && m_defectMap.data != nullptr;
}

void CVeltrano::CorrectImage(imgmat& image, int cornerCut) {
    // Their results are not checked: each logs its own failure.
    DoGainCorrection(image);
    DoFixBadPixel(image, m_defectMap);

    // The outlier statistics are computed on every image, but repairing the outliers they
    // mark is switched off: the returned image is the corrected one, unchanged.
    int lowLevel = 0;
    int highLevel = 0;
    imgmat outliers;
    CalcOutlierMarks(image, cornerCut, lowLevel, highLevel, outliers);
    bool repairOutliers = false;
    if (repairOutliers) {
        DoFixBadPixel(image, outliers);
    }
}

int CVeltrano::FinishAcquisition(int code) {
    if (m_userStop) {
        LogText("Stop operation! \r\n");
    }
    LogLine("//////////////////end//////////////////////");
    if (m_endSign == 1) {
        m_progress = 11;
        return code;
    }
    m_endSign = 2;
    return code;
}

int CVeltrano::WaitForImage() {
    LogText("Waiting for acquiring an image!\r\n");
    std::shared_ptr<DriverBinding> binding = CurrentBinding();
    std::shared_ptr<DetectorEvents> events = m_events;

    // The events are made ready before the sensor is armed, so an image that arrives at once
    // is not lost; a signal left from an earlier exposure or an early StopAcq is dropped (the
    // stop flag itself is checked below).
    events->nextStep.reset();
    events->auxiliary.reset();
    events->armFailed = false;
    {
        // An image from an earlier exposure must not be handed out as this one's.
        std::lock_guard<std::mutex> lock(Detectors().mutex);
        m_rawImage.clearData();
    }

    const int started = binding != nullptr ? binding->StartCommand(fpdsys::kCmdWaitExposure)
                                           : fpdsys::kErrNotLoaded;
    // 1 (accepted) and 0 (done) both leave the image to come; any other value is the driver
    // refusing, or the library being gone, and waiting would only end with a stop.
    int result = (started == 0 || started == 1) ? 0 : -1;
    while (result == 0 && !m_userStop) {
        const int fired = Event::waitAny(events->nextStep, events->auxiliary, Event::kInfinite);
        if (fired == 0) {
            break;
        }
        if (fired == -1) {
            continue;  // a time-out, which an endless wait does not have
        }
        // The auxiliary event: the driver could not arm the sensor, or a copy sharing these
        // events tore the binding down. Another object's teardown is no reason to stop.
        if (fired == -2 || events->armFailed || binding == nullptr || !binding->IsLoaded()) {
            result = -1;
        }
    }
    return m_userStop ? -2 : result;
}

void CVeltrano::CalcOutlierMarks(const imgmat& image, int cornerCut, int& lowLevel, int& highLevel,
                                 imgmat& marks) {
    lowLevel = 0;
    highLevel = veltrano::kSensorBins - 1;
    marks.clearData();
    if (image.data == nullptr) {
        return;
    }
    const auto rows = static_cast<size_t>(image.height);
    const auto columns = static_cast<size_t>(image.width);
    std::vector<int32_t> histogram(veltrano::kSensorBins, 0);
    veltrano::CountOutsideCutCorners(image.data, rows, columns, cornerCut, histogram.data());
    const veltrano::OutlierLevels levels = veltrano::FindOutlierLevels(histogram.data());
    lowLevel = levels.low;
    highLevel = levels.high;

    // The marks have the defect map's size; pixels of an image larger than the map fall
    // outside it and are not marked.
    if (m_defectMap.data == nullptr || m_defectMap.height == 0 || m_defectMap.width == 0) {
        return;
    }
    marks.width = m_defectMap.width;
    marks.height = m_defectMap.height;
    marks.depth = 1;
    marks.callMemory(marks.width * marks.height);
    if (marks.data == nullptr) {
        return;
    }
    marks = 0.0f;
    veltrano::MarkOutliers(image.data, rows, columns, cornerCut, static_cast<float>(lowLevel),
                           static_cast<float>(highLevel), marks.data,
                           static_cast<size_t>(marks.height), static_cast<size_t>(marks.width));
}
