// The post-processing chain: a text file names processing steps and their numbers, and
// Img_Post_Process_Chain applies them in order to a 16-bit image.
//
// Chain file: blocks of lines, each closed by a line that begins with "end". The first line of
// a block is the step name in brackets ([CLAHE]); every further line is one parameter, written
// as any text, "=", the value, ";" (peak=200;). Only the value counts, so parameters are
// positional. Steps: ACE, CLAHE, WLN, USM, BC, Smooth_Med, Smooth_Box, FastNLM, Inverse
// (chains/README.md lists their parameter lines).
//
// Results:
//    0  the chain ran (also when it stopped at an unknown step name; step results are not
//       examined, and a block of the wrong length is skipped);
//   -1  the chain file cannot be opened ("NO Post Process Chain File" on standard output);
//   -2  the file holds no complete block ("Do Not Find Param" on standard output);
//   -3  src or dst is null, width or height is negative, or the image has more than 2^28
//       pixels, the processing functions' limit (nothing is printed); an empty image (a zero
//       size) runs the chain, whose steps all refuse it, and gives 0.
// dst is untouched in the failure cases. chainText receives every line of the file, "end"
// lines included, concatenated without separators.
//
// Bounds: the chain file is read up to 16 MiB, a chain is a few lines; anything beyond is ignored
// as if the file ended there (a device or a FIFO that never ends cannot fill the memory). The
// time a step takes is that of its processing function with the block's numbers; see their
// headers for the costs that grow with a parameter.
//
// A malformed number in a block is not caught: std::invalid_argument or std::out_of_range from
// the standard string-to-number conversions leaves the call, and dst then holds the result of
// the steps before it.
#pragma once

#include <cstdint>
#include <string>

#include "veltrano/export.h"

VELTRANO_API int Img_Post_Process_Chain(const uint16_t* src, uint16_t* dst, int width, int height,
                                        const char* chainFile, std::string& chainText);
