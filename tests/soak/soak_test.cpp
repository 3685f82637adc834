// A working day of acquisitions in a few minutes: two detector objects on two virtual sensors
// acquire side by side while a third thread calls StopAcq at random moments; between
// acquisitions the driver's faults are switched on and off (the detector reconnects to take
// them up) and the calibration files are replaced or taken away. Every acquisition must end
// with the code its situation calls for, every delivered image must have the sensor's size and
// come back flat from a flat exposure, and at the end no thread or file handle may be left.
// Leaks are AddressSanitizer's to find: CI runs this under it (ctest label "soak", which
// `make test` leaves out). VELTRANO_SOAK_ACQUISITIONS sets the total (1000 by default).
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <mutex>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "detector/driver_binding.h"
#include "platform/dynamic_library.h"
#include "veltrano/detector.h"

#if defined(_WIN32)
#include <io.h>
#define dup _dup
#define dup2 _dup2
#define close _close
#define fileno _fileno
constexpr char kNullDevice[] = "NUL";
#else
#include <unistd.h>
constexpr char kNullDevice[] = "/dev/null";
#endif

namespace {
namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

// The faults an acquisition may meet, with the code it then ends with when nobody stops it, and
// whether it still delivers an image.
struct Fault {
    const char* name;
    const char* ini;  // VirtualSensor.ini lines
    int code;
    bool image;
};
const Fault kFaults[] = {
    {"none", "", 0, true},
    {"delay write fails", "FailSetAttr = 2510:7", -4, true},
    {"trigger mode write fails", "FailSetAttr = 2506:7", -5, true},
    {"threshold write fails", "FailSetAttr = 2564:7", -6, true},
    {"command 6 fails", "FailCommand = 6:17", -7, true},
    {"command 2031 rejected", "RejectCommand = 2031:18", -7, true},
    {"command 6 hangs", "HangCommand = 6", -7, true},
    {"command 2031 hangs", "HangCommand = 2031", -7, true},
    {"arming fails", "FailCommand = 1002:19", -8, false},
    {"arming rejected", "RejectCommand = 1002:21", -8, false},
    {"arming hangs", "HangCommand = 1002", -9, false},  // only a stop ends it
    {"no image", "NoImage = 1", -9, false},             // likewise
    {"null image", "NullImage = 1", -10, false},
};

int Acquisitions() {
    const char* text = std::getenv("VELTRANO_SOAK_ACQUISITIONS");
    const int n = text != nullptr ? std::atoi(text) : 1000;
    return n > 0 ? n : 1000;
}

// Threads and open file descriptors of this process (Linux), -1 elsewhere.
int CountEntries(const char* folder) {
    std::error_code ec;
    if (!fs::is_directory(folder, ec)) return -1;
    int n = 0;
    for (auto it = fs::directory_iterator(folder, ec); !ec && it != fs::directory_iterator();
         it.increment(ec))
        ++n;
    return n;
}

// Coefficient of variation below the cut corners: a corrected flat exposure is flat.
double Variation(const imgmat& image, unsigned long long cut) {
    double sum = 0, squares = 0, count = 0;
    for (size_t i = (cut + 1) * image.width; i < image.width * image.height; ++i, ++count) {
        sum += image.data[i];
        squares += double(image.data[i]) * image.data[i];
    }
    return std::sqrt(std::max(0.0, squares / count - sum * sum / count / count)) / (sum / count);
}

int WriteCalibration(const std::string& workDir, int frames) {
    veltrano::platform::DynamicLibrary driver;
    using WriteFn = int (*)(const char*, int);
    auto write = driver.open("FpdSys")
                     ? reinterpret_cast<WriteFn>(driver.symbol("VirtualSensor_WriteCalibration"))
                     : nullptr;
    return write != nullptr ? write(workDir.c_str(), frames) : -1;
}

// What one detector is doing, for the stopping thread. The lock keeps the detector alive while
// that thread stops it.
struct Station {
    std::atomic<bool> acquiring{false};
    std::atomic<int64_t> startedMs{0};
    std::mutex mutex;
    CVeltrano* detector = nullptr;

