#include "veltrano/imgmat.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <limits>
#include <vector>

#include "imgproc/scratch_buffers.h"

namespace {

using u64 = unsigned long long;

// Storage sizes are 32-bit quantities: a request whose count x 4 bytes does not fit in 32 bits
// is refused on every platform, as a 32-bit allocator would refuse it, rather than wrapped
// round to a buffer shorter than the count.
constexpr u64 kMaxBytes = 0xFFFFFFFFull;
// Nor does a matrix hold more samples than the processing functions take on (2^28, 1 GiB of
// floats): a wrong size from a file or a driver must not make the library allocate gigabytes.
constexpr u64 kMaxSamples = veltrano::kMaxElements;

bool MultiplyFits(u64 a, u64 b, u64& product) {
    if (a != 0 && b > std::numeric_limits<u64>::max() / a) {
        return false;
    }
    product = a * b;
    return true;
}

// Zero-filled so that no sample is ever undefined: a fresh matrix, the tail of a short raw
// file and the samples of an unknown raw type all read as 0. Null when the request is too
// large or the allocator refuses it.
float* AllocateSamples(u64 count) {
    u64 bytes = 0;
    if (count > kMaxSamples || !MultiplyFits(count, sizeof(float), bytes) || bytes > kMaxBytes ||
        bytes > std::numeric_limits<size_t>::max()) {
        return nullptr;
    }
    // calloc(0, ...) may return null; a matrix of no samples still gets a buffer of its own.
    return static_cast<float*>(
        std::calloc(std::max<size_t>(static_cast<size_t>(count), 1), sizeof(float)));
}

void WriteOpenFailure() { std::cout << "fail to open file" << std::endl; }

// --- Raw file element types -------------------------------------------------------------

// Converts n stored elements, packed in host byte order, to floats. Via is the type the value
// passes through on its way to float: the wide integers go through double, as the file
// format has always been read.
template <typename Stored, typename Via = float>
void ConvertElements(const unsigned char* bytes, size_t n, float* out) {
    for (size_t i = 0; i < n; ++i) {
        Stored value;
        std::memcpy(&value, bytes + i * sizeof(Stored), sizeof(Stored));
        out[i] = static_cast<float>(static_cast<Via>(value));
    }
}

// 32-bit floats are taken bit for bit, NaN payloads included.
void CopyFloats(const unsigned char* bytes, size_t n, float* out) {
    std::memcpy(out, bytes, n * sizeof(float));
}

struct RawType {
    size_t bytes;
    void (*convert)(const unsigned char* bytes, size_t n, float* out);
};

// Indexed by the type code.
const RawType kRawTypes[] = {
    {1, ConvertElements<int8_t>},
    {1, ConvertElements<uint8_t>},
    {2, ConvertElements<int16_t>},
    {2, ConvertElements<uint16_t>},
    {4, ConvertElements<int32_t>},
    {4, ConvertElements<uint32_t, double>},
    {8, ConvertElements<int64_t, double>},
    {8, ConvertElements<uint64_t, double>},
    {4, CopyFloats},
    {8, ConvertElements<double>},
};

const RawType* FindRawType(int code) {
    if (code < 0 || code >= static_cast<int>(sizeof(kRawTypes) / sizeof(kRawTypes[0]))) {
        return nullptr;
    }
    return &kRawTypes[code];
}

// Reads count elements that start headerBytes into the file and converts them into out. The
// file is read in chunks rather than in one buffer of its full size, so a large header or
// image costs no more memory than the samples themselves. Where the file ends early (or has
// a header longer than itself) the remaining samples are set to 0.
void ReadSamples(std::ifstream& file, u64 headerBytes, size_t count, const RawType& type,
                 float* out) {
    constexpr size_t kChunkElements = 16384;
    size_t done = 0;
    const bool seekable =
        headerBytes <= static_cast<u64>(std::numeric_limits<std::streamoff>::max()) &&
        static_cast<bool>(file.seekg(static_cast<std::streamoff>(headerBytes), std::ios::beg));
    if (seekable) {
        std::vector<unsigned char> chunk(kChunkElements * type.bytes);
        while (done < count) {
            const size_t wanted = std::min(kChunkElements, count - done);
            file.read(reinterpret_cast<char*>(chunk.data()),
                      static_cast<std::streamsize>(wanted * type.bytes));
            // A trailing partial element counts as unread.
            const size_t got = static_cast<size_t>(file.gcount()) / type.bytes;
            type.convert(chunk.data(), got, out + done);
            done += got;
            if (got < wanted) {
                break;
            }
        }
    }
    std::fill(out + done, out + count, 0.0f);
}

}  // namespace

// --- Construction -------------------------------------------------------------------------

imgmat::imgmat() { defaultData(); }

imgmat::imgmat(u64 width, u64 height, u64 depth) {
    defaultData();
    allocateFor(width, height, depth);
    if (data != nullptr) {
        this->width = width;
        this->height = height;
        this->depth = depth;
    }
}

