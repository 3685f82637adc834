// DriverBinding: the thin layer between a detector object and the driver library FpdSys.
//
// It loads the library and its seven entry points, owns the driver's instance, turns the
// driver's asynchronous commands into blocking calls with a time-out and wraps attribute reads
// and writes in the driver's value record. Copies of a detector object share one binding, so
// it is safe to use from several host threads: calls into the driver are serialised, and a
// teardown by one copy leaves the others with a binding that answers "not loaded".
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "driver_interface/fpdsys_api.h"
#include "driver_interface/test_timing.h"
#include "platform/dynamic_library.h"
#include "platform/event.h"
#include "veltrano/export.h"

namespace veltrano::detail {

// Tests and diagnosis only, not part of the host interface: caps the time-out of every blocking
// driver command (10 s for connect, 2 s and 1 s around each exposure) at ms milliseconds for the
// whole process, so that a long run with hanging commands does not spend its time waiting; 0
// restores the described time-outs.
VELTRANO_API void SetCommandTimeoutCapForTesting(uint32_t ms);

// Tests only, like the cap above: divides every blocking command's time-out and the pauses of
// an acquisition's progress steps by divisor for the whole process, so that a test can watch a
// command time out, or take many exposures, without sitting out the real durations. The order
// of events and every result stay the same. 1 (or 0) restores the described durations.
// A test that runs the library in another process (the program, a C or Python host) sets
// VELTRANO_TIME_DIVISOR instead (driver_interface/test_timing.h).
VELTRANO_API void SetTimeDivisorForTesting(uint32_t divisor);
// A duration in milliseconds as the divisor above leaves it (at least 1 ms when ms was not 0).
uint32_t ScaledForTesting(uint32_t ms);

class DriverBinding {
public:
    DriverBinding();
    ~DriverBinding();
    DriverBinding(const DriverBinding&) = delete;
    DriverBinding& operator=(const DriverBinding&) = delete;

    // 0 when the library and all seven entry points are there, else 9.
    int Load();
    // Loads first if needed; then the driver's Create result.
    int CreateInstance(const char* workDir, fpdsys::Callback callback);
    int DestroyInstance();
    void Unload();
    int Abort();
    // The driver's text for an error code; empty when the library is not loaded.
    std::string ErrorText(int code);

    // Reads an attribute into buffer (at least 512 bytes): the int32, the float or the 512
    // string bytes by the value's type; all 512 bytes zero when the read fails.
    void ReadAttribute(int id, void* buffer);
    int ReadIntAttribute(int id);
    std::string ReadStringAttribute(int id);

    int WriteInt(int id, int value);
    int WriteFloat(int id, float value);
    int WriteString(int id, const char* value);

    static fpdsys::Param IntParam(int value);
    static fpdsys::Param FloatParam(float value);
    static fpdsys::Param StringParam(const char* value);

    // Starts a command without waiting: the driver's Invoke result (1 = accepted).
    int StartCommand(int id, const std::vector<fpdsys::Param>& params = {});
    // Starts a command and waits up to timeoutMs for its completion: the completion's result,
    // the Invoke result when the driver did not accept it, or 22 when nothing came in time.
    int RunCommand(int id, const std::vector<fpdsys::Param>& params, uint32_t timeoutMs);

    // Called from the driver's callback thread with the callback's arguments.
    void OnCallback(int detectorId, int eventId, int param1, int param2);

    // Destroys the instance and unloads the library; a waiting blocking command is woken and
    // answers 22. Safe to call more than once and from any copy's thread.
    void Teardown();

    int Instance() const { return instance_.load(); }
    bool IsLoaded() const { return loaded_.load(); }

private:
    std::atomic<int> loaded_{0};
    platform::DynamicLibrary module_;
    fpdsys::CreateFn create_ = nullptr;
    fpdsys::DestroyFn destroy_ = nullptr;
    fpdsys::GetAttrFn getAttr_ = nullptr;
    fpdsys::SetAttrFn setAttr_ = nullptr;
    fpdsys::InvokeFn invoke_ = nullptr;
    fpdsys::AbortFn abort_ = nullptr;
    fpdsys::GetErrInfoFn getErrInfo_ = nullptr;
    std::atomic<int> instance_{0};
    platform::Event commandDone_;
    std::atomic<int> pendingCommand_{0};
    std::atomic<int> commandResult_{fpdsys::kErrTimeout};

    // Guards the library, its entry points and every call into the driver.
    std::mutex driverMutex_;
    // Keeps one blocking command at a time per binding: pendingCommand_ holds a single ID.
    std::mutex commandMutex_;

    int LoadLocked();
    int WriteValue(int id, const fpdsys::Value& value);
};

}  // namespace veltrano::detail
