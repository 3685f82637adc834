// Helpers for the detector tests: a scratch work directory configured for the virtual sensor,
// its calibration files, and a detector whose protected steps the tests may call.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "detector/driver_binding.h"
#include "platform/dynamic_library.h"
#include "veltrano/detector.h"

namespace detector_test {

namespace fs = std::filesystem;

// A fresh folder below the system's temporary folder, removed again at the end of the test.
// The virtual sensor reads its VirtualSensor.ini from here (at Create); the calibration goes
// below it.
class WorkDir {
public:
    explicit WorkDir(const std::string& iniLines = "") {
        std::random_device random;
        path_ = fs::temp_directory_path() /
                ("veltrano_detector_" + std::to_string(random()) + std::to_string(random()));
        fs::create_directories(path_);
        configure(iniLines);
    }
    ~WorkDir() {
        std::error_code ignored;
        fs::remove_all(path_, ignored);
    }

    // A short exposure keeps the tests quick.
    void configure(const std::string& iniLines) const {
        std::ofstream(path_ / "VirtualSensor.ini") << "[VirtualSensor]\nExposureMs = 50\n"
                                                   << iniLines << "\n";
    }
    std::string str() const { return path_.string(); }
    fs::path calibrationFolder() const { return path_ / "Correct" / "Default"; }

private:
    fs::path path_;
};

// While it lives, the detector's command time-outs and the pauses between its progress steps
// are kDivisor times shorter: the same events in the same order, without the waiting.
struct ShortTimes {
    static constexpr uint32_t kDivisor = 50;
    ShortTimes() { veltrano::detail::SetTimeDivisorForTesting(kDivisor); }
    ~ShortTimes() { veltrano::detail::SetTimeDivisorForTesting(1); }
    ShortTimes(const ShortTimes&) = delete;
    ShortTimes& operator=(const ShortTimes&) = delete;
};

// The virtual sensor's own export that writes gain ("gn") and defect ("dft") files for the
// configuration in workDir. -1 when the driver library is not there.
inline int WriteCalibration(const std::string& workDir, int frames) {
    veltrano::platform::DynamicLibrary driver;
    using WriteFn = int (*)(const char*, int);
    auto write = driver.open("FpdSys")
                     ? reinterpret_cast<WriteFn>(driver.symbol("VirtualSensor_WriteCalibration"))
                     : nullptr;
    return write != nullptr ? write(workDir.c_str(), frames) : -1;
}

// Calibration files that the detector loads for a frame of width x height, every pixel alike,
// for tests whose images never reach a correction: the sensor's own files would have its fixed
// pattern built for nothing.
inline void WriteLevelCalibration(const WorkDir& dir, size_t width, size_t height) {
    const size_t pixels = width * height;
    std::string gain(1040 + 2 * pixels, '\0');
    for (size_t i = 0; i < pixels; ++i) {
        gain[1040 + 2 * i] = static_cast<char>(1000 & 0xFF);
        gain[1041 + 2 * i] = static_cast<char>(1000 >> 8);
    }
    fs::create_directories(dir.calibrationFolder());
    std::ofstream(dir.calibrationFolder() / "VirtualSensor.gn", std::ios::binary) << gain;
    std::ofstream(dir.calibrationFolder() / "VirtualSensor.dft", std::ios::binary)
        << std::string(1040 + pixels, '\0');
}

// Opens the protected steps of the detector to the tests.
class TestDetector : public CVeltrano {
public:
    using CVeltrano::CalcOutlierMarks;
    using CVeltrano::CVeltrano;
    using CVeltrano::SetDelayTime;
    using CVeltrano::SetTriggerMode;
    using CVeltrano::SetTriggerThreshold;
};

// Everything the code under test prints while f runs.
template <typename F>
std::string Capture(F f) {
    testing::internal::CaptureStdout();
    f();
    return testing::internal::GetCapturedStdout();
}

inline bool Contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

inline long long MillisecondsSince(std::chrono::steady_clock::time_point start) {
    using namespace std::chrono;
    return duration_cast<milliseconds>(steady_clock::now() - start).count();
}

}  // namespace detector_test
