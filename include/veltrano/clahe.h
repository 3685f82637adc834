// Contrast-limited adaptive histogram equalisation (CLAHE) of single-channel images.
//
// The image is cut into widthBlockNum x heightBlockNum tiles of width / widthBlockNum by
// height / heightBlockNum pixels (integer division); columns and rows left over at the right and
// bottom belong to no tile's histogram but are mapped like every other pixel. Each tile's
// histogram of histBin bins is clipped at `peak` counts, the clipped excess is spread over the
// bins above the first occupied one, and the cumulative result maps values to 0..1. Every pixel
// then blends the mappings of the up to four nearest tile centres and is scaled to the output
// maximum: 255 (8U), 65535 (16U), or max(max - min, 1) of the source (32F, 64F; float data is
// binned by its raw value, so it should be non-negative). Integer results are rounded by adding
// one half both before and after the clamp to the type's range; existing hosts rely on the
// extra half.
//
// The record leaves every call that gets past the tile check with histBin clamped (to 256 for
// 8U, 65536 otherwise; below 2 it becomes 1) and, once the tables exist, with binScale =
// (histBin - 1) / outMax and outMax set. When the INI path is a non-empty string the record is
// first replaced by claheParam(iniPath), which yields 8, 8, 256 and 600 whatever the file holds.
//
// Cases no setting should reach: a peak of 0 (or below) clips every histogram empty and leaves
// each tile's mapping 0; negative or NaN float values fall into bin 0; a mapping that comes out
// NaN stores 0 in integer images. Source and destination may be the same buffer.
//
// Limits and costs. An image of more than 2^28 pixels, or tile tables of more than 2^28
// entries (widthBlockNum x heightBlockNum x histBin after clamping), is refused with -2 before
// anything is allocated or any pixel read (histBin is still clamped into the record). Below
// that, a call reads the image two or three times and needs 4 bytes per table entry, plus, at
// the vector level, 16 bytes per entry for tables of up to 2^19 entries (for which it keeps a
// second, interleaved copy); the Reference level needs 8 bytes per entry and, in place, a copy
// of the image. The work grows with the table as well as with the image: 8 x 8 tiles of 65536
// bins (4 Mi entries, 16 MiB) cost several times the default 256 bins on a 1300 x 1800 frame,
// and a table at the 2^28 limit takes 1 GiB and seconds.
//
// Results: 1 done; 0 null source; -1 null record, widthBlockNum outside 1..width or
// heightBlockNum outside 1..height (so also any width or height below 1); -2 the tile tables
// could not be allocated, or the image or tables exceed the limits above; -3 the histogram stage
// met a null pointer; -4 the mapping stage met a null pointer (a null destination is found there,
// after the record has been updated).
#pragma once

#include <cstdint>

#include "veltrano/export.h"
#include "veltrano/params.h"

VELTRANO_API int clahe_8U(uint8_t* src, uint8_t* dst, int32_t width, int32_t height,
                          claheParam* param, const char* iniPath);
VELTRANO_API int clahe_16U(uint16_t* src, uint16_t* dst, int32_t width, int32_t height,
                           claheParam* param, const char* iniPath);
VELTRANO_API int clahe_32F(float* src, float* dst, int32_t width, int32_t height, claheParam* param,
                           const char* iniPath);
VELTRANO_API int clahe_64F(double* src, double* dst, int32_t width, int32_t height,
                           claheParam* param, const char* iniPath);

// The same with the four settings given directly: a default claheParam receives them and goes
// to the member above. A non-empty INI path still replaces them with 8, 8, 256 and 600.
VELTRANO_API int clahe_8U_Manual(uint8_t* src, uint8_t* dst, int32_t width, int32_t height,
                                 int32_t widthBlockNum, int32_t heightBlockNum, int32_t histBin,
                                 int32_t peak, const char* iniPath);
VELTRANO_API int clahe_16U_Manual(uint16_t* src, uint16_t* dst, int32_t width, int32_t height,
                                  int32_t widthBlockNum, int32_t heightBlockNum, int32_t histBin,
                                  int32_t peak, const char* iniPath);
VELTRANO_API int clahe_32F_Manual(float* src, float* dst, int32_t width, int32_t height,
                                  int32_t widthBlockNum, int32_t heightBlockNum, int32_t histBin,
                                  int32_t peak, const char* iniPath);
VELTRANO_API int clahe_64F_Manual(double* src, double* dst, int32_t width, int32_t height,
                                  int32_t widthBlockNum, int32_t heightBlockNum, int32_t histBin,
                                  int32_t peak, const char* iniPath);
