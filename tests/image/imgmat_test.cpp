#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "veltrano/imgmat.h"

namespace {

namespace fs = std::filesystem;
using Floats = std::vector<float>;

imgmat Counting(unsigned long long w, unsigned long long h, unsigned long long d) {
    imgmat m(w, h, d);
    for (unsigned long long i = 0; i < m.getDataSize(); ++i) {
        m.data[i] = static_cast<float>(i);
    }
    return m;
}

Floats Samples(const imgmat& m, size_t n) { return Floats(m.data, m.data + n); }

uint32_t Bits(float f) {
    uint32_t bits;
    std::memcpy(&bits, &f, sizeof bits);
    return bits;
}

TEST(Imgmat, EmptyMatrixIgnoresEveryOperation) {
    imgmat m;
    EXPECT_EQ(m.data, nullptr);
    EXPECT_EQ(m.getDataSize(), 0u);  // depth is 1, the others 0
    m.clearData();
    EXPECT_EQ(m.depth, 1u);
    imgmat other(2, 2, 1);
    m = 3.0f;
    m * 2.0f + 1.0f;
    m + other;
    other + m;
    EXPECT_EQ(m.data, nullptr);
    EXPECT_EQ(Samples(other, 4), Floats(4, 0.0f));  // fresh samples are zero
    EXPECT_EQ(m.doMul(other), -2);
    EXPECT_EQ(other.doMul(m), -1);
}

TEST(Imgmat, OperatorsWorkInPlaceOnTheFirstWidthTimesHeightSamplesOnly) {
    imgmat m = Counting(2, 2, 2);
    EXPECT_EQ(&(m * 2.0f + 0.5f), &m);
    EXPECT_EQ(Samples(m, 8), (Floats{0.5f, 2.5f, 4.5f, 6.5f, 4, 5, 6, 7}));
    m = -1.0f;
    EXPECT_EQ(Samples(m, 8), (Floats{-1, -1, -1, -1, 4, 5, 6, 7}));

    // Element-wise: depth may differ, width and height must match.
    imgmat a = Counting(2, 3, 2);
    imgmat b = Counting(2, 3, 1);
    a + b;
    EXPECT_EQ(a.doMul(b), 1);
    EXPECT_EQ(Samples(a, 12), (Floats{0, 2, 8, 18, 32, 50, 6, 7, 8, 9, 10, 11}));
    imgmat turned = Counting(3, 2, 1);  // the same count in another shape
    EXPECT_EQ(a.doMul(turned), -3);
    a + turned;
    EXPECT_EQ(Samples(a, 6), (Floats{0, 2, 8, 18, 32, 50}));
}

TEST(Imgmat, AssignmentCopiesDeeplyButAnEmptyAreaOnlyItsExtents) {
    const imgmat src = Counting(2, 2, 3);
    imgmat assigned(5, 5, 1);
    assigned = src;
    const imgmat copied(src);
    const imgmat* const copies[] = {&assigned, &copied};
    for (const imgmat* m : copies) {
        EXPECT_NE(m->data, src.data);
        EXPECT_EQ(m->depth, 3u);
        EXPECT_EQ(Samples(*m, 12), Samples(src, 12));
    }
    float* const kept = assigned.data;
    assigned = assigned;
    EXPECT_EQ(assigned.data, kept);

    // Cases: a source with width x height of 0 but samples, depth or both.
    const unsigned long long shapes[][3] = {{0, 5, 3}, {4, 0, 2}, {0, 0, 1}};
    for (const auto& s : shapes) {
        imgmat empty(s[0], s[1], s[2]);
        imgmat dst(2, 2, 1);
        dst = empty;
        EXPECT_EQ(dst.data, nullptr);
        EXPECT_EQ(dst.width, s[0]);
        EXPECT_EQ(dst.height, s[1]);
        EXPECT_EQ(dst.depth, s[2]);
        dst.clearData();  // no data: the extents stay
        EXPECT_EQ(dst.depth, s[2]);
    }
}

TEST(Imgmat, RequestsOfFourGigabytesOrMoreLeaveTheMatrixEmpty) {
    // 2^30 samples are exactly 4 GiB; the last product overflows 64 bits.
    const unsigned long long shapes[][3] = {
        {65536, 16384, 1}, {1024, 1024, 1024}, {1ull << 32, 1ull << 32, 1}};
    for (const auto& s : shapes) {
        imgmat m(s[0], s[1], s[2]);
        EXPECT_EQ(m.data, nullptr);
        EXPECT_EQ(m.getDataSize(), 0u);
    }
    imgmat m(2, 2, 3);
    m.callMemory(1ull << 30);
    EXPECT_EQ(m.data, nullptr);
    EXPECT_EQ(m.width, 0u);
    EXPECT_EQ(m.depth, 1u);
}

class RawFile : public testing::Test {
protected:
    const fs::path folder_ =
        fs::temp_directory_path() /
        ("veltrano_imgmat_" +
         std::to_string(std::chrono::steady_clock::now().time_since_epoch().count()));

