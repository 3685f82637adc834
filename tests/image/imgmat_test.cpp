#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <random>
#include <string>
#include <vector>

#include "veltrano/imgmat.h"

namespace {

namespace fs = std::filesystem;

// Fills the matrix's first n samples with 0, 1, 2, ...
void FillCounting(imgmat& m, unsigned long long n) {
    for (unsigned long long i = 0; i < n; ++i) {
        m.data[i] = static_cast<float>(i);
    }
}

std::vector<float> Samples(const imgmat& m, unsigned long long n) {
    return std::vector<float>(m.data, m.data + n);
}

uint32_t Bits(float f) {
    uint32_t bits;
    std::memcpy(&bits, &f, sizeof bits);
    return bits;
}

// A scratch folder for raw files, removed after each test.
class RawFileTest : public testing::Test {
protected:
    RawFileTest() {
        std::random_device seed;
        const auto stamp = std::chrono::steady_clock::now().time_since_epoch().count();
        folder_ = fs::temp_directory_path() /
                  ("veltrano_imgmat_" + std::to_string(seed()) + "_" + std::to_string(stamp));
        fs::create_directories(folder_);
    }
    ~RawFileTest() override {
        std::error_code ignored;
        fs::remove_all(folder_, ignored);
    }

    std::string path(const std::string& name) const { return (folder_ / name).string(); }

    // Writes a header of headerBytes bytes of 0xAB, then the values in host byte order.
    template <typename T>
    std::string writeRaw(const std::string& name, size_t headerBytes,
                         const std::vector<T>& values) {
        std::vector<char> bytes(headerBytes, static_cast<char>(0xAB));
        const char* first = reinterpret_cast<const char*>(values.data());
        bytes.insert(bytes.end(), first, first + values.size() * sizeof(T));
        return writeBytes(name, bytes);
    }

    std::string writeBytes(const std::string& name, const std::vector<char>& bytes) {
        const std::string file = path(name);
        std::ofstream out(file, std::ios::binary);
        out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
        return file;
    }

