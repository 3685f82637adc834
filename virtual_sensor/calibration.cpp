// VirtualSensor_WriteCalibration: the calibration files a vendor's calibration tool would have
// left in the work directory for this sensor; VirtualSensor_GetFixedPattern: the truth those
// files and any calibration made from the sensor's exposures are measured against.
#include <algorithm>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <new>
#include <string>
#include <vector>

#include "driver_interface/calibration_layout.h"
#include "sensor_model.h"
#include "settings.h"
#include "virtual_sensor.h"

namespace virtual_sensor {
namespace {

constexpr size_t kHeaderSize = fpdsys::kCalibrationHeaderBytes;
constexpr uint32_t kHeaderVersion = 1;
constexpr uint32_t kKindGain = 1;
constexpr uint32_t kKindDefects = 2;
// Doses of a four-frame gain file, relative to the configured dose.
constexpr double kFourFrameDoses[4] = {0.25, 0.5, 1.0, 1.5};

enum Result {
    kWritten = 0,
    kBadArguments = 1,
    kBadSettings = 2,
    kNoFolder = 3,
    kWriteFailed = 4,
    kOutOfMemory = 5,
};

void PutU32(std::vector<uint8_t>& bytes, size_t offset, uint32_t value) {
    for (int i = 0; i < 4; ++i) {
        bytes[offset + static_cast<size_t>(i)] = static_cast<uint8_t>(value >> (8 * i));
    }
}

// The system skips the headers; ours say what the file holds, for people and tools:
//   0  "VirtualSensorCal" (16 bytes)      16 version   20 kind (1 gain, 2 defects)
//   24 columns   28 rows   32 frames   36 bytes per pixel   40 seed   44 sensor size
//   48 dose of each frame (4 x uint32)   64 gain level of each frame (4 x uint32)
// all little-endian 32-bit, the rest zero.
std::vector<uint8_t> Header(const Settings& s, uint32_t kind, uint32_t frames,
                            uint32_t bytesPerPixel, const std::vector<uint32_t>& doses,
                            const std::vector<uint32_t>& levels) {
    std::vector<uint8_t> header(kHeaderSize, 0);
    std::memcpy(header.data(), "VirtualSensorCal", 16);
    PutU32(header, 16, kHeaderVersion);
    PutU32(header, 20, kind);
    PutU32(header, 24, static_cast<uint32_t>(s.columns()));
    PutU32(header, 28, static_cast<uint32_t>(s.rows()));
    PutU32(header, 32, frames);
    PutU32(header, 36, bytesPerPixel);
    PutU32(header, 40, s.seed);
    PutU32(header, 44, static_cast<uint32_t>(s.sensorSize));
    for (size_t i = 0; i < doses.size() && i < 4; ++i) {
        PutU32(header, 48 + 4 * i, doses[i]);
    }
    for (size_t i = 0; i < levels.size() && i < 4; ++i) {
        PutU32(header, 64 + 4 * i, levels[i]);
    }
    return header;
}

bool WriteFile(const std::filesystem::path& path, const std::vector<uint8_t>& header,
               const std::vector<uint8_t>& body) {
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    if (!file) {
        return false;
    }
    file.write(reinterpret_cast<const char*>(header.data()),
               static_cast<std::streamsize>(header.size()));
    file.write(reinterpret_cast<const char*>(body.data()),
               static_cast<std::streamsize>(body.size()));
    file.close();
    return static_cast<bool>(file);
}

int WriteCalibration(const char* workDir, int frames) {
    if (workDir == nullptr || workDir[0] == '\0' || (frames != 1 && frames != 4)) {
        return kBadArguments;
    }
    Settings settings;
    std::string problem;
    if (!LoadSettings(workDir, settings, problem)) {
        return kBadSettings;
    }
    std::error_code error;
    const std::filesystem::path folder = std::string(workDir) + fpdsys::kCalibrationFolder;
    std::filesystem::create_directories(folder, error);
    if (!std::filesystem::is_directory(folder, error)) {
        return kNoFolder;
    }

    const SensorModel model(settings);
    std::vector<uint32_t> doses;
    if (frames == 1) {
        doses.push_back(static_cast<uint32_t>(settings.dose));
    } else {
        for (double f : kFourFrameDoses) {
            doses.push_back(static_cast<uint32_t>(settings.dose * f + 0.5));
        }
    }
    std::vector<uint32_t> levels;
    // Sized for all the frames at once: grown a frame at a time, it would be moved twice over.
    const size_t frameBytes =
        2 * static_cast<size_t>(settings.columns()) * static_cast<size_t>(settings.rows());
    std::vector<uint8_t> gainBody(doses.size() * frameBytes);
    size_t at = 0;
    for (uint32_t dose : doses) {
        const std::vector<uint16_t> flat = model.calibrationFlat(dose);
        levels.push_back(flat.empty() ? 0u : flat[0]);
        // Little-endian samples, whatever the host's order.
        for (uint16_t v : flat) {
            gainBody[at++] = static_cast<uint8_t>(v & 0xFF);
            gainBody[at++] = static_cast<uint8_t>(v >> 8);
        }
    }
    const auto frameCount = static_cast<uint32_t>(frames);
    if (!WriteFile(folder / "VirtualSensor.gn",
                   Header(settings, kKindGain, frameCount, 2, doses, levels), gainBody)) {
        return kWriteFailed;
    }
    if (!WriteFile(folder / "VirtualSensor.dft", Header(settings, kKindDefects, 1, 1, {}, {}),
                   model.defectMap())) {
        return kWriteFailed;
    }
    return kWritten;
}

int GetFixedPattern(const char* workDir, float* gain, float* darkOffset, unsigned char* defects,
                    long long count) {
    if (workDir == nullptr || workDir[0] == '\0') {
        return kBadArguments;
    }
    Settings settings;
    std::string problem;
    if (!LoadSettings(workDir, settings, problem)) {
        return kBadSettings;
    }
    if (count != static_cast<long long>(settings.columns()) * settings.rows()) {
        return kBadArguments;
    }
    const SensorModel model(settings);
    const size_t n = static_cast<size_t>(count);
    if (gain != nullptr) {
        std::copy(model.gainMap().begin(), model.gainMap().begin() + n, gain);
    }
    if (darkOffset != nullptr) {
        std::copy(model.darkOffsets().begin(), model.darkOffsets().begin() + n, darkOffset);
    }
    if (defects != nullptr) {
        std::copy(model.defectMap().begin(), model.defectMap().begin() + n, defects);
    }
    return kWritten;
}

}  // namespace
}  // namespace virtual_sensor

extern "C" VIRTUAL_SENSOR_API int VirtualSensor_GetFixedPattern(const char* workDir, float* gain,
                                                                float* darkOffset,
                                                                unsigned char* defects,
                                                                long long count) {
    try {
        return virtual_sensor::GetFixedPattern(workDir, gain, darkOffset, defects, count);
    } catch (const std::bad_alloc&) {
        return virtual_sensor::kOutOfMemory;
    }
}

extern "C" VIRTUAL_SENSOR_API int VirtualSensor_WriteCalibration(const char* workDir, int frames) {
    // A frame too large for the memory left is refused; an exception must not cross into the
    // caller, which may not even be C++.
    try {
        return virtual_sensor::WriteCalibration(workDir, frames);
    } catch (const std::bad_alloc&) {
        return virtual_sensor::kOutOfMemory;
    }
}