    RawFile() { fs::create_directories(folder_); }
    ~RawFile() override {
        std::error_code ignored;
        fs::remove_all(folder_, ignored);
    }
    std::string path(const std::string& name) const { return (folder_ / name).string(); }

    // headerBytes bytes of 0xAB, then the values in host byte order.
    template <typename T>
    std::string write(const std::string& name, size_t headerBytes, const std::vector<T>& values) {
        std::ofstream out(path(name), std::ios::binary);
        out << std::string(headerBytes, '\xAB');
        out.write(reinterpret_cast<const char*>(values.data()),
                  static_cast<std::streamsize>(values.size() * sizeof(T)));
        return path(name);
    }
};

TEST_F(RawFile, EveryElementTypeReadsBackAsFloat) {
    imgmat m;
    const auto check = [&](int type, const std::string& file, const Floats& want) {
        SCOPED_TRACE(type);
        ASSERT_EQ(m.readRawFile(file.c_str(), 2, 2, 7, type), 1);
        ASSERT_EQ(m.width * m.height, 4u);
        for (size_t i = 0; i < 4; ++i) {
            EXPECT_EQ(Bits(m.data[i]), Bits(want[i])) << i << ": " << m.data[i];
        }
    };
    check(0, write<int8_t>("0", 7, {-128, -1, 0, 127}), {-128, -1, 0, 127});
    check(1, write<uint8_t>("1", 7, {0, 1, 200, 255}), {0, 1, 200, 255});
    check(2, write<int16_t>("2", 7, {-32768, -2, 300, 32767}), {-32768, -2, 300, 32767});
    check(3, write<uint16_t>("3", 7, {0, 1, 40000, 65535}), {0, 1, 40000, 65535});
    check(4, write<int32_t>("4", 7, {INT32_MIN, -7, 16777217, INT32_MAX}),
          {-2147483648.0f, -7, 16777216.0f, 2147483648.0f});
    check(5, write<uint32_t>("5", 7, {0, 3, 16777217u, 4294967295u}),
          {0, 3, 16777216.0f, 4294967296.0f});
    // The 64-bit integers pass through double: 2^60 + 2^36 + 1 first loses the 1 and then sits
    // half way between two floats, rounding to even (2^60); directly it would round up.
    const int64_t i64 = (int64_t{1} << 60) + (int64_t{1} << 36) + 1;
    check(6, write<int64_t>("6", 7, {-i64, -1, 0, i64}),
          {-std::ldexp(1.0f, 60), -1, 0, std::ldexp(1.0f, 60)});
    const uint64_t u64 = (uint64_t{1} << 63) + (uint64_t{1} << 39) + 1;
    check(7, write<uint64_t>("7", 7, {u64, 1, 0, UINT64_MAX}),
          {std::ldexp(1.0f, 63), 1, 0, std::ldexp(1.0f, 64)});
    float nan;  // floats are taken bit for bit, a NaN's payload included
    const uint32_t nanBits = 0x7FC00123u;
    std::memcpy(&nan, &nanBits, sizeof nan);
    check(8, write<float>("8", 7, {-0.0f, 1.5f, nan, 3.4e38f}), {-0.0f, 1.5f, nan, 3.4e38f});
    check(9, write<double>("9", 7, {0.1, -2.5, 1e300, 3.0}), {0.1f, -2.5f, INFINITY, 3.0f});

    // What writeRawFile writes is a headerless type-8 file of the samples passed.
    const Floats values = {1.25f, -3.0f, 1e-40f, 7.0f};
    const std::string out = write<char>("out", 1000, {});  // longer: truncated by the write
    ASSERT_EQ(m.writeRawFile(out.c_str(), const_cast<float*>(values.data()), 4), 1);
    EXPECT_EQ(fs::file_size(out), 16u);
    imgmat back;
    ASSERT_EQ(back.readRawFile(out.c_str(), 2, 2, 0, 8), 1);
    for (size_t i = 0; i < 4; ++i) {
        EXPECT_EQ(Bits(back.data[i]), Bits(values[i])) << i;
    }
    ASSERT_EQ(m.writeRawFile(out.c_str(), nullptr, 4), 1);  // no samples: an empty file
    EXPECT_EQ(fs::file_size(out), 0u);
}

TEST_F(RawFile, ReadingKeepsDepthAndSizesTheBufferForIt) {
    const std::string file = write<uint16_t>("d", 0, {1, 2, 3, 4, 5, 6});
    imgmat same = Counting(2, 2, 3);  // same width and height: buffer and depth kept
    float* const buffer = same.data;
    ASSERT_EQ(same.readRawFile(file.c_str(), 2, 2, 0, 3), 1);
    EXPECT_EQ(same.data, buffer);
    EXPECT_EQ(Samples(same, 12), (Floats{1, 2, 3, 4, 4, 5, 6, 7, 8, 9, 10, 11}));

    // Another shape: a new buffer, depth still 3, and a copy reads all 3 x 2 x 3 samples.
    imgmat other(5, 5, 3);
    ASSERT_EQ(other.readRawFile(file.c_str(), 3, 2, 0, 3), 1);
    const imgmat copy(other);
    ASSERT_EQ(copy.getDataSize(), 18u);
    EXPECT_EQ(Samples(copy, 18), (Floats{1, 2, 3, 4, 5, 6, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}));

    // Unknown type codes convert nothing but succeed and take the new width and height.
    for (int type : {10, 255, -1}) {
        imgmat kept(2, 2, 1);
        kept = 7.0f;
        ASSERT_EQ(kept.readRawFile(file.c_str(), 2, 2, 0, type), 1);
        EXPECT_EQ(Samples(kept, 4), Floats(4, 7.0f));
        imgmat fresh;
        ASSERT_EQ(fresh.readRawFile(file.c_str(), 4, 1, 0, type), 1);
        EXPECT_EQ(fresh.width, 4u);
        EXPECT_EQ(Samples(fresh, 4), Floats(4, 0.0f));
    }
}

TEST_F(RawFile, ShortFilesReadAsZerosPastTheirEnd) {
    // A 4-byte header, the uint16 samples 1 and 2 and half of a third.
    const std::string file = write<char>("short", 4, {1, 0, 2, 0, 3});
    // Cases: header size asked for, the 2 x 2 samples expected.
    const std::pair<unsigned long long, Floats> cases[] = {
        {4, {1, 2, 0, 0}},        // a partial last element counts as unread
        {5, {512, 768, 0, 0}},    // shifted by one byte
        {1000, {0, 0, 0, 0}},     // header longer than the file
        {~0ull, {0, 0, 0, 0}},    // beyond any offset a file can have
    };
    for (const auto& [header, want] : cases) {
        imgmat m(2, 2, 1);
        m = 7.0f;  // samples the file does not reach must not keep old values
        ASSERT_EQ(m.readRawFile(file.c_str(), 2, 2, header, 3), 1);
        EXPECT_EQ(Samples(m, 4), want) << header;
    }
}

TEST_F(RawFile, UnopenableFilesSayFailToOpenFileAndChangeNothing) {
    const std::string missing = path("missing");
    const std::string inMissingFolder = path("no/such/folder");
    imgmat m(2, 1, 1);
    m = 5.0f;
    float* const buffer = m.data;
    for (int call = 0; call < 4; ++call) {
        testing::internal::CaptureStdout();
        const int result = call == 0   ? m.readRawFile(missing.c_str(), 4, 4, 0, 3)
                           : call == 1 ? m.readRawFile(nullptr, 4, 4, 0, 3)
                           : call == 2 ? m.writeRawFile(inMissingFolder.c_str(), m.data, 2)
                                       : m.writeRawFile(nullptr, m.data, 2);
        EXPECT_EQ(testing::internal::GetCapturedStdout(), "fail to open file\n") << call;
        EXPECT_EQ(result, 0);
        EXPECT_EQ(m.data, buffer);
        EXPECT_EQ(m.width, 2u);
        EXPECT_EQ(Samples(m, 2), Floats(2, 5.0f));
    }

    // The file constructor keeps the extents it was given, without data.
    testing::internal::CaptureStdout();
    const imgmat fromMissing(missing.c_str(), 3, 2, 4, 0, 1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "fail to open file\n");
    EXPECT_EQ(fromMissing.data, nullptr);
    EXPECT_EQ(fromMissing.getDataSize(), 24u);
    const imgmat read(write<uint8_t>("c", 3, {10, 20, 30, 40, 50, 60}).c_str(), 3, 2, 1, 3, 1);
    EXPECT_EQ(Samples(read, 6), (Floats{10, 20, 30, 40, 50, 60}));
}

}  // namespace
