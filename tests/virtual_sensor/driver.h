// Test helpers: the virtual sensor loaded the way the detector binding loads its driver, a
// recorder of every callback it makes, and throw-away working directories with a
// VirtualSensor.ini of the test's choosing.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "detector/fpdsys_api.h"
#include "platform/dynamic_library.h"

namespace vstest {

using namespace std::chrono_literals;
using WriteCalibrationFn = int (*)(const char* workDir, int frames);

struct Driver {
    veltrano::platform::DynamicLibrary library;
    fpdsys::CreateFn create = nullptr;
    fpdsys::DestroyFn destroy = nullptr;
    fpdsys::GetAttrFn getAttr = nullptr;
    fpdsys::SetAttrFn setAttr = nullptr;
    fpdsys::InvokeFn invoke = nullptr;
    fpdsys::AbortFn abort = nullptr;
    fpdsys::GetErrInfoFn getErrInfo = nullptr;
    WriteCalibrationFn writeCalibration = nullptr;

    // Opens "FpdSys" by the ordinary library search and resolves all eight entry points.
    bool load();

    int intAttr(int instance, int attribute);
    std::string textAttr(int instance, int attribute);
    int setInt(int instance, int attribute, int value);
    std::string errorText(int code);
};

// The process's one loaded driver, loaded on first use.
Driver& TheDriver();
bool DriverLoaded();

// Base of every test here: stops a test at once when the driver could not be loaded, instead of
// calling through null entry points.
class VirtualSensorTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(DriverLoaded()) << "cannot load "
                                    << veltrano::platform::DynamicLibrary::fileNameFor("FpdSys");
    }
};

struct Event {
    int detector = 0;
    int event = 0;
    int param1 = 0;
    int param2 = 0;
    std::thread::id thread;
    bool hasData = false;
    int columns = 0;
    int rows = 0;
    std::vector<uint16_t> pixels;  // copied while the callback ran
    std::chrono::steady_clock::time_point when;
};

// Records every callback of every instance; the callback given to Create is EventLog::Callback.
class EventLog {
public:
    static EventLog& instance();
    static int Callback(int detector, int event, int, const char*, int param1, int param2, int,
                        void* data);

    // Events of one detector so far.
    std::vector<Event> events(int detector);
    // Waits until the detector has reported count events with this ID; false on time-out.
    bool waitFor(int detector, int event, size_t count, std::chrono::milliseconds timeout);
    size_t count(int detector, int event);
    // A hook run on the callback thread after an event is recorded (null to remove).
    void setHook(std::function<void(const Event&)> hook);

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<Event> events_;
    std::function<void(const Event&)> hook_;
};

// A fresh folder below the system's temporary folder, removed again by the destructor.
class WorkDir {
public:
    explicit WorkDir(const std::string& ini = "");
    ~WorkDir();
    WorkDir(const WorkDir&) = delete;
    WorkDir& operator=(const WorkDir&) = delete;

    const std::filesystem::path& path() const { return path_; }
    std::string str() const { return path_.string(); }
    void writeIni(const std::string& ini);

private:
    std::filesystem::path path_;
};

// A sensor instance on the recorded callback, destroyed at the end of the scope.
class Sensor {
public:
    explicit Sensor(const WorkDir& dir);
    ~Sensor();
    Sensor(const Sensor&) = delete;
    Sensor& operator=(const Sensor&) = delete;

    int createResult() const { return createResult_; }
    int handle() const { return handle_; }
    void destroy();
    int invoke(int command);
    // Arms an exposure and returns the delivered image event; fails the test on time-out.
    Event expose(std::chrono::milliseconds timeout = 20s);

private:
    int handle_ = 0;
    int createResult_ = -1;
};

// The corner cut of a sensor frame: true where the frame has no pixel.
inline bool InCutCorner(int column, int row, int columns, int cornerCut) {
    return row + column <= cornerCut || column - row >= columns - cornerCut;
}

}  // namespace vstest
