/* Veltrano's C interface: the whole library through plain C functions and structures, for hosts
 * that cannot link C++ (MSVC, C#, Delphi, Python's ctypes and every other language with a C
 * foreign-function interface). It is a second door into the same library as veltrano.h: every
 * function converts its arguments and calls the C++ function of the same name, so results and
 * quirks are those of the C++ interface, which its comments describe.
 *
 * Language: C99 (also compiles as C++). Nothing of C++ crosses this interface: no classes, no
 * exceptions, no std::string. Buffers belong to the caller unless a function says otherwise.
 *
 * Names: vt_ followed by the C++ name (vt_Box_Filter is Box_Filter, vt_CVeltrano_AcqImageEx is
 * CVeltrano::AcqImageEx, vt_claheParam is the record claheParam); what exists only here has a
 * lower-case name after vt_ (vt_last_error, vt_imgmat_free, vt_CVeltrano_new).
 *
 * Calling convention: VT_CALL, which is __stdcall on 32-bit Windows (the convention of the
 * Windows API, the default of C#'s DllImport and of VB/VBA declarations, Delphi's stdcall) and
 * the platform's only C convention everywhere else. The 32-bit DLL exports the functions under
 * their plain names, without the @N suffix of stdcall (vt_Box_Filter, not _vt_Box_Filter@24), so
 * GetProcAddress and foreign-function declarations use the names as written here; the import
 * library that comes with the DLL resolves the decorated references that a C compiler makes.
 *
 * Results: every function returns the C++ function's own result unchanged (processing functions
 * 1 for success and their negative codes, detector methods 0 and the driver's or their own codes,
 * INI functions 1, 0 or -1). The C layer adds the VT_ERR_ codes below, all -1000 or lower so they
 * never meet a code of the library. Functions that are void in C++ return 0 here (or a VT_ERR_
 * code). No C++ exception ever leaves a function of this interface.
 *
 * Errors: vt_last_error() gives a one-line text about the last call of this interface made on
 * the calling thread: empty after a call that succeeded, otherwise what failed (the function, its
 * code and, where the library has one, its message).
 */
#ifndef VELTRANO_C_H
#define VELTRANO_C_H

#include <stddef.h>
#include <stdint.h>

#include "veltrano/export.h"

#if defined(_WIN32) && !defined(_WIN64)
#define VT_CALL __stdcall
#else
#define VT_CALL
#endif

#define VT_API VELTRANO_API

