// CalibrationBuilder on a small synthetic sensor: averaging, the defect search by kind, the gain
// frames and the arguments it refuses.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <map>
#include <utility>

#include <random>

#include "calibration/calibration_internal.h"
#include "synthetic_sensor.h"
#include "veltrano/calibration_builder.h"

namespace {

using caltest::SyntheticSensor;
using veltrano::CalibrationBuilder;
using veltrano::DefectThresholds;

const double kDoses[4] = {3000, 6000, 12000, 18000};

// Feeds `exposures` exposures at each of the builder's levels.
void Feed(CalibrationBuilder& builder, SyntheticSensor& sensor, int exposures,
          std::vector<std::vector<float>>* kept = nullptr) {
    const int levels = builder.Levels();
    for (int l = 0; l < levels; ++l) {
        for (int e = 0; e < exposures; ++e) {
            const std::vector<float> frame = sensor.expose(levels == 1 ? kDoses[3] : kDoses[l]);
            ASSERT_EQ(builder.AddExposure(l, frame.data()), 1);
            if (kept != nullptr) kept->push_back(frame);
        }
    }
}

// Every kind of defect planted once; the search must find exactly these, under these kinds.
TEST(CalibrationBuilder, FindsEachKindOfDefectAndNothingElse) {
    SyntheticSensor sensor(3);
    std::map<std::pair<int, int>, uint8_t> planted;
    auto plant = [&](int x, int y, uint8_t kind, SyntheticSensor::Reading reading) {
        planted[{x, y}] = kind;
        sensor.plant(x, y, std::move(reading));
    };
    plant(40, 30, veltrano::kDefectDead, caltest::Stuck(10));
    plant(70, 50, veltrano::kDefectHot, caltest::Stuck(60000));
    plant(85, 25, veltrano::kDefectDead, caltest::Scaled(0.3));
    plant(95, 75, veltrano::kDefectHot, caltest::Scaled(1.7));
    // Within half and one and a half of its neighbours at every dose, but rising by 0.4 of theirs.
    plant(90, 60, veltrano::kDefectUnresponsive, [](double g, double dose, double dark, double) {
        return g * (0.4 * dose + 2700) + dark;
    });
    // Follows the dose without any noise: it does not see the radiation.
    plant(30, 75, veltrano::kDefectUnresponsive,
          [](double g, double dose, double dark, double) { return g * dose + dark; });
    plant(50, 80, veltrano::kDefectNoisy, [](double g, double dose, double dark, double unit) {
        return SyntheticSensor::Good(g, dose, dark, 10.0 * unit);
    });
    // Two neighbouring dead pixels are not yet a cluster.
    plant(100, 40, veltrano::kDefectDead, caltest::Stuck(0));
    plant(101, 41, veltrano::kDefectDead, caltest::Stuck(0));
    // A dead column, and a row that reads 20 % low: no pixel of it is condemned alone.
    for (int y = 0; y < sensor.height; ++y) {
        if (!sensor.isCut(60, y)) plant(60, y, veltrano::kDefectColumn, caltest::Stuck(30));
    }
    for (int x = 0; x < sensor.width; ++x) {
        if (!sensor.isCut(x, 70) && x != 60)
            plant(x, 70, veltrano::kDefectRow, caltest::Scaled(0.8));
    }
    // A 3 x 3 cluster with a weak pixel on its rim (70 %: too good to be condemned alone), and
    // an equally weak pixel far from any defect, which stays good.
    for (int y = 40; y <= 42; ++y) {
        for (int x = 20; x <= 22; ++x) plant(x, y, veltrano::kDefectCluster, caltest::Stuck(5));
    }
    plant(23, 41, veltrano::kDefectCluster, caltest::Scaled(0.7));
    sensor.plant(100, 20, caltest::Scaled(0.7));

    CalibrationBuilder builder(sensor.width, sensor.height, sensor.cut, 4);
    ASSERT_TRUE(builder.IsValid());
    Feed(builder, sensor, 3);
    ASSERT_EQ(builder.Analyse(DefectThresholds()), 1);
    const uint8_t* map = builder.DefectMap();
    ASSERT_NE(map, nullptr);
    size_t wrong = 0;
    for (int y = 0; y < sensor.height; ++y) {
        for (int x = 0; x < sensor.width; ++x) {
            const auto it = planted.find({x, y});
            const uint8_t want = it == planted.end() ? 0 : it->second,
                          got = map[sensor.index(x, y)];
            if (got != want && wrong++ < 10) {
                ADD_FAILURE() << "pixel (" << x << ", " << y << "): kind " << int(got)
                              << ", planted " << int(want);
            }
        }
    }
    EXPECT_EQ(wrong, 0u);
    const veltrano::DefectCounts c = builder.Counts();
    EXPECT_TRUE(c.columns == 1 && c.rows == 1 && c.clusters == 1 && c.clusterPixels == 10);
    EXPECT_TRUE(c.dead == 4 && c.hot == 2 && c.unresponsive == 2 && c.noisy == 1);
    EXPECT_EQ(c.total, planted.size());

    // Thresholds are the caller's: a stricter dead fraction condemns the weak lone pixel too,
    // and the noisy pixel passes a factor above its own spread.
    DefectThresholds strict;
    strict.deadFraction = 0.75f;
    strict.noisyFactor = 30.0f;
    ASSERT_EQ(builder.Analyse(strict), 1);
    EXPECT_EQ(builder.DefectMap()[sensor.index(100, 20)], veltrano::kDefectDead);
    EXPECT_EQ(builder.DefectMap()[sensor.index(50, 80)], veltrano::kDefectNone);
}

// Without six degrees of freedom the spread says nothing: no noisy or frozen pixel is judged,
// and no good pixel is condemned by chance.
TEST(CalibrationBuilder, JudgesTheSpreadOnlyWithEnoughExposures) {
    for (int exposures : {2, 7}) {
        SyntheticSensor sensor(11);
        sensor.plant(50, 50, [](double g, double dose, double dark, double unit) {
            return SyntheticSensor::Good(g, dose, dark, 10.0 * unit);
        });
        sensor.plant(60, 60,
                     [](double g, double dose, double dark, double) { return g * dose + dark; });
        CalibrationBuilder builder(sensor.width, sensor.height, sensor.cut, 1);
        Feed(builder, sensor, exposures);
        ASSERT_EQ(builder.Analyse(DefectThresholds()), 1);
        const bool judged = exposures == 7;
        EXPECT_EQ(builder.DefectMap()[sensor.index(50, 50)], judged ? veltrano::kDefectNoisy : 0);
        EXPECT_EQ(builder.DefectMap()[sensor.index(60, 60)],
                  judged ? veltrano::kDefectUnresponsive : 0);
        EXPECT_EQ(builder.Counts().total, judged ? 2u : 0u) << exposures;
    }
}

// Each frame is its level's average, with the neighbourhood's value at a defect and the level
// in the first pixel; the levels rise with the dose.
TEST(CalibrationBuilder, GainFramesAreTheAveragesWithTheirLevelInTheFirstPixel) {
    SyntheticSensor sensor(5);
    sensor.plant(40, 30, caltest::Stuck(60000));
    CalibrationBuilder builder(sensor.width, sensor.height, sensor.cut, 4);
    std::vector<std::vector<float>> frames;
    Feed(builder, sensor, 3, &frames);
    ASSERT_EQ(builder.Analyse(DefectThresholds()), 1);
    const size_t n = frames[0].size();
    for (int l = 0; l < 4; ++l) {
        const uint16_t* frame = builder.GainFrame(l);
        ASSERT_NE(frame, nullptr);
        double bright = 0.0;
        size_t off = 0;
        for (int e = 0; e < 3; ++e) {
            bright += veltrano::BrightMean(frames[3 * l + e].data(), n) / 3.0;
        }
        EXPECT_EQ(frame[0], builder.FrameLevel(l));
        EXPECT_EQ(builder.FrameLevel(l), static_cast<uint32_t>(std::lround(bright)));
        double sum = 0.0, active = 0.0;
        for (size_t i = 1; i < n; ++i) {
            const double average =
                (frames[3 * l][i] + frames[3 * l + 1][i] + frames[3 * l + 2][i]) / 3.0;
            if (i != sensor.index(40, 30)) off += std::fabs(frame[i] - average) > 0.5 + 1e-3;
            if (!sensor.isCut(static_cast<int>(i % 120), static_cast<int>(i / 120))) {
                sum += average;
                active += 1.0;
            }
        }
        EXPECT_EQ(off, 0u) << l;
        EXPECT_NEAR(builder.LevelDose(l), sum / active, 1e-3 * sum / active);
        // The hot pixel's entry is what its neighbours read, not 60000.
        const double around = frame[sensor.index(41, 30)];
        EXPECT_NEAR(frame[sensor.index(40, 30)], around, 0.15 * around) << l;
        if (l > 0) {
            EXPECT_GT(builder.FrameLevel(l), 1.3 * builder.FrameLevel(l - 1));
        }
    }
}

TEST(CalibrationBuilder, RefusesWhatItCannotBuild) {
    for (auto a : {std::vector<int>{0, 90, 12, 1},
                   {70000, 10, 2, 1},
                   {120, 90, -1, 1},
                   {120, 90, 120, 1},
                   {120, 90, 12, 2},
                   {1 << 15, 1 << 14, 9, 4}}) {
        CalibrationBuilder bad(a[0], a[1], a[2], a[3]);
        const std::vector<float> frame(16, 1.0f);
        EXPECT_TRUE(!bad.IsValid() && bad.AddExposure(0, frame.data()) == -3 &&
                    bad.Analyse({}) == -1)
            << a[0];
    }
    // Levels in order from the first, without going back; each with an exposure before Analyse.
    SyntheticSensor sensor(2);
    CalibrationBuilder builder(sensor.width, sensor.height, sensor.cut, 4);
    const std::vector<float> dim = sensor.expose(2000), bright = sensor.expose(9000);
    EXPECT_EQ(builder.AddExposure(0, nullptr), -1);
    EXPECT_EQ(builder.AddExposure(1, dim.data()), -2);
    ASSERT_EQ(builder.AddExposure(0, bright.data()), 1);
    EXPECT_EQ(builder.Analyse(DefectThresholds()), -1);
    EXPECT_EQ(builder.AddExposure(2, dim.data()), -2);
    ASSERT_EQ(builder.AddExposure(1, dim.data()), 1);
    EXPECT_EQ(builder.AddExposure(0, dim.data()), -2);
    ASSERT_EQ(builder.AddExposure(2, sensor.expose(12000).data()), 1);
    ASSERT_EQ(builder.AddExposure(3, sensor.expose(18000).data()), 1);
    // The second level is darker than the first: the acquisition could not choose between them.
    EXPECT_EQ(builder.Analyse(DefectThresholds()), -3);
    EXPECT_TRUE(builder.GainFrame(0) == nullptr && builder.DefectMap() == nullptr);
    EXPECT_EQ(builder.WriteFiles("a.gn", "a.dft", veltrano::CalibrationHeader()), -2);

    CalibrationBuilder one(sensor.width, sensor.height, sensor.cut, 1);
    ASSERT_EQ(one.AddExposure(0, bright.data()), 1);
    for (int field = 0; field < 6; ++field) {
        DefectThresholds t;
        float* floats[] = {&t.deadFraction, &t.hotFraction, &t.noisyFactor, &t.lineFraction};
        const float values[] = {1.0f, 0.9f, std::nanf(""), 0.0f};
        if (field < 4) *floats[field] = values[field];
        if (field == 4) t.localRadius = 2048;
        if (field == 5) t.clusterMinPixels = 0;
        EXPECT_EQ(one.Analyse(t), -2) << field;
    }
    EXPECT_EQ(one.Analyse(DefectThresholds()), 1);
    EXPECT_EQ(one.WriteFiles(nullptr, "a.dft", veltrano::CalibrationHeader()), -1);
}

// The acquisition's own choice among four frames takes the mean of whole histogram bins from the
// top until 5000 pixels are counted.
TEST(CalibrationBuilder, BrightMeanTakesWholeBinsFromTheTop) {
    std::vector<float> pixels(10000, 0.0f);
    std::fill(pixels.begin(), pixels.begin() + 3000, 200.7f);  // bin 200
    std::fill(pixels.begin() + 3000, pixels.begin() + 9000, 100.0f);
    pixels[9000] = 70000.0f;  // out of range: not counted
    pixels[9001] = -5.0f;
    EXPECT_DOUBLE_EQ(veltrano::BrightMean(pixels.data(), pixels.size()),
                     (3000 * 200.0 + 6000 * 100.0) / 9000);
    std::fill(pixels.begin(), pixels.end(), 70000.0f);
    EXPECT_EQ(veltrano::BrightMean(pixels.data(), pixels.size()), 0.0);
    pixels.assign(100, 42.9f);  // fewer than 5000 pixels: all of them
    EXPECT_DOUBLE_EQ(veltrano::BrightMean(pixels.data(), pixels.size()), 42.0);
    EXPECT_EQ(veltrano::BrightMean(nullptr, 5), 0.0);
}

// A line is judged by whether its median ratio lies beyond the deviation; the count that answers
// this must agree with selecting the median, on lines of every parity and on the very boundary.
TEST(CalibrationBuilder, LineMedianCountAgreesWithTheSelectedMedian) {
    const double d = 0.05;
    const double edges[] = {1.0 - d,
                            1.0 + d,
                            std::nextafter(1.0 - d, 0.0),
                            std::nextafter(1.0 - d, 2.0),
                            std::nextafter(1.0 + d, 0.0),
                            std::nextafter(1.0 + d, 2.0),
                            1.0,
                            0.0,
                            3.0};
    std::mt19937 random(11);
    int deviating = 0, cases = 0;
    for (size_t n = 0; n <= 12; ++n) {
        for (int round = 0; round < 400; ++round) {
            std::vector<double> values(n);
            for (double& v : values) {
                v = edges[random() % std::size(edges)];
            }
            // Selected: the element at index n / 2 in sorted order; 1 for no values.
            std::vector<double> sorted = values;
            const auto middle = sorted.begin() + static_cast<std::ptrdiff_t>(n / 2);
            if (n > 0) std::nth_element(sorted.begin(), middle, sorted.end());
            const bool expected = std::fabs((n > 0 ? *middle : 1.0) - 1.0) > d;
            size_t above = 0, below = 0;
            for (double v : values) {
                above += veltrano::calibration::BeyondAbove(v, d);
                below += veltrano::calibration::BeyondBelow(v, d);
            }
            ASSERT_EQ(veltrano::calibration::MedianBeyond(n, above, below), expected)
                << "n=" << n << " round " << round;
            deviating += expected;
            ++cases;
        }
    }
    // Both answers occurred often.
    EXPECT_GT(deviating, cases / 5);
    EXPECT_LT(deviating, cases * 4 / 5);
}

}  // namespace