    void attach(CVeltrano* d) {
        std::lock_guard<std::mutex> lock(mutex);
        detector = d;
    }
    bool stop() {
        std::lock_guard<std::mutex> lock(mutex);
        if (detector == nullptr) return false;
        detector->StopAcq();
        return true;
    }
};

// Sends standard output to the null device until restored.
class QuietStdout {
public:
    QuietStdout() {
        std::fflush(stdout);
        saved_ = dup(fileno(stdout));
        if (FILE* null = std::fopen(kNullDevice, "w")) {
            dup2(fileno(null), fileno(stdout));
            std::fclose(null);
        }
    }
    ~QuietStdout() { restore(); }
    void restore() {
        if (saved_ < 0) return;
        std::fflush(stdout);
        dup2(saved_, fileno(stdout));
        close(saved_);
        saved_ = -1;
    }

private:
    int saved_ = -1;
};

int64_t NowMs() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now().time_since_epoch())
        .count();
}

struct Tally {
    std::mutex mutex;
    std::map<std::string, int> outcomes;
    std::vector<std::string> failures;
    void count(const std::string& outcome) {
        std::lock_guard<std::mutex> lock(mutex);
        ++outcomes[outcome];
    }
    void fail(const std::string& what) {
        std::lock_guard<std::mutex> lock(mutex);
        if (failures.size() < 20) failures.push_back(what);
    }
};

// One detector's share of the soak.
void Work(int id, int acquisitions, Station& station, Tally& tally, uint32_t seed) {
    const int sensorSize = id == 0 ? 1000 : 1500;
    const unsigned long long width = id == 0 ? 1000 : 1200, height = id == 0 ? 1500 : 1650;
    const unsigned long long cut = id == 0 ? 211 : 251;
    const fs::path dir = fs::temp_directory_path() /
                         ("veltrano_soak_" + std::to_string(id) + "_" + std::to_string(seed));
    fs::remove_all(dir);
    fs::create_directories(dir);
    std::mt19937 random(seed);
    auto configure = [&](const Fault& fault) {
        std::ofstream(dir / "VirtualSensor.ini")
            << "[VirtualSensor]\nSensorSize = " << sensorSize
            << "\nScene = flat\nDose = " << (id == 0 ? 20000 : 12000)
            << "\nSeed = " << (seed % 1000) << "\nExposureMs = " << (10 + random() % 40) << "\n"
            << fault.ini << "\n";
    };
    configure(kFaults[0]);
    ASSERT_EQ(WriteCalibration(dir.string(), id == 0 ? 1 : 4), 0);

    const Fault* fault = &kFaults[0];
    bool gainPresent = true;
    {
        CVeltrano detector(dir.string().c_str());
        station.attach(&detector);
        ASSERT_EQ(detector.Initialize(), 0);
        ASSERT_EQ(detector.Connect(), 0);
        for (int n = 0; n < acquisitions; ++n) {
            // Between acquisitions: now and then another fault (taken up by reconnecting), new
            // calibration files, or none at all.
            const unsigned change = random() % 10;
            if (change < 3) {
                fault = change < 2 ? &kFaults[0]
                                   : &kFaults[random() % (sizeof kFaults / sizeof kFaults[0])];
                configure(*fault);
                detector.Disconnect();
                detector.Deinit();
                if (detector.Initialize() != 0 || detector.Connect() != 0) {
                    tally.fail("detector " + std::to_string(id) + " could not reconnect");
                    break;
                }
            } else if (change == 3) {
                gainPresent = WriteCalibration(dir.string(), random() % 2 ? 1 : 4) == 0;
            } else if (change == 4 && gainPresent) {
                gainPresent = !fs::remove(dir / "Correct" / "Default" / "VirtualSensor.gn");
            }

            detector.SetEndSign(0);
            detector.SetProgressBar(0);
            detector.ResetUserStop();
            imgmat image;
            station.startedMs = NowMs();
            station.acquiring = true;
            // Settings that differ from the driver's, so that each is written (and a write fault
            // bites): a failed write leaves the driver's default (delay 0, mode 6, threshold 100),
            // which a reconnect restores.
            const bool modeFault = fault == &kFaults[2], thresholdFault = fault == &kFaults[3];
            const int code = detector.AcqImageEx(image, 1 + n % 2, modeFault ? 7 : 6 + n % 2,
                                                 thresholdFault ? 101 : 100 + n % 2);
            station.acquiring = false;
            const bool stopped = detector.GetUserStop();
            const int endSign = detector.GetEndSign();
            const int progress = detector.GetProgressBar();
            const bool delivered = image.data != nullptr;

            // The code the situation calls for, and what a stop may make of it.
            const int expected = gainPresent ? fault->code : -3;
            const bool imageExpected = gainPresent && fault->image;
            std::string outcome;
            bool fine = false;
            if (code == expected && delivered == imageExpected) {
                fine = true;
                outcome = std::to_string(code) + (delivered ? " with image" : " without image");
            } else if (stopped && code == -9 && !delivered) {
                fine = true;  // stopped while waiting for the exposure
                outcome = "-9 without image (stopped)";
            } else if (stopped && code == 0 && !delivered) {
                fine = true;  // stopped before the sensor was armed
                outcome = "0 without image (stopped before arming)";
            }
            if (!fine) {
                tally.fail("detector " + std::to_string(id) + ", acquisition " + std::to_string(n) +
                           " (" + fault->name + (gainPresent ? "" : ", no gain file") +
                           (stopped ? ", stopped" : "") + "): code " + std::to_string(code) +
                           (delivered ? " with" : " without") + " an image");
                outcome = "unexpected";
            }
            tally.count(outcome);
            if (delivered != (endSign == 1)) {
                tally.fail("end sign " + std::to_string(endSign) +
                           (delivered ? " with" : " without") + " an image");
            }
            if (delivered && progress != 11) {
                tally.fail("progress " + std::to_string(progress) + " after a delivered image");
            }
            if (delivered) {
                const double variation =
                    image.width == width && image.height == height ? Variation(image, cut) : 1.0;
                if (variation >= 0.02) {
                    tally.fail("detector " + std::to_string(id) + ": image " +
                               std::to_string(image.width) + " x " + std::to_string(image.height) +
                               " with a variation of " + std::to_string(variation));
                }
            }
            if (!gainPresent && random() % 2 == 0) {
                gainPresent = WriteCalibration(dir.string(), 1) == 0;
            }
        }
        station.acquiring = false;
        station.attach(nullptr);
        detector.Disconnect();
        detector.Deinit();
    }
    fs::remove_all(dir);
}

