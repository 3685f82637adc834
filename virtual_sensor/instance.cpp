#include "instance.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <new>
#include <string>

#include "driver_interface/test_timing.h"
#include "error_codes.h"
#include "xray_source.h"

namespace virtual_sensor {
namespace {

// How long after Invoke a command's completion arrives: short, but late enough that the caller
// is already waiting, as with a sensor on a USB link.
constexpr std::chrono::milliseconds kCompletionDelay(10);

// The exposure window, shortened for test runs that drive the sensor from another process.
std::chrono::milliseconds ExposureWindow(int exposureMs) {
    static const uint32_t divisor = fpdsys::TimeDivisorFromEnvironment();
    return std::chrono::milliseconds(exposureMs / static_cast<int>(divisor));
}

bool IsKnownCommand(int command) {
    switch (command) {
    case fpdsys::kCmdConnect:
    case fpdsys::kCmdDisconnect:
    case fpdsys::kCmdPrepare:
    case fpdsys::kCmdReset:
    case fpdsys::kCmdWaitExposure:
    case fpdsys::kCmdReadUserRom:
    case fpdsys::kCmdUpdateFirmware:
    case fpdsys::kCmdWriteUserRam:
        return true;
    default:
        return false;
    }
}

void SetText(fpdsys::Value* value, const std::string& text) {
    value->type = fpdsys::kString;
    const size_t n = std::min(text.size(), sizeof(value->text) - 1);
    std::memcpy(value->text, text.data(), n);
    value->text[n] = '\0';
}

void SetInt(fpdsys::Value* value, int number) {
    value->type = fpdsys::kInt;
    value->intValue = number;
}

}  // namespace

Instance::Instance(int handle, const Settings& settings, fpdsys::Callback callback)
    : handle_(handle), settings_(settings), callback_(callback) {}

Instance::~Instance() {
    // stop() has joined or detached the worker before the last reference goes; a thread that is
    // still joinable here would terminate the process.
    if (worker_.joinable()) {
        worker_.detach();
    }
}

bool Instance::start() {
    try {
        // The worker keeps its instance alive, so a callback may destroy the instance it runs in.
        std::shared_ptr<Instance> self = shared_from_this();
        worker_ = std::thread([self] { self->run(); });
    } catch (const std::exception&) {
        return false;
    }
    return true;
}

void Instance::stop() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stopping_ = true;
        stopped_ = true;
        jobs_.clear();
        armedExposure_ = 0;
    }
    wake_.notify_all();
    if (!worker_.joinable()) {
        return;
    }
    if (worker_.get_id() == std::this_thread::get_id()) {
        worker_.detach();
    } else {
        worker_.join();
    }
}

int Instance::getAttr(int attribute, fpdsys::Value* value) {
    if (value == nullptr) {
        return kBadArgument;
    }
    std::memset(value, 0, sizeof(*value));
    std::lock_guard<std::mutex> lock(mutex_);
    switch (attribute) {
    case fpdsys::kAttrUsbInfo:
        SetText(value, "Virtual sensor on USB 2.0 high speed, bus 1, port 1");
        return kOk;
    case fpdsys::kAttrSerialNumber: {
        char serial[32];
        std::snprintf(serial, sizeof(serial), "VS%d-%08u", settings_.sensorSize,
                      static_cast<unsigned>(settings_.seed));
        SetText(value, serial);
        return kOk;
    }
    case fpdsys::kAttrTriggerMode:
        SetInt(value, triggerMode_);
        return kOk;
    case fpdsys::kAttrDelayTime:
        SetInt(value, delayTime_);
        return kOk;
    case fpdsys::kAttrTriggerThreshold:
        SetInt(value, triggerThreshold_);
        return kOk;
    case fpdsys::kAttrOnlineState:
        SetInt(value, settings_.online);
        return kOk;
    case fpdsys::kAttrImageWidth:
        SetInt(value, settings_.columns());
        return kOk;
    case fpdsys::kAttrImageHeight:
        SetInt(value, settings_.rows());
        return kOk;
    default:
        return kUnknownAttribute;
    }
}

int Instance::setAttr(int attribute, const fpdsys::Value* value) {
    int code = 0;
    if (settings_.failSetAttr(attribute, code)) {
        return code;
    }
    if (value == nullptr) {
        return kBadArgument;
    }
    int* target = nullptr;
    switch (attribute) {
    case fpdsys::kAttrTriggerMode:
        target = &triggerMode_;
        break;
    case fpdsys::kAttrDelayTime:
        target = &delayTime_;
        break;
    case fpdsys::kAttrTriggerThreshold:
        target = &triggerThreshold_;
        break;
    case fpdsys::kAttrUsbInfo:
    case fpdsys::kAttrSerialNumber:
    case fpdsys::kAttrOnlineState:
    case fpdsys::kAttrImageWidth:
    case fpdsys::kAttrImageHeight:
        return kReadOnlyAttribute;
    default:
        return kUnknownAttribute;
    }
    if (value->type != fpdsys::kInt) {
        return kWrongValueType;
    }
    std::lock_guard<std::mutex> lock(mutex_);
    *target = value->intValue;
    return kOk;
}

