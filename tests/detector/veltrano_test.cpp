// The detector object's lifecycle, device queries, settings and copies.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "detector_support.h"

using namespace detector_test;

TEST(Lifecycle, WithoutABindingQueriesGiveTheirNoDriverAnswers) {
    WorkDir dir;
    CVeltrano detector(dir.str().c_str());
    StdoutCapture out;
    EXPECT_EQ(detector.Connect(), -1);
    EXPECT_EQ(detector.GetDectectorState(), Enm_Online_Unknown);
    EXPECT_EQ(detector.GetDectectorSerialNum(), "");
    EXPECT_EQ(detector.GetDectectorUSBInfo(), "");
    EXPECT_EQ(detector.JudgeSensorSize(), -1);
    EXPECT_EQ(detector.GetSensorSize(), -1);
    detector.Disconnect();
    detector.ReSet();
    detector.ReadUserRom();
    EXPECT_EQ(out.take(), "m_pDetInstance is nullptr\n");
}

TEST(Lifecycle, ConnectLearnsTheSensorSizeFromTheReportedDimensions) {
    struct Case {
        const char* ini;
        int connect;
        int size;
    };
    const Case cases[] = {
        {"SensorSize = 1000", 0, 1000},
        {"SensorSize = 1500", 0, 1500},
        {"SensorSize = 2000", 0, 2000},
        {"Width = 1200\nHeight = 1650", 0, 1500},
        // The same dimensions the other way round are no sensor of ours.
        {"Width = 1650\nHeight = 1200", -101, -1},
        {"Width = 1300\nHeight = 1500", -101, -1},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.ini);
        WorkDir dir(c.ini);
        CVeltrano detector(dir.str().c_str());
        ASSERT_EQ(detector.Initialize(), 0);
        StdoutCapture out;
        EXPECT_EQ(detector.Connect(), c.connect);
        const std::string text = out.take();
        EXPECT_EQ(detector.GetSensorSize(), c.size);
        EXPECT_TRUE(Contains(text, "SensroSize:" + std::to_string(c.size) + "\n")) << text;
        EXPECT_EQ(Contains(text, "Error: The SensorSize is not exist!\n"), c.connect == -101);
    }
}

TEST(Lifecycle, OnlineStateMapsTheDriversValue) {
    const std::pair<const char*, Enm_Online> cases[] = {
        {"Online = 0", Enm_Online_Offline},
        {"Online = 1", Enm_Online_Online},
        {"Online = 2", Enm_Online_Standby},
        {"Online = 3", Enm_Online_Unknown},
        {"Online = -4", Enm_Online_Unknown},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.first);
        WorkDir dir(c.first);
        CVeltrano detector(dir.str().c_str());
        ASSERT_EQ(detector.Initialize(), 0);
        EXPECT_EQ(detector.GetDectectorState(), c.second);
    }
}

TEST(Lifecycle, SerialNumberAndUsbInfoComeFromTheDriver) {
    WorkDir dir;
    CVeltrano detector(dir.str().c_str());
    ASSERT_EQ(detector.Initialize(), 0);
    const std::string serial = detector.GetDectectorSerialNum();
    const std::string usb = detector.GetDectectorUSBInfo();
    EXPECT_FALSE(serial.empty());
    EXPECT_FALSE(usb.empty());
    EXPECT_NE(serial, usb);
    detector.Deinit();
    // Without a binding the stored texts are emptied.
    EXPECT_EQ(detector.GetDectectorSerialNum(), "");
    EXPECT_EQ(detector.GetDectectorUSBInfo(), "");
}

TEST(Lifecycle, DeinitTwiceAndThenDestructionAreHarmless) {
    WorkDir dir;
    CVeltrano detector(dir.str().c_str());
    ASSERT_EQ(detector.Initialize(), 0);
    ASSERT_EQ(detector.Connect(), 0);
    detector.Deinit();
    detector.Deinit();
    EXPECT_EQ(detector.Connect(), -1);
    // A new Initialize brings the same object back.
    EXPECT_EQ(detector.Initialize(), 0);
    EXPECT_EQ(detector.Connect(), 0);
}

TEST(Lifecycle, UpdateFirmWareNeverContactsAnInitialisedDriver) {
    WorkDir dir;
    CVeltrano detector(dir.str().c_str());
    EXPECT_EQ(detector.UpdateFirmWare(nullptr), -1);
    ASSERT_EQ(detector.Initialize(), 0);
    StdoutCapture out;
    EXPECT_EQ(detector.UpdateFirmWare("firmware.bin"), -1);
    EXPECT_EQ(out.take(), "");
}

