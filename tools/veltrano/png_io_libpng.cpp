// PNG reading and writing through libpng.
//
// libpng reports errors by long-jumping out of its calls; every function here therefore keeps
// its C++ objects outside the setjmp scope (they are created before it and only filled inside)
// and turns a jump into a false result with libpng's message.
#include "png_io.h"

#include <png.h>

#include <cstdio>
#include <cstring>

namespace vcli {
namespace {

struct ErrorSink {
    char message[256] = {0};
};

void OnError(png_structp png, png_const_charp message) {
    auto* sink = static_cast<ErrorSink*>(png_get_error_ptr(png));
    std::snprintf(sink->message, sizeof sink->message, "%s", message);
    png_longjmp(png, 1);
}

void OnWarning(png_structp, png_const_charp) {}

// fopen of a path given on the command line (UTF-8 on every system the program targets).
FILE* OpenFile(const std::string& path, const char* mode) { return std::fopen(path.c_str(), mode); }

const char* ColourName(int colourType) {
    switch (colourType) {
        case PNG_COLOR_TYPE_GRAY: return "grayscale";
        case PNG_COLOR_TYPE_GRAY_ALPHA: return "grayscale with alpha";
        case PNG_COLOR_TYPE_PALETTE: return "palette";
        case PNG_COLOR_TYPE_RGB: return "RGB";
        case PNG_COLOR_TYPE_RGB_ALPHA: return "RGBA";
        default: return "unknown colour type";
    }
}

bool IsLittleEndianHost() {
    const uint16_t probe = 1;
    uint8_t first;
    std::memcpy(&first, &probe, 1);
    return first == 1;
}

template <typename Sample>
bool WriteGray(const std::string& path, uint32_t width, uint32_t height,
               const std::vector<Sample>& pixels, std::string& error) {
    if (width == 0 || height == 0 || pixels.size() != static_cast<size_t>(width) * height) {
        error = "image size does not match its pixels";
        return false;
    }
    FILE* file = OpenFile(path, "wb");
    if (file == nullptr) {
        error = "cannot be created";
        return false;
    }
    ErrorSink sink;
    png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, &sink, OnError, OnWarning);
    png_infop info = png ? png_create_info_struct(png) : nullptr;
    if (png == nullptr || info == nullptr) {
        png_destroy_write_struct(&png, &info);
        std::fclose(file);
        error = "out of memory";
        return false;
    }
    if (setjmp(png_jmpbuf(png))) {
        png_destroy_write_struct(&png, &info);
        std::fclose(file);
        error = sink.message;
        return false;
    }
    png_init_io(png, file);
    png_set_IHDR(png, info, width, height, static_cast<int>(sizeof(Sample) * 8),
                 PNG_COLOR_TYPE_GRAY, PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT,
                 PNG_FILTER_TYPE_DEFAULT);
    // A low level writes a sensor frame about twice as fast as the default, for a few percent
    // more bytes: noisy 16-bit data hardly compresses better at higher levels.
    png_set_compression_level(png, 2);
    png_write_info(png, info);
    if (sizeof(Sample) == 2 && IsLittleEndianHost()) {
        png_set_swap(png);  // PNG stores 16-bit samples most significant byte first
    }
    for (uint32_t y = 0; y < height; ++y) {
        const Sample* row = pixels.data() + static_cast<size_t>(y) * width;
        png_write_row(png, reinterpret_cast<png_const_bytep>(row));
    }
    png_write_end(png, nullptr);
    png_destroy_write_struct(&png, &info);
    if (std::fclose(file) != 0) {
        error = "could not be written completely";
        return false;
    }
    return true;
}

}  // namespace

const char kNoPngSupport[] = "PNG support is not built into this program (libpng was not found)";

bool PngSupported() { return true; }

bool ReadPng16(const std::string& path, uint32_t& width, uint32_t& height,
               std::vector<uint16_t>& pixels, std::string& error) {
    FILE* file = OpenFile(path, "rb");
    if (file == nullptr) {
        error = "cannot be opened";
        return false;
    }
    png_byte signature[8] = {0};
    if (std::fread(signature, 1, sizeof signature, file) != sizeof signature ||
        png_sig_cmp(signature, 0, sizeof signature) != 0) {
        std::fclose(file);
        error = "is not a PNG file";
        return false;
    }
    ErrorSink sink;
    png_structp png = png_create_read_struct(PNG_LIBPNG_VER_STRING, &sink, OnError, OnWarning);
    png_infop info = png ? png_create_info_struct(png) : nullptr;
    if (png == nullptr || info == nullptr) {
        png_destroy_read_struct(&png, &info, nullptr);
        std::fclose(file);
        error = "out of memory";
        return false;
    }
    // Filled inside the setjmp scope only; owned outside it so that a jump frees nothing twice.
    std::vector<uint16_t> image;
    std::string refusal;
    if (setjmp(png_jmpbuf(png))) {
        png_destroy_read_struct(&png, &info, nullptr);
        std::fclose(file);
        error = sink.message[0] ? std::string("is damaged: ") + sink.message : "is damaged";
        return false;
    }
    png_init_io(png, file);
    png_set_sig_bytes(png, sizeof signature);
    // Large sensor frames are well inside this; the limit only guards against absurd headers.
    png_set_user_limits(png, 20000, 20000);
    png_read_info(png, info);
    const uint32_t w = png_get_image_width(png, info);
    const uint32_t h = png_get_image_height(png, info);
    const int depth = png_get_bit_depth(png, info);
    const int colour = png_get_color_type(png, info);
    if (colour != PNG_COLOR_TYPE_GRAY || depth != 16) {
        refusal = "is not a 16-bit grayscale PNG (it is " + std::to_string(depth) + "-bit " +
                  ColourName(colour) + ")";
    } else {
        if (IsLittleEndianHost()) {
            png_set_swap(png);
        }
        png_read_update_info(png, info);
        image.resize(static_cast<size_t>(w) * h);
        for (uint32_t y = 0; y < h; ++y) {
            png_read_row(png, reinterpret_cast<png_bytep>(image.data() + static_cast<size_t>(y) * w),
                         nullptr);
        }
        png_read_end(png, nullptr);
    }
    png_destroy_read_struct(&png, &info, nullptr);
    std::fclose(file);
    if (!refusal.empty()) {
        error = refusal;
        return false;
    }
    width = w;
    height = h;
    pixels.swap(image);
    return true;
}

bool WritePng16(const std::string& path, uint32_t width, uint32_t height,
                const std::vector<uint16_t>& pixels, std::string& error) {
    return WriteGray(path, width, height, pixels, error);
}

bool WritePng8(const std::string& path, uint32_t width, uint32_t height,
               const std::vector<uint8_t>& pixels, std::string& error) {
    return WriteGray(path, width, height, pixels, error);
}

}  // namespace vcli
