// The driver's behaviour as a host sees it: commands, events, attributes, faults, instances.
#include <gtest/gtest.h>

#include <atomic>
#include <climits>
#include <cstring>

#include "driver.h"

namespace vstest {
namespace {

using VirtualSensor = VirtualSensorTest;

constexpr char kSmallFlat[] =
    "[VirtualSensor]\nWidth=64\nHeight=48\nScene=flat\nExposureMs=60\n";

Driver& D() { return TheDriver(); }

TEST_F(VirtualSensor, CommandsCompleteOnTheSensorsOwnThread) {
    WorkDir dir(kSmallFlat);
    Sensor sensor(dir);
    ASSERT_EQ(sensor.createResult(), 0);
    ASSERT_GE(sensor.handle(), 1);

    fpdsys::Param firmware{};
    firmware.type = fpdsys::kString;
    std::strcpy(firmware.text, "firmware.bin");
    fpdsys::Param prepare{};
    prepare.type = fpdsys::kInt;
    prepare.intValue = 0x20000;
    struct Case {
        int command;
        fpdsys::Param* params;
        int count;
    };
    const Case cases[] = {{2, nullptr, 0},  {3, nullptr, 0},     {6, &prepare, 1},
                          {8, nullptr, 0},  {2001, nullptr, 0},  {2008, &firmware, 1},
                          {2031, nullptr, 0}};
    size_t done = 0;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.command);
        EXPECT_EQ(D().invoke(sensor.handle(), c.command, c.params, c.count), 1);
        ++done;
        ASSERT_TRUE(EventLog::instance().waitFor(sensor.handle(), fpdsys::kEvtCommandDone, done, 2s));
        const Event last = EventLog::instance().events(sensor.handle()).back();
        EXPECT_EQ(last.event, fpdsys::kEvtCommandDone);
        EXPECT_EQ(last.param1, c.command);
        EXPECT_EQ(last.detector, sensor.handle());
        EXPECT_NE(last.thread, std::this_thread::get_id());
    }
    EXPECT_EQ(EventLog::instance().events(sensor.handle()).size(), done);
}

TEST_F(VirtualSensor, RefusedCallsReturnAtOnceWithoutACallback) {
    WorkDir dir(kSmallFlat);
    Sensor sensor(dir);
    ASSERT_EQ(sensor.createResult(), 0);
    const int h = sensor.handle();
    fpdsys::Param number{};
    number.type = fpdsys::kInt;

    EXPECT_NE(D().invoke(h, 999, nullptr, 0), 1);                     // unknown command
    EXPECT_NE(D().invoke(h, 2, nullptr, 1), 1);                       // count without array
    EXPECT_NE(D().invoke(h, 2, nullptr, -1), 1);
    EXPECT_NE(D().invoke(h, 2008, nullptr, 0), 1);                    // firmware path missing
    EXPECT_NE(D().invoke(h, 2008, &number, 1), 1);                    // ... or not a string
    EXPECT_NE(D().invoke(h + 1000, 2, nullptr, 0), 1);                // no such instance
    EXPECT_NE(D().invoke(0, 2, nullptr, 0), 1);
    EXPECT_NE(D().abort(h + 1000), 0);
    EXPECT_NE(D().destroy(h + 1000), 0);

    int handle = -1;
    EXPECT_NE(D().create(dir.str().c_str(), nullptr, &handle), 0);
    EXPECT_NE(D().create(dir.str().c_str(), &EventLog::Callback, nullptr), 0);

    std::this_thread::sleep_for(100ms);
    EXPECT_TRUE(EventLog::instance().events(h).empty());
}

TEST_F(VirtualSensor, ExposureSendsAcquiringThenTheImageAfterTheExposureTime) {
    WorkDir dir(kSmallFlat);
    Sensor sensor(dir);
    ASSERT_EQ(sensor.createResult(), 0);
    const auto armed = std::chrono::steady_clock::now();
    const Event image = sensor.expose();

    const std::vector<Event> events = EventLog::instance().events(sensor.handle());
    ASSERT_EQ(events.size(), 2u);
    EXPECT_EQ(events[0].event, fpdsys::kEvtStatus);
    EXPECT_EQ(events[0].param1, fpdsys::kStatusAcquiring);
    EXPECT_GE(events[0].when - armed, 60ms);
    EXPECT_EQ(events[1].event, fpdsys::kEvtImage);
    EXPECT_NE(image.thread, std::this_thread::get_id());
    ASSERT_TRUE(image.hasData);
    EXPECT_EQ(image.columns, 64);
    EXPECT_EQ(image.rows, 48);
    ASSERT_EQ(image.pixels.size(), 64u * 48u);
    // A flat exposure: the centre of the frame is near the default dose.
    EXPECT_NEAR(image.pixels[24 * 64 + 20], 20000, 20000 * 0.5);
}

