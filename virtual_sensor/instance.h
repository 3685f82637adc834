// One opened sensor: its attributes, its command handling and the worker thread that delivers
// completions and images through the host's callback.
//
// Every asynchronous result is a job with a due time in a small schedule guarded by one mutex.
// The worker sleeps until the earliest job is due, takes it out and runs it with the mutex
// released, so the callback may call back into the driver (read an attribute, start the next
// command) without deadlock. stop() ends the worker; once it has returned no further callback
// is made, whatever was still scheduled or hanging.
#pragma once

#include <atomic>
#include <condition_variable>
#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "driver_interface/fpdsys_api.h"
#include "sensor_model.h"
#include "settings.h"

namespace virtual_sensor {

class Instance : public std::enable_shared_from_this<Instance> {
public:
    Instance(int handle, const Settings& settings, fpdsys::Callback callback);
    ~Instance();
    Instance(const Instance&) = delete;
    Instance& operator=(const Instance&) = delete;

    // Starts the worker thread; false if the system refuses a thread.
    bool start();
    // Stops the worker and waits for it, unless called from the worker itself (a callback that
    // destroys its own instance), in which case the worker ends after that callback returns.
    void stop();

    int getAttr(int attribute, fpdsys::Value* value);
    int setAttr(int attribute, const fpdsys::Value* value);
    int invoke(int command, const fpdsys::Param* params, int paramCount);
    // Cancels a pending exposure; 0 always.
    int abort();

private:
    using Clock = std::chrono::steady_clock;
    enum class JobKind { Complete, Fail, Exposure };
    struct Job {
        Clock::time_point due;
        JobKind kind;
        int command;
        int code;
        uint64_t exposure;  // for Exposure: the arming it belongs to
    };

    void schedule(const Job& job);  // with mutex_ held
    void run();
    void runJob(const Job& job);
    void deliverImage(uint64_t exposure);
    bool exposureStillArmed(uint64_t exposure);
    void notify(int event, int param1, int param2, const char* message, void* data);

    const int handle_;
    const Settings settings_;
    const fpdsys::Callback callback_;

    std::mutex mutex_;
    std::condition_variable wake_;
    std::vector<Job> jobs_;
    bool stopping_ = false;
    std::atomic<bool> stopped_{false};
    uint64_t armedExposure_ = 0;  // 0: no exposure pending
    uint64_t lastExposure_ = 0;
    int triggerMode_ = 6;
    int delayTime_ = 0;
    int triggerThreshold_ = 100;
    std::thread worker_;

    // Used only on the worker thread.
    std::unique_ptr<SensorModel> model_;
    std::vector<uint16_t> frame_;
    uint64_t framesTaken_ = 0;
};

}  // namespace virtual_sensor
