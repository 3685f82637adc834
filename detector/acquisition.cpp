// One exposure: the hand-shake with the host, arming the sensor, waiting for the callback's
// image, the corrections and the outlier statistics.
#include <algorithm>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "detector/detector_internal.h"
#include "detector/driver_binding.h"
#include "imgproc/frame_passes.h"
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

constexpr int kHistogramBins = 65536;

// The columns c of row r with r + c > cornerCut and c - r < columns - cornerCut, the pixels
// outside the two cut upper corners: begin .. end (exclusive), empty when begin >= end.
void ColumnsOutsideCutCorners(long long r, long long columns, long long cornerCut, long long& begin,
                              long long& end) {
    begin = std::max(0LL, cornerCut - r + 1);
    end = std::min(columns, columns - cornerCut + r);
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
    int code = 0;
    const veltrano::detail::SensorSizeRow* sensor = veltrano::detail::FindSensorRow(sensorSize);
    const int endSign = m_endSign;
    const int progress = m_progress;
    if (endSign != 0 || progress != 0 || sensor == nullptr) {
        if (endSign != 0 && progress != 0) {
            LogLine("Please reset endSign and progress!");
        }
        if (sensor == nullptr) {
            LogLine("Sensor Size is not right!");
        }
        return -1;
    }
    std::shared_ptr<DriverBinding> binding = CurrentBinding();
    if (binding == nullptr) {
        LogText("Please Connect firmWare!\n");
        return -2;
    }

    do {
        if (m_userStop) {
            break;
        }
        if (GetAndCaliFile_Gain() != 0 || GetBadPixelInfo() != 0) {
            LogText("No CaliFile!\n");
            code = -3;
            break;
        }
        if (m_userStop) {
            break;
        }

        // A failed setting is recorded but the exposure goes on; the last failure wins.
        if (SetDelayTime(delayTime) != 0) {
            code = -4;
        }
        if (SetTriggerMode(triggerMode) != 0) {
            code = -5;
        }
        if (SetTriggerThreshold(triggerThreshold) != 0) {
            code = -6;
        }
        const int prepared =
            binding->RunCommand(fpdsys::kCmdPrepare, {DriverBinding::IntParam(0x20000)}, 2000);
        const int userRam = binding->RunCommand(fpdsys::kCmdWriteUserRam, {}, 1000);
        LogLine("Write User RAM Result:" + binding->ErrorText(userRam));
        LogLine("");
        if (prepared != 0 || userRam != 0) {
            code = -7;
        }

        m_progress = 6;
        const int waited = WaitForImage();
        if (waited == -1) {
            code = -8;
            LogLine("Detector has an Error when getting an image!");
            break;
        }
        if (waited == -2) {
            code = -9;
            LogLine("Stop waitting!");
            break;
        }
        m_progress = 7;
        SleepMs(veltrano::detail::ScaledForTesting(100));
        m_progress = 8;
        SleepMs(veltrano::detail::ScaledForTesting(100));

        {
            std::lock_guard<std::mutex> lock(Detectors().mutex);
            image = m_rawImage;
        }
        if (image.data == nullptr || m_defectMap.data == nullptr) {
            code = -10;
            LogLine("Post Processs Failed!");
            break;
        }
        DoGainCorrection(image);
        DoFixBadPixel(image, m_defectMap);

        // The outlier statistics are computed on every image, but repairing the outliers they
        // mark is switched off: the returned image is the corrected one, unchanged.
        int lowLevel = 0;
        int highLevel = 0;
        imgmat outliers;
        CalcOutlierMarks(image, sensor->cornerCut, lowLevel, highLevel, outliers);
        bool repairOutliers = false;
        if (repairOutliers) {
            DoFixBadPixel(image, outliers);
        }

        m_endSign = 1;
        m_progress = 9;
        SleepMs(veltrano::detail::ScaledForTesting(100));
        m_progress = 10;
    } while (false);

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

    const int started =
        binding != nullptr ? binding->StartCommand(fpdsys::kCmdWaitExposure) : fpdsys::kErrNotLoaded;
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

void CVeltrano::CalcOutlierMarks(const imgmat& image, int cornerCut, int& lowLevel,
                                 int& highLevel, imgmat& marks) {
    lowLevel = 0;
    highLevel = kHistogramBins - 1;
    marks.clearData();
    if (image.data == nullptr) {
        return;
    }
    const long long rows = static_cast<long long>(image.height);
    const long long columns = static_cast<long long>(image.width);

    // The pixels outside the two corners form one run of columns per row.
    std::vector<int32_t> histogram(kHistogramBins, 0);
    for (long long r = 0; r < rows; ++r) {
        long long begin = 0;
        long long end = 0;
        ColumnsOutsideCutCorners(r, columns, cornerCut, begin, end);
        if (begin < end) {
            veltrano::CountFloatBins(image.data + r * columns + begin, static_cast<size_t>(end - begin),
                                     veltrano::FloatBinRule::Clamped, histogram.data());
        }
    }

    long long sum = 0;
    for (int bin = kHistogramBins - 1; bin >= 0; --bin) {
        sum += histogram[bin];
        if (sum > 1000 || bin <= 20000) {
            highLevel = bin;
            break;
        }
    }
    sum = 0;
    for (int bin = 0; bin < kHistogramBins; ++bin) {
        sum += histogram[bin];
        if (sum > 1000 || bin >= 200) {
            lowLevel = bin;
            break;
        }
    }

    // The marks have the defect map's size; pixels of an image larger than the map fall
    // outside it and are not marked.
    const long long markRows = static_cast<long long>(m_defectMap.height);
    const long long markColumns = static_cast<long long>(m_defectMap.width);
    if (m_defectMap.data == nullptr || markRows == 0 || markColumns == 0) {
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
    const float low = static_cast<float>(lowLevel);
    const float high = static_cast<float>(highLevel);
    for (long long r = 0; r < rows && r < markRows; ++r) {
        long long begin = 0;
        long long end = 0;
        ColumnsOutsideCutCorners(r, columns, cornerCut, begin, end);
        end = std::min(end, markColumns);
        const float* values = image.data + r * columns;
        float* row = marks.data + r * markColumns;
        for (long long c = begin; c < end; ++c) {
            row[c] = (values[c] < low || values[c] > high) ? 1.0f : row[c];
        }
    }
}
