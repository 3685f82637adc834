// Test helpers: the virtual sensor loaded the way the detector binding loads its driver, a
// recorder of every callback it makes, throw-away working directories with a VirtualSensor.ini
// of the test's choosing, and the system's correction of a frame with the written calibration.
#pragma once

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "driver_interface/fpdsys_api.h"
#include "platform/dynamic_library.h"
#include "veltrano/defect_repair.h"

namespace vstest {

using namespace std::chrono_literals;

struct Driver {
    veltrano::platform::DynamicLibrary library;
    bool opened = library.open("FpdSys");
    template <typename F>
    F get(const char* name) {
        return reinterpret_cast<F>(library.symbol(name));
    }
    fpdsys::CreateFn create = get<fpdsys::CreateFn>("Create");
    fpdsys::DestroyFn destroy = get<fpdsys::DestroyFn>("Destroy");
    fpdsys::GetAttrFn getAttr = get<fpdsys::GetAttrFn>("GetAttr");
    fpdsys::SetAttrFn setAttr = get<fpdsys::SetAttrFn>("SetAttr");
    fpdsys::InvokeFn invoke = get<fpdsys::InvokeFn>("Invoke");
    fpdsys::AbortFn abort = get<fpdsys::AbortFn>("Abort");
    fpdsys::GetErrInfoFn getErrInfo = get<fpdsys::GetErrInfoFn>("GetErrInfo");
    int (*writeCalibration)(const char*,
                            int) = get<int (*)(const char*, int)>("VirtualSensor_WriteCalibration");

