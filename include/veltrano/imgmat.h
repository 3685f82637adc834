// imgmat: the image matrix that carries acquired and calibration images.
//
// An owned, row-major buffer of 32-bit float samples with three extents (width, height, depth;
// depth 1 for an ordinary image), plus a reader and a writer for headerless raw image files.
//
// Bounds: a matrix holds at most 2^28 samples (1 GiB), the processing library's limit for one
// image, far beyond any sensor. A larger request is refused before anything is allocated: the
// matrix stays (or becomes) empty, and readRawFile returns 0.
#pragma once

#include "veltrano/export.h"

class VELTRANO_API imgmat {
public:
    // Owned samples, width x height x depth of them; null when the matrix is empty.
    float* data;
    unsigned long long width;
    unsigned long long height;
    unsigned long long depth;

    // The empty matrix: no samples, 0 x 0 x 1.
    imgmat();
    // Allocates width x height x depth samples, all 0. When that many cannot be had the
    // matrix stays empty.
    imgmat(unsigned long long width, unsigned long long height, unsigned long long depth);
    // Takes the three extents and then reads the raw file as readRawFile does; whether the
    // read succeeded shows only in data (null when the file could not be opened).
    imgmat(const char* path, unsigned long long width, unsigned long long height,
           unsigned long long depth, unsigned long long headerBytes, int type);
    imgmat(const imgmat& src);
    ~imgmat();

    // Copies the samples and all three extents. A source with width x height of 0 leaves this
    // matrix without samples but still takes the source's extents, depth included.
    imgmat& operator=(const imgmat& src);

    // The value operators change this matrix in place and return it. Deliberately, they cover
    // the first width x height samples only and ignore depth. Nothing happens without data.
    imgmat& operator=(float value);
    imgmat& operator*(float value);
    imgmat& operator+(float value);
    // Adds other's samples; nothing happens when either has no data or width or height differ.
    imgmat& operator+(imgmat& other);
    // Multiplies by other's samples, width x height of them: 1 done, -1 other has no data,
    // -2 this has no data, -3 width or height differ.
    int doMul(imgmat& other);

    // Replaces the samples by count fresh ones, all 0, without touching the extents; the
    // caller keeps count at least width x height x depth. A request of more than 2^28 samples
    // fails and leaves the matrix empty.
    void callMemory(unsigned long long count);
    // Frees the samples and makes the matrix empty; a matrix without data keeps its extents.
    void clearData();
    // width x height x depth.
    unsigned long long getDataSize() const;

    // Reads width x height samples of element type `type` that follow headerBytes bytes of
    // anything at the start of the file, converting each to float. Type codes: 0 int8,
    // 1 uint8, 2 int16, 3 uint16, 4 int32, 5 uint32, 6 int64, 7 uint64, 8 float, 9 double;
    // any other code converts nothing. depth is never changed. Returns 1 once the file opened
    // (a short file reads as zeros past its end), 0 with "fail to open file" on standard
    // output when it cannot be opened, and 0 when the samples cannot be allocated (more than
    // 2^28 of them, or no memory). The file is read in pieces: a large header costs nothing.
    int readRawFile(const char* path, unsigned long long width, unsigned long long height,
                    unsigned long long headerBytes, int type);
    // Writes count floats from samples (not from data) to the file, which is created or
    // truncated; null samples leave an empty file. 1 once the file opened, else 0 with
    // "fail to open file" on standard output.
    int writeRawFile(const char* path, float* samples, unsigned long long count);

private:
    void defaultData();
    // Allocates for the given extents: width x height x depth samples, but never fewer than
    // width x height, which the value operators and readRawFile always cover.
    void allocateFor(unsigned long long width, unsigned long long height, unsigned long long depth);
};
