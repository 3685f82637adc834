#include "image_files.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <functional>
#include <system_error>

#include "png_io.h"
#include "veltrano/imgmat.h"

namespace vcli {
namespace fs = std::filesystem;

namespace {

uint16_t ToSample(double value) {
    if (!(value > 0.0)) {
        return 0;  // negatives and NaN
    }
    if (value >= 65535.0) {
        return 65535;
    }
    return static_cast<uint16_t>(value + 0.5);
}

// Runs `write` on a temporary name beside `path`, then moves the result over `path`.
bool WriteReplacing(const std::string& path, std::string& error,
                    const std::function<bool(const std::string&, std::string&)>& write) {
    const std::string temporary = path + ".part";
    if (!write(temporary, error)) {
        std::error_code ignored;
        fs::remove(temporary, ignored);
        return false;
    }
    std::error_code ec;
    fs::rename(temporary, path, ec);
    if (ec) {
        fs::remove(temporary, ec);
        error = "cannot be replaced";
        return false;
    }
    return true;
}

}  // namespace

unsigned RawElementSize(int type) {
    switch (type) {
        case 0: case 1: return 1;
        case 2: case 3: return 2;
        case 4: case 5: case 8: return 4;
        case 6: case 7: case 9: return 8;
        default: return 0;
    }
}

bool IsPngPath(const std::string& path) {
    std::string ext = fs::path(path).extension().string();
    std::transform(ext.begin(), ext.end(), ext.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return ext == ".png";
}

bool ReadPngImage(const std::string& path, Image16& image, std::string& error) {
    std::error_code ec;
    if (fs::is_directory(path, ec)) {
        error = "cannot be opened";  // a folder opens like a file on POSIX systems
        return false;
    }
    return ReadPng16(path, image.width, image.height, image.pixels, error);
}

bool ReadRawImage(const std::string& path, const RawLayout& layout, Image16& image,
                  std::string& error) {
    const unsigned elementSize = RawElementSize(layout.type);
    if (elementSize == 0 || layout.width == 0 || layout.height == 0 ||
        layout.width > 100000 || layout.height > 100000) {
        error = "raw layout out of range";
        return false;
    }
    std::error_code ec;
    if (!fs::is_regular_file(path, ec)) {
        error = fs::exists(path, ec) ? "is not a regular file" : "does not exist";
        return false;
    }
    const uint64_t size = fs::file_size(path, ec);
    if (ec) {
        error = "cannot be read";
        return false;
    }
    // The image matrix does not notice a short file (its tail would be undefined), so the
    // length is checked here first.
    const uint64_t needed = layout.headerBytes + layout.width * layout.height * elementSize;
    if (size < needed) {
        error = "is shorter than its size says (" + std::to_string(size) + " bytes, " +
                std::to_string(needed) + " needed)";
        return false;
    }
    std::ifstream probe(path, std::ios::binary);
    if (!probe) {
        error = "cannot be opened";
        return false;
    }
    probe.close();
    imgmat matrix;
    if (matrix.readRawFile(path.c_str(), layout.width, layout.height, layout.headerBytes,
                           layout.type) != 1 ||
        matrix.data == nullptr) {
        error = "cannot be read";
        return false;
    }
    image = ToImage16(matrix);
    return true;
}

Image16 ToImage16(const imgmat& matrix) {
    Image16 image;
    if (matrix.data == nullptr) {
        return image;
    }
    image.width = static_cast<uint32_t>(matrix.width);
    image.height = static_cast<uint32_t>(matrix.height);
    const size_t count = static_cast<size_t>(matrix.width) * static_cast<size_t>(matrix.height);
    image.pixels.resize(count);
    for (size_t i = 0; i < count; ++i) {
        image.pixels[i] = ToSample(matrix.data[i]);
    }
    return image;
}

bool WriteImage(const std::string& path, const Image16& image, std::string& error) {
    if (IsPngPath(path)) {
        return WriteReplacing(path, error, [&](const std::string& target, std::string& err) {
            return WritePng16(target, image.width, image.height, image.pixels, err);
        });
    }
    return WriteReplacing(path, error, [&](const std::string& target, std::string& err) {
        std::vector<float> samples(image.pixels.begin(), image.pixels.end());
        imgmat writer;
        if (writer.writeRawFile(target.c_str(), samples.data(), samples.size()) != 1) {
            err = "cannot be created";
            return false;
        }
        std::error_code ec;
        if (fs::file_size(target, ec) != samples.size() * sizeof(float) || ec) {
            err = "could not be written completely";
            return false;
        }
        return true;
    });
}

bool WritePreview(const std::string& path, uint32_t width, uint32_t height,
                  const std::vector<uint8_t>& pixels, std::string& error) {
    return WriteReplacing(path, error, [&](const std::string& target, std::string& err) {
        return WritePng8(target, width, height, pixels, err);
    });
}

}  // namespace vcli