#ifdef __cplusplus
extern "C" {
#endif

/* ------------------------------------------------------------------------------------------
 * Codes of the C layer and the last error */

/* A null detector handle, or a null pointer where this interface needs one to deliver a result
 * (an output pointer, a record, an INI path of a record's load or save). */
#define VT_ERR_NULL_ARGUMENT (-1000)
/* A caller's buffer is too small for the result; nothing was written to it. */
#define VT_ERR_BUFFER_TOO_SMALL (-1001)
/* The chain file holds a value that is not a number (std::invalid_argument in C++); the
 * destination holds the result of the steps before it. */
#define VT_ERR_INVALID_NUMBER (-1002)
/* The chain file holds a number out of range (std::out_of_range in C++); as above. */
#define VT_ERR_NUMBER_OUT_OF_RANGE (-1003)
/* Memory ran out (std::bad_alloc in C++). */
#define VT_ERR_NO_MEMORY (-1004)
/* Any other failure inside the library that C++ reports by an exception. */
#define VT_ERR_INTERNAL (-1005)

/* The text about the last call made on this thread; "" after a success. The pointer stays valid
 * until the thread's next call of this interface. */
VT_API const char* VT_CALL vt_last_error(void);
/* The library's version, "major.minor.patch". */
VT_API const char* VT_CALL vt_version(void);

/* ------------------------------------------------------------------------------------------
 * Images owned by the library (the C view of imgmat) */

/* width x height x depth samples in data, row-major. Made by vt_CVeltrano_AcqImage and
 * vt_imgmat_readRawFile; release it with vt_imgmat_free and never free data yourself. */
typedef struct vt_imgmat {
    float* data;
    uint64_t width;
    uint64_t height;
    uint64_t depth;
} vt_imgmat;

/* Releases an image made by this interface; null is ignored. Returns nothing. */
VT_API void VT_CALL vt_imgmat_free(vt_imgmat* image);

/* imgmat::readRawFile into a new image (depth 1): *image receives it when the result is 1, and
 * is set to null otherwise. 1 read; 0 the file cannot be opened (or the samples allocated);
 * VT_ERR_NULL_ARGUMENT for a null image pointer. Type codes: 0 int8, 1 uint8, 2 int16,
 * 3 uint16, 4 int32, 5 uint32, 6 int64, 7 uint64, 8 float, 9 double. */
VT_API int VT_CALL vt_imgmat_readRawFile(const char* path, uint64_t width, uint64_t height,
                                         uint64_t headerBytes, int type, vt_imgmat** image);
/* imgmat::writeRawFile: count floats from samples into a headerless raw file. 1 written, 0 the
 * file cannot be opened. */
VT_API int VT_CALL vt_imgmat_writeRawFile(const char* path, const float* samples, uint64_t count);

/* ------------------------------------------------------------------------------------------
 * The detector (CVeltrano) behind an opaque handle */

typedef struct vt_CVeltrano vt_CVeltrano;

/* Online states returned by vt_CVeltrano_GetDectectorState. */
#define VT_ONLINE_OFFLINE 0
#define VT_ONLINE_ONLINE 1
#define VT_ONLINE_STANDBY 2
#define VT_ONLINE_UNKNOWN 3

/* A detector with a work directory (null or "" reads "workdir_path.txt" as the C++ constructor
 * does); null only when memory ran out. Release it with vt_CVeltrano_delete, which deinitialises
 * it. A handle may be used from several threads as the C++ object may: one thread acquires while
 * others call StopAcq, GetProgressBar, GetEndSign and GetLastMessage. */
VT_API vt_CVeltrano* VT_CALL vt_CVeltrano_new(const char* workDir);
VT_API void VT_CALL vt_CVeltrano_delete(vt_CVeltrano* detector);

/* Every function below returns VT_ERR_NULL_ARGUMENT for a null handle. */
VT_API int VT_CALL vt_CVeltrano_Initialize(vt_CVeltrano* detector);
VT_API int VT_CALL vt_CVeltrano_InitializeByPath(vt_CVeltrano* detector, const char* path);
VT_API int VT_CALL vt_CVeltrano_Connect(vt_CVeltrano* detector);
VT_API int VT_CALL vt_CVeltrano_Disconnect(vt_CVeltrano* detector);
VT_API int VT_CALL vt_CVeltrano_Deinit(vt_CVeltrano* detector);
VT_API int VT_CALL vt_CVeltrano_ReSet(vt_CVeltrano* detector);
VT_API int VT_CALL vt_CVeltrano_ReadUserRom(vt_CVeltrano* detector);
VT_API int VT_CALL vt_CVeltrano_UpdateFirmWare(vt_CVeltrano* detector, const char* path);

/* Device queries. State: a VT_ONLINE_ value. The two texts are copied into buffer (cut to
 * size - 1 characters and terminated when size > 0); the result is the text's full length, so a
 * result of size or more means the text was cut. */
VT_API int VT_CALL vt_CVeltrano_GetDectectorState(vt_CVeltrano* detector);
VT_API int VT_CALL vt_CVeltrano_GetDectectorSerialNum(vt_CVeltrano* detector, char* buffer,
                                                      size_t size);
VT_API int VT_CALL vt_CVeltrano_GetDectectorUSBInfo(vt_CVeltrano* detector, char* buffer,
                                                    size_t size);
VT_API int VT_CALL vt_CVeltrano_JudgeSensorSize(vt_CVeltrano* detector);
VT_API int VT_CALL vt_CVeltrano_GetSensorSize(vt_CVeltrano* detector);
/* The image size of the connected sensor's size code (for example 1300 x 1800 for 2000): 0, or
 * -1 with both set to 0 while the size is unknown. */
VT_API int VT_CALL vt_CVeltrano_GetImageSize(vt_CVeltrano* detector, uint32_t* width,
                                             uint32_t* height);

/* The exposure settings that the acquisition writes to the driver; they can also be written
 * ahead of it. Each returns the driver's result of the write, 0 when nothing had to be written. */
VT_API int VT_CALL vt_CVeltrano_SetDelayTime(vt_CVeltrano* detector, int delayTime);
VT_API int VT_CALL vt_CVeltrano_SetTriggerMode(vt_CVeltrano* detector, int triggerMode);
VT_API int VT_CALL vt_CVeltrano_SetTriggerThreshold(vt_CVeltrano* detector, int triggerThreshold);

/* One exposure (CVeltrano::AcqImageEx): blocks until the corrected image has arrived or
 * vt_CVeltrano_StopAcq ended the wait. Returns the acquisition's code: 0 done, -1 to -10 as in
 * C++ (-4 to -7 still deliver an image), or a VT_ERR_ code. The handshake of the C++ object
 * holds: set the end sign and the progress back to 0 before every acquisition.
 *
 * AcqImageEx writes the image into the caller's buffer of capacity floats and its size into
 * *width and *height (0 x 0 when no image came). When the connected sensor's image is larger
 * than capacity it returns VT_ERR_BUFFER_TOO_SMALL at once, without acquiring, with the size
 * needed in *width and *height. width and height may be null.
 *
 * AcqImage hands the image over in a new vt_imgmat (release it with vt_imgmat_free), or null
 * when no image came. */
VT_API int VT_CALL vt_CVeltrano_AcqImageEx(vt_CVeltrano* detector, float* buffer, size_t capacity,
                                           uint32_t* width, uint32_t* height, int delayTime,
                                           int triggerMode, int triggerThreshold);
VT_API int VT_CALL vt_CVeltrano_AcqImage(vt_CVeltrano* detector, vt_imgmat** image, int delayTime,
                                         int triggerMode, int triggerThreshold);
/* Ends a pending wait at once; the user stop stays set until ResetUserStop, and meanwhile every
 * acquisition returns at once without an image (end sign 2). */
VT_API int VT_CALL vt_CVeltrano_StopAcq(vt_CVeltrano* detector);
VT_API int VT_CALL vt_CVeltrano_GetProgressBar(vt_CVeltrano* detector);
VT_API int VT_CALL vt_CVeltrano_SetProgressBar(vt_CVeltrano* detector, int progress);
VT_API int VT_CALL vt_CVeltrano_GetEndSign(vt_CVeltrano* detector);
VT_API int VT_CALL vt_CVeltrano_SetEndSign(vt_CVeltrano* detector, int endSign);
VT_API int VT_CALL vt_CVeltrano_GetUserStop(vt_CVeltrano* detector);
VT_API int VT_CALL vt_CVeltrano_ResetUserStop(vt_CVeltrano* detector);
/* The message of this detector's last operation that failed ("Stop waitting!", "No CaliFile!",
 * ...; "" after one that succeeded), copied as the serial number is. Unlike vt_last_error it may
 * be read from any thread, for example by the one that called StopAcq. */
VT_API int VT_CALL vt_CVeltrano_GetLastMessage(vt_CVeltrano* detector, char* buffer, size_t size);

/* ------------------------------------------------------------------------------------------
 * Parameter records: the value fields of the C++ records, in their order. _init fills the
 * defaults (taken from the C++ record); _load and _save run the record's loadParam and saveParam
 * on the INI file at iniPath, with every quirk of its sections and keys (claheParam reads
 * nothing and resets to 8, 8, 256, 600; struUSMParam lives in the section "struFastNLMParam";
 * struClaheParam and struAceGammaParam load "Post_Process_Param_<sectionIndex>"). All three
 * return 1, or VT_ERR_NULL_ARGUMENT for a null record or path. */

typedef struct vt_claheParam {
    int32_t widthBlockNum;
    int32_t heightBlockNum;
    int32_t histBin;
    int32_t peak;
    float binScale; /* set by the clahe functions, not persisted */
    float outMax;   /* set by the clahe functions, not persisted */
} vt_claheParam;

typedef struct vt_struClaheParam {
    int32_t widthBlockNum;
    int32_t heightBlockNum;
    int32_t histBin;
    int32_t peak;
    float binScale;
    float outMax;
    int32_t sectionIndex;
} vt_struClaheParam;

typedef struct vt_clipParam {
    int32_t up;
    int32_t down;
    int32_t left;
    int32_t right;
} vt_clipParam;

typedef struct vt_struAceGammaParam {
    int32_t param1; /* radius */
    float param2;   /* alpha */
    float param3;   /* maximum gain */
    float param4;   /* gamma */
    int32_t param5; /* non-zero: exact enhancement */
    int32_t param6; /* 1: histogram equalisation */
    int32_t sectionIndex;
} vt_struAceGammaParam;

typedef struct vt_struBilatralParam {
    int32_t k_w;
    int32_t k_h;
    float sigColor_x;
    float sigColor_y;
    float sigSpace_x;
    float sigSpace_y;
} vt_struBilatralParam;

typedef struct vt_struFastNLMParam {
    int32_t rd;
    int32_t rD;
    float h;
} vt_struFastNLMParam;

typedef struct vt_struUSMParam {
    int32_t r;
    int32_t isNeedNorm;
    float lam;
} vt_struUSMParam;

typedef struct vt_struWLNParam {
    int32_t wl;
    int32_t wr;
    int32_t specifymin;
    int32_t specifymax;
} vt_struWLNParam;

/* Never loaded or saved: only _init. */
typedef struct vt_struImageBaseParam {
    int32_t offset;
    float gain;
    float gamma;
    int32_t width;
    int32_t height;
} vt_struImageBaseParam;

VT_API int VT_CALL vt_claheParam_init(vt_claheParam* param);
VT_API int VT_CALL vt_claheParam_load(vt_claheParam* param, const char* iniPath);
VT_API int VT_CALL vt_claheParam_save(const vt_claheParam* param, const char* iniPath);
VT_API int VT_CALL vt_struClaheParam_init(vt_struClaheParam* param);
VT_API int VT_CALL vt_struClaheParam_load(vt_struClaheParam* param, const char* iniPath);
VT_API int VT_CALL vt_struClaheParam_save(const vt_struClaheParam* param, const char* iniPath);
VT_API int VT_CALL vt_clipParam_init(vt_clipParam* param);
VT_API int VT_CALL vt_clipParam_load(vt_clipParam* param, const char* iniPath);
VT_API int VT_CALL vt_clipParam_save(const vt_clipParam* param, const char* iniPath);
VT_API int VT_CALL vt_struAceGammaParam_init(vt_struAceGammaParam* param);
VT_API int VT_CALL vt_struAceGammaParam_load(vt_struAceGammaParam* param, const char* iniPath);
VT_API int VT_CALL vt_struAceGammaParam_save(const vt_struAceGammaParam* param,
                                             const char* iniPath);
VT_API int VT_CALL vt_struBilatralParam_init(vt_struBilatralParam* param);
VT_API int VT_CALL vt_struBilatralParam_load(vt_struBilatralParam* param, const char* iniPath);
VT_API int VT_CALL vt_struBilatralParam_save(const vt_struBilatralParam* param,
                                             const char* iniPath);
VT_API int VT_CALL vt_struFastNLMParam_init(vt_struFastNLMParam* param);
VT_API int VT_CALL vt_struFastNLMParam_load(vt_struFastNLMParam* param, const char* iniPath);
VT_API int VT_CALL vt_struFastNLMParam_save(const vt_struFastNLMParam* param, const char* iniPath);
VT_API int VT_CALL vt_struUSMParam_init(vt_struUSMParam* param);
VT_API int VT_CALL vt_struUSMParam_load(vt_struUSMParam* param, const char* iniPath);
VT_API int VT_CALL vt_struUSMParam_save(const vt_struUSMParam* param, const char* iniPath);
VT_API int VT_CALL vt_struWLNParam_init(vt_struWLNParam* param);
VT_API int VT_CALL vt_struWLNParam_load(vt_struWLNParam* param, const char* iniPath);
VT_API int VT_CALL vt_struWLNParam_save(const vt_struWLNParam* param, const char* iniPath);
VT_API int VT_CALL vt_struImageBaseParam_init(vt_struImageBaseParam* param);

/* ------------------------------------------------------------------------------------------
 * INI file access, as in veltrano/ini.h. On a VT_ERR_NO_MEMORY failure the numeric readers
 * return their default. */

VT_API int VT_CALL vt_ReadString_INI(const char* section, const char* key, char* buffer,
                                     int bufferSize, const char* fileName,
                                     const char* defaultValue);
VT_API int VT_CALL vt_ReadInt_INI(const char* section, const char* key, const char* fileName,
                                  int defaultValue);
VT_API float VT_CALL vt_ReadFloat_INI(const char* section, const char* key, const char* fileName,
                                      float defaultValue);
VT_API double VT_CALL vt_ReadDouble_INI(const char* section, const char* key, const char* fileName,
                                        double defaultValue);
VT_API int VT_CALL vt_WriteString_INI(const char* section, const char* key, const char* value,
                                      const char* fileName);
VT_API int VT_CALL vt_WriteInt_INI(const char* section, const char* key, int value,
                                   const char* fileName);
VT_API int VT_CALL vt_WriteFloat_INI(const char* section, const char* key, float value,
                                     const char* fileName);
VT_API int VT_CALL vt_WriteNULL_INI(const char* section, const char* key, const char* fileName);

/* ------------------------------------------------------------------------------------------
 * Processing functions over caller-owned, row-major buffers without row padding. Argument
 * order, pixel-type codes (below) and results are those of the C++ functions of the same name
 * (veltrano/normalize.h to veltrano/usm.h); C++'s bool is an int here. Records are the C
 * structures above; the functions that update their record (clahe_*, Ace_Gamma, USM_EX) update
 * the structure. */

/* Pixel-type codes (veltrano/pixel_type.h): the element type of the functions that take one. */
#define VT_PIX_8U 3
#define VT_PIX_16U 4
#define VT_PIX_16S 5
#define VT_PIX_32F 6
#define VT_PIX_32S 8
#define VT_PIX_64F 11

VT_API int VT_CALL vt_normalize_8U(const uint8_t* src, uint8_t* dst, uint32_t width,
                                   uint32_t height, uint8_t low, uint8_t high);
VT_API int VT_CALL vt_normalize_16U(const uint16_t* src, uint16_t* dst, uint32_t width,
                                    uint32_t height, uint16_t low, uint16_t high);
VT_API int VT_CALL vt_normalize_32F(const float* src, float* dst, uint32_t width, uint32_t height,
                                    float low, float high);
VT_API int VT_CALL vt_normalize_64F(const double* src, double* dst, uint32_t width, uint32_t height,
                                    double low, double high);
VT_API int VT_CALL vt_Normalize_TruncMinMax(uint8_t* src, uint8_t* dst, uint32_t width,
                                            uint32_t height, int32_t unused, int32_t pixelType);

VT_API int VT_CALL vt_Inverse(uint16_t* src, uint16_t* dst, int32_t width, int32_t height,
                              int32_t pixelType);
VT_API int VT_CALL vt_BrigntAndContrast(uint16_t* src, uint16_t* dst, int32_t width, int32_t height,
                                        int32_t pixelType, float brightness, float contrast);
VT_API int VT_CALL vt_GammaCorrect(void* src, void* dst, uint32_t width, uint32_t height,
                                   float gamma, int32_t pixelType);
VT_API int VT_CALL vt_Image_Log(float* src, float* dst, uint32_t width, uint32_t height,
                                int32_t negate);
VT_API int VT_CALL vt_Image_Square_NoTrunc(void* src, double* dst, int32_t width, int32_t height,
                                           int32_t pixelType);
VT_API int VT_CALL vt_ThresholdBinary(uint16_t* src, uint16_t* dst, int32_t pixelType,
                                      uint32_t width, uint32_t height, double threshold,
                                      uint32_t mode);
VT_API int VT_CALL vt_ImgGainCorrect(float* src, float* dst, uint32_t width, uint32_t height);
VT_API int VT_CALL vt_EquHist(uint16_t* src, uint16_t* dst, int32_t pixelCount, int32_t pixelType);

VT_API int VT_CALL vt_clahe_8U(uint8_t* src, uint8_t* dst, int32_t width, int32_t height,
                               vt_claheParam* param, const char* iniPath);
VT_API int VT_CALL vt_clahe_16U(uint16_t* src, uint16_t* dst, int32_t width, int32_t height,
                                vt_claheParam* param, const char* iniPath);
VT_API int VT_CALL vt_clahe_32F(float* src, float* dst, int32_t width, int32_t height,
                                vt_claheParam* param, const char* iniPath);
VT_API int VT_CALL vt_clahe_64F(double* src, double* dst, int32_t width, int32_t height,
                                vt_claheParam* param, const char* iniPath);
VT_API int VT_CALL vt_clahe_8U_Manual(uint8_t* src, uint8_t* dst, int32_t width, int32_t height,
                                      int32_t widthBlockNum, int32_t heightBlockNum,
                                      int32_t histBin, int32_t peak, const char* iniPath);
VT_API int VT_CALL vt_clahe_16U_Manual(uint16_t* src, uint16_t* dst, int32_t width, int32_t height,
                                       int32_t widthBlockNum, int32_t heightBlockNum,
                                       int32_t histBin, int32_t peak, const char* iniPath);
VT_API int VT_CALL vt_clahe_32F_Manual(float* src, float* dst, int32_t width, int32_t height,
                                       int32_t widthBlockNum, int32_t heightBlockNum,
                                       int32_t histBin, int32_t peak, const char* iniPath);
VT_API int VT_CALL vt_clahe_64F_Manual(double* src, double* dst, int32_t width, int32_t height,
                                       int32_t widthBlockNum, int32_t heightBlockNum,
                                       int32_t histBin, int32_t peak, const char* iniPath);

VT_API int VT_CALL vt_AdaptiveContrastEnhancement(uint16_t* src, uint16_t* dst, uint32_t width,
                                                  uint32_t height, int32_t pixelType,
                                                  int32_t radius, float alpha, float maxGain);
VT_API int VT_CALL vt_AdaptiveContrastEnhancementQuick(uint16_t* src, uint16_t* dst, uint32_t width,
                                                       uint32_t height, int32_t pixelType,
                                                       int32_t radius, float alpha, float maxGain);
VT_API int VT_CALL vt_Ace_Gamma(uint16_t* src, void* dst, int32_t width, uint32_t height,
                                int32_t pixelType, vt_struAceGammaParam* param,
                                const char* iniPath);
VT_API int VT_CALL vt_WLN(uint16_t* src, uint16_t* dst, uint32_t width, uint32_t height,
                          vt_struWLNParam* param);

VT_API int VT_CALL vt_filter2D_16U(uint16_t* src, uint16_t* dst, int width, int height,
                                   float* kernel, int kh, int kw);
VT_API int VT_CALL vt_filter2D_8U(uint8_t* src, uint8_t* dst, int width, int height, float* kernel,
                                  int kw, int kh);
VT_API int VT_CALL vt_filter2D_32F(float* src, float* dst, int width, int height, float* kernel,
                                   int kw, int kh);
VT_API int VT_CALL vt_getGaussker_32F(float* kernel, int kw, int kh, double sigmaX, double sigmaY);
VT_API int VT_CALL vt_getGaussker_64F(double* kernel, int kw, int kh, double sigmaX, double sigmaY);
VT_API int VT_CALL vt_gaussFilter_8U(uint8_t* src, uint8_t* dst, int width, int height, int ksize1,
                                     int ksize2, double sigmaX, double sigmaY);
VT_API int VT_CALL vt_gaussFilter_16U(uint16_t* src, uint16_t* dst, int width, int height,
                                      int ksize1, int ksize2, double sigmaX, double sigmaY);
VT_API int VT_CALL vt_gaussFilter_32F(float* src, float* dst, int width, int height, int ksize1,
                                      int ksize2, double sigmaX, double sigmaY);
VT_API int VT_CALL vt_Box_Filter(void* src, void* dst, int width, int height, int pixelType,
                                 int radius);
VT_API int VT_CALL vt_Median_Blur(void* src, void* dst, int width, int height, int radius,
                                  int pixelType);

VT_API int VT_CALL vt_bilateralFilter_32F(float* src, float* dst, int width, int height,
                                          vt_struBilatralParam* param);
VT_API int VT_CALL vt_bilateralFilter_16U(uint16_t* src, uint16_t* dst, int width, int height,
                                          vt_struBilatralParam* param);

VT_API int VT_CALL vt_FastNLM(uint8_t* src, uint8_t* dst, int width, int height, float h, int p,
                              int s);

VT_API int VT_CALL vt_ImgFix(float* src, float* dst, float* defectMap, int width, int height,
                             int radius, int pixelType, int maxPasses);
VT_API int VT_CALL vt_FixBadPixel(float* src, float* dst, float* defectMap, int width, int height);
VT_API int VT_CALL vt_edgeClip_8U(uint8_t* src, uint8_t* dst, int rows, int cols,
                                  vt_clipParam param);
VT_API int VT_CALL vt_edgeClip_16U(uint16_t* src, uint16_t* dst, int rows, int cols,
                                   vt_clipParam param);
VT_API int VT_CALL vt_edgeClip_32F(float* src, float* dst, int rows, int cols, vt_clipParam param);

VT_API int VT_CALL vt_CopyRoiTo(uint8_t* src, uint8_t* dst, uint8_t* block, int pixelType,
                                int width, int height, int blockWidth, int blockHeight, int x,
                                int y);
VT_API int VT_CALL vt_AddWaterMask(uint8_t* src, uint8_t* dst, uint8_t* mark, int width, int height,
                                   int markWidth, int markHeight, int x, int y, int pixelType,
                                   float alpha);
VT_API int VT_CALL vt_Copy_LeftDown_To_RightUp(uint8_t* src, uint8_t* dst, int width, int height,
                                               int pixelType, int x, int y, int side);
VT_API int VT_CALL vt_Copy_RightDown_To_LeftUp(uint8_t* src, uint8_t* dst, int width, int height,
                                               int pixelType, int x, int y, int side);
/* void in C++: returns 0. */
VT_API int VT_CALL vt_GetLine2D(float x1, float y1, float x2, float y2, float* a, float* b,
                                float* c);
VT_API int VT_CALL vt_MakeMaskByLine(uint16_t* src, uint16_t* dst, int width, int height, float x1,
                                     float y1, float x2, float y2, uint8_t side, uint16_t fill);

VT_API int VT_CALL vt_ImageConv(const float* src, float* dst, const float* kernel, int32_t width,
                                int32_t height, int32_t kw, int32_t kh, const uint8_t* mask);
VT_API int VT_CALL vt_USM_BOX(uint16_t* src, uint16_t* dst, int32_t width, int32_t height,
                              int32_t radius, float amount, int normalise);
VT_API int VT_CALL vt_USM_EX(uint16_t* src, void* dst, uint32_t width, uint32_t height,
                             int32_t pixelType, vt_struUSMParam* param, const char* iniPath);
VT_API int VT_CALL vt_USM_Gaussian(uint16_t* src, uint16_t* dst, int32_t width, int32_t height,
                                   int32_t radius, float amount, int32_t threshold, float sigma,
                                   uint8_t* mask);

/* ------------------------------------------------------------------------------------------
 * The post-processing chain (Img_Post_Process_Chain). Results: 0 the chain ran, -1 the chain
 * file cannot be opened, -2 it holds no complete block, -3 a null image or a negative size, and
 * VT_ERR_INVALID_NUMBER or VT_ERR_NUMBER_OUT_OF_RANGE for a malformed number (vt_last_error then
 * names the conversion, for example "invalid stoi argument"). The chain's text (every line of
 * the file, concatenated) is copied into chainText as the detector's texts are (chainText may be
 * null with chainTextSize 0) and its full length stored in *chainTextLength unless that is
 * null. */
VT_API int VT_CALL vt_Img_Post_Process_Chain(const uint16_t* src, uint16_t* dst, int width,
                                             int height, const char* chainFile, char* chainText,
                                             size_t chainTextSize, size_t* chainTextLength);

#ifdef __cplusplus
}
#endif

#endif /* VELTRANO_C_H */