    std::vector<char> readBytes(const std::string& file) const {
        std::ifstream in(file, std::ios::binary);
        return std::vector<char>(std::istreambuf_iterator<char>(in), {});
    }

private:
    fs::path folder_;
};

TEST(Imgmat, EmptyMatrixHasNoSamplesAndIgnoresEveryOperation) {
    imgmat m;
    EXPECT_EQ(m.data, nullptr);
    EXPECT_EQ(m.width, 0u);
    EXPECT_EQ(m.height, 0u);
    EXPECT_EQ(m.depth, 1u);
    EXPECT_EQ(m.getDataSize(), 0u);

    m.clearData();
    EXPECT_EQ(m.depth, 1u);
    m = 3.0f;
    m * 2.0f;
    m + 1.0f;
    imgmat other(2, 2, 1);
    m + other;
    other + m;
    EXPECT_EQ(m.data, nullptr);
    EXPECT_EQ(m.doMul(other), -2);
    EXPECT_EQ(other.doMul(m), -1);
    EXPECT_EQ(m.doMul(m), -1);
    EXPECT_EQ(Samples(other, 4), std::vector<float>(4, 0.0f));
}

TEST(Imgmat, SizedConstructorAllocatesAllThreeExtentsAsZeros) {
    imgmat m(3, 2, 4);
    ASSERT_NE(m.data, nullptr);
    EXPECT_EQ(m.getDataSize(), 24u);
    EXPECT_EQ(Samples(m, 24), std::vector<float>(24, 0.0f));

    m.clearData();
    EXPECT_EQ(m.data, nullptr);
    EXPECT_EQ(m.width, 0u);
    EXPECT_EQ(m.height, 0u);
    EXPECT_EQ(m.depth, 1u);
}

TEST(Imgmat, ValueOperatorsChangeOnlyTheFirstWidthTimesHeightSamplesInPlace) {
    imgmat m(2, 2, 2);
    FillCounting(m, 8);

    EXPECT_EQ(&(m * 2.0f), &m);
    EXPECT_EQ(Samples(m, 8), (std::vector<float>{0, 2, 4, 6, 4, 5, 6, 7}));
    EXPECT_EQ(&(m + 0.5f), &m);
    EXPECT_EQ(Samples(m, 8), (std::vector<float>{0.5f, 2.5f, 4.5f, 6.5f, 4, 5, 6, 7}));
    EXPECT_EQ(&(m = -1.0f), &m);
    EXPECT_EQ(Samples(m, 8), (std::vector<float>{-1, -1, -1, -1, 4, 5, 6, 7}));
}

TEST(Imgmat, ElementwiseOperationsNeedMatchingWidthAndHeight) {
    imgmat a(2, 3, 2);
    imgmat b(2, 3, 1);
    FillCounting(a, 12);
    FillCounting(b, 6);

    // depth may differ; only the first width x height samples take part.
    EXPECT_EQ(&(a + b), &a);
    EXPECT_EQ(Samples(a, 12), (std::vector<float>{0, 2, 4, 6, 8, 10, 6, 7, 8, 9, 10, 11}));
    EXPECT_EQ(a.doMul(b), 1);
    EXPECT_EQ(Samples(a, 12), (std::vector<float>{0, 2, 8, 18, 32, 50, 6, 7, 8, 9, 10, 11}));

    // The same count in another shape is a mismatch.
    imgmat turned(3, 2, 1);
    turned = 10.0f;
    const std::vector<float> before = Samples(a, 12);
    EXPECT_EQ(a.doMul(turned), -3);
    a + turned;
    EXPECT_EQ(Samples(a, 12), before);
    EXPECT_EQ(Samples(turned, 6), std::vector<float>(6, 10.0f));

    // Adding a matrix to itself doubles it.
    b + b;
    EXPECT_EQ(Samples(b, 6), (std::vector<float>{0, 2, 4, 6, 8, 10}));
}

TEST(Imgmat, AssignmentAndCopyMakeIndependentCopies) {
    imgmat src(2, 2, 3);
    FillCounting(src, 12);

    imgmat assigned(5, 5, 1);
    assigned = src;
    imgmat copied(src);
    for (const imgmat* m : {&assigned, &copied}) {
        ASSERT_NE(m->data, nullptr);
        EXPECT_NE(m->data, src.data);
        EXPECT_EQ(m->width, 2u);
        EXPECT_EQ(m->height, 2u);
        EXPECT_EQ(m->depth, 3u);
        EXPECT_EQ(Samples(*m, 12), Samples(src, 12));
    }
    src = 99.0f;
    EXPECT_EQ(assigned.data[0], 0.0f);
    EXPECT_EQ(copied.data[0], 0.0f);

    float* const kept = assigned.data;
    assigned = assigned;
    EXPECT_EQ(assigned.data, kept);
    EXPECT_EQ(assigned.data[11], 11.0f);

    // A source that has extents but no samples gives a zero-filled copy.
    imgmat extentsOnly;
    extentsOnly.width = 2;
    extentsOnly.height = 1;
    imgmat fromExtents(extentsOnly);
    ASSERT_NE(fromExtents.data, nullptr);
    EXPECT_EQ(Samples(fromExtents, 2), std::vector<float>(2, 0.0f));
}

TEST(Imgmat, AssignmentFromAnEmptyAreaDropsTheSamplesButTakesTheExtents) {
    // Cases: (width, height, depth) of the source.
    const struct {
        unsigned long long width, height, depth;
    } sources[] = {{0, 5, 3}, {4, 0, 2}, {0, 0, 1}};
    for (const auto& s : sources) {
        SCOPED_TRACE(testing::Message() << s.width << "x" << s.height << "x" << s.depth);
        imgmat src(s.width, s.height, s.depth);
        imgmat dst(2, 2, 1);
        dst = src;
        EXPECT_EQ(dst.data, nullptr);
        EXPECT_EQ(dst.width, s.width);
        EXPECT_EQ(dst.height, s.height);
        EXPECT_EQ(dst.depth, s.depth);
        // clearData leaves a matrix without data alone, extents and all.
        dst.clearData();
        EXPECT_EQ(dst.height, s.height);
        EXPECT_EQ(dst.depth, s.depth);
        imgmat copy(src);
        EXPECT_EQ(copy.data, nullptr);
        EXPECT_EQ(copy.depth, s.depth);
    }
}

TEST(Imgmat, RequestsOfFourGigabytesOrMoreLeaveTheMatrixEmpty) {
    // 2^30 samples are exactly 4 GiB; the products of the last case overflow 64 bits.
    const struct {
        unsigned long long width, height, depth;
    } sizes[] = {{65536, 16384, 1}, {1024, 1024, 1024}, {1ull << 32, 1ull << 32, 1}};
    for (const auto& s : sizes) {
        SCOPED_TRACE(testing::Message() << s.width << "x" << s.height << "x" << s.depth);
        imgmat m(s.width, s.height, s.depth);
        EXPECT_EQ(m.data, nullptr);
        EXPECT_EQ(m.getDataSize(), 0u);

    }
    for (unsigned long long count : {1ull << 30, ~0ull}) {
        SCOPED_TRACE(count);
        imgmat filled(2, 2, 3);
        filled.callMemory(count);
        EXPECT_EQ(filled.data, nullptr);
        EXPECT_EQ(filled.width, 0u);
        EXPECT_EQ(filled.depth, 1u);
    }
    imgmat m(2, 2, 1);
    m.callMemory(6);
    ASSERT_NE(m.data, nullptr);
    EXPECT_EQ(m.width, 2u);  // callMemory leaves the extents alone
}

TEST_F(RawFileTest, EveryElementTypeReadsBackAsFloat) {
    constexpr size_t kHeader = 7;
    imgmat m;

    const auto check = [&](int type, const std::string& file, const std::vector<float>& want) {
        SCOPED_TRACE(type);
        ASSERT_EQ(m.readRawFile(file.c_str(), 2, 2, kHeader, type), 1);
        EXPECT_EQ(m.width, 2u);
        EXPECT_EQ(m.height, 2u);
        ASSERT_NE(m.data, nullptr);
        for (size_t i = 0; i < want.size(); ++i) {
            EXPECT_EQ(Bits(m.data[i]), Bits(want[i])) << i << ": " << m.data[i];
        }
    };

    check(0, writeRaw<int8_t>("t0", kHeader, {-128, -1, 0, 127}), {-128, -1, 0, 127});
    check(1, writeRaw<uint8_t>("t1", kHeader, {0, 1, 200, 255}), {0, 1, 200, 255});
    check(2, writeRaw<int16_t>("t2", kHeader, {-32768, -2, 300, 32767}),
          {-32768, -2, 300, 32767});
    check(3, writeRaw<uint16_t>("t3", kHeader, {0, 1, 40000, 65535}), {0, 1, 40000, 65535});
    check(4, writeRaw<int32_t>("t4", kHeader, {INT32_MIN, -7, 16777217, INT32_MAX}),
          {-2147483648.0f, -7, 16777216.0f, 2147483648.0f});
    check(5, writeRaw<uint32_t>("t5", kHeader, {0, 3, 16777217u, 4294967295u}),
          {0, 3, 16777216.0f, 4294967296.0f});
    // The 64-bit integers pass through double: 2^60 + 2^36 + 1 first loses the 1 and then sits
    // exactly half way between two floats, so it rounds to even (2^60), where a direct
    // conversion would round up to 2^60 + 2^37.
    const int64_t i64 = (int64_t{1} << 60) + (int64_t{1} << 36) + 1;
    check(6, writeRaw<int64_t>("t6", kHeader, {-i64, -1, 0, i64}),
          {-std::ldexp(1.0f, 60), -1, 0, std::ldexp(1.0f, 60)});
    const uint64_t u64 = (uint64_t{1} << 63) + (uint64_t{1} << 39) + 1;
    check(7, writeRaw<uint64_t>("t7", kHeader, {u64, 1, 0, UINT64_MAX}),
          {std::ldexp(1.0f, 63), 1, 0, std::ldexp(1.0f, 64)});
    // Floats are taken bit for bit, a NaN's payload included.
    float nan;
    const uint32_t nanBits = 0x7FC00123u;
    std::memcpy(&nan, &nanBits, sizeof nan);
    check(8, writeRaw<float>("t8", kHeader, {-0.0f, 1.5f, nan, 3.4e38f}),
          {-0.0f, 1.5f, nan, 3.4e38f});
    check(9, writeRaw<double>("t9", kHeader, {0.1, -2.5, 1e300, 3.0}),
          {0.1f, -2.5f, INFINITY, 3.0f});
}

TEST_F(RawFileTest, WrittenFileIsHeaderlessFloatsThatReadBackBitForBit) {
    const std::vector<float> values = {1.25f, -3.0f, 65535.0f, 1e-40f, 0.0f, 7.0f};
    imgmat m(3, 2, 1);
    std::copy(values.begin(), values.end(), m.data);

    const std::string file = path("out.raw");
    writeBytes("out.raw", std::vector<char>(1000, 'z'));  // truncated by the write
    // The samples come from the pointer passed, not from the matrix.
    std::vector<float> other = {9.0f, 8.0f};
    imgmat unrelated;
    ASSERT_EQ(unrelated.writeRawFile(file.c_str(), m.data, m.getDataSize()), 1);
    EXPECT_EQ(readBytes(file).size(), values.size() * sizeof(float));

    imgmat back;
    ASSERT_EQ(back.readRawFile(file.c_str(), 3, 2, 0, 8), 1);
    for (size_t i = 0; i < values.size(); ++i) {
        EXPECT_EQ(Bits(back.data[i]), Bits(values[i])) << i;
    }

    ASSERT_EQ(m.writeRawFile(file.c_str(), other.data(), 2), 1);
    EXPECT_EQ(readBytes(file).size(), 2 * sizeof(float));

    // Null samples leave an empty file.
    ASSERT_EQ(m.writeRawFile(file.c_str(), nullptr, 6), 1);
    EXPECT_TRUE(fs::exists(file));
    EXPECT_EQ(readBytes(file).size(), 0u);
}

TEST_F(RawFileTest, ReadingKeepsDepthAndSizesTheBufferForIt) {
    const std::string file = writeRaw<uint16_t>("d.raw", 0, {1, 2, 3, 4, 5, 6});

    // Same width and height: the buffer is reused, only the first 2 x 2 samples change.
    imgmat same(2, 2, 3);
    FillCounting(same, 12);
    float* const buffer = same.data;
    ASSERT_EQ(same.readRawFile(file.c_str(), 2, 2, 0, 3), 1);
    EXPECT_EQ(same.data, buffer);
    EXPECT_EQ(same.depth, 3u);
    EXPECT_EQ(Samples(same, 12), (std::vector<float>{1, 2, 3, 4, 4, 5, 6, 7, 8, 9, 10, 11}));

    // Another shape: a new buffer, depth still 3, so getDataSize() is 3 x 2 x 3 and a copy
    // reads all of it.
    imgmat other(5, 5, 3);
    ASSERT_EQ(other.readRawFile(file.c_str(), 3, 2, 0, 3), 1);
    EXPECT_EQ(other.width, 3u);
    EXPECT_EQ(other.height, 2u);
    EXPECT_EQ(other.depth, 3u);
    imgmat copy(other);
    ASSERT_EQ(copy.getDataSize(), 18u);
    EXPECT_EQ(Samples(copy, 18),
              (std::vector<float>{1, 2, 3, 4, 5, 6, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}));
}

TEST_F(RawFileTest, UnknownTypeCodesConvertNothingButStillSucceed) {
    const std::string file = writeRaw<double>("u.raw", 0, {1, 2, 3, 4});
    for (int type : {10, 11, 255, -1}) {
        SCOPED_TRACE(type);
        imgmat same(2, 2, 1);
        same = 7.0f;
        ASSERT_EQ(same.readRawFile(file.c_str(), 2, 2, 0, type), 1);
        EXPECT_EQ(Samples(same, 4), std::vector<float>(4, 7.0f));

        imgmat fresh;
        ASSERT_EQ(fresh.readRawFile(file.c_str(), 4, 1, 0, type), 1);
        EXPECT_EQ(fresh.width, 4u);
        EXPECT_EQ(fresh.height, 1u);
        EXPECT_EQ(Samples(fresh, 4), std::vector<float>(4, 0.0f));
    }
}

TEST_F(RawFileTest, ShortFilesReadAsZerosPastTheirEnd) {
    // A 4-byte header, then the samples 1 and 2 and half of a third. Cases: the header size
    // asked for, and the 2 x 2 uint16 samples expected.
    const std::string file = writeBytes("short.raw", {'h', 'h', 'h', 'h', 1, 0, 2, 0, 3});
    const struct {
        unsigned long long header;
        std::vector<float> want;
    } cases[] = {
        {4, {1, 2, 0, 0}},            // a partial last element counts as unread
        {5, {512, 768, 0, 0}},        // shifted by one byte
        {9, {0, 0, 0, 0}},            // header reaches the end
        {1000, {0, 0, 0, 0}},         // header longer than the file
        {~0ull, {0, 0, 0, 0}},        // header beyond any offset a file can have
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.header);
        imgmat m(2, 2, 1);
        m = 7.0f;  // samples the file does not reach must not keep old values
        ASSERT_EQ(m.readRawFile(file.c_str(), 2, 2, c.header, 3), 1);
        EXPECT_EQ(Samples(m, 4), c.want);
    }

