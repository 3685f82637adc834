// Helpers for the detector tests: a scratch work directory configured for the virtual sensor,
// its calibration files, and a detector whose protected steps the tests may call.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "platform/dynamic_library.h"
#include "veltrano/detector.h"

namespace detector_test {

namespace fs = std::filesystem;

// A fresh folder below the system's temporary folder, removed again at the end of the test.
// The virtual sensor reads its VirtualSensor.ini from here; the calibration goes below it.
class WorkDir {
public:
    explicit WorkDir(const std::string& iniLines = "") {
        std::random_device random;
        const auto* info = testing::UnitTest::GetInstance()->current_test_info();
        const std::string name = info != nullptr ? info->name() : "detector";
        path_ = fs::temp_directory_path() /
                ("veltrano_" + name + "_" + std::to_string(random()) + std::to_string(random()));
        fs::create_directories(path_);
        // A short exposure keeps the tests quick.
        std::ofstream ini(path_ / "VirtualSensor.ini");
        ini << "[VirtualSensor]\nExposureMs = 50\n" << iniLines << "\n";
    }
    ~WorkDir() {
        std::error_code ignored;
        fs::remove_all(path_, ignored);
    }
    WorkDir(const WorkDir&) = delete;
    WorkDir& operator=(const WorkDir&) = delete;

    std::string str() const { return path_.string(); }
    fs::path calibrationFolder() const { return path_ / "Correct" / "Default"; }

private:
    fs::path path_;
};

// The virtual sensor's own export that writes gain ("gn") and defect ("dft") files for the
// configuration in workDir. -1 when the driver library is not there.
inline int WriteCalibration(const std::string& workDir, int frames) {
    veltrano::platform::DynamicLibrary driver;
    if (!driver.open("FpdSys")) {
        return -1;
    }
    using WriteFn = int (*)(const char*, int);
    auto write = reinterpret_cast<WriteFn>(driver.symbol("VirtualSensor_WriteCalibration"));
    return write != nullptr ? write(workDir.c_str(), frames) : -1;
}

// Opens the protected steps of the detector to the tests.
class TestDetector : public CVeltrano {
public:
    using CVeltrano::CVeltrano;
    using CVeltrano::CalcOutlierMarks;
    using CVeltrano::SetDelayTime;
    using CVeltrano::SetTriggerMode;
    using CVeltrano::SetTriggerThreshold;
};

// Everything the code under test prints while the object lives.
class StdoutCapture {
public:
    StdoutCapture() { testing::internal::CaptureStdout(); }
    ~StdoutCapture() {
        if (!taken_) {
            testing::internal::GetCapturedStdout();
        }
    }
    std::string take() {
        taken_ = true;
        return testing::internal::GetCapturedStdout();
    }

private:
    bool taken_ = false;
};

inline bool Contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

inline long long MillisecondsSince(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::steady_clock::now() - start)
        .count();
}

}  // namespace detector_test
