// The driver binding as a host meets it: loading the driver, creating its instance, blocking
// commands with their time-outs, and the callback's dispatch.

#include <cstdlib>
#include <string>
#include <utility>

#include "driver_interface/fpdsys_api.h"
#include "driver_interface/test_timing.h"
#include "detector_support.h"

using namespace detector_test;

// One Connect on a virtual sensor configured by ini: the driver's answer, the sensor size
// learnt, the state read back, and how long the call waited for the completion.
struct ConnectCase {
    const char* name;
    const char* ini;
    int connect, size;
    Enm_Online online;
    uint32_t waitMs;  // the described wait for the completion when it never comes, else 0
    // CTest lists a case by its name rather than by its bytes.
    friend void PrintTo(const ConnectCase& c, std::ostream* os) { *os << c.name; }
};

class DriverBindingConnect : public testing::TestWithParam<ConnectCase> {};

TEST_P(DriverBindingConnect, PassesTheDriversAnswerOnAndLearnsTheSensorSize) {
    const ConnectCase& c = GetParam();
    ShortTimes shortTimes;
    WorkDir dir(c.ini);
    CVeltrano detector(dir.str().c_str());
    ASSERT_EQ(detector.Initialize(), 0);
    const auto start = std::chrono::steady_clock::now();
    const std::string text = Capture([&] { EXPECT_EQ(detector.Connect(), c.connect); });
    // A hanging connect sits out its whole time-out (shortened by the divisor), not less. The
    // 10 % margin allows for timers that tick coarsely; no upper bound, a loaded machine may
    // oversleep.
    EXPECT_GE(MillisecondsSince(start), c.waitMs / ShortTimes::kDivisor * 9 / 10);
    EXPECT_EQ(detector.GetSensorSize(), c.size);
    EXPECT_EQ(detector.GetDectectorState(), c.online);
    if (c.connect == 0 || c.connect == -101) {
        EXPECT_EQ(text, "\t\t\t[No ]:Succeed\nSensroSize:" + std::to_string(c.size) + "\n" +
                            (c.connect ? "Error: The SensorSize is not exist!\n" : ""));
    }
    EXPECT_EQ(text.find("\t\t\t[No ]:"), 0u) << text;  // whatever the result
}

INSTANTIATE_TEST_SUITE_P(
    Cases, DriverBindingConnect,
    testing::Values(
        ConnectCase{"Size1000Offline", "SensorSize = 1000\nOnline = 0", 0, 1000, Enm_Online_Offline,
                    0},
        ConnectCase{"Size2000", "SensorSize = 2000", 0, 2000, Enm_Online_Online, 0},
        ConnectCase{"Size1500FromDimensionsStandby", "Width = 1200\nHeight = 1650\nOnline = 2", 0,
                    1500, Enm_Online_Standby, 0},
        // The same dimensions the other way round are no sensor of ours.
        ConnectCase{"DimensionsTurned", "Width = 1650\nHeight = 1200\nOnline = 3", -101, -1,
                    Enm_Online_Unknown, 0},
        ConnectCase{"UnknownDimensions", "Width = 1300\nHeight = 1500\nOnline = -4", -101, -1,
                    Enm_Online_Unknown, 0},
        ConnectCase{"CompletionWithAnError", "FailCommand = 2:13, 3:14", 13, -1, Enm_Online_Online,
                    0},
        // Invoke refuses: its code is final.
        ConnectCase{"InvokeRefuses", "RejectCommand = 2:5", 5, -1, Enm_Online_Online, 0},
        // Invoke finishes the command itself: no wait.
        ConnectCase{"InvokeFinishes", "RejectCommand = 2:0", 0, 1500, Enm_Online_Online, 0},
        // Nothing comes: the full 10 s.
        ConnectCase{"NoCompletionTimesOut", "HangCommand = 2", 22, -1, Enm_Online_Online, 10000}),
    [](const testing::TestParamInfo<ConnectCase>& info) { return std::string(info.param.name); });