TEST_F(VirtualSensor, AttributesReportTheSensorAndReadBackWhatWasWritten) {
    struct Size {
        const char* ini;
        int columns;
        int rows;
    };
    const Size sizes[] = {{"[VirtualSensor]\nSensorSize=1000\n", 1000, 1500},
                          {"", 1200, 1650},
                          {"[VirtualSensor]\nSensorSize=2000\n", 1300, 1800},
                          {"[VirtualSensor]\nSensorSize=2000\nWidth=1650\nHeight=1200\n", 1650, 1200},
                          {"[VirtualSensor]\nHeight=700\n", 1200, 700}};
    for (const Size& s : sizes) {
        SCOPED_TRACE(s.ini);
        WorkDir dir(s.ini);
        Sensor sensor(dir);
        ASSERT_EQ(sensor.createResult(), 0);
        EXPECT_EQ(D().intAttr(sensor.handle(), fpdsys::kAttrImageWidth), s.columns);
        EXPECT_EQ(D().intAttr(sensor.handle(), fpdsys::kAttrImageHeight), s.rows);
        EXPECT_EQ(D().intAttr(sensor.handle(), fpdsys::kAttrOnlineState), 1);
        EXPECT_FALSE(D().textAttr(sensor.handle(), fpdsys::kAttrUsbInfo).empty());
        EXPECT_FALSE(D().textAttr(sensor.handle(), fpdsys::kAttrSerialNumber).empty());
    }

    WorkDir dir("[VirtualSensor]\nOnline=2\n");
    Sensor sensor(dir);
    ASSERT_EQ(sensor.createResult(), 0);
    const int h = sensor.handle();
    EXPECT_EQ(D().intAttr(h, fpdsys::kAttrOnlineState), 2);
    const int writable[] = {fpdsys::kAttrTriggerMode, fpdsys::kAttrDelayTime,
                            fpdsys::kAttrTriggerThreshold};
    for (int attribute : writable) {
        SCOPED_TRACE(attribute);
        for (int value : {7, 0, -3, 123456}) {
            EXPECT_EQ(D().setInt(h, attribute, value), 0);
            EXPECT_EQ(D().intAttr(h, attribute), value);
        }
        fpdsys::Value text{};
        text.type = fpdsys::kString;
        std::strcpy(text.text, "5");
        EXPECT_NE(D().setAttr(h, attribute, &text), 0);
        EXPECT_EQ(D().intAttr(h, attribute), 123456);
        EXPECT_NE(D().setAttr(h, attribute, nullptr), 0);
    }
    // The sensor's identity and geometry cannot be written; unknown attributes are refused.
    const int fixed[] = {fpdsys::kAttrUsbInfo,    fpdsys::kAttrSerialNumber, fpdsys::kAttrOnlineState,
                         fpdsys::kAttrImageWidth, fpdsys::kAttrImageHeight,  4242};
    for (int attribute : fixed) {
        SCOPED_TRACE(attribute);
        EXPECT_NE(D().setInt(h, attribute, 5), 0);
    }
    EXPECT_EQ(D().intAttr(h, fpdsys::kAttrImageWidth), 1200);
    fpdsys::Value value;
    std::memset(&value, 0x5A, sizeof(value));
    EXPECT_NE(D().getAttr(h, 4242, &value), 0);
    EXPECT_NE(D().getAttr(h, fpdsys::kAttrImageWidth, nullptr), 0);
    EXPECT_NE(D().getAttr(h + 1000, fpdsys::kAttrImageWidth, &value), 0);
}

