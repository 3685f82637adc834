// The program's PNG reader on fuzzed files: PNGs of every colour type and bit depth, plain and
// Adam7-interlaced, cut short, damaged, or declaring sizes far beyond their data, besides raw
// bytes. A valid 16-bit grayscale PNG must read to exactly its pixels, every other kind must be
// refused with a reason, and whatever is read must write and read back unchanged.
#include <fuzzer/FuzzedDataProvider.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "fuzz_support.h"
#include "png_io.h"
#include "tests/chain/png_maker.h"

namespace {

// Small enough that a header may claim more at little cost, large enough for any image here.
constexpr uint64_t kMaxPixels = 1u << 20;

struct Read {
    bool ok = false;
    uint32_t width = 0, height = 0;
    std::vector<uint16_t> pixels;
    std::string error;
};

Read ReadBytes(const std::string& bytes) {
    Read r;
    // fmemopen wants at least one byte: an empty file is a one-byte stream read past its byte.
    std::string copy = bytes.empty() ? std::string(1, '\0') : bytes;
    std::FILE* file = fmemopen(&copy[0], copy.size(), "rb");
    FUZZ_CHECK(file != nullptr, "fmemopen");
    if (bytes.empty()) std::fgetc(file);
    r.ok = vcli::ReadPng16(file, r.width, r.height, r.pixels, r.error, kMaxPixels);
    std::fclose(file);
    if (r.ok) {
        FUZZ_CHECK(r.width > 0 && r.height > 0 &&
                       r.pixels.size() == static_cast<size_t>(r.width) * r.height &&
                       r.pixels.size() <= kMaxPixels,
                   "read %u x %u with %zu pixels", r.width, r.height, r.pixels.size());
    } else {
        FUZZ_CHECK(!r.error.empty() && r.error.find('\n') == std::string::npos,
                   "a refusal must be one line: '%s'", r.error.c_str());
    }
    return r;
}

// Whatever was read, written as a PNG and read again, is the same image.
void ExpectRoundTrip(const Read& r) {
    char* buffer = nullptr;
    size_t length = 0;
    std::FILE* out = open_memstream(&buffer, &length);
    FUZZ_CHECK(out != nullptr, "open_memstream");
    std::string error;
    const bool written = vcli::WritePng16(out, r.width, r.height, r.pixels, error);
    std::fclose(out);
    FUZZ_CHECK(written, "could not write what was read: %s", error.c_str());
    const Read back = ReadBytes(std::string(buffer, length));
    std::free(buffer);
    FUZZ_CHECK(
        back.ok && back.width == r.width && back.height == r.height && back.pixels == r.pixels,
        "written image read back differently: %s", back.error.c_str());
}

struct Kind {
    int bitDepth;
    int colourType;
};
const Kind kKinds[] = {{16, 0}, {16, 0}, {16, 0}, {8, 0}, {4, 0}, {2, 0},  {1, 0}, {8, 2},
                       {16, 2}, {8, 3},  {4, 3},  {1, 3}, {8, 4}, {16, 4}, {8, 6}, {16, 6}};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzedDataProvider in(data, size);
    if (in.ConsumeIntegralInRange(0, 3) == 0) {  // raw bytes
        const Read r = ReadBytes(in.ConsumeRemainingBytesAsString());
        if (r.ok) ExpectRoundTrip(r);
        return 0;
    }
    png_maker::PngPlan plan;
    const Kind kind = in.PickValueInArray(kKinds);
    plan.bitDepth = kind.bitDepth;
    plan.colourType = kind.colourType;
    plan.width = in.ConsumeIntegralInRange<uint32_t>(1, 40);
    plan.height = in.ConsumeIntegralInRange<uint32_t>(1, 40);
    plan.interlaced = in.ConsumeBool();
    const int damage =
        in.ConsumeIntegralInRange(0, 5);  // 0: cut short, 1: a byte changed, 2: a size claimed
    const uint32_t claimedWidth = in.ConsumeIntegralInRange<uint32_t>(1, 1u << 21);
    const uint32_t claimedHeight = in.ConsumeIntegralInRange<uint32_t>(1, 1u << 21);
    const size_t where = in.ConsumeIntegral<size_t>();
    const uint8_t flip = in.ConsumeIntegralInRange<uint8_t>(1, 255);
    plan.samples.resize(static_cast<size_t>(plan.width) * plan.height * plan.channels());
    for (uint16_t& v : plan.samples) {
        v = static_cast<uint16_t>(in.ConsumeIntegral<uint16_t>() & ((1u << plan.bitDepth) - 1));
    }
    std::string bytes =
        damage == 2 ? png_maker::Make(plan, claimedWidth, claimedHeight) : png_maker::Make(plan);
    if (damage == 0) bytes.resize(where % bytes.size());
    if (damage == 1)
        bytes[where % bytes.size()] = static_cast<char>(bytes[where % bytes.size()] ^ flip);

    const Read r = ReadBytes(bytes);
    const bool gray16 = plan.bitDepth == 16 && plan.colourType == 0;
    if (damage > 2) {  // an intact file
        if (gray16) {
            FUZZ_CHECK(r.ok && r.width == plan.width && r.height == plan.height &&
                           r.pixels == plan.samples,
                       "a valid %ux%u %s PNG read %s: %s", plan.width, plan.height,
                       plan.interlaced ? "interlaced" : "plain", r.ok ? "wrong pixels" : "nothing",
                       r.error.c_str());
        } else {
            FUZZ_CHECK(!r.ok && r.error.rfind("is not a 16-bit grayscale PNG", 0) == 0,
                       "a %d-bit PNG of colour type %d: %s", plan.bitDepth, plan.colourType,
                       r.ok ? "read" : r.error.c_str());
        }
    }
    if (damage == 2 && gray16 && static_cast<uint64_t>(claimedWidth) * claimedHeight > kMaxPixels) {
        FUZZ_CHECK(!r.ok && r.error.rfind("declares", 0) == 0, "a header claiming %u x %u: %s",
                   claimedWidth, claimedHeight, r.ok ? "read" : r.error.c_str());
    }
    if (r.ok) ExpectRoundTrip(r);
    return 0;
}
