// imgmat::readRawFile with fuzzed files, sizes, header sizes and element types. Each sample must
// be the stored element after the header converted to float (0 where the file ends first), an
// unknown type must leave the samples alone, depth must never change, and a size over the
// matrix's limit of 2^28 samples must be refused before anything is allocated.
#include <fuzzer/FuzzedDataProvider.h>

#include <cmath>
#include <cstring>
#include <string>
#include <vector>

#include "fuzz_support.h"
#include "veltrano/imgmat.h"

namespace {

constexpr unsigned long long kMaxSamples = 1ull << 28;

size_t ElementSize(int type) {
    static const size_t sizes[] = {1, 1, 2, 2, 4, 4, 8, 8, 4, 8};
    return type >= 0 && type <= 9 ? sizes[type] : 0;
}

template <typename T, typename Via = float>
float Convert(const unsigned char* bytes) {
    T value;
    std::memcpy(&value, bytes, sizeof value);
    return static_cast<float>(static_cast<Via>(value));
}

// The described conversion of one stored element.
float Expected(int type, const unsigned char* b) {
    switch (type) {
    case 0:
        return Convert<int8_t>(b);
    case 1:
        return Convert<uint8_t>(b);
    case 2:
        return Convert<int16_t>(b);
    case 3:
        return Convert<uint16_t>(b);
    case 4:
        return Convert<int32_t>(b);
    case 5:
        return Convert<uint32_t, double>(b);
    case 6:
        return Convert<int64_t, double>(b);
    case 7:
        return Convert<uint64_t, double>(b);
    case 8:
        return Convert<float>(b);
    default:
        return Convert<double>(b);
    }
}

bool SameBits(float a, float b) { return std::memcmp(&a, &b, sizeof a) == 0; }

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::SilenceStdout();
    FuzzedDataProvider in(data, size);
    const bool huge = in.ConsumeIntegralInRange(0, 7) == 0;
    // Small images whose samples are checked one by one, or sizes far past the limit.
    const unsigned long long width =
        huge ? in.ConsumeIntegralInRange<unsigned long long>(1ull << 17, ~0ull)
             : in.ConsumeIntegralInRange<unsigned long long>(0, 96);
    const unsigned long long height =
        huge ? in.ConsumeIntegralInRange<unsigned long long>(1ull << 12, ~0ull)
             : in.ConsumeIntegralInRange<unsigned long long>(0, 96);
    const unsigned long long header = in.ConsumeBool()
                                          ? in.ConsumeIntegralInRange<unsigned long long>(0, 64)
                                          : in.ConsumeIntegral<unsigned long long>();
    const int type = in.ConsumeIntegralInRange(-2, 12);
    const unsigned long long depth = in.ConsumeIntegralInRange<unsigned long long>(1, 3);
    const bool reuse = in.ConsumeBool();
    const std::string bytes = in.ConsumeRemainingBytesAsString();
    const std::string path = fuzz::ScratchPath("fuzz.raw");
    fuzz::WriteFile(path, bytes);

    // A matrix of the same width and height keeps its buffer and, for an unknown type, its
    // samples; otherwise a fresh one. Depth is the matrix's own and stays.
    imgmat matrix = reuse ? imgmat(width <= 96 ? width : 1, height <= 96 ? height : 1, depth)
                          : imgmat(1, 1, depth);
    if (matrix.data != nullptr) matrix = 7.0f;
    const bool sameShape =
        matrix.data != nullptr && matrix.width == width && matrix.height == height;
    const int result = matrix.readRawFile(path.c_str(), width, height, header, type);

    unsigned long long count = 0;
    const bool fits = !__builtin_mul_overflow(width, height, &count) &&
                      !__builtin_mul_overflow(count, depth, &count) && count <= kMaxSamples;
    if (!fits) {  // refused: the matrix is left empty
        FUZZ_CHECK(result == 0 && matrix.data == nullptr, "%llu x %llu x %llu read with result %d",
                   width, height, depth, result);
        return 0;
    }
    FUZZ_CHECK(result == 1 && matrix.data != nullptr, "result %d", result);
    FUZZ_CHECK(matrix.width == width && matrix.height == height, "extents not stored");
    FUZZ_CHECK(matrix.depth == depth, "depth %llu became %llu", depth, matrix.depth);
    const size_t element = ElementSize(type);
    for (size_t i = 0; i < width * height; ++i) {
        float want = 0.0f;
        if (element == 0) {
            want = sameShape ? 7.0f : 0.0f;  // nothing converted: the kept or fresh samples
        } else if (header <= bytes.size() && (bytes.size() - header) / element > i) {
            want = Expected(
                type, reinterpret_cast<const unsigned char*>(bytes.data()) + header + i * element);
        }
        FUZZ_CHECK(SameBits(matrix.data[i], want), "sample %zu of type %d is %g, not %g", i, type,
                   static_cast<double>(matrix.data[i]), static_cast<double>(want));
    }

    // Written as floats and read back as type 8, bit for bit.
    if (width * height > 0) {
        const std::string out = fuzz::ScratchPath("fuzz_out.raw");
        FUZZ_CHECK(matrix.writeRawFile(out.c_str(), matrix.data, width * height) == 1, "write");
        imgmat back;
        FUZZ_CHECK(back.readRawFile(out.c_str(), width, height, 0, 8) == 1, "read back");
        FUZZ_CHECK(std::memcmp(back.data, matrix.data, width * height * sizeof(float)) == 0,
                   "written samples read back differently");
    }
    return 0;
}
