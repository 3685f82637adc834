#include "reference.h"

#include <cmath>
#include <fstream>
#include <iterator>

#include "driver.h"

namespace vstest {

std::vector<uint8_t> ReadBytes(const std::filesystem::path& path) {
    std::ifstream file(path, std::ios::binary);
    return std::vector<uint8_t>(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
}

uint32_t U32(const std::vector<uint8_t>& bytes, size_t offset) {
    if (offset + 4 > bytes.size()) {
        return 0;
    }
    return static_cast<uint32_t>(bytes[offset]) | static_cast<uint32_t>(bytes[offset + 1]) << 8 |
           static_cast<uint32_t>(bytes[offset + 2]) << 16 | static_cast<uint32_t>(bytes[offset + 3]) << 24;
}

std::filesystem::path CalibrationFolder(const std::filesystem::path& workDir) {
    return workDir / "Correct" / "Default";
}

std::vector<std::vector<uint16_t>> GainFrames(const std::vector<uint8_t>& file, int columns, int rows) {
    const size_t pixels = static_cast<size_t>(columns) * rows;
    const size_t frameBytes = 2 * pixels;
    const size_t count = file.size() <= 2 * frameBytes ? 1 : 4;
    std::vector<std::vector<uint16_t>> frames;
    for (size_t f = 0; f < count; ++f) {
        const size_t start = 1040 + f * frameBytes;
        if (start + frameBytes > file.size()) {
            break;
        }
        std::vector<uint16_t> frame(pixels);
        for (size_t i = 0; i < pixels; ++i) {
            frame[i] = static_cast<uint16_t>(file[start + 2 * i] | file[start + 2 * i + 1] << 8);
        }
        frames.push_back(std::move(frame));
    }
    return frames;
}

std::vector<uint8_t> DefectMap(const std::vector<uint8_t>& file, int columns, int rows) {
    const size_t pixels = static_cast<size_t>(columns) * rows;
    if (file.size() < 1040 + pixels) {
        return {};
    }
    return std::vector<uint8_t>(file.begin() + 1040, file.begin() + 1040 + static_cast<std::ptrdiff_t>(pixels));
}

double BrightMean(const std::vector<uint16_t>& raw) {
    std::vector<uint64_t> histogram(65536, 0);
    for (uint16_t v : raw) {
        ++histogram[v];
    }
    double sum = 0.0;
    uint64_t count = 0;
    for (int bin = 65535; bin >= 0 && count < 5000; --bin) {
        sum += static_cast<double>(histogram[static_cast<size_t>(bin)]) * bin;
        count += histogram[static_cast<size_t>(bin)];
    }
    return count > 0 ? sum / static_cast<double>(count) : 0.0;
}

std::vector<double> Correct(const std::vector<uint16_t>& raw,
                            const std::vector<std::vector<uint16_t>>& flats,
                            const std::vector<uint8_t>& defects, int columns, int rows,
                            int* chosen) {
    size_t pick = 0;
    if (flats.size() == 4) {
        const double bright = BrightMean(raw);
        double best = 4294967296.0;
        for (size_t f = 0; f < flats.size(); ++f) {
            const double d = (flats[f][0] - bright) * (flats[f][0] - bright);
            if (d < best) {
                best = d;
                pick = f;
            }
        }
    }
    if (chosen != nullptr) {
        *chosen = static_cast<int>(pick);
    }
    const std::vector<uint16_t>& flat = flats.at(pick);
    double sum = 0.0;
    for (uint16_t v : flat) {
        sum += v;
    }
    const double mean = sum / static_cast<double>(flat.size());
    std::vector<double> out(raw.size());
    for (size_t i = 0; i < raw.size(); ++i) {
        out[i] = raw[i] * (mean / std::max(0.001, static_cast<double>(flat[i])));
    }
    for (int y = 0; y < rows; ++y) {
        for (int x = 0; x < columns; ++x) {
            if (!defects[static_cast<size_t>(y) * columns + x]) {
                continue;
            }
            for (int r = 1; r < 16; ++r) {
                double s = 0.0;
                int n = 0;
                for (int yy = std::max(0, y - r); yy <= std::min(rows - 1, y + r); ++yy) {
                    for (int xx = std::max(0, x - r); xx <= std::min(columns - 1, x + r); ++xx) {
                        const size_t j = static_cast<size_t>(yy) * columns + xx;
                        if (!defects[j]) {
                            s += out[j];
                            ++n;
                        }
                    }
                }
                if (n > 0) {
                    out[static_cast<size_t>(y) * columns + x] = s / n;
                    break;
                }
            }
        }
    }
    return out;
}

template <typename T>
Stats ActiveStats(const std::vector<T>& values, int columns, int rows, int cornerCut,
                  const std::vector<uint8_t>* skip) {
    Stats stats;
    double sum = 0.0;
    double squares = 0.0;
    for (int y = 0; y < rows; ++y) {
        for (int x = 0; x < columns; ++x) {
            const size_t i = static_cast<size_t>(y) * columns + x;
            if (InCutCorner(x, y, columns, cornerCut) || (skip != nullptr && (*skip)[i])) {
                continue;
            }
            sum += values[i];
            squares += static_cast<double>(values[i]) * values[i];
            ++stats.count;
        }
    }
    if (stats.count > 0) {
        stats.mean = sum / static_cast<double>(stats.count);
        const double variance = squares / static_cast<double>(stats.count) - stats.mean * stats.mean;
        stats.cv = std::sqrt(std::max(0.0, variance)) / stats.mean;
    }
    return stats;
}

template <typename T>
double BoxMean(const std::vector<T>& values, int columns, int x0, int y0, int w, int h) {
    double sum = 0.0;
    for (int y = y0; y < y0 + h; ++y) {
        for (int x = x0; x < x0 + w; ++x) {
            sum += values[static_cast<size_t>(y) * columns + x];
        }
    }
    return sum / (static_cast<double>(w) * h);
}

template Stats ActiveStats(const std::vector<uint16_t>&, int, int, int, const std::vector<uint8_t>*);
template Stats ActiveStats(const std::vector<double>&, int, int, int, const std::vector<uint8_t>*);
template double BoxMean(const std::vector<uint16_t>&, int, int, int, int, int);
template double BoxMean(const std::vector<double>&, int, int, int, int, int);

}  // namespace vstest
