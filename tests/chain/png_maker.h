// A small PNG writer for tests: any colour type, bit depth and size, Adam7-interlaced or not,
// with the image data stored uncompressed (deflate's stored blocks), so that the bytes a test
// hands to a reader are fully under its control. Nothing here decodes.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace png_maker {

struct PngPlan {
    uint32_t width = 1;
    uint32_t height = 1;
    int bitDepth = 16;
    int colourType = 0;  // 0 gray, 2 RGB, 3 palette, 4 gray + alpha, 6 RGBA
    bool interlaced = false;
    // Row-major samples, channels() per pixel (a palette index for colour type 3).
    std::vector<uint16_t> samples;

    int channels() const {
        switch (colourType) {
        case 2:
            return 3;
        case 4:
            return 2;
        case 6:
            return 4;
        default:
            return 1;
        }
    }
};

inline uint32_t Crc32(const std::string& bytes, size_t from = 0) {
    uint32_t crc = 0xFFFFFFFFu;
    for (size_t i = from; i < bytes.size(); ++i) {
        crc ^= static_cast<uint8_t>(bytes[i]);
        for (int k = 0; k < 8; ++k) crc = (crc >> 1) ^ (0xEDB88320u & (0u - (crc & 1u)));
    }
    return ~crc;
}

inline void Put32(std::string& out, uint32_t v) {
    for (int shift = 24; shift >= 0; shift -= 8) out.push_back(static_cast<char>(v >> shift));
}

inline void Chunk(std::string& png, const char* type, const std::string& data) {
    Put32(png, static_cast<uint32_t>(data.size()));
    std::string body = std::string(type, 4) + data;
    png += body;
    Put32(png, Crc32(body));
}

// A zlib stream of stored blocks.
inline std::string Stored(const std::string& raw) {
    std::string z = "\x78\x01";
    size_t at = 0;
    do {
        const size_t n = std::min<size_t>(65535, raw.size() - at);
        const bool last = at + n == raw.size();
        z.push_back(last ? 1 : 0);
        z.push_back(static_cast<char>(n & 0xFF));
        z.push_back(static_cast<char>(n >> 8));
        z.push_back(static_cast<char>(~n & 0xFF));
        z.push_back(static_cast<char>((~n >> 8) & 0xFF));
        z.append(raw, at, n);
        at += n;
    } while (at < raw.size());
    uint32_t a = 1, b = 0;
    for (unsigned char c : raw) {
        a = (a + c) % 65521;
        b = (b + a) % 65521;
    }
    Put32(z, (b << 16) | a);
    return z;
}

// The filtered (filter type 0) scan lines of the pixels at x0 + k * dx, y0 + k * dy.
inline std::string ScanLines(const PngPlan& s, uint32_t x0, uint32_t y0, uint32_t dx, uint32_t dy) {
    std::string out;
    const int c = s.channels();
    for (uint32_t y = y0; y < s.height; y += dy) {
        if (x0 >= s.width) break;
        out.push_back('\0');
        uint32_t bits = 0, acc = 0;
        for (uint32_t x = x0; x < s.width; x += dx) {
            for (int ch = 0; ch < c; ++ch) {
                const uint16_t v = s.samples[(static_cast<size_t>(y) * s.width + x) * c + ch];
                if (s.bitDepth == 16) {
                    out.push_back(static_cast<char>(v >> 8));
                    out.push_back(static_cast<char>(v & 0xFF));
                } else if (s.bitDepth == 8) {
                    out.push_back(static_cast<char>(v));
                } else {
                    acc = (acc << s.bitDepth) | (v & ((1u << s.bitDepth) - 1));
                    bits += s.bitDepth;
                    if (bits == 8) {
                        out.push_back(static_cast<char>(acc));
                        acc = bits = 0;
                    }
                }
            }
        }
        if (bits > 0) out.push_back(static_cast<char>(acc << (8 - bits)));
    }
    return out;
}

// The whole file. `declaredWidth` / `declaredHeight`, when not 0, replace the size in the header
// only (the data still follows the real size), for files that lie about their size.
inline std::string Make(const PngPlan& s, uint32_t declaredWidth = 0, uint32_t declaredHeight = 0) {
    std::string png = "\x89PNG\r\n\x1a\n";
    std::string header;
    Put32(header, declaredWidth ? declaredWidth : s.width);
    Put32(header, declaredHeight ? declaredHeight : s.height);
    header.push_back(static_cast<char>(s.bitDepth));
    header.push_back(static_cast<char>(s.colourType));
    header += std::string("\0\0", 2);
    header.push_back(s.interlaced ? 1 : 0);
    Chunk(png, "IHDR", header);
    if (s.colourType == 3) {
        std::string palette;
        for (int i = 0; i < (1 << s.bitDepth); ++i) palette += std::string(3, static_cast<char>(i));
        Chunk(png, "PLTE", palette);
    }
    std::string raw;
    if (!s.interlaced) {
        raw = ScanLines(s, 0, 0, 1, 1);
    } else {
        const uint32_t passes[7][4] = {{0, 0, 8, 8}, {4, 0, 8, 8}, {0, 4, 4, 8}, {2, 0, 4, 4},
                                       {0, 2, 2, 4}, {1, 0, 2, 2}, {0, 1, 1, 2}};
        for (const auto& p : passes) raw += ScanLines(s, p[0], p[1], p[2], p[3]);
    }
    Chunk(png, "IDAT", Stored(raw));
    Chunk(png, "IEND", "");
    return png;
}

}  // namespace png_maker