int Instance::invoke(int command, const fpdsys::Param* params, int paramCount) {
    if (paramCount < 0 || (paramCount > 0 && params == nullptr)) {
        return kBadArgument;
    }
    int code = 0;
    if (settings_.rejectCommand(command, code)) {
        return code;
    }
    if (!IsKnownCommand(command)) {
        return kUnknownCommand;
    }
    if (command == fpdsys::kCmdUpdateFirmware &&
        (paramCount < 1 || params[0].type != fpdsys::kString)) {
        return kBadArgument;  // the firmware file's path is required
    }

    std::lock_guard<std::mutex> lock(mutex_);
    if (stopping_) {
        return kStopped;
    }
    const bool exposure = command == fpdsys::kCmdWaitExposure;
    uint64_t arming = 0;
    if (exposure) {
        // A new arming replaces one still pending: only the latest exposure delivers.
        arming = ++lastExposure_;
        armedExposure_ = arming;
        jobs_.erase(std::remove_if(jobs_.begin(), jobs_.end(),
                                   [](const Job& j) { return j.exposure != 0; }),
                    jobs_.end());
    }
    if (settings_.hangCommand(command) || (exposure && settings_.noImage)) {
        return kPending;  // accepted, and nothing ever follows
    }
    const Clock::time_point due =
        Clock::now() + (exposure ? ExposureWindow(settings_.exposureMs) : kCompletionDelay);
    if (settings_.failCommand(command, code)) {
        schedule({due, JobKind::Fail, command, code, arming});
    } else {
        schedule({due, exposure ? JobKind::Exposure : JobKind::Complete, command, 0, arming});
    }
    return kPending;
}

int Instance::abort() {
    std::lock_guard<std::mutex> lock(mutex_);
    armedExposure_ = 0;
    jobs_.erase(
        std::remove_if(jobs_.begin(), jobs_.end(), [](const Job& j) { return j.exposure != 0; }),
        jobs_.end());
    return kOk;
}

void Instance::schedule(const Job& job) {
    jobs_.push_back(job);
    wake_.notify_all();
}

void Instance::run() {
    std::unique_lock<std::mutex> lock(mutex_);
    while (!stopping_) {
        if (jobs_.empty()) {
            wake_.wait(lock);
            continue;
        }
        // Earliest due first; among equal times, the one scheduled first.
        auto next = std::min_element(jobs_.begin(), jobs_.end(),
                                     [](const Job& a, const Job& b) { return a.due < b.due; });
        if (Clock::now() < next->due) {
            // The job list may grow (and move) while we wait, so wait on a copy of the time.
            const auto due = next->due;
            wake_.wait_until(lock, due);
            continue;
        }
        const Job job = *next;
        jobs_.erase(next);
        lock.unlock();
        runJob(job);
        lock.lock();
    }
}

void Instance::runJob(const Job& job) {
    switch (job.kind) {
    case JobKind::Complete:
        notify(fpdsys::kEvtCommandDone, job.command, 0, "Command completed", nullptr);
        break;
    case JobKind::Fail:
        if (job.exposure != 0) {
            std::lock_guard<std::mutex> lock(mutex_);
            if (armedExposure_ != job.exposure) {
                return;
            }
            armedExposure_ = 0;
        }
        notify(fpdsys::kEvtCommandFailed, job.command, job.code, "Command failed", nullptr);
        break;
    case JobKind::Exposure:
        deliverImage(job.exposure);
        break;
    }
}

bool Instance::exposureStillArmed(uint64_t exposure) {
    std::lock_guard<std::mutex> lock(mutex_);
    return !stopping_ && armedExposure_ == exposure;
}

void Instance::deliverImage(uint64_t exposure) {
    if (!exposureStillArmed(exposure)) {
        return;
    }
    notify(fpdsys::kEvtStatus, fpdsys::kStatusAcquiring, 0, "Acquiring image", nullptr);
    bool exposed = true;
    if (!settings_.nullImage) {
        // A frame too large for the memory left fails the exposure; an exception escaping this
        // thread would end the host's process.
        try {
            if (!model_) {
                model_ = std::make_unique<SensorModel>(settings_);
            }
            // The source in front of the sensor may have been set for a calibration run.
            const double factor = FlatDoseFactor();
            model_->expose(framesTaken_++, frame_, factor < 0.0 ? -1.0 : factor * settings_.dose);
        } catch (const std::bad_alloc&) {
            model_.reset();
            std::vector<uint16_t>().swap(frame_);
            exposed = false;
        }
    }
    {
        // An Abort or a new arming while the frame was read out cancels this one.
        std::lock_guard<std::mutex> lock(mutex_);
        if (stopping_ || armedExposure_ != exposure) {
            return;
        }
        armedExposure_ = 0;
    }
    if (!exposed) {
        notify(fpdsys::kEvtCommandFailed, fpdsys::kCmdWaitExposure, kOutOfResources,
               "Out of memory", nullptr);
        return;
    }
    fpdsys::ImageRecord record{};
    record.columns = settings_.columns();
    record.rows = settings_.rows();
    record.unused = 0;
    record.pixels = frame_.data();
    notify(fpdsys::kEvtImage, 0, 0, "Image ready", settings_.nullImage ? nullptr : &record);
}

void Instance::notify(int event, int param1, int param2, const char* message, void* data) {
    if (stopped_ || callback_ == nullptr) {
        return;
    }
    callback_(handle_, event, 0, message, param1, param2, 0, data);
}

}  // namespace virtual_sensor