TEST_F(VirtualSensor, ConfiguredFaultsShowExactlyAsDescribed) {
    WorkDir dir(
        "[VirtualSensor]\nWidth=64\nHeight=48\nExposureMs=30\n"
        "FailCommand=6:17, 1002:19\nRejectCommand=2031:33\nHangCommand=2\nFailSetAttr=2510:44\n");
    Sensor sensor(dir);
    ASSERT_EQ(sensor.createResult(), 0);
    const int h = sensor.handle();
    EventLog& log = EventLog::instance();

    EXPECT_EQ(sensor.invoke(2031), 33);  // rejected: its code at once, nothing follows
    EXPECT_EQ(sensor.invoke(2), 1);      // hangs: accepted, nothing follows
    EXPECT_EQ(sensor.invoke(6), 1);      // fails through event 5
    ASSERT_TRUE(log.waitFor(h, fpdsys::kEvtCommandFailed, 1, 2s));
    EXPECT_EQ(sensor.invoke(1002), 1);   // the exposure fails the same way
    ASSERT_TRUE(log.waitFor(h, fpdsys::kEvtCommandFailed, 2, 2s));
    EXPECT_EQ(sensor.invoke(3), 1);      // an unaffected command still completes
    ASSERT_TRUE(log.waitFor(h, fpdsys::kEvtCommandDone, 1, 2s));
    std::this_thread::sleep_for(200ms);

    const std::vector<Event> events = log.events(h);
    ASSERT_EQ(events.size(), 3u);
    EXPECT_EQ(events[0].event, fpdsys::kEvtCommandFailed);
    EXPECT_EQ(events[0].param1, 6);
    EXPECT_EQ(events[0].param2, 17);
    EXPECT_EQ(events[1].event, fpdsys::kEvtCommandFailed);
    EXPECT_EQ(events[1].param1, 1002);
    EXPECT_EQ(events[1].param2, 19);
    EXPECT_EQ(events[2].event, fpdsys::kEvtCommandDone);
    EXPECT_EQ(events[2].param1, 3);

    EXPECT_EQ(D().setInt(h, fpdsys::kAttrDelayTime, 5), 44);
    EXPECT_EQ(D().intAttr(h, fpdsys::kAttrDelayTime), 0);
    EXPECT_EQ(D().setInt(h, fpdsys::kAttrTriggerThreshold, 5), 0);
}

TEST_F(VirtualSensor, ImageFaultsWithholdOrEmptyTheImage) {
    {
        WorkDir dir("[VirtualSensor]\nWidth=64\nHeight=48\nExposureMs=20\nNoImage=1\n");
        Sensor sensor(dir);
        ASSERT_EQ(sensor.createResult(), 0);
        EXPECT_EQ(sensor.invoke(1002), 1);
        EXPECT_FALSE(EventLog::instance().waitFor(sensor.handle(), fpdsys::kEvtImage, 1, 400ms));
        EXPECT_EQ(sensor.invoke(2), 1);  // the sensor itself still answers
        EXPECT_TRUE(EventLog::instance().waitFor(sensor.handle(), fpdsys::kEvtCommandDone, 1, 2s));
    }
    {
        WorkDir dir("[VirtualSensor]\nWidth=64\nHeight=48\nExposureMs=20\nNullImage=1\n");
        Sensor sensor(dir);
        ASSERT_EQ(sensor.createResult(), 0);
        EXPECT_EQ(sensor.invoke(1002), 1);
        ASSERT_TRUE(EventLog::instance().waitFor(sensor.handle(), fpdsys::kEvtImage, 1, 2s));
        const std::vector<Event> events = EventLog::instance().events(sensor.handle());
        ASSERT_EQ(events.size(), 2u);
        EXPECT_EQ(events[0].event, fpdsys::kEvtStatus);
        EXPECT_FALSE(events[1].hasData);
    }
}

TEST_F(VirtualSensor, AbortAndRearmingCancelThePendingExposure) {
    WorkDir dir("[VirtualSensor]\nWidth=64\nHeight=48\nScene=flat\nExposureMs=150\n");
    Sensor sensor(dir);
    ASSERT_EQ(sensor.createResult(), 0);
    EventLog& log = EventLog::instance();

    EXPECT_EQ(sensor.invoke(1002), 1);
    EXPECT_EQ(D().abort(sensor.handle()), 0);
    EXPECT_FALSE(log.waitFor(sensor.handle(), fpdsys::kEvtStatus, 1, 400ms));
    EXPECT_TRUE(log.events(sensor.handle()).empty());

    // Arming twice: the second arming replaces the first, and one image arrives.
    EXPECT_EQ(sensor.invoke(1002), 1);
    std::this_thread::sleep_for(50ms);
    const auto second = std::chrono::steady_clock::now();
    EXPECT_EQ(sensor.invoke(1002), 1);
    ASSERT_TRUE(log.waitFor(sensor.handle(), fpdsys::kEvtImage, 1, 2s));
    std::this_thread::sleep_for(300ms);
    EXPECT_EQ(log.count(sensor.handle(), fpdsys::kEvtImage), 1u);
    EXPECT_EQ(log.count(sensor.handle(), fpdsys::kEvtStatus), 1u);
    EXPECT_GE(log.events(sensor.handle()).front().when - second, 150ms);
}

