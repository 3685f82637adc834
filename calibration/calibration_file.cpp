// The calibration files' header, the statistics of flat exposures, and writing files whole.
#include <algorithm>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "calibration/calibration_internal.h"
#include "driver_interface/calibration_layout.h"
#include "imgproc/frame_passes.h"

namespace veltrano {
namespace {
constexpr int kBins = 65536;
}  // namespace

// The acquisition skips exactly this many bytes of every calibration file.
static_assert(CalibrationHeader::kBytes == fpdsys::kCalibrationHeaderBytes,
              "the calibration header has the size the detector skips");

namespace calibration {
namespace {

constexpr char kMagic[16] = {'V', 'e', 'l', 't', 'r', 'a', 'n', 'o',
                             'C', 'a', 'l', 'i', 'b', 0,   0,   0};
constexpr size_t kSerialOffset = 44;
constexpr size_t kSerialBytes = 32;

// Little-endian fields at fixed offsets, the same on every host.
class Fields {
public:
    explicit Fields(std::vector<uint8_t>& bytes) : bytes_(bytes) {}
    void putU32(size_t offset, uint32_t value) {
        for (size_t i = 0; i < 4; ++i) bytes_[offset + i] = static_cast<uint8_t>(value >> (8 * i));
    }
    void putI32(size_t offset, int32_t value) { putU32(offset, static_cast<uint32_t>(value)); }
    void putF32(size_t offset, float value) {
        uint32_t bits = 0;
        std::memcpy(&bits, &value, 4);
        putU32(offset, bits);
    }
    void putI64(size_t offset, int64_t value) {
        putU32(offset, static_cast<uint32_t>(static_cast<uint64_t>(value)));
        putU32(offset + 4, static_cast<uint32_t>(static_cast<uint64_t>(value) >> 32));
    }
    uint32_t u32(size_t offset) const {
        uint32_t value = 0;
        for (size_t i = 0; i < 4; ++i)
            value |= static_cast<uint32_t>(bytes_[offset + i]) << (8 * i);
        return value;
    }
    int32_t i32(size_t offset) const { return static_cast<int32_t>(u32(offset)); }
    float f32(size_t offset) const {
        const uint32_t bits = u32(offset);
        float value = 0.0f;
        std::memcpy(&value, &bits, 4);
        return value;
    }
    int64_t i64(size_t offset) const {
        return static_cast<int64_t>(static_cast<uint64_t>(u32(offset)) |
                                    static_cast<uint64_t>(u32(offset + 4)) << 32);
    }

private:
    std::vector<uint8_t>& bytes_;
};

// The thresholds and counts in the order of the documented layout.
float* ThresholdFloats(DefectThresholds& t, size_t i) {
    float* fields[] = {&t.deadFraction,  &t.hotFraction,         &t.responseTolerance,
                       &t.noisyFactor,   &t.frozenFraction,      &t.lineFraction,
                       &t.lineDeviation, &t.clusterEdgeDeviation};
    return fields[i];
}
int* ThresholdInts(DefectThresholds& t, size_t i) {
    int* fields[] = {&t.clusterMinPixels, &t.localBlock, &t.localRadius};
    return fields[i];
}
uint32_t* CountFields(DefectCounts& c, size_t i) {
    uint32_t* fields[] = {&c.dead,         &c.hot,       &c.unresponsive,  &c.noisy,
                          &c.columnPixels, &c.rowPixels, &c.clusterPixels, &c.columns,
                          &c.rows,         &c.clusters,  &c.total};
    return fields[i];
}
constexpr size_t kThresholdFloats = 8;
constexpr size_t kThresholdInts = 3;
constexpr size_t kCountFields = 11;

}  // namespace

std::vector<uint8_t> EncodeHeader(const CalibrationHeader& header) {
    std::vector<uint8_t> bytes(CalibrationHeader::kBytes, 0);
    Fields f(bytes);
    std::memcpy(bytes.data(), kMagic, sizeof(kMagic));
    f.putU32(16, header.version);
    f.putU32(20, header.kind);
    f.putU32(24, CalibrationHeader::kBytes);
    f.putU32(28, header.width);
    f.putU32(32, header.height);
    f.putI32(36, header.sensorSize);
    f.putI32(40, header.cornerCut);
    std::memcpy(bytes.data() + kSerialOffset, header.serialNumber.data(),
                std::min(header.serialNumber.size(), kSerialBytes - 1));
    f.putU32(76, header.frames);
    for (size_t i = 0; i < 4; ++i) {
        f.putU32(80 + 4 * i, header.levels[i]);
        f.putF32(96 + 4 * i, header.doses[i]);
    }
    f.putU32(112, header.exposures);
    f.putI64(116, header.created);
    DefectThresholds thresholds = header.thresholds;
    for (size_t i = 0; i < kThresholdFloats; ++i)
        f.putF32(124 + 4 * i, *ThresholdFloats(thresholds, i));
    for (size_t i = 0; i < kThresholdInts; ++i)
        f.putI32(156 + 4 * i, *ThresholdInts(thresholds, i));
    DefectCounts counts = header.defects;
    for (size_t i = 0; i < kCountFields; ++i) f.putU32(168 + 4 * i, *CountFields(counts, i));
    f.putF32(212, header.cvBefore);
    f.putF32(216, header.cvAfter);
    return bytes;
}

bool DecodeHeader(const std::vector<uint8_t>& bytes, CalibrationHeader& header) {
    if (bytes.size() < CalibrationHeader::kBytes ||
        std::memcmp(bytes.data(), kMagic, sizeof(kMagic)) != 0) {
        return false;
    }
    std::vector<uint8_t> copy(bytes);
    const Fields f(copy);
    CalibrationHeader h;
    h.version = f.u32(16);
    if (h.version == 0) {
        return false;
    }
    h.kind = f.u32(20);
    h.width = f.u32(28);
    h.height = f.u32(32);
    h.sensorSize = f.i32(36);
    h.cornerCut = f.i32(40);
    const auto serial = copy.begin() + kSerialOffset;
    h.serialNumber.assign(serial, std::find(serial, serial + kSerialBytes, 0));
    h.frames = f.u32(76);
    for (size_t i = 0; i < 4; ++i) {
        h.levels[i] = f.u32(80 + 4 * i);
        h.doses[i] = f.f32(96 + 4 * i);
    }
    h.exposures = f.u32(112);
    h.created = f.i64(116);
    for (size_t i = 0; i < kThresholdFloats; ++i)
        *ThresholdFloats(h.thresholds, i) = f.f32(124 + 4 * i);
    for (size_t i = 0; i < kThresholdInts; ++i)
        *ThresholdInts(h.thresholds, i) = f.i32(156 + 4 * i);
    for (size_t i = 0; i < kCountFields; ++i) *CountFields(h.defects, i) = f.u32(168 + 4 * i);
    h.cvBefore = f.f32(212);
    h.cvAfter = f.f32(216);
    header = h;
    return true;
}

bool WriteWholeFile(const std::string& path, const std::vector<uint8_t>& header,
                    const std::vector<uint8_t>& body) {
    return WriteWholeFile(path, header, std::vector<BytePiece>{{body.data(), body.size()}});
}

bool WriteWholeFile(const std::string& path, const std::vector<uint8_t>& header,
                    const std::vector<BytePiece>& body) {
    bool written = false;
    {
        std::ofstream file(path, std::ios::binary | std::ios::trunc);
        if (file) {
            file.write(reinterpret_cast<const char*>(header.data()),
                       static_cast<std::streamsize>(header.size()));
            for (const BytePiece& piece : body) {
                file.write(static_cast<const char*>(piece.data),
                           static_cast<std::streamsize>(piece.size));
            }
            file.close();
            written = static_cast<bool>(file);
        }
    }
    if (!written) {
        std::error_code ignored;
        std::filesystem::remove(path, ignored);
    }
    return written;
}

FlatStatistics MeasureFlat(const float* pixels, int width, int height, int cut,
                           float saturationLevel) {
    FlatStatistics s;
    std::vector<int32_t> histogram(kBins, 0);
    double sum = 0.0;
    uint64_t saturated = 0;
    for (long long r = 0; r < height; ++r) {
        long long first = 0, end = 0;
        ActiveSpan(r, width, cut, first, end);
        if (first >= end) continue;
        const float* row = pixels + r * width + first;
        const size_t n = static_cast<size_t>(end - first);
        CountFloatBins(row, n, FloatBinRule::Clamped, histogram.data());
        sum += SumInDouble(row, n);
        for (size_t i = 0; i < n; ++i) saturated += row[i] >= saturationLevel;
        s.pixels += n;
    }
    if (s.pixels == 0) {
        return s;
    }
    s.mean = sum / static_cast<double>(s.pixels);
    s.saturatedFraction = static_cast<double>(saturated) / static_cast<double>(s.pixels);
    // The first bin at which the running count reaches each fraction of the pixels.
    const double targets[3] = {0.16, 0.5, 0.84};
    int* results[3] = {&s.p16, &s.median, &s.p84};
    uint64_t running = 0;
    size_t next = 0;
    for (int bin = 0; bin < kBins && next < 3; ++bin) {
        running += static_cast<uint64_t>(histogram[static_cast<size_t>(bin)]);
        while (next < 3 &&
               static_cast<double>(running) >= targets[next] * static_cast<double>(s.pixels)) {
            *results[next++] = bin;
        }
    }
    return s;
}

double CoefficientOfVariation(const float* pixels, int width, int height, int cut) {
    double sum = 0.0;
    double n = 0.0;
    for (long long r = 0; r < height; ++r) {
        long long first = 0, end = 0;
        ActiveSpan(r, width, cut, first, end);
        if (first < end) {
            sum += SumInDouble(pixels + r * width + first, static_cast<size_t>(end - first));
            n += static_cast<double>(end - first);
        }
    }
    if (n == 0.0 || sum == 0.0) {
        return 0.0;
    }
    const double mean = sum / n;
    double squares = 0.0;
    for (long long r = 0; r < height; ++r) {
        long long first = 0, end = 0;
        ActiveSpan(r, width, cut, first, end);
        for (long long c = first; c < end; ++c) {
            const double d = pixels[r * width + c] - mean;
            squares += d * d;
        }
    }
    return std::sqrt(squares / n) / mean;
}

}  // namespace calibration

int ReadCalibrationHeader(const char* path, CalibrationHeader& header) {
    if (path == nullptr) {
        return -1;
    }
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        return 0;
    }
    std::vector<uint8_t> bytes(CalibrationHeader::kBytes, 0);
    file.read(reinterpret_cast<char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    if (file.gcount() != static_cast<std::streamsize>(bytes.size())) {
        return 0;
    }
    return calibration::DecodeHeader(bytes, header) ? 1 : -2;
}

double BrightMean(const float* pixels, unsigned long long count) {
    if (pixels == nullptr) {
        return 0.0;
    }
    // The same bins as the acquisition's choice among four gain frames.
    std::vector<int32_t> histogram(kBins, 0);
    CountFloatBins(pixels, static_cast<size_t>(count), FloatBinRule::InRangeOnly, histogram.data());
    double weighted = 0.0;
    double counted = 0.0;
    for (int bin = kBins - 1; bin >= 0 && counted < 5000.0; --bin) {
        weighted += static_cast<double>(histogram[static_cast<size_t>(bin)]) * bin;
        counted += histogram[static_cast<size_t>(bin)];
    }
    return counted > 0.0 ? weighted / counted : 0.0;
}

}  // namespace veltrano
