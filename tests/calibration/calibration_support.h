// Helpers of the calibration tests: throw-away folders, whole files, and the virtual sensor's
// own exports (its calibration, its X-ray source and its fixed pattern).
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "platform/dynamic_library.h"

namespace caltest {

namespace fs = std::filesystem;

// A fresh folder below the system's temporary folder, removed with everything in it at the end.
class TempFolder {
public:
    TempFolder() {
        static std::atomic<int> counter{0};
        path_ = fs::temp_directory_path() /
                ("veltrano-cal-" +
                 std::to_string(std::chrono::steady_clock::now().time_since_epoch().count()) + "-" +
                 std::to_string(counter++));
        fs::create_directories(path_);
    }
    ~TempFolder() {
        std::error_code ignored;
        fs::remove_all(path_, ignored);
    }
    TempFolder(const TempFolder&) = delete;
    TempFolder& operator=(const TempFolder&) = delete;
    const fs::path& path() const { return path_; }
    std::string str() const { return path_.string(); }
    std::string operator/(const std::string& name) const { return (path_ / name).string(); }
    fs::path calibration() const { return path_ / "Correct" / "Default"; }

private:
    fs::path path_;
};

// Read in one piece: the gain files run to tens of megabytes, which a character iterator reads
// slowly enough to take a good share of the calibration tests' time. Empty when unreadable.
inline std::vector<uint8_t> ReadBytes(const fs::path& path) {
    std::ifstream in(path, std::ios::binary | std::ios::ate);
    if (!in) return {};
    std::vector<uint8_t> bytes(static_cast<size_t>(in.tellg()));
    in.seekg(0);
    in.read(reinterpret_cast<char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    bytes.resize(static_cast<size_t>(in.gcount()));
    return bytes;
}

inline void WriteText(const fs::path& path, const std::string& text) {
    fs::create_directories(path.parent_path());
    std::ofstream(path, std::ios::binary) << text;
}

// Every file below a folder, relative to it, with its bytes: a folder's state to compare.
inline std::vector<std::pair<std::string, std::vector<uint8_t>>> Snapshot(const fs::path& folder) {
    std::vector<std::pair<std::string, std::vector<uint8_t>>> files;
    std::error_code ec;
    for (fs::recursive_directory_iterator it(folder, ec), end; !ec && it != end; it.increment(ec)) {
        if (it->is_regular_file()) {
            files.emplace_back(fs::relative(it->path(), folder).generic_string(),
                               ReadBytes(it->path()));
        }
    }
    std::sort(files.begin(), files.end());
    return files;
}

// The virtual sensor's exports, looked up in the driver library the detector loads.
struct VirtualSensor {
    veltrano::platform::DynamicLibrary library;
    bool opened = library.open("FpdSys");
    int (*writeCalibration)(const char*, int) = reinterpret_cast<int (*)(const char*, int)>(
        library.symbol("VirtualSensor_WriteCalibration"));
    int (*setFlatDose)(double) =
        reinterpret_cast<int (*)(double)>(library.symbol("VirtualSensor_SetFlatDose"));
    int (*getFixedPattern)(const char*, float*, float*, unsigned char*, long long) =
        reinterpret_cast<int (*)(const char*, float*, float*, unsigned char*, long long)>(
            library.symbol("VirtualSensor_GetFixedPattern"));
    bool complete() const { return writeCalibration && setFlatDose && getFixedPattern; }
};

inline VirtualSensor& Driver() {
    static VirtualSensor driver;
    return driver;
}

// Sets the virtual source for the scope and returns it to the configured scene afterwards.
class FlatSource {
public:
    explicit FlatSource(double factor) { EXPECT_EQ(Driver().setFlatDose(factor), 0); }
    ~FlatSource() { Driver().setFlatDose(-1.0); }
    void set(double factor) const { EXPECT_EQ(Driver().setFlatDose(factor), 0); }
};

// The sensor sizes of the detector: code, width, height, corner cut.
struct SensorSize {
    int code, width, height, cut;
};
constexpr SensorSize kSizes[] = {
    {1000, 1000, 1500, 211}, {1500, 1200, 1650, 251}, {2000, 1300, 1800, 281}};

inline bool InCut(size_t index, int width, int cut) {
    const long long x = static_cast<long long>(index % static_cast<size_t>(width));
    const long long y = static_cast<long long>(index / static_cast<size_t>(width));
    return y + x <= cut || x - y >= width - cut;
}

// Coefficient of variation over the pixels outside the cut corners.
inline double ActiveCv(const float* data, size_t count, int width, int cut) {
    double sum = 0.0, squares = 0.0, n = 0.0;
    for (size_t i = 0; i < count; ++i) {
        if (!InCut(i, width, cut)) {
            sum += data[i];
            squares += static_cast<double>(data[i]) * data[i];
            n += 1.0;
        }
    }
    const double mean = sum / n;
    return std::sqrt(std::max(0.0, squares / n - mean * mean)) / mean;
}

}  // namespace caltest
