// VirtualSensor.ini as the sensor reads it.
#include <gtest/gtest.h>

#include "driver.h"

namespace vstest {
namespace {

using VirtualSensorIni = VirtualSensorTest;

Driver& D() { return TheDriver(); }

TEST_F(VirtualSensorIni, IsReadLikeAnIniFileForgivingCaseBlanksAndComments) {
    WorkDir dir(
        "; written by hand\r\n"
        "[Other]\r\n"
        "SensorSize=1000\r\n"
        "Online=7\r\n"
        "[ virtualsensor ]\r\n"
        "  sensorsize =  2000  \r\n"
        "# a comment\r\n"
        "WIDTH=1400\r\n"
        "NotAKeyWeKnow = anything at all\r\n"
        "a line without an equals sign\r\n"
        "Online=0\r\n");
    for (const std::string& path : {dir.str(), dir.str() + "/"}) {
        SCOPED_TRACE(path);
        int handle = 0;
        ASSERT_EQ(D().create(path.c_str(), &EventLog::Callback, &handle), 0);
        EXPECT_EQ(D().intAttr(handle, fpdsys::kAttrImageWidth), 1400);
        EXPECT_EQ(D().intAttr(handle, fpdsys::kAttrImageHeight), 1800);
        EXPECT_EQ(D().intAttr(handle, fpdsys::kAttrOnlineState), 0);
        D().destroy(handle);
    }
}

TEST_F(VirtualSensorIni, WithoutAFileTheSensorIsAHealthy1500) {
    WorkDir empty;
    const std::string folder = empty.str();
    const std::string missing = (empty.path() / "no-such-folder").string();
    for (const char* workDir : {folder.c_str(), missing.c_str(), "", static_cast<const char*>(nullptr)}) {
        SCOPED_TRACE(workDir == nullptr ? "(null)" : workDir);
        int handle = 0;
        ASSERT_EQ(D().create(workDir, &EventLog::Callback, &handle), 0);
        EXPECT_GE(handle, 1);
        EXPECT_EQ(D().intAttr(handle, fpdsys::kAttrImageWidth), 1200);
        EXPECT_EQ(D().intAttr(handle, fpdsys::kAttrImageHeight), 1650);
        EXPECT_EQ(D().intAttr(handle, fpdsys::kAttrOnlineState), 1);
        D().destroy(handle);
    }
}

TEST_F(VirtualSensorIni, AValueThatCannotBeMeantFailsCreateAndNamesTheKey) {
    const char* lines[] = {
        "SensorSize=1234",  "SensorSize=",       "Width=0",          "Width=12abc",
        "Height=99999",     "ExposureMs=-5",     "Scene=bright",     "Dose=0",
        "Dose=70000",       "Seed=-1",           "Seed=4294967296",  "Online=x",
        "FailCommand=6",    "FailCommand=6:x",   "RejectCommand=:3", "HangCommand=two",
        "FailSetAttr=",     "NoImage=maybe",     "NullImage=2",
    };
    for (const char* line : lines) {
        SCOPED_TRACE(line);
        WorkDir dir(std::string("[VirtualSensor]\n") + line + "\n");
        int handle = 0;
        const int result = D().create(dir.str().c_str(), &EventLog::Callback, &handle);
        EXPECT_NE(result, 0);
        EXPECT_EQ(handle, 0);
        const std::string key = std::string(line).substr(0, std::string(line).find('='));
        EXPECT_NE(D().errorText(result).find(key), std::string::npos) << D().errorText(result);
        if (handle != 0) {
            D().destroy(handle);
        }
    }
}

TEST_F(VirtualSensorIni, AcceptsTheLimitsAndListsOfFaults) {
    WorkDir dir(
        "[VirtualSensor]\nWidth=16\nHeight=8192\nSeed=4294967295\nDose=65535\nExposureMs=0\n"
        "Online=-4\nNoImage=0\nNullImage=false\nHangCommand=8, 2001\nRejectCommand=3:21,2031:22\n");
    Sensor sensor(dir);
    ASSERT_EQ(sensor.createResult(), 0) << D().errorText(sensor.createResult());
    EXPECT_EQ(D().intAttr(sensor.handle(), fpdsys::kAttrImageWidth), 16);
    EXPECT_EQ(D().intAttr(sensor.handle(), fpdsys::kAttrImageHeight), 8192);
    EXPECT_EQ(D().intAttr(sensor.handle(), fpdsys::kAttrOnlineState), -4);
    EXPECT_EQ(sensor.invoke(3), 21);
    EXPECT_EQ(sensor.invoke(2031), 22);
    EXPECT_EQ(sensor.invoke(8), 1);
    EXPECT_EQ(sensor.invoke(2001), 1);
    EXPECT_FALSE(EventLog::instance().waitFor(sensor.handle(), fpdsys::kEvtCommandDone, 1, 150ms));
}

}  // namespace
}  // namespace vstest