    // Bytes after the samples are ignored.
    imgmat m;
    ASSERT_EQ(m.readRawFile(file.c_str(), 1, 1, 4, 3), 1);
    EXPECT_EQ(m.data[0], 1.0f);
}

TEST_F(RawFileTest, UnopenableFilesSayFailToOpenFileAndChangeNothing) {
    const std::string missing = path("missing.raw");
    imgmat m(2, 1, 1);
    m = 5.0f;
    float* const buffer = m.data;

    const auto expectFailure = [&](const std::function<int()>& call) {
        testing::internal::CaptureStdout();
        const int result = call();
        EXPECT_EQ(testing::internal::GetCapturedStdout(), "fail to open file\n");
        EXPECT_EQ(result, 0);
        EXPECT_EQ(m.data, buffer);
        EXPECT_EQ(m.width, 2u);
        EXPECT_EQ(m.height, 1u);
        EXPECT_EQ(Samples(m, 2), std::vector<float>(2, 5.0f));
    };
    expectFailure([&] { return m.readRawFile(missing.c_str(), 4, 4, 0, 3); });
    expectFailure([&] { return m.readRawFile(nullptr, 4, 4, 0, 3); });
    const std::string inMissingFolder = path("no/such/folder/out.raw");
    expectFailure([&] { return m.writeRawFile(inMissingFolder.c_str(), m.data, 2); });
    expectFailure([&] { return m.writeRawFile(nullptr, m.data, 2); });
    EXPECT_FALSE(fs::exists(missing));
}

TEST_F(RawFileTest, FileConstructorReadsOrKeepsOnlyTheExtents) {
    const std::string file = writeRaw<uint8_t>("c.raw", 3, {10, 20, 30, 40, 50, 60});
    const imgmat read(file.c_str(), 3, 2, 1, 3, 1);
    ASSERT_NE(read.data, nullptr);
    EXPECT_EQ(Samples(read, 6), (std::vector<float>{10, 20, 30, 40, 50, 60}));

    testing::internal::CaptureStdout();
    const imgmat missing(path("nothing.raw").c_str(), 3, 2, 4, 0, 1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "fail to open file\n");
    EXPECT_EQ(missing.data, nullptr);
    EXPECT_EQ(missing.width, 3u);
    EXPECT_EQ(missing.height, 2u);
    EXPECT_EQ(missing.depth, 4u);
}

}  // namespace
