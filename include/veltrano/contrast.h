// Local-statistics contrast enhancement and window levelling.
//
// The enhancement functions take local means over a (2r+1) x (2r+1) window (r = radius, at least
// 1; borders mirror about the edge pixel, and windows wider than the image keep repeating its
// mirrored pixels) and push every pixel away from its local mean. Pixel-type codes: 3 unsigned
// 8-bit, 4 unsigned 16-bit, 5 signed 16-bit, 6 float. A code a function does not serve writes
// nothing and still returns 1. Sources and destinations may be the same buffer. Integer results
// that come out NaN store 0.
#pragma once

#include <cstdint>

#include "veltrano/export.h"
#include "veltrano/params.h"

// Exact form, in double precision: gain = min(alpha * global mean / local standard deviation,
// maxGain); result (x - m) * gain + m, or the local mean m where the deviation is 0. Clamped to
// the type's range and truncated. Codes 3, 4, 5.
// Cost: the window sums run as 64-bit integer running sums (identical to the described double
// sums, which add whole numbers exactly), so the time does not grow with the radius; about two
// frames of 64-bit sums are allocated. For radii whose sums of squares could pass 2^52 (beyond
// about 700 for bright 16-bit images) the double sums are run as described, with several frames
// of doubles. A window wider than the image adds (2r + 1) rows per column once, at the start.
// Results: 1 done (also for an empty image, or one wider or taller than 2^31 - 1); -1 null
// source; -2 null destination; -4 radius outside -1024..1024, or more than 2^28 pixels (refused
// before anything is allocated).
VELTRANO_API int AdaptiveContrastEnhancement(uint16_t* src, uint16_t* dst, uint32_t width,
                                             uint32_t height, int32_t pixelType, int32_t radius,
                                             float alpha, float maxGain);

// Quick form, in single precision, with its own gain law: values are first scaled by
// 1 / (2 radius + 1)^2, gain = alpha * min(global standard deviation / local standard deviation,
// maxGain), and results are scaled back by (2 radius + 1)^2. Codes 3, 4, 5 (clamped, truncated)
// and 6 (stored as computed). The float window sums keep their running order, so their cost does
// not grow with the radius either; about six frames of floats are allocated. Results as for
// AdaptiveContrastEnhancement.
VELTRANO_API int AdaptiveContrastEnhancementQuick(uint16_t* src, uint16_t* dst, uint32_t width,
                                                  uint32_t height, int32_t pixelType,
                                                  int32_t radius, float alpha, float maxGain);

// Enhancement, gamma and optional equalisation with the settings of a struAceGammaParam:
// param5 non-zero picks the exact enhancement (else the quick one) with radius param1, alpha
// param2 and maxGain param3; a param4 other than 1.0 then applies GammaCorrect with that
// exponent; a param6 of 1 with code 3 or 4 finally replaces everything with EquHist of the
// untouched source, the order hosts have always had. When the INI path is a non-empty string the
// record is first replaced by struAceGammaParam(iniPath, record's section index), which reads the
// section "Post_Process_Param_<index>". A code none of the three steps serves (anything but 3, 4,
// 5 and 6) writes nothing and allocates nothing: the image or destination stays as it was. In
// place, a copy of the image (width * height elements of the code's size) is the work buffer.
// Results: 1 done (the called functions' results are not passed on); -1 null source; -2 null
// destination; -4 null record, param1 outside -1024..1024, more than 2^28 pixels, or an in-place
// work buffer that cannot be allocated.
VELTRANO_API int Ace_Gamma(uint16_t* src, void* dst, int32_t width, uint32_t height,
                           int32_t pixelType, struAceGammaParam* param, const char* iniPath);

// Window levelling of 16-bit images: clip to the window [wl, wr], then stretch the clipped
// image's own minimum..maximum to [specifymin, specifymax] with normalize_16U (a constant
// clipped image, or one already spanning that range exactly, stays as clipped). Each setting is
// taken as its low 16 bits; bounds given the wrong way round are exchanged.
// Results: 1 done; -1 null source; -2 null destination; -4 null record.
VELTRANO_API int WLN(uint16_t* src, uint16_t* dst, uint32_t width, uint32_t height,
                     struWLNParam* param);
