#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <fstream>
#include <limits>
#include <random>
#include <vector>

#include "impl_levels.h"
#include "veltrano.h"

namespace {

TEST(ImgFix, ChecksArgumentsInOrderBeforeWriting) {
    std::vector<float> src(4, 1.0f), dst(4, 9.0f), map(4, 1.0f);
    EXPECT_EQ(ImgFix(nullptr, nullptr, nullptr, 2, 2, 1, 5, 1), -1);
    EXPECT_EQ(ImgFix(src.data(), nullptr, nullptr, 2, 2, 1, 5, 1), -2);
    EXPECT_EQ(ImgFix(src.data(), dst.data(), nullptr, 2, 2, 1, 5, 1), -3);
    EXPECT_EQ(ImgFix(src.data(), dst.data(), map.data(), 2, 2, 1, 5, 1), -4);
    // Bookkeeping for an image that cannot exist is refused before the map is read.
    EXPECT_EQ(ImgFix(src.data(), dst.data(), map.data(), 100000, 100000, 1, 6, 1), -5);
    EXPECT_EQ(dst, std::vector<float>(4, 9.0f));
}

TEST(ImgFix, ReadsTheMapAsAByteMark) {
    // 1 x 3 image 10, 77, 30: when the middle is defective it becomes (10 + 30) / 2.
    struct Case {
        float mapValue;
        float want;
    };
    for (const Case& c :
         {Case{0.0f, 77}, Case{0.999f, 77}, Case{-5.0f, 77}, Case{1.0f, 20}, Case{300.0f, 20}}) {
        std::vector<float> src = {10, 77, 30}, dst(3, -1);
        std::vector<float> map = {0, c.mapValue, 0};
        ASSERT_EQ(ImgFix(src.data(), dst.data(), map.data(), 3, 1, 1, 6, 200), 1);
        EXPECT_EQ(dst, (std::vector<float>{10, c.want, 30})) << "map " << c.mapValue;
    }
}

TEST(ImgFix, PeelsClustersFromTheRimOnePassAtATime) {
    // 5 x 4 image with a 3-pixel-wide defective band in columns 1..3; column 0 holds 10, column
    // 4 holds 50. Pass 1 fills columns 1 and 3 from their good neighbours, pass 2 column 2 from
    // the two repaired columns.
    const int w = 5, h = 4;
    std::vector<float> src, map;
    for (int y = 0; y < h; ++y)
        src.insert(src.end(), {10, 999, 999, 999, 50}), map.insert(map.end(), {0, 1, 1, 1, 0});
    struct Case {
        int passes;
        float col1;
        float col2;
        float col3;
    };
    for (const Case& c :
         {Case{1, 10, 999, 50}, Case{0, 10, 999, 50}, Case{-3, 10, 999, 50}, Case{2, 10, 30, 50}}) {
        std::vector<float> dst(src.size());
        ASSERT_EQ(ImgFix(src.data(), dst.data(), map.data(), w, h, 1, 6, c.passes), 1);
        for (int y = 0; y < h; ++y)
            EXPECT_EQ(std::vector<float>(dst.begin() + y * w, dst.begin() + y * w + w),
                      (std::vector<float>{10, c.col1, c.col2, c.col3, 50}))
                << "passes " << c.passes << " row " << y;
        std::vector<float> inPlace = src;
        ASSERT_EQ(ImgFix(inPlace.data(), inPlace.data(), map.data(), w, h, 1, 6, c.passes), 1);
        EXPECT_EQ(inPlace, dst) << "passes " << c.passes;
    }
}

TEST(ImgFix, LeavesPixelsWithoutAPositiveNeighbourhoodAsTheyWere) {
    // Good neighbours that sum to zero repair nothing, however many passes run.
    std::vector<float> zeros(9, 0.0f), map(9, 0.0f);
    zeros[4] = 7.0f;
    map[4] = 1.0f;
    std::vector<float> dst(9, -1);
    ASSERT_EQ(ImgFix(zeros.data(), dst.data(), map.data(), 3, 3, 1, 6, 1000000000), 1);
    EXPECT_EQ(dst, zeros);
    // An all-defective map: every pixel has four defective neighbours in every pass.
    std::vector<float> src = {1, 2, 3, 4, 5, 6}, all(6, 1.0f), out(6);
    ASSERT_EQ(ImgFix(src.data(), out.data(), all.data(), 3, 2, 1, 6, 200), 1);
    EXPECT_EQ(out, src);
}

TEST(FixBadPixel, AveragesGoodNeighboursOfTheSourceInOnePass) {
    // 3 x 3, defective centre and corner (0,0). The centre takes the mean of its 7 good
    // neighbours; the corner has good neighbours 2 and 4 (the centre is defective).
    std::vector<float> src = {1, 2, 3, 4, 5, 6, 7, 8, 9},
                       map = {1, 0, 0, 0, 0.01f, 0, 0, 0, 0.009f}, dst(9);
    ASSERT_EQ(FixBadPixel(src.data(), dst.data(), map.data(), 3, 3), 1);
    EXPECT_EQ(dst, (std::vector<float>{3, 2, 3, 4, (2.0f + 3 + 4 + 6 + 7 + 8 + 9) / 7.0f, 6, 7, 8,
                                       9}));  // 0.009 is good
    std::vector<float> inPlace = src, all(4, 1.0f), out(4, -1);
    ASSERT_EQ(FixBadPixel(inPlace.data(), inPlace.data(), map.data(), 3, 3), 1);
    EXPECT_EQ(inPlace, dst);
    ASSERT_EQ(FixBadPixel(src.data(), out.data(), all.data(), 2, 2),
              1);  // only defective neighbours: 0
    EXPECT_EQ(out, std::vector<float>(4, 0.0f));
    ASSERT_EQ(FixBadPixel(src.data(), out.data(), nullptr, 2, 2), 1);  // a null map copies
    EXPECT_EQ(out, (std::vector<float>{1, 2, 3, 4}));
    EXPECT_EQ(FixBadPixel(src.data(), nullptr, nullptr, 2, 2), -2);
    EXPECT_EQ(FixBadPixel(src.data(), src.data(), src.data(), 100000, 100000), -3);
}

clipParam Margins(int up, int down, int left, int right) {
    clipParam p;
    p.up = up, p.down = down, p.left = left, p.right = right;
    return p;
}

TEST(EdgeClip, CutsTheMarginsRowsBeforeColumns) {
    const int rows = 100, cols = 300;
    std::vector<uint16_t> src(rows * cols), dst(rows * cols, 7);
    for (int i = 0; i < rows * cols; ++i) src[i] = static_cast<uint16_t>(i);
    // Defaults (20, 20, 200, 200) leave no columns: nothing is written.
    ASSERT_EQ(edgeClip_16U(src.data(), dst.data(), rows, cols, clipParam()), 1);
    EXPECT_EQ(dst, std::vector<uint16_t>(rows * cols, 7));

    ASSERT_EQ(edgeClip_16U(src.data(), dst.data(), rows, cols, Margins(20, 20, 10, 10)), 1);
    for (int i = 0; i < 60 * 280; i += 281)  // 60 rows of 280 columns, densely packed
        ASSERT_EQ(dst[i], static_cast<uint16_t>((i / 280 + 20) * cols + 10 + i % 280)) << i;
    EXPECT_EQ(dst[60 * 280 - 1] * 10 + dst[60 * 280], (79 * cols + 289) * 10 + 7);

    // A negative margin counts as 0; the three members agree.
    std::vector<uint8_t> b = {1, 2, 3, 4, 5, 6}, ob(6, 0);  // 2 rows x 3 columns
    ASSERT_EQ(edgeClip_8U(b.data(), ob.data(), 2, 3, Margins(-7, 0, 1, -7)), 1);
    EXPECT_EQ(ob, (std::vector<uint8_t>{2, 3, 5, 6, 0, 0}));
    std::vector<float> f = {1, 2, 3, 4, 5, 6}, of(6, 0);
    ASSERT_EQ(edgeClip_32F(f.data(), of.data(), 2, 3, Margins(1, 0, 0, 1)), 1);
    EXPECT_EQ(of, (std::vector<float>{4, 5, 0, 0, 0, 0}));

    EXPECT_EQ(edgeClip_8U(b.data(), nullptr, 2, 3, Margins(0, 0, 0, 0)), -1);
}

TEST(EdgeClip, ValuesInTheRecordsFileWinOverThosePassed) {
    const char* file = "edge_clip_test.ini";
    std::remove(file);
    {
        std::ofstream out(file);
        out << "[clipParam]\nup=1\ndown=0\nleft=1\nright=2\n";
    }
    clipParam p(file);  // loads the file; the margins passed are then changed
    ASSERT_EQ(p.right, 2);
    p.up = p.down = p.left = p.right = 0;
    std::vector<uint16_t> src(3 * 5), dst(15, 0);  // 3 rows x 5 columns
    for (int i = 0; i < 15; ++i) src[i] = static_cast<uint16_t>(i);
    ASSERT_EQ(edgeClip_16U(src.data(), dst.data(), 3, 5, p), 1);
    EXPECT_EQ(dst, (std::vector<uint16_t>{6, 7, 11, 12, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}));
    std::remove(file);
}

// The fast mark conversion and pending scan against the plain loops: random maps with values
// around the thresholds (1e-6, 1, 255), negative and not-a-number entries, clusters and lines,
// odd sizes, in place and out of place.
TEST(ImgFix, FastMarkConversionMatchesThePlainLoop) {
    std::mt19937 gen(12);
    const float specials[] = {0.0f, 5e-7f,  -5e-7f, 2e-6f, 0.999f,
                              1.0f, 254.9f, 300.0f, -1.0f, std::numeric_limits<float>::quiet_NaN()};
    for (const impl_levels::Size& s : impl_levels::OddSizes()) {
        const size_t n = static_cast<size_t>(s.width) * s.height;
        std::vector<float> src(n), map(n, 0.0f);
        for (size_t i = 0; i < n; ++i) {
            src[i] = static_cast<float>(gen() % 4000);
            if (gen() % 4 == 0) map[i] = specials[gen() % 10];
        }
        for (int y = 0; y < s.height; ++y)
            map[static_cast<size_t>(y) * s.width + s.width / 2] = 1.0f;
        const auto out = impl_levels::AtEachLevel([&] {
            std::vector<float> dst(n, -1.0f), inPlace = src;
            EXPECT_EQ(ImgFix(src.data(), dst.data(), map.data(), s.width, s.height, 1, 6, 200), 1);
            EXPECT_EQ(
                ImgFix(inPlace.data(), inPlace.data(), map.data(), s.width, s.height, 1, 6, 200),
                1);
            EXPECT_TRUE(impl_levels::SameBits(inPlace, dst));
            return dst;
        });
        EXPECT_TRUE(impl_levels::SameBits(out[1], out[0])) << s.width << "x" << s.height;
        EXPECT_TRUE(impl_levels::SameBits(out[2], out[0])) << s.width << "x" << s.height;
    }
}

}  // namespace