    // An attribute read that must succeed with the given value type.
    fpdsys::Value attr(int instance, int attribute, int type) {
        fpdsys::Value value;
        std::memset(&value, 0x5A, sizeof(value));
        EXPECT_EQ(getAttr(instance, attribute, &value), 0) << attribute;
        EXPECT_EQ(value.type, type) << attribute;
        return value;
    }
    int setInt(int instance, int attribute, int v) {
        fpdsys::Value value{};
        value.intValue = v;
        return setAttr(instance, attribute, &value);
    }
    std::string errorText(int code) {
        fpdsys::ErrInfo info;
        std::memset(&info, 0x5A, sizeof(info));
        getErrInfo(code, &info);
        return std::string(info.text, strnlen(info.text, sizeof(info.text)));
    }
};

inline Driver& D() {
    static Driver driver;
    return driver;
}

// Stops a test at once when the driver or one of its entry points is missing.
class VirtualSensorTest : public ::testing::Test {
protected:
    void SetUp() override {
        Driver& d = D();
        ASSERT_TRUE(d.create && d.destroy && d.getAttr && d.setAttr && d.invoke && d.abort &&
                    d.getErrInfo && d.writeCalibration)
            << "cannot load FpdSys";
    }
};

struct Event {
    int detector, event, param1, param2;
    std::thread::id thread;
    std::chrono::steady_clock::time_point when;
    bool hasData;
    int columns, rows;
    std::vector<uint16_t> pixels;  // copied while the callback ran
};

inline std::mutex logMutex;
inline std::condition_variable logChanged;
inline std::vector<Event> logged;

// The callback handed to Create: records every event of every instance.
inline int RecordEvent(int detector, int event, int, const char*, int param1, int param2, int,
                       void* data) {
    const auto* image =
        event == fpdsys::kEvtImage ? static_cast<const fpdsys::ImageRecord*>(data) : nullptr;
    Event e{detector,
            event,
            param1,
            param2,
            std::this_thread::get_id(),
            std::chrono::steady_clock::now(),
            image != nullptr,
            image ? image->columns : 0,
            image ? image->rows : 0,
            {}};
    if (image != nullptr) {
        e.pixels.assign(image->pixels, image->pixels + static_cast<size_t>(e.columns) * e.rows);
    }
    std::lock_guard<std::mutex> lock(logMutex);
    logged.push_back(std::move(e));
    logChanged.notify_all();
    return 0;
}

inline std::vector<Event> Events(int detector, int event = 0) {
    std::lock_guard<std::mutex> lock(logMutex);
    std::vector<Event> mine;
    for (const Event& e : logged) {
        if (e.detector == detector && (event == 0 || e.event == event)) {
            mine.push_back(e);
        }
    }
    return mine;
}

// How many events with this ID the detector has reported, and the last of them: without a copy
// of every frame recorded so far, which a test taking many exposures would pay for each time.
inline size_t CountEvents(int detector, int event) {
    std::lock_guard<std::mutex> lock(logMutex);
    return static_cast<size_t>(std::count_if(logged.begin(), logged.end(), [&](const Event& e) {
        return e.detector == detector && e.event == event;
    }));
}
inline Event LastEvent(int detector, int event) {
    std::lock_guard<std::mutex> lock(logMutex);
    for (auto e = logged.rbegin(); e != logged.rend(); ++e) {
        if (e->detector == detector && e->event == event) {
            return *e;
        }
    }
    return Event{};
}

// Waits until the detector has reported count events with this ID; false on time-out.
inline bool WaitFor(int detector, int event, size_t count, std::chrono::milliseconds timeout = 2s) {
    std::unique_lock<std::mutex> lock(logMutex);
    return logChanged.wait_for(lock, timeout, [&] {
        size_t n = 0;
        for (const Event& e : logged) {
            n += e.detector == detector && e.event == event;
        }
        return n >= count;
    });
}

// A fresh folder below the system's temporary folder, removed again by the destructor.
class WorkDir {
public:
    explicit WorkDir(const std::string& ini = "") {
        static std::atomic<int> counter{0};
        path_ = std::filesystem::temp_directory_path() /
                ("vstest-" +
                 std::to_string(std::chrono::steady_clock::now().time_since_epoch().count()) + "-" +
                 std::to_string(counter++));
        std::filesystem::create_directories(path_);
        std::ofstream(path_ / "VirtualSensor.ini", std::ios::binary) << ini;
    }
    ~WorkDir() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    const std::string& str() const { return text_ = path_.string(); }
    std::vector<uint8_t> file(const char* name) const {  // below Correct/Default
        std::ifstream in(path_ / "Correct" / "Default" / name, std::ios::binary);
        return std::vector<uint8_t>(std::istreambuf_iterator<char>(in),
                                    std::istreambuf_iterator<char>());
    }

private:
    std::filesystem::path path_;
    mutable std::string text_;
};

// A sensor instance on the recording callback, destroyed at the end of the scope.
class Sensor {
public:
    explicit Sensor(const WorkDir& dir)
        : created(D().create(dir.str().c_str(), &RecordEvent, &handle)) {}
    ~Sensor() { D().destroy(handle); }
    int invoke(int command) { return D().invoke(handle, command, nullptr, 0); }
    // Arms an exposure and returns its image event; fails the test when none comes.
    Event expose() {
        const size_t images = CountEvents(handle, fpdsys::kEvtImage);
        EXPECT_EQ(invoke(fpdsys::kCmdWaitExposure), 1);
        EXPECT_TRUE(WaitFor(handle, fpdsys::kEvtImage, images + 1, 20s)) << "no image";
        return CountEvents(handle, fpdsys::kEvtImage) > images
                   ? LastEvent(handle, fpdsys::kEvtImage)
                   : Event{};
    }
    int handle = 0;
    const int created;
};

inline bool InCutCorner(size_t index, int columns, int cut) {
    const int x = static_cast<int>(index % columns), y = static_cast<int>(index / columns);
    return y + x <= cut || x - y >= columns - cut;
}

// Coefficient of variation over the pixels outside the cut corners and the flagged ones.
template <typename T>
double ActiveCv(const std::vector<T>& values, int columns, int cut,
                const std::vector<uint8_t>& skip = {}) {
    double sum = 0.0, squares = 0.0, n = 0.0;
    for (size_t i = 0; i < values.size(); ++i) {
        if (!InCutCorner(i, columns, cut) && (skip.empty() || !skip[i])) {
            sum += values[i];
            squares += static_cast<double>(values[i]) * values[i];
            n += 1.0;
        }
    }
    return std::sqrt(std::max(0.0, squares / n - (sum / n) * (sum / n))) / (sum / n);
}

// What the detector does to a frame with a one-frame gain file: gain = mean / max(flat, 0.001)
// with the mean over the whole flat, multiplied in, then ImgFix with the defect file.
inline std::vector<float> CorrectAsTheSystemDoes(const std::vector<uint16_t>& raw,
                                                 const std::vector<uint8_t>& gain,
                                                 const std::vector<uint8_t>& defects, int columns) {
    const size_t count = raw.size();  // the files' sizes checked by the caller
    std::vector<float> flat(count), image(count), map(defects.begin() + 1040, defects.end());
    double sum = 0.0;
    for (size_t i = 0; i < count; ++i) {
        flat[i] = static_cast<float>(gain[1040 + 2 * i] | gain[1041 + 2 * i] << 8);
        sum += flat[i];
    }
    for (size_t i = 0; i < count; ++i) {
        image[i] = raw[i] * static_cast<float>(sum / count / (flat[i] < 0.001f ? 0.001f : flat[i]));
    }
    const int rows = static_cast<int>(count / static_cast<size_t>(columns));
    EXPECT_EQ(ImgFix(image.data(), image.data(), map.data(), columns, rows, 1, 6, 200), 1);
    return image;
}

}  // namespace vstest
