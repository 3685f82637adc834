#include "detector/driver_binding.h"

#include <algorithm>
#include <atomic>
#include <cstring>

namespace veltrano::detail {

namespace {

constexpr char kLibraryName[] = "FpdSys";

std::atomic<uint32_t> g_timeoutCapMs{0};
std::atomic<uint32_t> g_timeDivisor{fpdsys::TimeDivisorFromEnvironment()};

template <typename Fn>
bool Resolve(const platform::DynamicLibrary& library, const char* name, Fn& out) {
    void* address = library.symbol(name);
    if (address == nullptr) {
        return false;
    }
    out = reinterpret_cast<Fn>(address);
    return true;
}

// Copies at most 511 characters and always terminates, as the driver's records expect.
void CopyText(char (&target)[512], const char* text) {
    std::memset(target, 0, sizeof(target));
    std::strncpy(target, text, sizeof(target) - 1);
}

}  // namespace

void SetCommandTimeoutCapForTesting(uint32_t ms) { g_timeoutCapMs = ms; }

void SetTimeDivisorForTesting(uint32_t divisor) { g_timeDivisor = divisor > 1 ? divisor : 1; }

uint32_t ScaledForTesting(uint32_t ms) {
    const uint32_t divisor = g_timeDivisor.load();
    if (divisor == 1 || ms == 0) {
        return ms;
    }
    return std::max<uint32_t>(1, ms / divisor);
}

DriverBinding::DriverBinding() = default;

DriverBinding::~DriverBinding() { Teardown(); }

int DriverBinding::Load() {
    std::lock_guard<std::mutex> lock(driverMutex_);
    return LoadLocked();
}

int DriverBinding::LoadLocked() {
    if (!module_.isOpen() && !module_.open(kLibraryName)) {
        return fpdsys::kErrLoadFailed;
    }
    // Looked up in this order; the first one missing fails the load, the ones before it stay.
    if (!Resolve(module_, "Create", create_) || !Resolve(module_, "Destroy", destroy_) ||
        !Resolve(module_, "GetAttr", getAttr_) || !Resolve(module_, "SetAttr", setAttr_) ||
        !Resolve(module_, "Invoke", invoke_) || !Resolve(module_, "Abort", abort_) ||
        !Resolve(module_, "GetErrInfo", getErrInfo_)) {
        return fpdsys::kErrLoadFailed;
    }
    loaded_ = 1;
    return 0;
}

int DriverBinding::CreateInstance(const char* workDir, fpdsys::Callback callback) {
    std::lock_guard<std::mutex> lock(driverMutex_);
    if (!loaded_) {
        const int result = LoadLocked();
        if (result != 0) {
            return result;
        }
    }
    int instance = instance_.load();
    const int result = create_(workDir != nullptr ? workDir : "", callback, &instance);
    instance_ = instance;
    return result;
}

int DriverBinding::DestroyInstance() {
    std::lock_guard<std::mutex> lock(driverMutex_);
    const int instance = instance_.load();
    if (instance < 1 || !loaded_) {
        return 0;
    }
    destroy_(instance);
    instance_ = 0;
    return 0;
}

void DriverBinding::Unload() {
    std::lock_guard<std::mutex> lock(driverMutex_);
    loaded_ = 0;
    module_.close();
}

int DriverBinding::Abort() {
    std::lock_guard<std::mutex> lock(driverMutex_);
    if (!loaded_) {
        return fpdsys::kErrNotLoaded;
    }
    return abort_(instance_.load());
}

std::string DriverBinding::ErrorText(int code) {
    std::lock_guard<std::mutex> lock(driverMutex_);
    if (!loaded_) {
        return std::string();
    }
    fpdsys::ErrInfo info{};
    getErrInfo_(code, &info);
    info.text[sizeof(info.text) - 1] = '\0';
    return std::string(info.text);
}

void DriverBinding::ReadAttribute(int id, void* buffer) {
    std::memset(buffer, 0, 512);
    std::lock_guard<std::mutex> lock(driverMutex_);
    if (!loaded_) {
        return;
    }
    fpdsys::Value value{};
    if (getAttr_(instance_.load(), id, &value) != 0) {
        return;
    }
    switch (value.type) {
    case fpdsys::kInt:
        std::memcpy(buffer, &value.intValue, sizeof(value.intValue));
        break;
    case fpdsys::kFloat:
        std::memcpy(buffer, &value.floatValue, sizeof(value.floatValue));
        break;
    case fpdsys::kString:
        std::memcpy(buffer, value.text, sizeof(value.text));
        break;
    default:
        break;
    }
}

int DriverBinding::ReadIntAttribute(int id) {
    char buffer[512];
    ReadAttribute(id, buffer);
    int value = 0;
    std::memcpy(&value, buffer, sizeof(value));
    return value;
}

std::string DriverBinding::ReadStringAttribute(int id) {
    char buffer[513];
    ReadAttribute(id, buffer);
    buffer[512] = '\0';
    return std::string(buffer);
}

int DriverBinding::WriteValue(int id, const fpdsys::Value& value) {
    std::lock_guard<std::mutex> lock(driverMutex_);
    if (!loaded_) {
        return fpdsys::kErrNotLoaded;
    }
    return setAttr_(instance_.load(), id, &value);
}

int DriverBinding::WriteInt(int id, int value) {
    fpdsys::Value record{};
    record.type = fpdsys::kInt;
    record.intValue = value;
    return WriteValue(id, record);
}

int DriverBinding::WriteFloat(int id, float value) {
    fpdsys::Value record{};
    record.type = fpdsys::kFloat;
    record.floatValue = value;
    return WriteValue(id, record);
}

int DriverBinding::WriteString(int id, const char* value) {
    if (!loaded_) {
        return fpdsys::kErrNotLoaded;
    }
    if (value == nullptr) {
        return fpdsys::kErrNullString;
    }
    fpdsys::Value record{};
    record.type = fpdsys::kString;
    CopyText(record.text, value);
    return WriteValue(id, record);
}

fpdsys::Param DriverBinding::IntParam(int value) {
    fpdsys::Param param{};
    param.type = fpdsys::kInt;
    param.intValue = value;
    return param;
}

fpdsys::Param DriverBinding::FloatParam(float value) {
    fpdsys::Param param{};
    param.type = fpdsys::kFloat;
    param.floatValue = value;
    return param;
}

fpdsys::Param DriverBinding::StringParam(const char* value) {
    fpdsys::Param param{};
    param.type = fpdsys::kString;
    CopyText(param.text, value != nullptr ? value : "");
    return param;
}

int DriverBinding::StartCommand(int id, const std::vector<fpdsys::Param>& params) {
    std::lock_guard<std::mutex> lock(driverMutex_);
    if (!loaded_) {
        return fpdsys::kErrNotLoaded;
    }
    // A completion that came after an earlier wait had timed out must not end this one.
    commandDone_.reset();
    pendingCommand_ = id;
    // The driver takes a writable array; give it a copy it may scribble on.
    std::vector<fpdsys::Param> copy(params);
    return invoke_(instance_.load(), id, copy.empty() ? nullptr : copy.data(),
                   static_cast<int>(copy.size()));
}

int DriverBinding::RunCommand(int id, const std::vector<fpdsys::Param>& params,
                              uint32_t timeoutMs) {
    std::lock_guard<std::mutex> serial(commandMutex_);
    commandResult_ = fpdsys::kErrTimeout;
    const int started = StartCommand(id, params);
    if (started != 1) {
        return started;
    }
    timeoutMs = ScaledForTesting(timeoutMs);
    const uint32_t cap = g_timeoutCapMs.load();
    if (cap != 0 && cap < timeoutMs) {
        timeoutMs = cap;
    }
    if (commandDone_.wait(timeoutMs) != platform::Event::WaitResult::Signalled) {
        return fpdsys::kErrTimeout;
    }
    return commandResult_.load();
}

void DriverBinding::OnCallback(int /*detectorId*/, int eventId, int param1, int param2) {
    if (eventId == fpdsys::kEvtCommandDone) {
        commandResult_ = 0;
    } else if (eventId == fpdsys::kEvtCommandFailed) {
        commandResult_ = param2;
    } else {
        return;
    }
    // Completions of other commands change the result but wake nobody.
    if (pendingCommand_.load() == param1) {
        commandDone_.set();
    }
}

void DriverBinding::Teardown() {
    {
        std::lock_guard<std::mutex> lock(driverMutex_);
        const int instance = instance_.load();
        if (instance >= 1 && loaded_) {
            destroy_(instance);
        }
        instance_ = 0;
        loaded_ = 0;
        module_.close();
    }
    // A blocking command of another copy still waiting would otherwise sit out its time-out.
    commandResult_ = fpdsys::kErrTimeout;
    commandDone_.set();
}

}  // namespace veltrano::detail
