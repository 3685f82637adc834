// One exposure from the host's side: result codes, the progress and end-sign hand-shake, stops,
// the corrected image and the outlier statistics.

#include "detector_support.h"

using namespace detector_test;
using Clock = std::chrono::steady_clock;

namespace {

struct Outcome {
    int code = 0, endSign = 0, progress = 0;
    imgmat image;
    std::string log;
};

// Settings that differ from the virtual sensor's defaults, so that all three are written.
Outcome Acquire(CVeltrano& detector) {
    Outcome outcome;
    outcome.log = Capture([&] { outcome.code = detector.AcqImageEx(outcome.image, 10, 7, 555); });
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

// Coefficient of variation over the rows below the cut corners.
double Variation(const imgmat& image, unsigned long long cut) {
    const float* end = image.data + image.width * image.height;
    double sum = 0, squares = 0, count = 0;
    for (const float* p = image.data + (cut + 1) * image.width; p < end; ++p, ++count) {
        sum += *p;
        squares += double(*p) * *p;
    }
    return std::sqrt(squares / count - sum * sum / count / count) / (sum / count);
}

}  // namespace

TEST(Acquisition, FlatExposuresOfTwoDetectorsSideBySideComeBackCorrected) {
    WorkDir dir("SensorSize = 1000\nScene = flat\nDose = 20000");
    CVeltrano detector(dir.str().c_str());
    Prepare(detector, dir);
    // Another sensor size, and four gain frames from which the nearest is chosen.
    WorkDir otherDir("SensorSize = 1500\nScene = flat\nSeed = 4\nDose = 12000\nExposureMs = 80");
    CVeltrano other(otherDir.str().c_str());
    Prepare(other, otherDir, 4);
    imgmat otherImage;
    std::thread second([&] { EXPECT_EQ(other.AcqImageEx(otherImage, 0, 6, 9), 0); });

    std::atomic<bool> done{false};
    std::string seen;  // each new progress value, with the end sign at that moment
    std::thread poller([&] {
        for (int last = 0, finished = 0; !finished;) {
            finished = done;  // one more look after the acquisition has returned
            if (const int progress = detector.GetProgressBar(); progress != last) {
                last = progress;
                seen +=
                    " " + std::to_string(progress) + ":" + std::to_string(detector.GetEndSign());
            }
            std::this_thread::sleep_for(std::chrono::microseconds(200));
        }
    });
    const Outcome outcome = Acquire(detector);
    done = true;
    poller.join();
    second.join();
    ASSERT_EQ(otherImage.width * otherImage.height, 1200u * 1650u);
    EXPECT_LT(Variation(otherImage, 251), 0.02);
    EXPECT_EQ(outcome.code, 0);
    ASSERT_EQ(outcome.image.width * outcome.image.height, 1000u * 1500u);
    // 6 to 9 stand for 100 ms each, 10 and 11 follow each other at once; the end sign turns 1
    // just before 9.
    EXPECT_EQ(seen.find(" 6:0 7:0 8:0 9:1"), 0u) << seen;
    EXPECT_EQ(seen.substr(seen.size() - 5), " 11:1") << seen;
    // Gain corrected and defective pixels repaired: nothing stands out of the noise.
    EXPECT_LT(Variation(outcome.image, 211), 0.02);

    // In order, one line at a time: the other detector's lines may come in between.
    const char* steps[] = {"SensorSize:1000\n",
                           "Success to load defectFile\n",
                           "New TriggerThreshold is:555\n",
                           "Waiting for acquiring an image!\r\n",
                           "Get an image!\n",
                           "Success to do PixelCorrection!\n",
                           "//////////////////end//////////////////////\n"};
    for (size_t i = 0, at = 0; i < 7; ++i) {
        at = outcome.log.find(steps[i], at);
        ASSERT_NE(at, std::string::npos) << "missing in order: " << steps[i] << outcome.log;
    }
}

// Before the call: a calibration file is removed, or the binding taken away ("Deinit"), and
// end sign and progress are preset. The progress after the call is 11 where the image is
// delivered nevertheless.
struct FaultCase {
    const char* name;
    const char *ini, *before;
    int endSign, progress, code, progressAfter;
    const char* message;
    // CTest lists a case by its name rather than by its bytes.
    friend void PrintTo(const FaultCase& c, std::ostream* os) { *os << c.name; }
};

class AcquisitionFault : public testing::TestWithParam<FaultCase> {};

TEST_P(AcquisitionFault, GivesItsCodeAndMessage) {
    const FaultCase& c = GetParam();
    const std::string kStart = "//////////////////start//////////////////////\n";
    ShortTimes shortTimes;
    // A refusal comes before the calibration files are looked for: those cases go without them.
    // An image that is delivered is corrected with the sensor's own.
    WorkDir dir("SensorSize = 1000");
    if (c.code < -2 && c.progressAfter == 11) {
        ASSERT_EQ(WriteCalibration(dir.str(), 1), 0);
    } else if (c.code < -2) {
        WriteLevelCalibration(dir, 1000, 1500);
    }
    dir.configure(std::string("SensorSize = 1000\nScene = flat\n") + c.ini);
    if (*c.before != '\0' && std::string(c.before) != "Deinit") {
        fs::remove(dir.calibrationFolder() / c.before);
    }
    CVeltrano detector(dir.str().c_str());
    ASSERT_EQ(detector.Initialize(), 0);
    detector.Connect();
    if (std::string(c.before) == "Deinit") {
        detector.Deinit();  // the sensor size is still known
    }
    detector.SetEndSign(c.endSign);
    detector.SetProgressBar(c.progress);
    const Outcome outcome = Acquire(detector);
    EXPECT_EQ(outcome.code, c.code);
    // A refusal prints the message and nothing more.
    EXPECT_TRUE(c.code < -2 ? Contains(outcome.log, c.message)
                            : outcome.log == kStart + std::string(c.message))
        << outcome.log;
    const bool delivered = c.code < -2 && c.progressAfter == 11;
    EXPECT_EQ(outcome.progress, c.progressAfter);
    EXPECT_EQ(outcome.endSign, c.code >= -2 ? c.endSign : delivered ? 1 : 2);
    EXPECT_EQ(outcome.image.width, delivered ? 1000u : 0u);
}

const char kUnknownSize[] = "Width = 1650\nHeight = 1200";

INSTANTIATE_TEST_SUITE_P(
    Cases, AcquisitionFault,
    testing::Values(
        // Refusals print nothing more than this; end sign and progress stay as they were.
        FaultCase{"UnknownSensorSize", kUnknownSize, "", 0, 0, -1, 0,
                  "SensorSize:-1\nSensor Size is not right!\n"},
        FaultCase{"HandshakeNotReset", "", "", 1, 11, -1, 11,
                  "SensorSize:1000\nPlease reset endSign and progress!\n"},
        FaultCase{"ProgressNotReset", "", "", 0, 6, -1, 6, "SensorSize:1000\n"},
        FaultCase{"UnknownSizeAndHandshakeNotReset", kUnknownSize, "", 1, 1, -1, 1,
                  "SensorSize:-1\nPlease reset endSign and progress!\nSensor Size is not right!\n"},
        FaultCase{"NotConnected", "", "Deinit", 0, 0, -2, 0,
                  "SensorSize:1000\nPlease Connect firmWare!\n"},
        // Setting failures are recorded, but the exposure is still taken and corrected.
        FaultCase{"DelayTimeFails", "FailSetAttr = 2510:7", "", 0, 0, -4, 11, ""},
        FaultCase{"TriggerModeFails", "FailSetAttr = 2506:7", "", 0, 0, -5, 11, ""},
        // The last failure wins.
        FaultCase{"DelayAndThresholdFail", "FailSetAttr = 2510:7, 2564:7", "", 0, 0, -6, 11, ""},
        FaultCase{"PrepareFails", "FailCommand = 6:17", "", 0, 0, -7, 11,
                  "Write User RAM Result:Succeed\n\n"},
        FaultCase{"ThresholdFailsThenUserRamRefused",
                  "FailSetAttr = 2564:7\nRejectCommand = 2031:18", "", 0, 0, -7, 11, ""},
        FaultCase{"ExposureFails", "FailCommand = 1002:19", "", 0, 0, -8, 6,
                  "Detector has an Error when getting an image!\n"},
        FaultCase{"NoImage", "NullImage = 1", "", 0, 0, -10, 8, "Post Processs Failed!\n"},
        FaultCase{"NoDefectFile", "", "VirtualSensor.dft", 0, 0, -3, 0,
                  "No defectFile!\nNo CaliFile!\n"},
        FaultCase{"NoGainFile", "", "VirtualSensor.gn", 0, 0, -3, 0,
                  "No Gain CaliFile!\nNo CaliFile!\n"}),
    [](const testing::TestParamInfo<FaultCase>& info) { return std::string(info.param.name); });

TEST(Acquisition, StopAcqEndsAPendingWaitAtOnceAndStaysUntilReset) {
    // The image is due 500 ms after arming, 400 ms after the stop. The object is destroyed
    // before it comes, and a late image must not reach it (AddressSanitizer would see a use
    // after free).
    // The image never reaches a correction: calibration files of one level serve.
    WorkDir dir("SensorSize = 1000\nExposureMs = 500");
    WriteLevelCalibration(dir, 1000, 1500);
    auto detector = std::make_unique<CVeltrano>(dir.str().c_str());
    ASSERT_EQ(detector->Initialize(), 0);
    ASSERT_EQ(detector->Connect(), 0);
    Outcome outcome;
    std::thread host([&] { outcome = Acquire(*detector); });
    for (const auto start = Clock::now();
         detector->GetProgressBar() != 6 && Clock::now() - start < std::chrono::seconds(20);) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    EXPECT_EQ(detector->GetProgressBar(), 6);
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    detector->StopAcq();
    host.join();
    // The stop, not the image, ended the wait: the image had not arrived when the call returned.
    // The callback logs "enter Evt_Image" before it wakes the wait, so a wait that only the
    // image ended always shows it.
    EXPECT_FALSE(Contains(outcome.log, "enter Evt_Image")) << outcome.log;
    EXPECT_FALSE(Contains(outcome.log, "Get an image!")) << outcome.log;
    EXPECT_EQ(outcome.code, -9);
    EXPECT_EQ(outcome.endSign, 2);
    EXPECT_EQ(outcome.progress, 6);
    EXPECT_TRUE(Contains(outcome.log,
                         "Stop waitting!\nStop operation! \r\n"
                         "//////////////////end//////////////////////\n"));

    // The stop stays until it is reset: the next exposure leaves at once, with code 0.
    detector->SetProgressBar(0);
    detector->SetEndSign(0);
    const Outcome stopped = Acquire(*detector);
    EXPECT_EQ(stopped.code, 0);
    EXPECT_EQ(stopped.endSign, 2);
    EXPECT_EQ(stopped.log,
              "//////////////////start//////////////////////\nSensorSize:1000\n"
              "Stop operation! \r\n//////////////////end//////////////////////\n");
    detector.reset();
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
}

TEST(OutlierStatistics, LevelsFollowTheBrightestAndDarkestThousandPixels) {
    // (value, pixel count) pairs in one row; the corner cut; the levels expected.
    struct Case {
        std::vector<std::pair<float, int>> values;
        int cut, low, high;
    };
    const Case cases[] = {
        {{{40000.0f, 500}, {25000.0f, 3500}}, -1, 200, 25000},
        {{{40000.0f, 1001}, {25000.0f, 2500}}, -1, 200, 40000},
        {{{40000.0f, 1000}, {20000.5f, 2500}}, -1, 200, 20000},
        {{{100.0f, 1001}, {5000.0f, 2000}}, -1, 100, 20000},
        {{{100.0f, 1000}, {150.0f, 10}, {5000.0f, 2000}}, -1, 150, 20000},
        {{{-50.0f, 1200}, {90000.0f, 1200}, {5000.0f, 1600}}, -1, 0, 65535},
        // The cut corners of a row reach to column cut: here they take the bright pixels out.
        {{{60000.0f, 1500}, {100.0f, 3000}}, 1500, 100, 20000},
    };
    TestDetector detector("unused");
    for (const Case& c : cases) {
        std::vector<float> row;
        for (const auto& v : c.values) {
            row.insert(row.end(), static_cast<size_t>(v.second), v.first);
        }
        SCOPED_TRACE(row.size());
        imgmat image(row.size(), 1, 1);
        std::copy(row.begin(), row.end(), image.data);
        int low = -1, high = -1;
        imgmat marks;
        detector.CalcOutlierMarks(image, c.cut, low, high, marks);
        EXPECT_EQ(low, c.low);
        EXPECT_EQ(high, c.high);
    }
}

TEST(OutlierStatistics, MarksOutliersOutsideTheCutCornersWithinTheDefectMap) {
    // The marks take the defect map's size, which without a known sensor is 1300 x 1800; the
    // image here is one pixel larger each way, and its extra pixels are never marked.
    WorkDir dir;
    fs::create_directories(dir.calibrationFolder());
    std::ofstream(dir.calibrationFolder() / "map.dft") << std::string(1040 + 1300 * 1800, '\0');
    TestDetector detector(dir.str().c_str());
    ASSERT_EQ(detector.GetBadPixelInfo(), 0);
    // The map is loaded once and kept.
    fs::remove(dir.calibrationFolder() / "map.dft");
    ASSERT_EQ(detector.GetBadPixelInfo(), 0);
    imgmat image(1301, 1801, 1);
    image = 5000.0f;
    image.data[282] = 0.0f;              // just outside the cut upper-left corner
    image.data[281] = 60000.0f;          // in it
    image.data[5 * 1301 + 1025] = 0.0f;  // in the cut upper-right corner
    image.data[1801 * 1301 - 1] = 0.0f;  // outside the map
    int low = 0, high = 0;
    imgmat marks;
    detector.CalcOutlierMarks(image, 281, low, high, marks);
    ASSERT_EQ(marks.width * marks.height, 1300u * 1800u);
    EXPECT_EQ(std::count(marks.data, marks.data + 1300 * 1800, 1.0f), 1);
    EXPECT_EQ(marks.data[282], 1.0f);
}

TEST(OutlierStatistics, EveryPixelAlongBothCornerEdgesIsJudgedByTheCornerRule) {
    // Dark pixels straddle both diagonal edges of the cut corners in the top rows: fewer than
    // 1000 of them lie outside the corners, so the low level is 200 and exactly those outside
    // are marked. A pixel is outside when r + c > k and c - r < C - k.
    constexpr long long kColumns = 1300, kRows = 1800, kCut = 281;
    WorkDir dir;
    fs::create_directories(dir.calibrationFolder());
    std::ofstream(dir.calibrationFolder() / "map.dft")
        << std::string(1040 + kColumns * kRows, '\0');
    TestDetector detector(dir.str().c_str());
    ASSERT_EQ(detector.GetBadPixelInfo(), 0);
    imgmat image(kColumns, kRows, 1);
    image = 5000.0f;
    for (long long r = 0; r < 100; ++r) {
        for (long long d = -2; d <= 2; ++d) {
            image.data[r * kColumns + (kCut - r + d)] = 0.0f;
            image.data[r * kColumns + (kColumns - kCut + r + d)] = 0.0f;
        }
    }
    int low = -1, high = -1;
    imgmat marks;
    detector.CalcOutlierMarks(image, kCut, low, high, marks);
    EXPECT_EQ(low, 200);
    EXPECT_EQ(high, 20000);
    ASSERT_EQ(marks.width * marks.height, static_cast<unsigned long long>(kColumns * kRows));
    long long wrong = 0, marked = 0;
    for (long long r = 0; r < kRows; ++r) {
        for (long long c = 0; c < kColumns; ++c) {
            const bool outside = r + c > kCut && c - r < kColumns - kCut;
            const bool expected = outside && image.data[r * kColumns + c] == 0.0f;
            const bool got = marks.data[r * kColumns + c] == 1.0f;
            wrong += expected != got;
            marked += got;
        }
    }
    EXPECT_EQ(wrong, 0);
    EXPECT_EQ(marked, 100 * 2 * 2);  // per row and edge, d = 1 and 2 (left), d = -2 and -1 (right)
}