TEST_F(VirtualSensor, TwoInstancesWorkSideBySide) {
    WorkDir dir(kSmallFlat);
    Sensor first(dir);
    Sensor second(dir);
    ASSERT_EQ(first.createResult(), 0);
    ASSERT_EQ(second.createResult(), 0);
    EXPECT_GE(first.handle(), 1);
    EXPECT_GE(second.handle(), 1);
    EXPECT_NE(first.handle(), second.handle());

    EXPECT_EQ(D().setInt(first.handle(), fpdsys::kAttrDelayTime, 11), 0);
    EXPECT_EQ(D().setInt(second.handle(), fpdsys::kAttrDelayTime, 22), 0);
    EXPECT_EQ(D().intAttr(first.handle(), fpdsys::kAttrDelayTime), 11);
    EXPECT_EQ(D().intAttr(second.handle(), fpdsys::kAttrDelayTime), 22);

    EXPECT_EQ(first.invoke(1002), 1);
    EXPECT_EQ(second.invoke(2), 1);
    ASSERT_TRUE(EventLog::instance().waitFor(first.handle(), fpdsys::kEvtImage, 1, 2s));
    ASSERT_TRUE(EventLog::instance().waitFor(second.handle(), fpdsys::kEvtCommandDone, 1, 2s));
    const std::vector<Event> a = EventLog::instance().events(first.handle());
    const std::vector<Event> b = EventLog::instance().events(second.handle());
    ASSERT_EQ(a.size(), 2u);  // status and image, no completion of the other's command
    ASSERT_EQ(b.size(), 1u);
    EXPECT_NE(a[1].thread, b[0].thread);

    // Destroying one leaves the other working.
    const int gone = first.handle();
    first.destroy();
    EXPECT_NE(D().invoke(gone, 2, nullptr, 0), 1);
    EXPECT_EQ(second.invoke(3), 1);
    EXPECT_TRUE(EventLog::instance().waitFor(second.handle(), fpdsys::kEvtCommandDone, 2, 2s));
}

TEST_F(VirtualSensor, DestroyReturnsPromptlyAndSilencesAHangingSensor) {
    WorkDir dir("[VirtualSensor]\nWidth=64\nHeight=48\nExposureMs=200\nHangCommand=2\n");
    Sensor sensor(dir);
    ASSERT_EQ(sensor.createResult(), 0);
    const int h = sensor.handle();
    EXPECT_EQ(sensor.invoke(2), 1);
    EXPECT_EQ(sensor.invoke(1002), 1);
    EXPECT_EQ(sensor.invoke(3), 1);  // completes in a few milliseconds: may or may not make it

    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(D().destroy(h), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - start, 1s);
    const size_t after = EventLog::instance().events(h).size();
    std::this_thread::sleep_for(400ms);
    EXPECT_EQ(EventLog::instance().events(h).size(), after);
    EXPECT_EQ(EventLog::instance().count(h, fpdsys::kEvtImage), 0u);

    fpdsys::Value value{};
    EXPECT_NE(D().getAttr(h, fpdsys::kAttrImageWidth, &value), 0);
    EXPECT_NE(D().destroy(h), 0);
}

TEST_F(VirtualSensor, ACallbackMayDestroyItsOwnSensor) {
    WorkDir dir(kSmallFlat);
    int handle = 0;
    ASSERT_EQ(D().create(dir.str().c_str(), &EventLog::Callback, &handle), 0);
    std::atomic<int> destroyResult{-1};
    EventLog::instance().setHook([&](const Event& e) {
        if (e.detector == handle && e.event == fpdsys::kEvtCommandDone) {
            destroyResult = D().destroy(handle);
        }
    });
    EXPECT_EQ(D().invoke(handle, 2, nullptr, 0), 1);
    EXPECT_EQ(D().invoke(handle, 1002, nullptr, 0), 1);
    ASSERT_TRUE(EventLog::instance().waitFor(handle, fpdsys::kEvtCommandDone, 1, 2s));
    std::this_thread::sleep_for(300ms);
    EventLog::instance().setHook(nullptr);
    EXPECT_EQ(destroyResult.load(), 0);
    EXPECT_EQ(EventLog::instance().events(handle).size(), 1u);
    EXPECT_NE(D().invoke(handle, 2, nullptr, 0), 1);
}

TEST_F(VirtualSensor, EveryCodeHasAText) {
    for (int code : {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 20, 22, 33, -1, 9999, INT_MIN, INT_MAX}) {
        SCOPED_TRACE(code);
        EXPECT_FALSE(D().errorText(code).empty());
    }
    EXPECT_NE(D().errorText(0), D().errorText(5));
    D().getErrInfo(0, nullptr);  // must not crash
}

}  // namespace
}  // namespace vstest