TEST(Soak, TwoDetectorsThroughFaultsStopsAndNewCalibrationGiveTheirDescribedCodes) {
    const int threadsBefore = CountEntries("/proc/self/task");
    const int filesBefore = CountEntries("/proc/self/fd");
    // A hanging connect would cost 10 s and a hanging command several seconds; the cap keeps the
    // run to minutes. It leaves room for a busy machine: the virtual sensor completes a command
    // after 10 ms, but only once it has finished the frame of an exposure that a stop cut short.
    veltrano::detail::SetCommandTimeoutCapForTesting(1500);
    QuietStdout quiet;  // the library's console lines, some hundred thousand of them
    const int total = Acquisitions();
    const auto start = Clock::now();

    Station stations[2];
    Tally tally;
    std::atomic<bool> done{false};
    std::atomic<int> stops{0};
    // The third thread: StopAcq at random moments, and always on a wait that nothing else ends.
    std::thread stopper([&] {
        std::mt19937 random(12345);
        while (!done) {
            std::this_thread::sleep_for(std::chrono::milliseconds(random() % 60));
            Station& s = stations[random() % 2];
            const bool stuck = s.acquiring && NowMs() - s.startedMs > 1000;
            if (s.acquiring && (stuck || random() % 25 == 0) && s.stop()) ++stops;
        }
    });
    std::thread first([&] { Work(0, total / 2, stations[0], tally, 101); });
    std::thread second([&] { Work(1, total - total / 2, stations[1], tally, 202); });
    first.join();
    second.join();
    done = true;
    stopper.join();
    veltrano::detail::SetCommandTimeoutCapForTesting(0);
    quiet.restore();

    int counted = 0;
    std::fprintf(stderr, "soak: %d acquisitions in %.0f s, %d StopAcq calls\n", total,
                 std::chrono::duration<double>(Clock::now() - start).count(), stops.load());
    for (const auto& [outcome, n] : tally.outcomes) {
        std::fprintf(stderr, "  %6d  %s\n", n, outcome.c_str());
        counted += n;
    }
    EXPECT_EQ(counted, total);
    EXPECT_EQ(tally.outcomes.count("unexpected"), 0u);
    for (const std::string& failure : tally.failures) ADD_FAILURE() << failure;
    // Every driver thread has ended and every handle is closed again.
    EXPECT_EQ(CountEntries("/proc/self/task"), threadsBefore);
    EXPECT_EQ(CountEntries("/proc/self/fd"), filesBefore);
}

}  // namespace
