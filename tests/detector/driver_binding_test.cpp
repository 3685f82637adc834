// The driver binding as a host meets it: loading the driver, creating its instance, blocking
// commands with their time-outs, and the callback's dispatch.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <vector>

#include "detector/fpdsys_api.h"
#include "detector_support.h"

using namespace detector_test;

namespace {

struct ConnectCase {
    const char* ini;
    int expected;
    const char* why;
};

}  // namespace

TEST(DriverBinding, ConnectPassesTheDriversAnswerOn) {
    const ConnectCase cases[] = {
        {"", 0, "completes"},
        {"FailCommand = 2:13", 13, "completion reports a driver error"},
        {"RejectCommand = 2:5", 5, "Invoke refuses: its code is final"},
        {"RejectCommand = 2:0", 0, "Invoke finishes at once: no wait"},
        {"FailCommand = 3:13, 6:14", 0, "failures of other commands do not matter"},
    };
    for (const ConnectCase& c : cases) {
        SCOPED_TRACE(c.why);
        WorkDir dir(c.ini);
        CVeltrano detector(dir.str().c_str());
        ASSERT_EQ(detector.Initialize(), 0);
        const auto start = std::chrono::steady_clock::now();
        StdoutCapture out;
        EXPECT_EQ(detector.Connect(), c.expected);
        const std::string text = out.take();
        EXPECT_LT(MillisecondsSince(start), 2000);
        // The result line is printed whatever the result.
        EXPECT_TRUE(Contains(text, "\t\t\t[No ]:")) << text;
        if (c.expected == 0) {
            EXPECT_TRUE(Contains(text, "SensroSize:1500\n")) << text;
            EXPECT_EQ(detector.GetSensorSize(), 1500);
        } else {
            EXPECT_EQ(detector.GetSensorSize(), -1);
        }
    }
}

TEST(DriverBinding, ConnectWithoutAnAnswerTimesOutAfterTenSecondsWith22) {
    WorkDir dir("HangCommand = 2");
    CVeltrano detector(dir.str().c_str());
    ASSERT_EQ(detector.Initialize(), 0);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(detector.Connect(), 22);
    const long long elapsed = MillisecondsSince(start);
    EXPECT_GE(elapsed, 9900);
    EXPECT_LT(elapsed, 12000);
    EXPECT_EQ(detector.GetSensorSize(), -1);
}

TEST(DriverBinding, BlockingCommandsWaitOutTheirOwnTimeOut) {
    // Disconnect waits 1000 ms for command 3; a hanging driver costs exactly that.
    WorkDir dir("HangCommand = 3");
    CVeltrano detector(dir.str().c_str());
    ASSERT_EQ(detector.Initialize(), 0);
    ASSERT_EQ(detector.Connect(), 0);
    const auto start = std::chrono::steady_clock::now();
    detector.Disconnect();
    const long long elapsed = MillisecondsSince(start);
    EXPECT_GE(elapsed, 950);
    EXPECT_LT(elapsed, 3000);
    // The binding is still usable afterwards.
    EXPECT_EQ(detector.Connect(), 0);
}

TEST(DriverBinding, InitializeReportsTheDriversCreateFailureWithItsText) {
    // A configuration the virtual sensor cannot mean makes Create fail.
    WorkDir dir("SensorSize = 1234");
    CVeltrano detector(dir.str().c_str());
    StdoutCapture out;
    const int result = detector.Initialize();
    const std::string text = out.take();
    EXPECT_NE(result, 0);
    EXPECT_NE(result, 9);
    EXPECT_TRUE(Contains(text, "Load libray\n\t\t\t[Yes]\nCreate instance\n\t\t\t[No] - error:"))
        << text;
}

TEST(DriverBinding, InitializePrintsItsStepsOnSuccess) {
    WorkDir dir;
    CVeltrano detector(dir.str().c_str());
    StdoutCapture out;
    EXPECT_EQ(detector.Initialize(), 0);
    EXPECT_EQ(out.take(), "Load libray\n\t\t\t[Yes]\nCreate instance\n\t\t\t[Yes]\n");
}

// Run on its own from a folder without the driver (see tests/CMakeLists.txt); it skips itself
// wherever the driver can be loaded.
TEST(MissingDriver, InitializeAnswers9AndSaysNo) {
    WorkDir dir;
    CVeltrano detector(dir.str().c_str());
    StdoutCapture out;
    const int result = detector.Initialize();
    const std::string text = out.take();
    if (result == 0) {
        GTEST_SKIP() << "the library finds the driver here";
    }
    EXPECT_EQ(result, 9);
    EXPECT_EQ(text, "Load libray\n\t\t\t[No]\n");
    // A binding exists but has no library: every command answers 6.
    EXPECT_EQ(detector.Connect(), 6);
    detector.Deinit();
    EXPECT_EQ(detector.Connect(), -1);
}

TEST(DriverBinding, CallbackForAnUnknownDetectorIsDropped) {
    WorkDir dir;
    CVeltrano detector(dir.str().c_str());
    ASSERT_EQ(detector.Initialize(), 0);
    const std::vector<uint16_t> pixels(4, 7);
    fpdsys::ImageRecord record{2, 2, 0, pixels.data()};
    for (int id : {0, -1, 987654}) {
        EXPECT_EQ(CVeltrano::JudgePtrByID(id), nullptr);
        StdoutCapture out;
        CVeltrano::SDKCallbackHandler(id, fpdsys::kEvtImage, 0, nullptr, 0, 0, 0, &record);
        CVeltrano::SDKCallbackHandler(id, fpdsys::kEvtStatus, 0, nullptr,
                                      fpdsys::kStatusAcquiring, 0, 0, nullptr);
        EXPECT_EQ(out.take(), "");
    }
}

TEST(DriverBinding, CallbackFindsTheRegisteredObjectNotItsCopies) {
    WorkDir dir;
    CVeltrano detector(dir.str().c_str());
    ASSERT_EQ(detector.Initialize(), 0);
    int id = 0;
    for (int candidate = 1; candidate < 10000 && id == 0; ++candidate) {
        if (CVeltrano::JudgePtrByID(candidate) == &detector) {
            id = candidate;
        }
    }
    ASSERT_NE(id, 0) << "no instance ID leads to the detector";
    CVeltrano copy(detector);
    EXPECT_EQ(CVeltrano::JudgePtrByID(id), &detector);

    StdoutCapture out;
    CVeltrano::SDKCallbackHandler(id, fpdsys::kEvtStatus, 0, nullptr, fpdsys::kStatusAcquiring, 0,
                                  0, nullptr);
    EXPECT_EQ(out.take(), "Acquiring image...\n");

    detector.Deinit();
    EXPECT_EQ(CVeltrano::JudgePtrByID(id), nullptr);
}

TEST(DriverBinding, DestroyedObjectRegisteredTwiceIsNeverFoundAgain) {
    WorkDir dir;
    int id = 0;
    {
        auto* detector = new CVeltrano(dir.str().c_str());
        detector->RegisterMember();  // now listed twice, side by side
        ASSERT_EQ(detector->Initialize(), 0);
        for (int candidate = 1; candidate < 10000 && id == 0; ++candidate) {
            if (CVeltrano::JudgePtrByID(candidate) == detector) {
                id = candidate;
            }
        }
        ASSERT_NE(id, 0);
        delete detector;
    }
    // Under AddressSanitizer a stale entry would be caught here as a use after free.
    EXPECT_EQ(CVeltrano::JudgePtrByID(id), nullptr);
    CVeltrano::SDKCallbackHandler(id, fpdsys::kEvtCommandDone, 0, nullptr, 2, 0, 0, nullptr);
}
