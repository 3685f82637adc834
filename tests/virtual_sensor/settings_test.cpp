// VirtualSensor.ini as the sensor reads it.
#include "driver.h"

namespace vstest {
namespace {

using VirtualSensorIni = VirtualSensorTest;

TEST_F(VirtualSensorIni, IsReadLikeAnIniFileAndDefaultsWithoutOne) {
    WorkDir dir(
        "; by hand\r\n[Other]\r\nSensorSize=1000\r\nOnline=7\r\n[ virtualsensor ]\r\n"
        "  sensorsize =  2000  \r\n# comment\r\nWIDTH=1400\r\nUnknownKey = anything\r\n"
        "no equals sign\r\nOnline=3\r\nOnline=0\r\n");
    const std::string ini = dir.str(), missing = ini + "/no-such-folder";
    for (const char* workDir : {ini.c_str(), missing.c_str(), static_cast<const char*>(nullptr)}) {
        const bool configured = workDir == ini.c_str();
        int handle = 0;
        ASSERT_EQ(D().create(workDir, &RecordEvent, &handle), 0);
        EXPECT_EQ(D().attr(handle, 5007, fpdsys::kInt).intValue, configured ? 1400 : 1200);
        EXPECT_EQ(D().attr(handle, 5008, fpdsys::kInt).intValue, configured ? 1800 : 1650);
        EXPECT_EQ(D().attr(handle, 5002, fpdsys::kInt).intValue, configured ? 0 : 1);
        D().destroy(handle);
    }
}

TEST_F(VirtualSensorIni, AValueThatCannotBeMeantFailsCreateAndNamesTheKey) {
    for (const char* line :
         {"SensorSize=1234", "SensorSize=", "Width=0", "Width=12abc", "Height=99999",
          "ExposureMs=-5", "Scene=bright", "Dose=0", "Dose=70000", "Seed=-1", "Seed=4294967296",
          "Online=x", "FailCommand=6", "FailCommand=6:x", "RejectCommand=:3", "HangCommand=two",
          "FailSetAttr=", "NoImage=maybe", "NullImage=2"}) {
        SCOPED_TRACE(line);
        WorkDir dir(std::string("[VirtualSensor]\n") + line + "\n");
        int handle = 0;
        const int result = D().create(dir.str().c_str(), &RecordEvent, &handle);
        EXPECT_TRUE(result != 0 && handle == 0);
        const std::string key = std::string(line).substr(0, std::string(line).find('='));
        EXPECT_NE(D().errorText(result).find(key), std::string::npos) << D().errorText(result);
        EXPECT_NE(D().writeCalibration(dir.str().c_str(), 1), 0);
    }
}

}  // namespace
}  // namespace vstest
