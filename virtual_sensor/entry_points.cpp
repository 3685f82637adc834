// The driver's exported entry points. Instances live in a process-wide table keyed by their
// handle (1, 2, ... never reused, so a late call with an old handle is refused rather than
// reaching a newer sensor). Each call takes a reference to its instance under the table's lock
// and works on it outside the lock.
#include <algorithm>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "driver_interface/fpdsys_api.h"
#include "error_codes.h"
#include "instance.h"
#include "settings.h"
#include "virtual_sensor.h"

namespace virtual_sensor {
namespace {

class InstanceTable {
public:
    ~InstanceTable() {
#if !defined(_WIN32)
        // The library is being unloaded (or the process ends) with sensors still open: stop
        // their threads while their code is still mapped. On Windows this runs under the loader
        // lock, where waiting for a thread would dead-lock; hosts must call Destroy there.
        std::map<int, std::shared_ptr<Instance>> open;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            open.swap(instances_);
        }
        for (auto& entry : open) {
            entry.second->stop();
        }
#endif
    }

    int add(const Settings& settings, fpdsys::Callback callback, int& handle) {
        std::lock_guard<std::mutex> lock(mutex_);
        const int next = nextHandle_;
        auto instance = std::make_shared<Instance>(next, settings, callback);
        if (!instance->start()) {
            return kOutOfResources;
        }
        instances_[next] = instance;
        ++nextHandle_;
        handle = next;
        return kOk;
    }

    std::shared_ptr<Instance> find(int handle) {
        std::lock_guard<std::mutex> lock(mutex_);
        const auto it = instances_.find(handle);
        return it == instances_.end() ? nullptr : it->second;
    }

    std::shared_ptr<Instance> remove(int handle) {
        std::lock_guard<std::mutex> lock(mutex_);
        const auto it = instances_.find(handle);
        if (it == instances_.end()) {
            return nullptr;
        }
        std::shared_ptr<Instance> instance = it->second;
        instances_.erase(it);
        return instance;
    }

private:
    std::mutex mutex_;
    std::map<int, std::shared_ptr<Instance>> instances_;
    int nextHandle_ = 1;
};

InstanceTable& Table() {
    static InstanceTable table;
    return table;
}

std::mutex& ProblemMutex() {
    static std::mutex mutex;
    return mutex;
}

std::string& Problem() {
    static std::string problem;
    return problem;
}

}  // namespace

void SetConfigurationProblem(const std::string& problem) {
    std::lock_guard<std::mutex> lock(ProblemMutex());
    Problem() = problem;
}

std::string ErrorText(int code) {
    switch (code) {
    case kOk:
        return "Succeed";
    case kPending:
        return "Task pending: the result follows by callback";
    case kBadInstance:
        return "Invalid instance handle";
    case kBadArgument:
        return "Invalid argument";
    case kUnknownAttribute:
        return "Unsupported attribute";
    case kUnknownCommand:
        return "Unsupported command";
    case kReadOnlyAttribute:
        return "Attribute is read-only";
    case kWrongValueType:
        return "Wrong value type for this attribute";
    case kBadConfiguration: {
        std::lock_guard<std::mutex> lock(ProblemMutex());
        return Problem().empty() ? "Invalid configuration" : "Invalid configuration: " + Problem();
    }
    case kOutOfResources:
        return "Out of resources";
    case kStopped:
        return "Instance is being destroyed";
    case kTimedOut:
        return "Operation timed out";
    default:
        return "Error code " + std::to_string(code);
    }
}

}  // namespace virtual_sensor

using virtual_sensor::Table;

#if defined(_WIN32)
#define FPDSYS_EXPORT extern "C" __declspec(dllexport)
#else
#define FPDSYS_EXPORT extern "C" __attribute__((visibility("default")))
#endif

FPDSYS_EXPORT int Create(const char* workDir, fpdsys::Callback callback, int* instance) {
    if (instance == nullptr || callback == nullptr) {
        return virtual_sensor::kBadArgument;
    }
    *instance = 0;
    virtual_sensor::Settings settings;
    std::string problem;
    if (!virtual_sensor::LoadSettings(workDir, settings, problem)) {
        virtual_sensor::SetConfigurationProblem(problem);
        return virtual_sensor::kBadConfiguration;
    }
    return Table().add(settings, callback, *instance);
}

FPDSYS_EXPORT int Destroy(int instance) {
    std::shared_ptr<virtual_sensor::Instance> sensor = Table().remove(instance);
    if (!sensor) {
        return virtual_sensor::kBadInstance;
    }
    sensor->stop();
    return virtual_sensor::kOk;
}

FPDSYS_EXPORT int GetAttr(int instance, int attributeId, fpdsys::Value* value) {
    std::shared_ptr<virtual_sensor::Instance> sensor = Table().find(instance);
    if (!sensor) {
        if (value != nullptr) {
            std::memset(value, 0, sizeof(*value));
        }
        return virtual_sensor::kBadInstance;
    }
    return sensor->getAttr(attributeId, value);
}

FPDSYS_EXPORT int SetAttr(int instance, int attributeId, const fpdsys::Value* value) {
    std::shared_ptr<virtual_sensor::Instance> sensor = Table().find(instance);
    return sensor ? sensor->setAttr(attributeId, value) : virtual_sensor::kBadInstance;
}

FPDSYS_EXPORT int Invoke(int instance, int commandId, fpdsys::Param* params, int paramCount) {
    std::shared_ptr<virtual_sensor::Instance> sensor = Table().find(instance);
    return sensor ? sensor->invoke(commandId, params, paramCount) : virtual_sensor::kBadInstance;
}

FPDSYS_EXPORT int Abort(int instance) {
    std::shared_ptr<virtual_sensor::Instance> sensor = Table().find(instance);
    return sensor ? sensor->abort() : virtual_sensor::kBadInstance;
}

FPDSYS_EXPORT int GetErrInfo(int code, fpdsys::ErrInfo* info) {
    if (info == nullptr) {
        return virtual_sensor::kBadArgument;
    }
    const std::string text = virtual_sensor::ErrorText(code);
    std::memset(info, 0, sizeof(*info));
    info->code = code;
    const size_t n = std::min(text.size(), sizeof(info->text) - 1);
    std::memcpy(info->text, text.data(), n);
    return virtual_sensor::kOk;
}