imgmat::imgmat(const char* path, u64 width, u64 height, u64 depth, u64 headerBytes, int type) {
    defaultData();
    this->width = width;
    this->height = height;
    this->depth = depth;
    readRawFile(path, width, height, headerBytes, type);
}

imgmat::imgmat(const imgmat& src) {
    // The assignment frees a present buffer, so this one must start out without one.
    defaultData();
    *this = src;
}

imgmat::~imgmat() { clearData(); }

void imgmat::defaultData() {
    data = nullptr;
    width = 0;
    height = 0;
    depth = 1;
}

// --- Storage ------------------------------------------------------------------------------

void imgmat::callMemory(u64 count) {
    std::free(data);
    data = AllocateSamples(count);
    if (data == nullptr) {
        // Out of memory, or more than the 32-bit size can describe: rather than a matrix whose
        // extents promise samples that are not there, the matrix becomes empty.
        defaultData();
    }
}

void imgmat::allocateFor(u64 width, u64 height, u64 depth) {
    u64 count = 0;
    if (!MultiplyFits(width, height, count) ||
        !MultiplyFits(count, std::max<u64>(depth, 1), count)) {
        clearData();
        defaultData();
        return;
    }
    callMemory(count);
}

void imgmat::clearData() {
    if (data != nullptr) {
        std::free(data);
        defaultData();
    }
}

u64 imgmat::getDataSize() const { return width * height * depth; }

// --- Assignment and arithmetic ------------------------------------------------------------

imgmat& imgmat::operator=(const imgmat& src) {
    if (&src == this) {
        return *this;
    }
    if (src.width * src.height == 0) {
        std::free(data);
        data = nullptr;
    } else {
        allocateFor(src.width, src.height, src.depth);
        if (data == nullptr) {
            return *this;  // left empty: the copy did not fit in memory
        }
        if (src.data != nullptr) {
            std::memcpy(data, src.data, static_cast<size_t>(src.getDataSize()) * sizeof(float));
        }
    }
    width = src.width;
    height = src.height;
    depth = src.depth;
    return *this;
}

imgmat& imgmat::operator=(float value) {
    if (data != nullptr) {
        const u64 count = width * height;
        for (u64 i = 0; i < count; ++i) {
            data[i] = value;
        }
    }
    return *this;
}

imgmat& imgmat::operator*(float value) {
    if (data != nullptr) {
        const u64 count = width * height;
        for (u64 i = 0; i < count; ++i) {
            data[i] *= value;
        }
    }
    return *this;
}

imgmat& imgmat::operator+(float value) {
    if (data != nullptr) {
        const u64 count = width * height;
        for (u64 i = 0; i < count; ++i) {
            data[i] += value;
        }
    }
    return *this;
}

imgmat& imgmat::operator+(imgmat& other) {
    if (other.data == nullptr || data == nullptr || width != other.width ||
        height != other.height) {
        return *this;
    }
    const u64 count = width * height;
    for (u64 i = 0; i < count; ++i) {
        data[i] += other.data[i];
    }
    return *this;
}

int imgmat::doMul(imgmat& other) {
    if (other.data == nullptr) {
        return -1;
    }
    if (data == nullptr) {
        return -2;
    }
    if (width != other.width || height != other.height) {
        return -3;
    }
    const u64 count = width * height;
    for (u64 i = 0; i < count; ++i) {
        data[i] *= other.data[i];
    }
    return 1;
}

// --- Raw files ----------------------------------------------------------------------------

int imgmat::readRawFile(const char* path, u64 width, u64 height, u64 headerBytes, int type) {
    std::ifstream file;
    if (path != nullptr) {
        file.open(path, std::ios::binary);
    }
    if (!file.is_open()) {
        WriteOpenFailure();
        return 0;
    }
    // A matrix of the same width and height keeps its buffer (and, for an unknown type code,
    // its samples). depth is never changed, so a new buffer is sized for it too: the matrix
    // then holds getDataSize() samples, of which the file fills the first width x height.
    if (data == nullptr || this->width != width || this->height != height) {
        allocateFor(width, height, depth);
        if (data == nullptr) {
            return 0;
        }
    }
    if (const RawType* rawType = FindRawType(type)) {
        // The allocation succeeded, so the count fits in a size_t.
        ReadSamples(file, headerBytes, static_cast<size_t>(width * height), *rawType, data);
    }
    this->width = width;
    this->height = height;
    return 1;
}

int imgmat::writeRawFile(const char* path, float* samples, u64 count) {
    std::ofstream file;
    if (path != nullptr) {
        file.open(path, std::ios::binary | std::ios::trunc);
    }
    if (!file.is_open()) {
        WriteOpenFailure();
        return 0;
    }
    if (samples != nullptr) {
        // In pieces, since a stream's size type is 32 bits wide on 32-bit systems.
        constexpr u64 kChunkSamples = 1u << 20;
        for (u64 done = 0; done < count && file; done += kChunkSamples) {
            const u64 n = std::min(kChunkSamples, count - done);
            file.write(reinterpret_cast<const char*>(samples + done),
                       static_cast<std::streamsize>(n * sizeof(float)));
        }
    }
    return 1;
}
