// The C interface's processing functions and post-processing chain: each one forwards to the
// C++ function of the same name, converting only bool and the parameter records.
#include <string>

#include "capi/capi_records.h"
#include "veltrano.h"

using namespace veltrano::capi;

// A C host cannot include the C++ header, so the C header repeats the codes; they must agree.
static_assert(VT_PIX_8U == veltrano::kPix8U && VT_PIX_16U == veltrano::kPix16U &&
                  VT_PIX_16S == veltrano::kPix16S && VT_PIX_32F == veltrano::kPix32F &&
                  VT_PIX_32S == veltrano::kPix32S && VT_PIX_64F == veltrano::kPix64F,
              "the C interface's pixel-type codes differ from the library's");

extern "C" {

// Normalisation and point operations.

VT_API int VT_CALL vt_normalize_8U(const uint8_t* src, uint8_t* dst, uint32_t width,
                                   uint32_t height, uint8_t low, uint8_t high) {
    return Guard("normalize_8U", [&] { return normalize_8U(src, dst, width, height, low, high); });
}

VT_API int VT_CALL vt_normalize_16U(const uint16_t* src, uint16_t* dst, uint32_t width,
                                    uint32_t height, uint16_t low, uint16_t high) {
    return Guard("normalize_16U",
                 [&] { return normalize_16U(src, dst, width, height, low, high); });
}

VT_API int VT_CALL vt_normalize_32F(const float* src, float* dst, uint32_t width, uint32_t height,
                                    float low, float high) {
    return Guard("normalize_32F",
                 [&] { return normalize_32F(src, dst, width, height, low, high); });
}

VT_API int VT_CALL vt_normalize_64F(const double* src, double* dst, uint32_t width, uint32_t height,
                                    double low, double high) {
    return Guard("normalize_64F",
                 [&] { return normalize_64F(src, dst, width, height, low, high); });
}

VT_API int VT_CALL vt_Normalize_TruncMinMax(uint8_t* src, uint8_t* dst, uint32_t width,
                                            uint32_t height, int32_t unused, int32_t pixelType) {
    return Guard("Normalize_TruncMinMax",
                 [&] { return Normalize_TruncMinMax(src, dst, width, height, unused, pixelType); });
}

VT_API int VT_CALL vt_Inverse(uint16_t* src, uint16_t* dst, int32_t width, int32_t height,
                              int32_t pixelType) {
    return Guard("Inverse", [&] { return Inverse(src, dst, width, height, pixelType); });
}

VT_API int VT_CALL vt_BrigntAndContrast(uint16_t* src, uint16_t* dst, int32_t width, int32_t height,
                                        int32_t pixelType, float brightness, float contrast) {
    return Guard("BrigntAndContrast", [&] {
        return BrigntAndContrast(src, dst, width, height, pixelType, brightness, contrast);
    });
}

VT_API int VT_CALL vt_GammaCorrect(void* src, void* dst, uint32_t width, uint32_t height,
                                   float gamma, int32_t pixelType) {
    return Guard("GammaCorrect",
                 [&] { return GammaCorrect(src, dst, width, height, gamma, pixelType); });
}

VT_API int VT_CALL vt_Image_Log(float* src, float* dst, uint32_t width, uint32_t height,
                                int32_t negate) {
    return Guard("Image_Log", [&] { return Image_Log(src, dst, width, height, negate); });
}

VT_API int VT_CALL vt_Image_Square_NoTrunc(void* src, double* dst, int32_t width, int32_t height,
                                           int32_t pixelType) {
    return Guard("Image_Square_NoTrunc",
                 [&] { return Image_Square_NoTrunc(src, dst, width, height, pixelType); });
}

VT_API int VT_CALL vt_ThresholdBinary(uint16_t* src, uint16_t* dst, int32_t pixelType,
                                      uint32_t width, uint32_t height, double threshold,
                                      uint32_t mode) {
    return Guard("ThresholdBinary", [&] {
        return ThresholdBinary(src, dst, pixelType, width, height, threshold, mode);
    });
}

VT_API int VT_CALL vt_ImgGainCorrect(float* src, float* dst, uint32_t width, uint32_t height) {
    return Guard("ImgGainCorrect", [&] { return ImgGainCorrect(src, dst, width, height); });
}

VT_API int VT_CALL vt_EquHist(uint16_t* src, uint16_t* dst, int32_t pixelCount, int32_t pixelType) {
    return Guard("EquHist", [&] { return EquHist(src, dst, pixelCount, pixelType); });
}

// CLAHE. The functions update their record; WithRecord copies it back.

VT_API int VT_CALL vt_clahe_8U(uint8_t* src, uint8_t* dst, int32_t width, int32_t height,
                               vt_claheParam* param, const char* iniPath) {
    return Guard(
        "clahe_8U",
        [&] {
            return WithRecord<claheParam>(param, [&](claheParam* r) {
                return clahe_8U(src, dst, width, height, r, iniPath);
            });
        },
        NotOneFails);
}

VT_API int VT_CALL vt_clahe_16U(uint16_t* src, uint16_t* dst, int32_t width, int32_t height,
                                vt_claheParam* param, const char* iniPath) {
    return Guard(
        "clahe_16U",
        [&] {
            return WithRecord<claheParam>(param, [&](claheParam* r) {
                return clahe_16U(src, dst, width, height, r, iniPath);
            });
        },
        NotOneFails);
}

VT_API int VT_CALL vt_clahe_32F(float* src, float* dst, int32_t width, int32_t height,
                                vt_claheParam* param, const char* iniPath) {
    return Guard(
        "clahe_32F",
        [&] {
            return WithRecord<claheParam>(param, [&](claheParam* r) {
                return clahe_32F(src, dst, width, height, r, iniPath);
            });
        },
        NotOneFails);
}

VT_API int VT_CALL vt_clahe_64F(double* src, double* dst, int32_t width, int32_t height,
                                vt_claheParam* param, const char* iniPath) {
    return Guard(
        "clahe_64F",
        [&] {
            return WithRecord<claheParam>(param, [&](claheParam* r) {
                return clahe_64F(src, dst, width, height, r, iniPath);
            });
        },
        NotOneFails);
}

VT_API int VT_CALL vt_clahe_8U_Manual(uint8_t* src, uint8_t* dst, int32_t width, int32_t height,
                                      int32_t widthBlockNum, int32_t heightBlockNum,
                                      int32_t histBin, int32_t peak, const char* iniPath) {
    return Guard(
        "clahe_8U_Manual",
        [&] {
            return clahe_8U_Manual(src, dst, width, height, widthBlockNum, heightBlockNum, histBin,
                                   peak, iniPath);
        },
        NotOneFails);
}

VT_API int VT_CALL vt_clahe_16U_Manual(uint16_t* src, uint16_t* dst, int32_t width, int32_t height,
                                       int32_t widthBlockNum, int32_t heightBlockNum,
                                       int32_t histBin, int32_t peak, const char* iniPath) {
    return Guard(
        "clahe_16U_Manual",
        [&] {
            return clahe_16U_Manual(src, dst, width, height, widthBlockNum, heightBlockNum, histBin,
                                    peak, iniPath);
        },
        NotOneFails);
}

VT_API int VT_CALL vt_clahe_32F_Manual(float* src, float* dst, int32_t width, int32_t height,
                                       int32_t widthBlockNum, int32_t heightBlockNum,
                                       int32_t histBin, int32_t peak, const char* iniPath) {
    return Guard(
        "clahe_32F_Manual",
        [&] {
            return clahe_32F_Manual(src, dst, width, height, widthBlockNum, heightBlockNum, histBin,
                                    peak, iniPath);
        },
        NotOneFails);
}

VT_API int VT_CALL vt_clahe_64F_Manual(double* src, double* dst, int32_t width, int32_t height,
                                       int32_t widthBlockNum, int32_t heightBlockNum,
                                       int32_t histBin, int32_t peak, const char* iniPath) {
    return Guard(
        "clahe_64F_Manual",
        [&] {
            return clahe_64F_Manual(src, dst, width, height, widthBlockNum, heightBlockNum, histBin,
                                    peak, iniPath);
        },
        NotOneFails);
}

// Contrast enhancement and window levelling.

VT_API int VT_CALL vt_AdaptiveContrastEnhancement(uint16_t* src, uint16_t* dst, uint32_t width,
                                                  uint32_t height, int32_t pixelType,
                                                  int32_t radius, float alpha, float maxGain) {
    return Guard("AdaptiveContrastEnhancement", [&] {
        return AdaptiveContrastEnhancement(src, dst, width, height, pixelType, radius, alpha,
                                           maxGain);
    });
}

VT_API int VT_CALL vt_AdaptiveContrastEnhancementQuick(uint16_t* src, uint16_t* dst, uint32_t width,
                                                       uint32_t height, int32_t pixelType,
                                                       int32_t radius, float alpha, float maxGain) {
    return Guard("AdaptiveContrastEnhancementQuick", [&] {
        return AdaptiveContrastEnhancementQuick(src, dst, width, height, pixelType, radius, alpha,
                                                maxGain);
    });
}

VT_API int VT_CALL vt_Ace_Gamma(uint16_t* src, void* dst, int32_t width, uint32_t height,
                                int32_t pixelType, vt_struAceGammaParam* param,
                                const char* iniPath) {
    return Guard("Ace_Gamma", [&] {
        return WithRecord<struAceGammaParam>(param, [&](struAceGammaParam* r) {
            return Ace_Gamma(src, dst, width, height, pixelType, r, iniPath);
        });
    });
}

VT_API int VT_CALL vt_WLN(uint16_t* src, uint16_t* dst, uint32_t width, uint32_t height,
                          vt_struWLNParam* param) {
    return Guard("WLN", [&] {
        return WithRecord<struWLNParam>(
            param, [&](struWLNParam* r) { return WLN(src, dst, width, height, r); });
    });
}

// Linear and median filters.

VT_API int VT_CALL vt_filter2D_16U(uint16_t* src, uint16_t* dst, int width, int height,
                                   float* kernel, int kh, int kw) {
    return Guard("filter2D_16U",
                 [&] { return filter2D_16U(src, dst, width, height, kernel, kh, kw); });
}

VT_API int VT_CALL vt_filter2D_8U(uint8_t* src, uint8_t* dst, int width, int height, float* kernel,
                                  int kw, int kh) {
    return Guard("filter2D_8U",
                 [&] { return filter2D_8U(src, dst, width, height, kernel, kw, kh); });
}

VT_API int VT_CALL vt_filter2D_32F(float* src, float* dst, int width, int height, float* kernel,
                                   int kw, int kh) {
    return Guard("filter2D_32F",
                 [&] { return filter2D_32F(src, dst, width, height, kernel, kw, kh); });
}

VT_API int VT_CALL vt_getGaussker_32F(float* kernel, int kw, int kh, double sigmaX, double sigmaY) {
    return Guard("getGaussker_32F",
                 [&] { return getGaussker_32F(kernel, kw, kh, sigmaX, sigmaY); });
}

VT_API int VT_CALL vt_getGaussker_64F(double* kernel, int kw, int kh, double sigmaX,
                                      double sigmaY) {
    return Guard("getGaussker_64F",
                 [&] { return getGaussker_64F(kernel, kw, kh, sigmaX, sigmaY); });
}

VT_API int VT_CALL vt_gaussFilter_8U(uint8_t* src, uint8_t* dst, int width, int height, int ksize1,
                                     int ksize2, double sigmaX, double sigmaY) {
    return Guard("gaussFilter_8U", [&] {
        return gaussFilter_8U(src, dst, width, height, ksize1, ksize2, sigmaX, sigmaY);
    });
}

VT_API int VT_CALL vt_gaussFilter_16U(uint16_t* src, uint16_t* dst, int width, int height,
                                      int ksize1, int ksize2, double sigmaX, double sigmaY) {
    return Guard("gaussFilter_16U", [&] {
        return gaussFilter_16U(src, dst, width, height, ksize1, ksize2, sigmaX, sigmaY);
    });
}

VT_API int VT_CALL vt_gaussFilter_32F(float* src, float* dst, int width, int height, int ksize1,
                                      int ksize2, double sigmaX, double sigmaY) {
    return Guard("gaussFilter_32F", [&] {
        return gaussFilter_32F(src, dst, width, height, ksize1, ksize2, sigmaX, sigmaY);
    });
}

VT_API int VT_CALL vt_Box_Filter(void* src, void* dst, int width, int height, int pixelType,
                                 int radius) {
    return Guard("Box_Filter",
                 [&] { return Box_Filter(src, dst, width, height, pixelType, radius); });
}

VT_API int VT_CALL vt_Median_Blur(void* src, void* dst, int width, int height, int radius,
                                  int pixelType) {
    return Guard("Median_Blur",
                 [&] { return Median_Blur(src, dst, width, height, radius, pixelType); });
}

// Bilateral filter and non-local means.

VT_API int VT_CALL vt_bilateralFilter_32F(float* src, float* dst, int width, int height,
                                          vt_struBilatralParam* param) {
    return Guard("bilateralFilter_32F", [&] {
        return WithRecord<struBilatralParam>(param, [&](struBilatralParam* r) {
            return bilateralFilter_32F(src, dst, width, height, r);
        });
    });
}

VT_API int VT_CALL vt_bilateralFilter_16U(uint16_t* src, uint16_t* dst, int width, int height,
                                          vt_struBilatralParam* param) {
    return Guard("bilateralFilter_16U", [&] {
        return WithRecord<struBilatralParam>(param, [&](struBilatralParam* r) {
            return bilateralFilter_16U(src, dst, width, height, r);
        });
    });
}

VT_API int VT_CALL vt_FastNLM(uint8_t* src, uint8_t* dst, int width, int height, float h, int p,
                              int s) {
    return Guard("FastNLM", [&] { return FastNLM(src, dst, width, height, h, p, s); });
}

// Defective pixels and edges.

VT_API int VT_CALL vt_ImgFix(float* src, float* dst, float* defectMap, int width, int height,
                             int radius, int pixelType, int maxPasses) {
    return Guard("ImgFix", [&] {
        return ImgFix(src, dst, defectMap, width, height, radius, pixelType, maxPasses);
    });
}

VT_API int VT_CALL vt_FixBadPixel(float* src, float* dst, float* defectMap, int width, int height) {
    return Guard("FixBadPixel", [&] { return FixBadPixel(src, dst, defectMap, width, height); });
}

VT_API int VT_CALL vt_edgeClip_8U(uint8_t* src, uint8_t* dst, int rows, int cols,
                                  vt_clipParam param) {
    return Guard("edgeClip_8U", [&] {
        return WithRecord<clipParam>(
            &param, [&](clipParam* r) { return edgeClip_8U(src, dst, rows, cols, *r); });
    });
}

VT_API int VT_CALL vt_edgeClip_16U(uint16_t* src, uint16_t* dst, int rows, int cols,
                                   vt_clipParam param) {
    return Guard("edgeClip_16U", [&] {
        return WithRecord<clipParam>(
            &param, [&](clipParam* r) { return edgeClip_16U(src, dst, rows, cols, *r); });
    });
}

VT_API int VT_CALL vt_edgeClip_32F(float* src, float* dst, int rows, int cols, vt_clipParam param) {
    return Guard("edgeClip_32F", [&] {
        return WithRecord<clipParam>(
            &param, [&](clipParam* r) { return edgeClip_32F(src, dst, rows, cols, *r); });
    });
}

// Geometry, masks and watermark.

VT_API int VT_CALL vt_CopyRoiTo(uint8_t* src, uint8_t* dst, uint8_t* block, int pixelType,
                                int width, int height, int blockWidth, int blockHeight, int x,
                                int y) {
    return Guard("CopyRoiTo", [&] {
        return CopyRoiTo(src, dst, block, pixelType, width, height, blockWidth, blockHeight, x, y);
    });
}

VT_API int VT_CALL vt_AddWaterMask(uint8_t* src, uint8_t* dst, uint8_t* mark, int width, int height,
                                   int markWidth, int markHeight, int x, int y, int pixelType,
                                   float alpha) {
    return Guard("AddWaterMask", [&] {
        return AddWaterMask(src, dst, mark, width, height, markWidth, markHeight, x, y, pixelType,
                            alpha);
    });
}

VT_API int VT_CALL vt_Copy_LeftDown_To_RightUp(uint8_t* src, uint8_t* dst, int width, int height,
                                               int pixelType, int x, int y, int side) {
    return Guard("Copy_LeftDown_To_RightUp", [&] {
        return Copy_LeftDown_To_RightUp(src, dst, width, height, pixelType, x, y, side);
    });
}

VT_API int VT_CALL vt_Copy_RightDown_To_LeftUp(uint8_t* src, uint8_t* dst, int width, int height,
                                               int pixelType, int x, int y, int side) {
    return Guard("Copy_RightDown_To_LeftUp", [&] {
        return Copy_RightDown_To_LeftUp(src, dst, width, height, pixelType, x, y, side);
    });
}

VT_API int VT_CALL vt_GetLine2D(float x1, float y1, float x2, float y2, float* a, float* b,
                                float* c) {
    return Guard("GetLine2D", [&] {
        GetLine2D(x1, y1, x2, y2, a, b, c);
        return 0;
    });
}

VT_API int VT_CALL vt_MakeMaskByLine(uint16_t* src, uint16_t* dst, int width, int height, float x1,
                                     float y1, float x2, float y2, uint8_t side, uint16_t fill) {
    return Guard("MakeMaskByLine", [&] {
        return MakeMaskByLine(src, dst, width, height, x1, y1, x2, y2, side, fill);
    });
}

// Unsharp masking and convolution.

VT_API int VT_CALL vt_ImageConv(const float* src, float* dst, const float* kernel, int32_t width,
                                int32_t height, int32_t kw, int32_t kh, const uint8_t* mask) {
    return Guard("ImageConv",
                 [&] { return ImageConv(src, dst, kernel, width, height, kw, kh, mask); });
}

VT_API int VT_CALL vt_USM_BOX(uint16_t* src, uint16_t* dst, int32_t width, int32_t height,
                              int32_t radius, float amount, int normalise) {
    return Guard("USM_BOX",
                 [&] { return USM_BOX(src, dst, width, height, radius, amount, normalise != 0); });
}

VT_API int VT_CALL vt_USM_EX(uint16_t* src, void* dst, uint32_t width, uint32_t height,
                             int32_t pixelType, vt_struUSMParam* param, const char* iniPath) {
    return Guard("USM_EX", [&] {
        return WithRecord<struUSMParam>(param, [&](struUSMParam* r) {
            return USM_EX(src, dst, width, height, pixelType, r, iniPath);
        });
    });
}

VT_API int VT_CALL vt_USM_Gaussian(uint16_t* src, uint16_t* dst, int32_t width, int32_t height,
                                   int32_t radius, float amount, int32_t threshold, float sigma,
                                   uint8_t* mask) {
    return Guard("USM_Gaussian", [&] {
        return USM_Gaussian(src, dst, width, height, radius, amount, threshold, sigma, mask);
    });
}

// The post-processing chain.

VT_API int VT_CALL vt_Img_Post_Process_Chain(const uint16_t* src, uint16_t* dst, int width,
                                             int height, const char* chainFile, char* chainText,
                                             size_t chainTextSize, size_t* chainTextLength) {
    std::string text;
    const int result = Guard(
        "Img_Post_Process_Chain",
        [&] { return Img_Post_Process_Chain(src, dst, width, height, chainFile, text); },
        NonZeroFails);
    // The two failures that the chain reports on standard output get the same words here.
    if (result == -1 || result == -2) {
        SetLastError("Img_Post_Process_Chain returned %d: %s", result,
                     result == -1 ? "NO Post Process Chain File" : "Do Not Find Param");
    }
    CopyText(text, chainText, chainTextSize);
    if (chainTextLength != nullptr) {
        *chainTextLength = text.size();
    }
    return result;
}

}  // extern "C"
