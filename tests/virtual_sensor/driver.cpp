#include "driver.h"

#include <atomic>
#include <cstring>
#include <fstream>

#include <gtest/gtest.h>

namespace vstest {

bool Driver::load() {
    if (!library.open("FpdSys")) {
        return false;
    }
    create = reinterpret_cast<fpdsys::CreateFn>(library.symbol("Create"));
    destroy = reinterpret_cast<fpdsys::DestroyFn>(library.symbol("Destroy"));
    getAttr = reinterpret_cast<fpdsys::GetAttrFn>(library.symbol("GetAttr"));
    setAttr = reinterpret_cast<fpdsys::SetAttrFn>(library.symbol("SetAttr"));
    invoke = reinterpret_cast<fpdsys::InvokeFn>(library.symbol("Invoke"));
    abort = reinterpret_cast<fpdsys::AbortFn>(library.symbol("Abort"));
    getErrInfo = reinterpret_cast<fpdsys::GetErrInfoFn>(library.symbol("GetErrInfo"));
    writeCalibration =
        reinterpret_cast<WriteCalibrationFn>(library.symbol("VirtualSensor_WriteCalibration"));
    return create && destroy && getAttr && setAttr && invoke && abort && getErrInfo &&
           writeCalibration;
}

int Driver::intAttr(int instance, int attribute) {
    fpdsys::Value value;
    std::memset(&value, 0x5A, sizeof(value));
    EXPECT_EQ(getAttr(instance, attribute, &value), 0) << "attribute " << attribute;
    EXPECT_EQ(value.type, fpdsys::kInt) << "attribute " << attribute;
    return value.intValue;
}

std::string Driver::textAttr(int instance, int attribute) {
    fpdsys::Value value;
    std::memset(&value, 0x5A, sizeof(value));
    EXPECT_EQ(getAttr(instance, attribute, &value), 0) << "attribute " << attribute;
    EXPECT_EQ(value.type, fpdsys::kString) << "attribute " << attribute;
    EXPECT_NE(std::memchr(value.text, '\0', sizeof(value.text)), nullptr);
    return std::string(value.text, strnlen(value.text, sizeof(value.text)));
}

int Driver::setInt(int instance, int attribute, int v) {
    fpdsys::Value value{};
    value.type = fpdsys::kInt;
    value.intValue = v;
    return setAttr(instance, attribute, &value);
}

std::string Driver::errorText(int code) {
    fpdsys::ErrInfo info;
    std::memset(&info, 0x5A, sizeof(info));
    getErrInfo(code, &info);
    if (std::memchr(info.text, '\0', sizeof(info.text)) == nullptr) {
        ADD_FAILURE() << "error text of " << code << " is not terminated";
        return "";
    }
    return info.text;
}

namespace {
struct LoadedDriver {
    Driver driver;
    bool loaded = driver.load();
};
LoadedDriver& Loaded() {
    static LoadedDriver instance;
    return instance;
}
}  // namespace

Driver& TheDriver() { return Loaded().driver; }

bool DriverLoaded() { return Loaded().loaded; }

EventLog& EventLog::instance() {
    static EventLog log;
    return log;
}

int EventLog::Callback(int detector, int event, int, const char*, int param1, int param2, int,
                       void* data) {
    Event e;
    e.detector = detector;
    e.event = event;
    e.param1 = param1;
    e.param2 = param2;
    e.thread = std::this_thread::get_id();
    e.when = std::chrono::steady_clock::now();
    if (event == fpdsys::kEvtImage && data != nullptr) {
        const auto* record = static_cast<const fpdsys::ImageRecord*>(data);
        e.hasData = true;
        e.columns = record->columns;
        e.rows = record->rows;
        if (record->pixels != nullptr && record->columns > 0 && record->rows > 0) {
            e.pixels.assign(record->pixels,
                            record->pixels + static_cast<size_t>(record->columns) * record->rows);
        }
    }
    EventLog& log = instance();
    std::function<void(const Event&)> hook;
    {
        std::lock_guard<std::mutex> lock(log.mutex_);
        log.events_.push_back(e);
        hook = log.hook_;
    }
    log.changed_.notify_all();
    if (hook) {
        hook(e);
    }
    return 0;
}

std::vector<Event> EventLog::events(int detector) {
    std::lock_guard<std::mutex> lock(mutex_);
    std::vector<Event> mine;
    for (const Event& e : events_) {
        if (e.detector == detector) {
            mine.push_back(e);
        }
    }
    return mine;
}

size_t EventLog::count(int detector, int event) {
    std::lock_guard<std::mutex> lock(mutex_);
    size_t n = 0;
    for (const Event& e : events_) {
        n += e.detector == detector && e.event == event;
    }
    return n;
}

bool EventLog::waitFor(int detector, int event, size_t count, std::chrono::milliseconds timeout) {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, timeout, [&] {
        size_t n = 0;
        for (const Event& e : events_) {
            n += e.detector == detector && e.event == event;
        }
        return n >= count;
    });
}

void EventLog::setHook(std::function<void(const Event&)> hook) {
    std::lock_guard<std::mutex> lock(mutex_);
    hook_ = std::move(hook);
}

WorkDir::WorkDir(const std::string& ini) {
    static std::atomic<int> counter{0};
    const auto stamp = std::chrono::steady_clock::now().time_since_epoch().count();
    path_ = std::filesystem::temp_directory_path() /
            ("vstest-" + std::to_string(stamp) + "-" + std::to_string(counter++));
    std::filesystem::create_directories(path_);
    if (!ini.empty()) {
        writeIni(ini);
    }
}

WorkDir::~WorkDir() {
    std::error_code error;
    std::filesystem::remove_all(path_, error);
}

void WorkDir::writeIni(const std::string& ini) {
    std::ofstream file(path_ / "VirtualSensor.ini", std::ios::binary | std::ios::trunc);
    file << ini;
}

Sensor::Sensor(const WorkDir& dir) {
    createResult_ = TheDriver().create(dir.str().c_str(), &EventLog::Callback, &handle_);
}

Sensor::~Sensor() { destroy(); }

void Sensor::destroy() {
    if (handle_ >= 1) {
        TheDriver().destroy(handle_);
        handle_ = 0;
    }
}

int Sensor::invoke(int command) { return TheDriver().invoke(handle_, command, nullptr, 0); }

Event Sensor::expose(std::chrono::milliseconds timeout) {
    const size_t before = EventLog::instance().count(handle_, fpdsys::kEvtImage);
    EXPECT_EQ(invoke(fpdsys::kCmdWaitExposure), 1);
    if (!EventLog::instance().waitFor(handle_, fpdsys::kEvtImage, before + 1, timeout)) {
        ADD_FAILURE() << "no image within " << timeout.count() << " ms";
        return Event();
    }
    size_t seen = 0;
    for (const Event& e : EventLog::instance().events(handle_)) {
        if (e.event == fpdsys::kEvtImage && ++seen == before + 1) {
            return e;
        }
    }
    return Event();
}

}  // namespace vstest