TEST(Settings, SettersWriteOnlyChangedValuesAndReportThem) {
    WorkDir dir;
    TestDetector detector(dir.str().c_str());
    ASSERT_EQ(detector.Initialize(), 0);
    ASSERT_EQ(detector.Connect(), 0);

    StdoutCapture out;
    EXPECT_EQ(detector.SetDelayTime(-3), 0);  // below 1 is written as 0
    EXPECT_EQ(detector.SetDelayTime(0), 0);
    EXPECT_EQ(detector.SetDelayTime(250), 0);
    const std::string delay = out.take();
    // The result line comes also when nothing was written, with the text for 0.
    EXPECT_TRUE(Contains(delay, "There is no need to change DelayTime!\nSet Delaytime result:Succeed\n"
                                "New Delaytime is:0\n\n"))
        << delay;
    EXPECT_TRUE(Contains(delay, "Old Delaytime is:0\nSet Delaytime result:")) << delay;
    EXPECT_TRUE(Contains(delay, "New Delaytime is:250\n\n")) << delay;

    StdoutCapture modeOut;
    EXPECT_EQ(detector.SetTriggerMode(5), 0);
    EXPECT_EQ(detector.SetTriggerMode(7), 0);
    EXPECT_EQ(detector.SetTriggerMode(7), 0);
    const std::string mode = modeOut.take();
    // Mode 5 is refused without touching the driver, whose mode is still the first one read.
    EXPECT_EQ(mode.find("triggermode must b type 6 and 7\n"), 0u) << mode;
    EXPECT_TRUE(Contains(mode, "New Triggermode is:7\n\n")) << mode;
    EXPECT_TRUE(Contains(mode, "Old Triggermode is:7\nThere is no need to change Triggermode!\n"
                               "Set TriggerMode result:Succeed\nNew Triggermode is:7\n\n"))
        << mode;

    StdoutCapture thresholdOut;
    EXPECT_EQ(detector.SetTriggerThreshold(321), 0);
    EXPECT_TRUE(Contains(thresholdOut.take(), "New TriggerThreshold is:321\n\n"));
}

TEST(Settings, AFailedWriteReturnsTheDriversCode) {
    WorkDir dir("FailSetAttr = 2510:7, 2506:8, 2564:4");
    TestDetector detector(dir.str().c_str());
    ASSERT_EQ(detector.Initialize(), 0);
    ASSERT_EQ(detector.Connect(), 0);
    EXPECT_EQ(detector.SetDelayTime(40), 7);
    EXPECT_EQ(detector.SetTriggerMode(7), 8);
    EXPECT_EQ(detector.SetTriggerThreshold(999), 4);
    // The driver kept its old value.
    StdoutCapture out;
    EXPECT_EQ(detector.SetDelayTime(40), 7);
    EXPECT_FALSE(Contains(out.take(), "Old Delaytime is:40\n"));
}

TEST(Copies, ShareTheBindingUntilTheFirstDeinitTearsItDownForAll) {
    WorkDir dir;
    CVeltrano original(dir.str().c_str());
    ASSERT_EQ(original.Initialize(), 0);
    CVeltrano copy(original);
    EXPECT_EQ(copy.Connect(), 0);
    EXPECT_EQ(copy.GetSensorSize(), 1500);
    EXPECT_FALSE(original.GetDectectorSerialNum().empty());

    copy.Deinit();
    // The original still holds the binding, which now answers as an unloaded driver.
    EXPECT_EQ(original.Connect(), 6);
    EXPECT_EQ(original.GetDectectorSerialNum(), "");
    EXPECT_EQ(copy.Connect(), -1);
    original.Deinit();
    original.Deinit();
    EXPECT_EQ(original.Connect(), -1);
}

TEST(Copies, AContainerThatCopiesDetectorsIsSafeInAnyDestructionOrder) {
    WorkDir dir;
    for (int order = 0; order < 3; ++order) {
        SCOPED_TRACE(order);
        auto detectors = std::make_unique<std::vector<CVeltrano>>();
        detectors->emplace_back(dir.str().c_str());
        ASSERT_EQ(detectors->front().Initialize(), 0);
        ASSERT_EQ(detectors->front().Connect(), 0);
        // Growing the vector copies the objects and destroys the old ones.
        for (int i = 0; i < 6; ++i) {
            detectors->push_back(detectors->front());
        }
        CVeltrano assigned(dir.str().c_str());
        assigned = detectors->back();
        for (CVeltrano& detector : *detectors) {
            const int result = detector.Connect();
            EXPECT_TRUE(result == 0 || result == 6) << result;
        }
        if (order == 1) {
            std::reverse(detectors->begin(), detectors->end());
        }
        if (order == 2) {
            assigned.Deinit();
        }
        while (!detectors->empty()) {
            detectors->erase(detectors->begin() + static_cast<long>(detectors->size() / 2));
        }
        EXPECT_EQ(assigned.Connect(), order == 2 ? -1 : 6);
    }
}

TEST(WorkDirectory, ReadsTheFirstLineOfThePointerFile) {
    namespace fs = std::filesystem;
    WorkDir dir;
    const fs::path base = dir.str();
    const fs::path run = base / "run";
    fs::create_directories(run);
    fs::create_directories(base / "common");
    const fs::path previous = fs::current_path();
    fs::current_path(run);

    EXPECT_EQ(CVeltrano::ReadWorkDirPath(), "");
    {
        std::ofstream(run / "workdir_path.txt") << "/data/local\nsecond line\n";
    }
    EXPECT_EQ(CVeltrano::ReadWorkDirPath(), "/data/local");
    {
        // The shared file one folder up wins; trailing line feeds go, a long line is cut.
        std::ofstream(base / "common" / "workdir_path.txt") << std::string(200, 'x') << "\n";
    }
    EXPECT_EQ(CVeltrano::ReadWorkDirPath(), std::string(127, 'x'));
    {
        std::ofstream(base / "common" / "workdir_path.txt") << "/data/shared\n\n\n";
    }
    EXPECT_EQ(CVeltrano::ReadWorkDirPath(), "/data/shared");

    fs::current_path(previous);
}
