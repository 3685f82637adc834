// The files' header: its fixed byte layout, what a later format version may add, and what is
// not a header of ours.
#include <gtest/gtest.h>

#include <cstring>

#include "calibration_support.h"
#include "veltrano/calibration_builder.h"

namespace {

using caltest::TempFolder;
using veltrano::CalibrationHeader;

void Put32(std::vector<uint8_t>& b, size_t at, uint32_t v) {
    for (int i = 0; i < 4; ++i) b[at + i] = static_cast<uint8_t>(v >> (8 * i));
}
void PutFloat(std::vector<uint8_t>& b, size_t at, float f) {
    uint32_t v = 0;
    std::memcpy(&v, &f, 4);
    Put32(b, at, v);
}

// A version-1 header laid out byte by byte from the documented offsets, as a file written by
// that version would hold it; later versions must keep reading it.
std::vector<uint8_t> VersionOneHeader() {
    std::vector<uint8_t> b(1040, 0);
    std::memcpy(b.data(), "VeltranoCalib", 13);
    Put32(b, 16, 1);
    Put32(b, 20, 2);
    Put32(b, 24, 1040);
    Put32(b, 28, 1200);
    Put32(b, 32, 1650);
    Put32(b, 36, 1500);
    Put32(b, 40, 251);
    std::memcpy(b.data() + 44, "VS1500-00000007", 15);
    Put32(b, 76, 4);
    const uint32_t levels[4] = {5400, 10700, 21300, 31900};
    const float doses[4] = {5012.5f, 10020.25f, 20040.5f, 30060.75f};
    for (int i = 0; i < 4; ++i) {
        Put32(b, 80 + 4 * i, levels[i]);
        PutFloat(b, 96 + 4 * i, doses[i]);
    }
    Put32(b, 112, 8);
    Put32(b, 116, 0x9ABCDEF0u);  // a creation time past 2038, in two words
    Put32(b, 120, 0x1u);
    const float thresholds[8] = {0.4f, 1.6f, 0.45f, 3.5f, 0.05f, 0.3f, 0.12f, 0.2f};
    for (int i = 0; i < 8; ++i) PutFloat(b, 124 + 4 * i, thresholds[i]);
    Put32(b, 156, 4);
    Put32(b, 160, 8);
    Put32(b, 164, 5);
    for (uint32_t i = 0; i < 11; ++i) Put32(b, 168 + 4 * i, 100 + i);
    PutFloat(b, 212, 0.081f);
    PutFloat(b, 216, 0.0093f);
    return b;
}

void WriteBytes(const std::string& path, const std::vector<uint8_t>& bytes) {
    std::ofstream(path, std::ios::binary)
        .write(reinterpret_cast<const char*>(bytes.data()),
               static_cast<std::streamsize>(bytes.size()));
}

void ExpectVersionOneFields(const CalibrationHeader& h) {
    EXPECT_EQ(h.kind, CalibrationHeader::kDefectFile);
    EXPECT_EQ(h.width, 1200u);
    EXPECT_EQ(h.height, 1650u);
    EXPECT_EQ(h.sensorSize, 1500);
    EXPECT_EQ(h.cornerCut, 251);
    EXPECT_EQ(h.serialNumber, "VS1500-00000007");
    EXPECT_EQ(h.frames, 4u);
    EXPECT_EQ(h.levels[0], 5400u);
    EXPECT_EQ(h.levels[3], 31900u);
    EXPECT_EQ(h.doses[1], 10020.25f);
    EXPECT_EQ(h.exposures, 8u);
    EXPECT_EQ(h.created, 0x19ABCDEF0LL);
    EXPECT_EQ(h.thresholds.deadFraction, 0.4f);
    EXPECT_EQ(h.thresholds.clusterEdgeDeviation, 0.2f);
    EXPECT_EQ(h.thresholds.clusterMinPixels, 4);
    EXPECT_EQ(h.thresholds.localBlock, 8);
    EXPECT_EQ(h.thresholds.localRadius, 5);
    EXPECT_EQ(h.defects.dead, 100u);
    EXPECT_EQ(h.defects.clusters, 109u);
    EXPECT_EQ(h.defects.total, 110u);
    EXPECT_EQ(h.cvBefore, 0.081f);
    EXPECT_EQ(h.cvAfter, 0.0093f);
}

TEST(CalibrationHeader, AVersionOneHeaderIsReadByThisAndLaterVersions) {
    TempFolder dir;
    std::vector<uint8_t> bytes = VersionOneHeader();
    bytes.resize(1040 + 64, 1);  // the body does not matter
    WriteBytes(dir / "one.dft", bytes);
    CalibrationHeader h;
    ASSERT_EQ(veltrano::ReadCalibrationHeader((dir / "one.dft").c_str(), h), 1);
    EXPECT_EQ(h.version, 1u);
    ExpectVersionOneFields(h);

    // A later version adds fields in the space version 1 leaves zero; the known ones stay.
    Put32(bytes, 16, 2);
    for (size_t i = 220; i < 1040; ++i) bytes[i] = static_cast<uint8_t>(i);
    WriteBytes(dir / "two.dft", bytes);
    CalibrationHeader later;
    ASSERT_EQ(veltrano::ReadCalibrationHeader((dir / "two.dft").c_str(), later), 1);
    EXPECT_EQ(later.version, 2u);
    ExpectVersionOneFields(later);
}

TEST(CalibrationHeader, RefusesWhatIsNotAHeaderOfOurs) {
    TempFolder dir;
    CalibrationHeader h;
    h.width = 77;
    EXPECT_EQ(veltrano::ReadCalibrationHeader(nullptr, h), -1);
    EXPECT_EQ(veltrano::ReadCalibrationHeader((dir / "missing.gn").c_str(), h), 0);
    std::vector<uint8_t> bytes = VersionOneHeader();
    WriteBytes(dir / "short.gn", std::vector<uint8_t>(bytes.begin(), bytes.begin() + 1039));
    EXPECT_EQ(veltrano::ReadCalibrationHeader((dir / "short.gn").c_str(), h), 0);
    bytes[3] = 'T';
    WriteBytes(dir / "other.gn", bytes);
    EXPECT_EQ(veltrano::ReadCalibrationHeader((dir / "other.gn").c_str(), h), -2);
    bytes = VersionOneHeader();
    Put32(bytes, 16, 0);
    WriteBytes(dir / "zero.gn", bytes);
    EXPECT_EQ(veltrano::ReadCalibrationHeader((dir / "zero.gn").c_str(), h), -2);
    EXPECT_EQ(h.width, 77u);  // left as it was
}

}  // namespace