TEST(DriverBinding, InitializePrintsItsStepsAndTheCreateFailuresText) {
    WorkDir good;
    CVeltrano detector(good.str().c_str());
    EXPECT_EQ(Capture([&] { EXPECT_EQ(detector.Initialize(), 0); }),
              "Load libray\n\t\t\t[Yes]\nCreate instance\n\t\t\t[Yes]\n");
    // A configuration the virtual sensor cannot mean makes Create fail with code 10.
    WorkDir bad("SensorSize = 1234");
    CVeltrano refused(bad.str().c_str());
    const std::string text = Capture([&] { EXPECT_EQ(refused.Initialize(), 10); });
    EXPECT_EQ(text.find("Load libray\n\t\t\t[Yes]\nCreate instance\n\t\t\t[No] - error:Invalid"),
              0u)
        << text;
}

// Run on its own from a folder without the driver (see tests/CMakeLists.txt); it skips itself
// wherever the driver can be loaded.
TEST(MissingDriver, InitializeAnswers9AndSaysNo) {
    CVeltrano detector("unused");
    int result = 0;
    const std::string text = Capture([&] { result = detector.Initialize(); });
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

TEST(DriverBinding, CallbackReachesOnlyTheRegisteredLiveObject) {
    WorkDir dir;
    const std::vector<uint16_t> pixels(4, 7);
    fpdsys::ImageRecord record{2, 2, 0, pixels.data()};
    auto* detector = new CVeltrano(dir.str().c_str());
    detector->RegisterMember();  // now listed twice, side by side
    ASSERT_EQ(detector->Initialize(), 0);
    int id = 1;
    while (id < 10000 && CVeltrano::JudgePtrByID(id) != detector) {
        ++id;
    }
    ASSERT_LT(id, 10000) << "no instance ID leads to the detector";
    for (int target : {0, -1, id + 1, id}) {
        const std::string text = Capture([&] {
            CVeltrano::SDKCallbackHandler(target, fpdsys::kEvtStatus, 0, nullptr,
                                          fpdsys::kStatusAcquiring, 0, 0, nullptr);
            CVeltrano::SDKCallbackHandler(target, fpdsys::kEvtImage, 0, nullptr, 0, 0, 0, &record);
        });
        EXPECT_EQ(text, target != id ? ""
                                     : "Acquiring image...\nenter Evt_Image\nSet s_hNextStep\n"
                                       "Get an image!\n");
    }
    delete detector;
    // Under AddressSanitizer a stale entry would be caught here as a use after free.
    EXPECT_EQ(CVeltrano::JudgePtrByID(id), nullptr);
    CVeltrano::SDKCallbackHandler(id, fpdsys::kEvtCommandDone, 0, nullptr, 2, 0, 0, nullptr);
}

#if !defined(_WIN32)
// Test runs shorten a child process's waits through the environment; a value that cannot be
// meant as a divisor leaves the described durations alone.
TEST(TestTiming, TheEnvironmentGivesAWholeDivisorOrNone) {
    const char* previous = std::getenv("VELTRANO_TIME_DIVISOR");
    const std::string saved = previous != nullptr ? previous : "";
    const std::pair<const char*, uint32_t> cases[] = {
        {"20", 20}, {"2", 2}, {"1000", 1000}, {"1", 1}, {"0", 1}, {"1001", 1},
        {"-5", 1},  {"", 1},  {"20ms", 1},    {"x", 1}, {" 7", 7}};
    for (const auto& [text, divisor] : cases) {
        ::setenv("VELTRANO_TIME_DIVISOR", text, 1);
        EXPECT_EQ(fpdsys::TimeDivisorFromEnvironment(), divisor) << '"' << text << '"';
    }
    ::unsetenv("VELTRANO_TIME_DIVISOR");
    EXPECT_EQ(fpdsys::TimeDivisorFromEnvironment(), 1u);
    if (previous != nullptr) ::setenv("VELTRANO_TIME_DIVISOR", saved.c_str(), 1);
}
#endif
