// One exposure from the host's side: result codes, the progress and end-sign hand-shake, stops,
// and the corrected image.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "detector_support.h"

using namespace detector_test;

namespace {

// Settings that differ from the virtual sensor's defaults, so that all three are written.
constexpr int kDelay = 10;
constexpr int kMode = 7;
constexpr int kThreshold = 555;

struct Outcome {
    int code = 0;
    imgmat image;
    int endSign = 0;
    int progress = 0;
    std::string log;
};

Outcome Acquire(CVeltrano& detector) {
    Outcome outcome;
    StdoutCapture out;
    outcome.code = detector.AcqImageEx(outcome.image, kDelay, kMode, kThreshold);
    outcome.log = out.take();
    outcome.endSign = detector.GetEndSign();
    outcome.progress = detector.GetProgressBar();
    return outcome;
}

// Initialised, connected, with the virtual sensor's calibration in the work directory.
void Prepare(CVeltrano& detector, const WorkDir& dir, int frames = 1) {
    ASSERT_EQ(WriteCalibration(dir.str(), frames), 0);
    ASSERT_EQ(detector.Initialize(), 0);
    ASSERT_EQ(detector.Connect(), 0);
}

// Runs an acquisition on a host thread of its own; the thread is always stopped and joined, even
// when a check fails half-way.
class HostThread {
public:
    explicit HostThread(CVeltrano& detector)
        : detector_(detector), thread_([this] {
              outcome_ = Acquire(detector_);
              returned_ = std::chrono::steady_clock::now();
          }) {}
    ~HostThread() {
        if (thread_.joinable()) {
            detector_.StopAcq();
            thread_.join();
        }
    }
    const Outcome& join() {
        thread_.join();
        return outcome_;
    }
    std::chrono::steady_clock::time_point returned() const { return returned_; }

private:
    CVeltrano& detector_;
    Outcome outcome_;
    std::chrono::steady_clock::time_point returned_;
    std::thread thread_;
};

bool WaitForProgress(CVeltrano& detector, int progress) {
    const auto start = std::chrono::steady_clock::now();
    while (detector.GetProgressBar() != progress) {
        if (MillisecondsSince(start) > 20000) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

// Mean, coefficient of variation and largest relative deviation outside the cut corners.
struct Flatness {
    double mean = 0;
    double cv = 0;
    double worst = 0;
};

Flatness MeasureFlatness(const imgmat& image, long long cornerCut) {
    const long long rows = static_cast<long long>(image.height);
    const long long columns = static_cast<long long>(image.width);
    double sum = 0;
    double squares = 0;
    long long count = 0;
    auto inside = [&](long long r, long long c) {
        return r + c > cornerCut && c - r < columns - cornerCut;
    };
    for (long long r = 0; r < rows; ++r) {
        for (long long c = 0; c < columns; ++c) {
            if (inside(r, c)) {
                const double v = image.data[r * columns + c];
                sum += v;
                squares += v * v;
                ++count;
            }
        }
    }
    Flatness f;
    f.mean = sum / static_cast<double>(count);
    f.cv = std::sqrt(squares / static_cast<double>(count) - f.mean * f.mean) / f.mean;
    for (long long r = 0; r < rows; ++r) {
        for (long long c = 0; c < columns; ++c) {
            if (inside(r, c)) {
                f.worst = std::max(f.worst, std::fabs(image.data[r * columns + c] - f.mean) / f.mean);
            }
        }
    }
    return f;
}

}  // namespace

TEST(Acquisition, FlatExposureComesBackCorrectedWithTheProgressSequence) {
    WorkDir dir("SensorSize = 1000\nScene = flat\nDose = 20000");
    CVeltrano detector(dir.str().c_str());
    Prepare(detector, dir);

    std::atomic<bool> done{false};
    std::vector<int> progressSeen;
    std::vector<int> endSignAt;  // the end sign when each progress value was first seen
    std::thread poller([&] {
        int last = 0;
        for (;;) {
            const bool finished = done;  // one more look after the acquisition has returned
            const int progress = detector.GetProgressBar();
            if (progress != last) {
                progressSeen.push_back(progress);
                endSignAt.push_back(detector.GetEndSign());
                last = progress;
            }
            if (finished) {
                break;
            }
            std::this_thread::sleep_for(std::chrono::microseconds(200));
        }
    });
    Outcome outcome = Acquire(detector);
    done = true;
    poller.join();

    EXPECT_EQ(outcome.code, 0);
    EXPECT_EQ(outcome.endSign, 1);
    EXPECT_EQ(outcome.progress, 11);
    ASSERT_NE(outcome.image.data, nullptr);
    EXPECT_EQ(outcome.image.width, 1000u);
    EXPECT_EQ(outcome.image.height, 1500u);
    EXPECT_EQ(outcome.image.depth, 1u);

    // 10 and 11 follow each other at once; the others stand for at least 50 ms.
    ASSERT_GE(progressSeen.size(), 5u);
    const std::vector<int> head(progressSeen.begin(), progressSeen.begin() + 4);
    EXPECT_EQ(head, (std::vector<int>{6, 7, 8, 9}));
    EXPECT_EQ(progressSeen.back(), 11);
    EXPECT_EQ(endSignAt[2], 0);  // still running at 8
    EXPECT_EQ(endSignAt[3], 1);  // finished with an image at 9

    const Flatness flat = MeasureFlatness(outcome.image, 211);
    EXPECT_LT(flat.cv, 0.02) << "mean " << flat.mean;
    // Defective pixels are repaired: nothing stands out of the noise.
    EXPECT_LT(flat.worst, 0.10) << "mean " << flat.mean;
    EXPECT_GT(flat.mean, 1000.0);
    EXPECT_LT(flat.mean, 65535.0);

    const char* steps[] = {"//////////////////start//////////////////////\nSensorSize:1000\n",
                           "Success to load GainFile!\n", "Success to load defectFile\n",
                           "Write User RAM Result:", "Waiting for acquiring an image!\r\n",
                           "Get an image!\n", "Success to do GainCorrection\n",
                           "Success to do PixelCorrection!\n",
                           "//////////////////end//////////////////////\n"};
    size_t at = 0;
    for (const char* step : steps) {
        const size_t found = outcome.log.find(step, at);
        EXPECT_NE(found, std::string::npos) << "missing in order: " << step;
        at = found == std::string::npos ? at : found;
    }

    // The next exposure needs the hand-shake reset first.
    Outcome again = Acquire(detector);
    EXPECT_EQ(again.code, -1);
    EXPECT_TRUE(Contains(again.log, "Please reset endSign and progress!\n"));
    EXPECT_FALSE(Contains(again.log, "//////////////////end"));
    detector.SetEndSign(0);
    detector.SetProgressBar(0);
    EXPECT_EQ(Acquire(detector).code, 0);
}

TEST(Acquisition, FourFrameCalibrationAlsoGivesAFlatImage) {
    WorkDir dir("SensorSize = 1000\nScene = flat\nDose = 12000");
    CVeltrano detector(dir.str().c_str());
    Prepare(detector, dir, 4);
    Outcome outcome = Acquire(detector);
    EXPECT_EQ(outcome.code, 0);
    ASSERT_NE(outcome.image.data, nullptr);
    EXPECT_LT(MeasureFlatness(outcome.image, 211).cv, 0.02);
}

TEST(Acquisition, RefusesToStartWithoutAResetHandShakeOrAKnownSensor) {
    struct Case {
        bool connect;
        int endSign;
        int progress;
        const char* message;
    };
    const Case cases[] = {
        {false, 0, 0, "Sensor Size is not right!\n"},
        {true, 1, 11, "Please reset endSign and progress!\n"},
        {true, 2, 0, nullptr},
        {true, 0, 6, nullptr},
        {false, 1, 1, "Please reset endSign and progress!\nSensor Size is not right!\n"},
    };
    WorkDir dir;
    for (const Case& c : cases) {
        CVeltrano detector(dir.str().c_str());
        ASSERT_EQ(detector.Initialize(), 0);
        if (c.connect) {
            ASSERT_EQ(detector.Connect(), 0);
        }
        detector.SetEndSign(c.endSign);
        detector.SetProgressBar(c.progress);
        Outcome outcome = Acquire(detector);
        EXPECT_EQ(outcome.code, -1);
        const std::string expected =
            "//////////////////start//////////////////////\nSensorSize:" +
            std::to_string(detector.GetSensorSize()) + "\n" + (c.message ? c.message : "");
        EXPECT_EQ(outcome.log, expected);
        // Nothing was touched.
        EXPECT_EQ(outcome.endSign, c.endSign);
        EXPECT_EQ(outcome.progress, c.progress);
    }
}

TEST(Acquisition, WithoutABindingAsksForTheFirmwareConnection) {
    WorkDir dir;
    CVeltrano detector(dir.str().c_str());
    ASSERT_EQ(detector.Initialize(), 0);
    ASSERT_EQ(detector.Connect(), 0);
    detector.Deinit();  // the sensor size is still known
    Outcome outcome = Acquire(detector);
    EXPECT_EQ(outcome.code, -2);
    EXPECT_TRUE(Contains(outcome.log, "Please Connect firmWare!\n"));
}

TEST(Acquisition, MissingCalibrationFailsWithMinus3) {
    for (const char* remove : {"all", "VirtualSensor.gn", "VirtualSensor.dft"}) {
        SCOPED_TRACE(remove);
        WorkDir dir("SensorSize = 1000");
        CVeltrano detector(dir.str().c_str());
        Prepare(detector, dir);
        if (std::string(remove) == "all") {
            fs::remove_all(dir.calibrationFolder());
        } else {
            fs::remove(dir.calibrationFolder() / remove);
        }
        Outcome outcome = Acquire(detector);
        EXPECT_EQ(outcome.code, -3);
        EXPECT_TRUE(Contains(outcome.log, "No CaliFile!\n"));
        EXPECT_EQ(outcome.endSign, 2);
        EXPECT_EQ(outcome.progress, 0);
        EXPECT_EQ(outcome.image.data, nullptr);
    }
}

TEST(Acquisition, DriverFaultsGiveTheirCodes) {
    struct Case {
        const char* ini;
        int code;
        bool image;
        const char* message;
    };
    const Case cases[] = {
        // Setting failures are recorded, but the exposure is still taken and corrected.
        {"FailSetAttr = 2510:7", -4, true, nullptr},
        {"FailSetAttr = 2506:7", -5, true, nullptr},
        {"FailSetAttr = 2564:7", -6, true, nullptr},
        {"FailSetAttr = 2510:7, 2506:7", -5, true, nullptr},
        {"FailCommand = 6:17", -7, true, nullptr},
        {"FailCommand = 2031:18", -7, true, nullptr},
        {"RejectCommand = 2031:18", -7, true, nullptr},
        {"FailSetAttr = 2564:7\nFailCommand = 2031:18", -7, true, nullptr},
        // The sensor cannot be armed: no image will come.
        {"FailCommand = 1002:19", -8, false, "Detector has an Error when getting an image!\n"},
        {"RejectCommand = 1002:19", -8, false, "Detector has an Error when getting an image!\n"},
        // The image event comes without an image.
        {"NullImage = 1", -10, false, "Post Processs Failed!\n"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.ini);
        WorkDir dir(std::string("SensorSize = 1000\n") + c.ini);
        CVeltrano detector(dir.str().c_str());
        Prepare(detector, dir);
        Outcome outcome = Acquire(detector);
        EXPECT_EQ(outcome.code, c.code);
        if (c.message != nullptr) {
            EXPECT_TRUE(Contains(outcome.log, c.message)) << outcome.log;
        }
        if (c.image) {
            ASSERT_NE(outcome.image.data, nullptr);
            EXPECT_EQ(outcome.image.width, 1000u);
            EXPECT_EQ(outcome.endSign, 1);
            EXPECT_EQ(outcome.progress, 11);
        } else {
            EXPECT_EQ(outcome.image.data, nullptr);
            EXPECT_EQ(outcome.endSign, 2);
        }
    }
}

TEST(Acquisition, StopAcqEndsAPendingWaitAtOnce) {
    WorkDir dir("SensorSize = 1000\nNoImage = 1");
    CVeltrano detector(dir.str().c_str());
    Prepare(detector, dir);

    HostThread host(detector);
    ASSERT_TRUE(WaitForProgress(detector, 6));
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    const auto stoppedAt = std::chrono::steady_clock::now();
    detector.StopAcq();
    const Outcome outcome = host.join();
    const auto returnedAfterStop =
        std::chrono::duration_cast<std::chrono::milliseconds>(host.returned() - stoppedAt);

    EXPECT_LT(returnedAfterStop.count(), 500);
    EXPECT_EQ(outcome.code, -9);
    EXPECT_EQ(outcome.endSign, 2);
    EXPECT_EQ(outcome.progress, 6);
    EXPECT_TRUE(Contains(outcome.log,
                         "Stop waitting!\nStop operation! \r\n"
                         "//////////////////end//////////////////////\n"))
        << outcome.log;
    EXPECT_TRUE(detector.GetUserStop());

    // The stop stays until it is reset: the next exposure leaves at once, with code 0.
    detector.SetEndSign(0);
    detector.SetProgressBar(0);
    const auto start = std::chrono::steady_clock::now();
    Outcome stopped = Acquire(detector);
    EXPECT_LT(MillisecondsSince(start), 200);
    EXPECT_EQ(stopped.code, 0);
    EXPECT_EQ(stopped.endSign, 2);
    EXPECT_FALSE(Contains(stopped.log, "Waiting for acquiring"));
    detector.ResetUserStop();
    EXPECT_FALSE(detector.GetUserStop());
}

TEST(Acquisition, StopBeforeASlowImageAndTeardownWhileItIsDue) {
    // A stop that comes while the sensor is armed but before its image: -9 and no image. The
    // object is then torn down while the driver still owes that image; the late image must not
    // reach it (AddressSanitizer would see a use after free).
    WorkDir dir("SensorSize = 1000\nExposureMs = 400");
    auto detector = std::make_unique<CVeltrano>(dir.str().c_str());
    Prepare(*detector, dir);
    Outcome outcome;
    {
        HostThread host(*detector);
        ASSERT_TRUE(WaitForProgress(*detector, 6));
        detector->StopAcq();
        outcome = host.join();
    }
    EXPECT_EQ(outcome.code, -9);
    EXPECT_EQ(outcome.image.data, nullptr);
    EXPECT_EQ(outcome.endSign, 2);
    detector.reset();
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
}

TEST(Acquisition, ACopysDeinitEndsAPendingWaitWithMinus8) {
    WorkDir dir("SensorSize = 1000\nNoImage = 1");
    CVeltrano detector(dir.str().c_str());
    Prepare(detector, dir);
    CVeltrano copy(detector);
    HostThread host(detector);
    ASSERT_TRUE(WaitForProgress(detector, 6));
    copy.Deinit();
    const Outcome outcome = host.join();
    EXPECT_EQ(outcome.code, -8);
    EXPECT_EQ(outcome.endSign, 2);
}

TEST(Acquisition, TwoDetectorsAcquireSideBySide) {
    WorkDir smallDir("SensorSize = 1000\nScene = flat\nSeed = 3");
    WorkDir largeDir("SensorSize = 2000\nScene = flat\nSeed = 4\nExposureMs = 80");
    CVeltrano small(smallDir.str().c_str());
    CVeltrano large(largeDir.str().c_str());
    Prepare(small, smallDir);
    Prepare(large, largeDir);

    imgmat smallImage;
    imgmat largeImage;
    int smallCode = 1;
    int largeCode = 1;
    std::thread first([&] { smallCode = small.AcqImageEx(smallImage, kDelay, kMode, kThreshold); });
    std::thread second([&] { largeCode = large.AcqImageEx(largeImage, kDelay, kMode, kThreshold); });
    first.join();
    second.join();
    EXPECT_EQ(smallCode, 0);
    EXPECT_EQ(largeCode, 0);
    EXPECT_EQ(smallImage.width, 1000u);
    EXPECT_EQ(smallImage.height, 1500u);
    EXPECT_EQ(largeImage.width, 1300u);
    EXPECT_EQ(largeImage.height, 1800u);
    EXPECT_LT(MeasureFlatness(smallImage, 211).cv, 0.02);
    EXPECT_LT(MeasureFlatness(largeImage, 281).cv, 0.02);
}

TEST(OutlierStatistics, LevelsFollowTheBrightestAndDarkestThousandPixels) {
    struct Case {
        const char* name;
        std::vector<std::pair<float, int>> values;  // value, pixel count
        int low;
        int high;
    };
    const Case cases[] = {
        {"all bright", {{30000.0f, 4000}}, 200, 30000},
        {"few brightest", {{40000.0f, 500}, {25000.0f, 3500}}, 200, 25000},
        {"many brightest", {{40000.0f, 1500}, {25000.0f, 2500}}, 200, 40000},
        {"too few to pass 1000", {{21000.0f, 900}}, 200, 20000},
        {"dark", {{100.0f, 2000}, {5000.0f, 2000}}, 100, 20000},
        {"few darkest", {{10.0f, 600}, {150.0f, 600}, {5000.0f, 2800}}, 150, 20000},
        {"clamped", {{-50.0f, 1200}, {90000.0f, 1200}, {5000.0f, 1600}}, 0, 65535},
    };
    TestDetector detector("unused");
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        int total = 0;
        for (const auto& v : c.values) {
            total += v.second;
        }
        imgmat image(static_cast<unsigned long long>(total), 1, 1);
        int at = 0;
        for (const auto& v : c.values) {
            for (int i = 0; i < v.second; ++i) {
                image.data[at++] = v.first;
            }
        }
        int low = -1;
        int high = -1;
        imgmat marks;
        // A corner cut of -1 leaves nothing out of a single row.
        detector.CalcOutlierMarks(image, -1, low, high, marks);
        EXPECT_EQ(low, c.low);
        EXPECT_EQ(high, c.high);
    }
}

TEST(OutlierStatistics, MarksOutliersOutsideTheCutCornersWithoutTouchingTheImage) {
    // The marks take the defect map's size, which without a known sensor is 1300 x 1800.
    WorkDir dir;
    fs::create_directories(dir.calibrationFolder());
    {
        std::ofstream dft(dir.calibrationFolder() / "map.dft", std::ios::binary);
        dft << std::string(1040 + 1300 * 1800, '\0');
    }
    TestDetector detector(dir.str().c_str());
    ASSERT_EQ(detector.GetBadPixelInfo(), 0);

    const unsigned long long columns = 1300;
    imgmat image(columns, 1800, 1);
    image = 5000.0f;
    auto at = [&](unsigned long long r, unsigned long long c) -> float& {
        return image.data[r * columns + c];
    };
    at(500, 600) = 60000.0f;  // bright outlier
    at(900, 10) = 0.0f;       // dark outlier
    at(0, 0) = 60000.0f;      // in the cut upper-left corner
    at(5, columns - 3) = 0.0f;  // in the cut upper-right corner
    const imgmat before(image);

    int low = 0;
    int high = 0;
    imgmat marks;
    detector.CalcOutlierMarks(image, 281, low, high, marks);
    EXPECT_EQ(low, 200);
    EXPECT_EQ(high, 20000);
    ASSERT_NE(marks.data, nullptr);
    ASSERT_EQ(marks.width, columns);
    ASSERT_EQ(marks.height, 1800u);
    double marked = 0;
    for (unsigned long long i = 0; i < marks.getDataSize(); ++i) {
        marked += marks.data[i];
    }
    EXPECT_EQ(marked, 2.0);
    EXPECT_EQ(marks.data[500 * columns + 600], 1.0f);
    EXPECT_EQ(marks.data[900 * columns + 10], 1.0f);
    for (unsigned long long i = 0; i < image.getDataSize(); ++i) {
        ASSERT_EQ(image.data[i], before.data[i]) << i;
    }
}
