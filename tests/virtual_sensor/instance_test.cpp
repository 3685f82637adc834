// The driver as a host sees it: commands, events, attributes, faults, instances, error texts.
#include <climits>

#include "driver.h"

namespace vstest {
namespace {

using VirtualSensor = VirtualSensorTest;

constexpr char kSmallFlat[] = "[VirtualSensor]\nWidth=64\nHeight=48\nScene=flat\nExposureMs=60\n";

TEST_F(VirtualSensor, CommandsCompleteThroughEvent4OnTheSensorsOwnThread) {
    WorkDir dir(kSmallFlat);
    Sensor sensor(dir);
    ASSERT_TRUE(sensor.created == 0 && sensor.handle >= 1);
    fpdsys::Param number{}, path{};
    number.intValue = 0x20000;
    path.type = fpdsys::kString;
    std::strcpy(path.text, "firmware.bin");
    const std::pair<int, fpdsys::Param*> cases[] = {{2, nullptr},    {3, nullptr}, {6, &number},
                                                    {2031, nullptr}, {8, nullptr}, {2001, nullptr},
                                                    {2008, &path}};
    size_t done = 0;
    for (const auto& c : cases) {
        EXPECT_EQ(D().invoke(sensor.handle, c.first, c.second, c.second ? 1 : 0), 1) << c.first;
        ASSERT_TRUE(WaitFor(sensor.handle, fpdsys::kEvtCommandDone, ++done)) << c.first;
        const Event last = Events(sensor.handle).back();
        EXPECT_TRUE(last.param1 == c.first && last.thread != std::this_thread::get_id()) << c.first;
    }
    // Refused at once, without a callback.
    EXPECT_TRUE(D().invoke(sensor.handle, 999, nullptr, 0) != 1 &&
                D().invoke(sensor.handle, 2, nullptr, 1) != 1);
    EXPECT_NE(D().invoke(sensor.handle, 2008, &number, 1), 1);  // the path is not a string
    EXPECT_NE(D().invoke(sensor.handle + 1000, 2, nullptr, 0), 1);
    std::this_thread::sleep_for(50ms);
    EXPECT_EQ(Events(sensor.handle).size(), done);
}

TEST_F(VirtualSensor, AttributesReportTheSensorAndReadBackWhatWasWritten) {
    const struct {
        const char* ini;
        int columns, rows, online;
    } sizes[] = {{"[VirtualSensor]\nSensorSize=1000\n", 1000, 1500, 1},
                 {"", 1200, 1650, 1},
                 {"[VirtualSensor]\nSensorSize=2000\nOnline=2\n", 1300, 1800, 2},
                 {"[VirtualSensor]\nSensorSize=2000\nWidth=1650\nHeight=1200\n", 1650, 1200, 1},
                 {"[VirtualSensor]\nHeight=700\nOnline=0\n", 1200, 700, 0}};
    for (const auto& s : sizes) {
        WorkDir dir(s.ini);
        Sensor sensor(dir);
        ASSERT_EQ(sensor.created, 0) << s.ini;
        EXPECT_EQ(D().attr(sensor.handle, 5007, fpdsys::kInt).intValue, s.columns) << s.ini;
        EXPECT_EQ(D().attr(sensor.handle, 5008, fpdsys::kInt).intValue, s.rows) << s.ini;
        EXPECT_EQ(D().attr(sensor.handle, 5002, fpdsys::kInt).intValue, s.online) << s.ini;
        EXPECT_TRUE(D().attr(sensor.handle, 151, fpdsys::kString).text[0] != '\0' &&
                    D().attr(sensor.handle, 2062, fpdsys::kString).text[0] != '\0');
    }
    WorkDir dir;
    Sensor sensor(dir);
    const int h = sensor.handle;
    for (int attribute : {2506, 2510, 2564}) {
        for (int value : {7, 0, -3, 123456}) {
            EXPECT_EQ(D().setInt(h, attribute, value), 0);
            EXPECT_EQ(D().attr(h, attribute, fpdsys::kInt).intValue, value) << attribute;
        }
        EXPECT_NE(D().setAttr(h, attribute, nullptr), 0);
        EXPECT_EQ(D().attr(h, attribute, fpdsys::kInt).intValue, 123456) << attribute;
    }
    // Identity and geometry cannot be written; unknown attributes are refused.
    for (int attribute : {151, 2062, 5002, 5007, 5008, 4242}) {
        EXPECT_NE(D().setInt(h, attribute, 5), 0) << attribute;
    }
    fpdsys::Value value{};
    EXPECT_NE(D().getAttr(h, 4242, &value), 0);
    EXPECT_NE(D().getAttr(h, 5007, nullptr), 0);
}

TEST_F(VirtualSensor, EachFaultKeyShowsAsConfigured) {
    WorkDir dir(
        "[VirtualSensor]\nWidth=64\nHeight=48\nExposureMs=30\n"
        "FailCommand=6:17, 1002:19\nRejectCommand=2031:33\nHangCommand=2\nFailSetAttr=2510:44\n");
    WorkDir none("[VirtualSensor]\nWidth=64\nHeight=48\nExposureMs=20\nNoImage=1\n");
    WorkDir null("[VirtualSensor]\nWidth=64\nHeight=48\nExposureMs=20\nNullImage=1\n");
    Sensor sensor(dir), withoutImage(none), withNullImage(null);
    const int h = sensor.handle;
    EXPECT_EQ(sensor.invoke(2031), 33);  // its code at once
    EXPECT_EQ(sensor.invoke(2), 1);      // accepted, and nothing follows
    EXPECT_EQ(sensor.invoke(6), 1);
    ASSERT_TRUE(WaitFor(h, fpdsys::kEvtCommandFailed, 1));
    EXPECT_EQ(sensor.invoke(1002), 1);
    ASSERT_TRUE(WaitFor(h, fpdsys::kEvtCommandFailed, 2));
    EXPECT_EQ(sensor.invoke(3), 1);  // an unaffected command still completes
    ASSERT_TRUE(WaitFor(h, fpdsys::kEvtCommandDone, 1));
    EXPECT_EQ(withoutImage.invoke(1002), 1);
    EXPECT_EQ(withNullImage.invoke(1002), 1);
    ASSERT_TRUE(WaitFor(withNullImage.handle, fpdsys::kEvtImage, 1));
    EXPECT_FALSE(Events(withNullImage.handle).back().hasData);
    EXPECT_FALSE(WaitFor(withoutImage.handle, fpdsys::kEvtImage, 1, 200ms));
    const std::vector<Event> events = Events(h);
    ASSERT_EQ(events.size(), 3u);
    const int expected[3][3] = {{5, 6, 17}, {5, 1002, 19}, {4, 3, 0}};
    for (int i = 0; i < 3; ++i) {
        EXPECT_TRUE(events[i].event == expected[i][0] && events[i].param1 == expected[i][1] &&
                    events[i].param2 == expected[i][2])
            << i;
    }
    EXPECT_EQ(D().setInt(h, 2510, 5), 44);
    EXPECT_EQ(D().attr(h, 2510, fpdsys::kInt).intValue, 0);
    EXPECT_EQ(D().setInt(h, 2564, 5), 0);
}

TEST_F(VirtualSensor, TwoInstancesKeepTheirOwnStateAndAnExposureSendsStatusThenImage) {
    WorkDir dir(kSmallFlat);
    Sensor first(dir), second(dir);
    ASSERT_TRUE(first.created == 0 && second.created == 0);
    EXPECT_NE(first.handle, second.handle);
    EXPECT_TRUE(D().setInt(first.handle, 2510, 11) == 0 &&
                D().setInt(second.handle, 2510, 22) == 0);
    EXPECT_EQ(D().attr(first.handle, 2510, fpdsys::kInt).intValue, 11);
    EXPECT_EQ(D().attr(second.handle, 2510, fpdsys::kInt).intValue, 22);
    const auto armed = std::chrono::steady_clock::now();
    const Event image = first.expose();
    EXPECT_EQ(second.invoke(2), 1);
    ASSERT_TRUE(WaitFor(second.handle, fpdsys::kEvtCommandDone, 1));
    const std::vector<Event> a = Events(first.handle), b = Events(second.handle);
    ASSERT_TRUE(a.size() == 2 && b.size() == 1);
    EXPECT_TRUE(a[0].event == fpdsys::kEvtStatus && a[0].param1 == fpdsys::kStatusAcquiring);
    EXPECT_GE(a[0].when - armed, 60ms);
    EXPECT_EQ(a[1].event, fpdsys::kEvtImage);
    EXPECT_TRUE(a[1].thread != b[0].thread && a[1].thread != std::this_thread::get_id());
    EXPECT_TRUE(image.columns == 64 && image.rows == 48);
    ASSERT_EQ(image.pixels.size(), 64u * 48u);
    EXPECT_NEAR(image.pixels[24 * 64 + 20], 20000, 20000 * 0.5);
}

TEST_F(VirtualSensor, DestroyDuringAHangIsPromptAndEveryCodeHasAText) {
    WorkDir dir("[VirtualSensor]\nWidth=64\nHeight=48\nExposureMs=150\nHangCommand=2\n");
    Sensor sensor(dir);
    int h = sensor.handle;
    EXPECT_EQ(sensor.invoke(2), 1);
    EXPECT_EQ(sensor.invoke(1002), 1);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(D().destroy(h), 0);
    // The hanging command never completes: a destroy that waited for it would not return at
    // all. The bound is generous so that a loaded machine or a sanitizer cannot break it.
    EXPECT_LT(std::chrono::steady_clock::now() - start, 10s);
    std::this_thread::sleep_for(250ms);
    EXPECT_TRUE(Events(h).empty());
    fpdsys::Value value{};
    EXPECT_NE(D().getAttr(h, 5007, &value), 0);
    EXPECT_NE(D().destroy(h), 0);
    EXPECT_NE(D().create(dir.str().c_str(), nullptr, &h), 0);
    for (int code : {0, 1, 2, 3, 4, 5, 7, 8, 10, 11, 12, 22, 33, -1, INT_MIN, INT_MAX}) {
        EXPECT_FALSE(D().errorText(code).empty()) << code;
    }
    EXPECT_NE(D().errorText(0), D().errorText(5));
    EXPECT_NE(D().getErrInfo(0, nullptr), 0);
}

}  // namespace
}  // namespace vstest
