#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include "veltrano/imgmat.h"

namespace {

using Floats = std::vector<float>;

imgmat Counting(unsigned long long w, unsigned long long h, unsigned long long d) {
    imgmat m(w, h, d);
    for (unsigned long long i = 0; i < m.getDataSize(); ++i) m.data[i] = static_cast<float>(i);
    return m;
}

Floats Samples(const imgmat& m, size_t n) { return Floats(m.data, m.data + n); }

// One scratch file per test, named after it (the cases may run in parallel processes).
std::string RawName() {
    return std::string("imgmat_") + testing::UnitTest::GetInstance()->current_test_info()->name();
}

// headerBytes bytes of 0xAB, then the bytes of the values in host order.
template <typename T>
const char* WriteRaw(size_t headerBytes, const std::vector<T>& values) {
    static std::string name;
    std::ofstream((name = RawName()), std::ios::binary)
        .write(std::string(headerBytes, '\xAB').c_str(), static_cast<std::streamsize>(headerBytes))
        .write(reinterpret_cast<const char*>(values.data()), values.size() * sizeof(T));
    return name.c_str();
}

TEST(Imgmat, OperatorsWorkInPlaceOnWidthTimesHeightSamplesAndNeedDataOnBothSides) {
    imgmat m = Counting(2, 2, 2);
    EXPECT_EQ(Samples(m * 2.0f + 0.5f, 8), (Floats{0.5f, 2.5f, 4.5f, 6.5f, 4, 5, 6, 7}));
    EXPECT_EQ(Samples(m = -1.0f, 8), (Floats{-1, -1, -1, -1, 4, 5, 6, 7}));
    // Element-wise: depth may differ, width and height must match (not just the count).
    imgmat a = Counting(2, 3, 2), b = Counting(2, 3, 1), wide = Counting(3, 2, 1);
    imgmat tall = Counting(2, 4, 1), empty;
    a + b;
    EXPECT_EQ(a.doMul(b), 1);
    EXPECT_EQ(Samples(a, 12), (Floats{0, 2, 8, 18, 32, 50, 6, 7, 8, 9, 10, 11}));
    EXPECT_EQ(a.doMul(wide) * 10 + a.doMul(tall), -33);
    EXPECT_EQ(a.doMul(empty) * 10 + empty.doMul(a), -12);
    a + wide + tall + empty;
    (empty = 3.0f) * 2.0f + 1.0f + a;
    EXPECT_EQ(Samples(a, 6), (Floats{0, 2, 8, 18, 32, 50}));
    EXPECT_EQ(empty.data, nullptr);
    EXPECT_EQ(empty.getDataSize(), 0u);  // depth is 1, the others 0
}

TEST(Imgmat, AssignmentCopiesDeeplyButFromAnEmptyAreaOnlyTheExtents) {
    const imgmat src = Counting(2, 2, 3);
    imgmat assigned(5, 5, 1);
    assigned = src;
    const imgmat copied(src);
    EXPECT_EQ(Samples(assigned, 12), Samples(src, 12));
    EXPECT_EQ(Samples(copied, 12), Samples(src, 12));
    EXPECT_EQ(assigned.depth * copied.depth, 9u);
    for (unsigned long long w : {0ull, 4ull}) {
        imgmat dst(2, 2, 1);
        dst = imgmat(w, 4 - w, 3);
        EXPECT_EQ(dst.width * 10 + dst.height, w * 10 + 4 - w);
        dst.clearData();  // no data is left, so the extents stay
        EXPECT_EQ(dst.depth, 3u);
    }
    const imgmat huge(1024, 1024, 1024);  // 4 GiB of samples: refused, not wrapped
    EXPECT_EQ(huge.data, nullptr);
    // One sample more than 2^28 is refused before any allocation, by every way in.
    const imgmat over(1 << 14, (1 << 14) + 1, 1);
    EXPECT_EQ(over.data, nullptr);
    imgmat matrix(2, 2, 1);
    matrix.callMemory((1ull << 28) + 1);
    EXPECT_EQ(matrix.data, nullptr);
    EXPECT_EQ(matrix.width, 0u);
}

TEST(Imgmat, EveryRawElementTypeReadsBackAsFloatAfterTheHeader) {
    imgmat m;
    const auto check = [&](int type, const char* file, const Floats& want) {
        ASSERT_EQ(m.readRawFile(file, 2, 1, 3, type), 1) << type;
        EXPECT_EQ(Samples(m, 2), want) << type;
    };
    check(0, WriteRaw<int8_t>(3, {-128, 127}), {-128, 127});
    check(4, WriteRaw<int32_t>(3, {INT32_MIN, -7}), {-2147483648.0f, -7});
    check(5, WriteRaw<uint32_t>(3, {16777217u, 4294967295u}), {16777216.0f, 4294967296.0f});
    // Through double: 2^60 + 2^36 + 1 loses the 1, then ties and rounds to even (2^60).
    const int64_t i64 = (int64_t{1} << 60) + (int64_t{1} << 36) + 1;
    check(6, WriteRaw<int64_t>(3, {-i64, -1}), {-std::ldexp(1.0f, 60), -1});
    check(7, WriteRaw<uint64_t>(3, {UINT64_MAX, 1}), {std::ldexp(1.0f, 64), 1});
    check(9, WriteRaw<double>(3, {0.1, 1e300}), {0.1f, INFINITY});
    // writeRawFile writes the samples passed (not data) as a headerless type-8 file.
    float values[] = {1.25f, -3.0f};
    ASSERT_EQ(m.writeRawFile(WriteRaw<char>(100, {}), values, 2), 1);
    ASSERT_EQ(m.readRawFile(RawName().c_str(), 2, 1, 0, 8), 1);
    EXPECT_EQ(Samples(m, 2), (Floats{1.25f, -3.0f}));
    std::remove(RawName().c_str());
}

TEST(Imgmat, RawReadKeepsDepthReadsMissingBytesAsZerosAndSurvivesBadFiles) {
    const std::string file = WriteRaw<int16_t>(0, {1, -2, 3, 4});
    imgmat same(5, 5, 3);  // depth is kept, so a copy takes all 2 x 2 x 3 samples
    ASSERT_EQ(same.readRawFile(file.c_str(), 2, 2, 0, 2), 1);
    EXPECT_EQ(Samples(imgmat(same), 12), (Floats{1, -2, 3, 4, 0, 0, 0, 0, 0, 0, 0, 0}));
    same = 7.0f;  // the same width and height keep the buffer; unknown types convert nothing
    const int unknown = same.readRawFile(file.c_str(), 2, 2, 0, 10);
    EXPECT_EQ(unknown + same.readRawFile(file.c_str(), 2, 2, 0, -1), 2);
    EXPECT_EQ(Samples(same, 4), Floats(4, 7.0f));
    // A 4-byte header, the samples 1 and 2 and half of a third (unread), or a header beyond
    // any offset: what the file does not hold reads as 0.
    WriteRaw<char>(4, {1, 0, 2, 0, 3});
    for (unsigned long long header : {4ull, ~0ull}) {
        same = 7.0f;
        ASSERT_EQ(same.readRawFile(file.c_str(), 2, 2, header, 3), 1);
        EXPECT_EQ(Samples(same, 4), header == 4 ? (Floats{1, 2, 0, 0}) : Floats(4, 0.0f));
    }
    // More samples than a matrix holds: 0, whatever the file; the matrix is left empty.
    EXPECT_EQ(same.readRawFile(file.c_str(), 1ull << 20, 1ull << 20, 0, 3), 0);
    EXPECT_EQ(same.data, nullptr);
    same = imgmat(2, 2, 1);
    same = 5.0f;  // files that cannot be opened: a message, 0, and nothing changed
    for (int call = 0; call < 4; ++call) {
        testing::internal::CaptureStdout();
        const int result = call == 0   ? same.readRawFile("no_such_file.raw", 4, 4, 0, 3)
                           : call == 1 ? same.readRawFile(nullptr, 4, 4, 0, 3)
                           : call == 2 ? same.writeRawFile("no/such/folder.raw", same.data, 2)
                                       : imgmat("no_such_file.raw", 3, 2, 4, 0, 1).doMul(same);
        EXPECT_EQ(testing::internal::GetCapturedStdout(), "fail to open file\n") << call;
        EXPECT_EQ(result, call < 3 ? 0 : -2);  // the file constructor leaves no data
        EXPECT_EQ(Samples(same, 4), Floats(4, 5.0f));
    }
    std::remove(file.c_str());
}

}  // namespace
