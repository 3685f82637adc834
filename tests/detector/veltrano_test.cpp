// The detector object's lifecycle, device queries, settings and copies.

#include "detector_support.h"

using namespace detector_test;

TEST(Settings, SettersReportOldResultAndNewValueAndWriteOnlyChanges) {
    WorkDir dir;
    TestDetector detector(dir.str().c_str());
    ASSERT_EQ(detector.Initialize(), 0);
    const std::string text = Capture([&] {
        EXPECT_EQ(detector.SetDelayTime(-3), 0);  // below 1 is 0, which the driver has
        EXPECT_EQ(detector.SetDelayTime(250), 0);
        EXPECT_EQ(detector.SetTriggerMode(5), 0);
        EXPECT_EQ(detector.SetTriggerMode(7), 0);
        EXPECT_EQ(detector.SetTriggerThreshold(100), 0);
    });
    EXPECT_EQ(text,
              "Old Delaytime is:0\nThere is no need to change DelayTime!\n"
              "Set Delaytime result:Succeed\nNew Delaytime is:0\n\n"
              "Old Delaytime is:0\nSet Delaytime result:Succeed\nNew Delaytime is:250\n\n"
              "triggermode must b type 6 and 7\n"
              "Old Triggermode is:6\nSet TriggerMode result:Succeed\nNew Triggermode is:7\n\n"
              "Old TriggerThreshold is:100\nThere is no need to change TriggerThreshold!\n"
              "Set TriggerThreshold result:Succeed\nNew TriggerThreshold is:100\n\n");

    // The driver's codes for failed writes are passed on.
    dir.configure("FailSetAttr = 2510:7, 2506:8, 2564:4");
    ASSERT_EQ(detector.Initialize(), 0);
    Capture([&] {
        EXPECT_EQ(detector.SetDelayTime(40), 7);
        EXPECT_EQ(detector.SetTriggerMode(7), 8);
        EXPECT_EQ(detector.SetTriggerThreshold(999), 4);
    });
}

TEST(Copies, ShareTheBindingUntilTheFirstDeinitTearsItDownForAll) {
    WorkDir dir;
    CVeltrano original(dir.str().c_str());
    ASSERT_EQ(original.Initialize(), 0);
    // The inverted test: an initialised object never reaches the driver's firmware update.
    EXPECT_EQ(Capture([&] { EXPECT_EQ(original.UpdateFirmWare("firmware.bin"), -1); }), "");
    EXPECT_EQ(original.UpdateFirmWare(nullptr), -1);
    CVeltrano copy(original);
    EXPECT_EQ(copy.Connect(), 0);
    EXPECT_EQ(copy.GetSensorSize(), 1500);
    EXPECT_EQ(original.GetDectectorSerialNum(), "VS1500-00000001");

    copy.Deinit();
    // The original still holds the binding, which now answers as an unloaded driver.
    EXPECT_EQ(original.Connect(), 6);
    EXPECT_EQ(original.GetDectectorSerialNum(), "");
    EXPECT_EQ(copy.Connect(), -1);
    original.Deinit();
    original.Deinit();
    // Without a binding the queries give their answers for a missing driver.
    const std::string text = Capture([&] {
        EXPECT_EQ(original.Connect(), -1);
        EXPECT_EQ(original.GetDectectorState(), Enm_Online_Unknown);
        EXPECT_EQ(original.JudgeSensorSize(), -1);
        EXPECT_EQ(original.GetDectectorUSBInfo(), "");
        original.ReSet();
    });
    EXPECT_EQ(text, "m_pDetInstance is nullptr\n");
    EXPECT_EQ(original.GetSensorSize(), -1);
    // A new Initialize brings the same object back.
    EXPECT_EQ(original.Initialize(), 0);
    EXPECT_EQ(original.Connect(), 0);
}

TEST(Copies, AContainerThatCopiesDetectorsIsSafeInAnyDestructionOrder) {
    WorkDir dir;
    for (int order = 0; order < 3; ++order) {
        SCOPED_TRACE(order);
        auto detectors = std::make_unique<std::vector<CVeltrano>>();
        detectors->emplace_back(dir.str().c_str());
        ASSERT_EQ(detectors->front().Initialize(), 0);
        // Growing the vector copies the objects and destroys the old ones.
        for (int i = 0; i < 6; ++i) {
            detectors->push_back(detectors->front());
        }
        CVeltrano assigned(dir.str().c_str());
        assigned = detectors->back();
        if (order == 1) {
            std::reverse(detectors->begin(), detectors->end());
        } else if (order == 2) {
            assigned.Deinit();
        }
        while (!detectors->empty()) {
            detectors->erase(detectors->begin() + static_cast<long>(detectors->size() / 2));
        }
        EXPECT_EQ(assigned.Connect(), order == 2 ? -1 : 6);
    }
}

TEST(WorkDirectory, ReadsTheFirstLineOfThePointerFile) {
    WorkDir dir;
    const fs::path base = dir.str(), previous = fs::current_path();
    fs::create_directories(base / "run");
    fs::create_directories(base / "common");
    fs::current_path(base / "run");
    std::ofstream(base / "run" / "workdir_path.txt") << "/data/local\nsecond line\n";
    EXPECT_EQ(CVeltrano::ReadWorkDirPath(), "/data/local");
    // The shared file one folder up wins; a long line is cut.
    std::ofstream(base / "common" / "workdir_path.txt") << std::string(200, 'x') << "\n";
    EXPECT_EQ(CVeltrano::ReadWorkDirPath(), std::string(127, 'x'));
    fs::current_path(previous);
}
