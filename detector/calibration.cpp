// The sensor's calibration: finding the gain and defect files below the work directory, the
// gain matrices, and the corrections applied to every frame. The repair and geometry steps
// themselves belong to the processing library.
#include <climits>
#include <cstdint>
#include <fstream>
#include <string>
#include <vector>

#include "detector/detector_internal.h"
#include "driver_interface/calibration_layout.h"
#include "driver_interface/sensor_sizes.h"
#include "imgproc/frame_statistics.h"
#include "platform/directory.h"
#include "veltrano/defect_repair.h"
#include "veltrano/detector.h"
#include "veltrano/geometry.h"
#include "veltrano/pixel_type.h"
#include "veltrano/point_ops.h"

using veltrano::detail::LogLine;

namespace {

constexpr unsigned long long kHeaderBytes = fpdsys::kCalibrationHeaderBytes;
// The number of brightest pixels whose mean chooses among four gain frames.
constexpr uint32_t kBrightPixels = 5000;
constexpr int kRawUnsigned8 = 1;
constexpr int kRawUnsigned16 = 3;
constexpr int kFloatPixels = veltrano::kPix32F;
// The corner fill moves the float frame's elements as the 32-bit integer code: the diagonal
// copies only move bytes, and both codes are 4 bytes wide.
constexpr int kFourBytePixels = veltrano::kPix32S;

// The calibration image dimensions for a sensor size code: its row's, or 1300 x 1800 when the
// code is not in the table.
void CalibrationSize(int code, unsigned long long& width, unsigned long long& height) {
    const fpdsys::SensorSizeRow* row = fpdsys::FindSensorRow(code);
    width = static_cast<unsigned long long>(row != nullptr ? row->width
                                                           : fpdsys::kDefaultCalibrationWidth);
    height = static_cast<unsigned long long>(row != nullptr ? row->height
                                                            : fpdsys::kDefaultCalibrationHeight);
}

// The first file below workDir/Correct/Default whose extension (the text after the last dot of
// its name) is ext, in the order the folder listing returns them; empty when there is none.
std::string FindCalibrationFile(const std::string& workDir, const std::string& ext) {
    for (const std::string& path :
         veltrano::platform::ListFilesRecursive(workDir + fpdsys::kCalibrationFolder)) {
        const size_t dot = path.rfind('.');
        const size_t separator = path.find_last_of("/\\");
        if (dot == std::string::npos || (separator != std::string::npos && dot < separator)) {
            continue;
        }
        if (path.compare(dot + 1, std::string::npos, ext) == 0) {
            return path;
        }
    }
    return std::string();
}

unsigned long long FileSize(const std::string& path) {
    std::ifstream file(path, std::ios::binary | std::ios::ate);
    if (!file.is_open()) {
        return 0;
    }
    const std::streamoff size = file.tellg();
    return size > 0 ? static_cast<unsigned long long>(size) : 0;
}

// Makes dst a copy of src unless it already holds data of src's dimensions.
void PrepareDestination(const imgmat& src, imgmat& dst) {
    if (dst.data == nullptr || dst.width != src.width || dst.height != src.height ||
        dst.depth != src.depth) {
        dst = src;
    }
}

bool FitsInt(unsigned long long value) { return value <= static_cast<unsigned long long>(INT_MAX); }

}  // namespace

int CVeltrano::GetAndCaliFile_Gain() {
    const std::string path = FindCalibrationFile(m_workDir, fpdsys::kGainExtension);
    const unsigned long long size = path.empty() ? 0 : FileSize(path);
    bool loaded = size > 0;
    if (loaded) {
        unsigned long long width = 0;
        unsigned long long height = 0;
        CalibrationSize(m_sensorSize, width, height);
        const unsigned long long frameBytes = width * height * 2;
        const auto frames = static_cast<size_t>(fpdsys::GainFrameCount(size, frameBytes));
        m_gainImages.resize(frames);
        m_gainLevels.resize(frames);
        for (size_t i = 0; i < frames && loaded; ++i) {
            loaded = ReadCaliFile_Gain(m_gainImages[i], m_gainLevels[i], path.c_str(), width,
                                       height, kHeaderBytes + frameBytes * i, kRawUnsigned16) == 1;
        }
    }
    if (loaded && !m_gainImages.empty()) {
        LogLine("Success to load GainFile!");
        return 0;
    }
    m_gainImages.clear();
    m_gainLevels.clear();
    LogLine("No Gain CaliFile!");
    return -2;
}

int CVeltrano::ReadCaliFile_Gain(imgmat& gain, int& level, const char* path, unsigned long long A,
                                 unsigned long long B, unsigned long long offset, int type) {
    if (path == nullptr) {
        return -1;
    }
    imgmat frame(path, A, B, 1, offset, type);
    if (frame.data == nullptr || frame.width * frame.height == 0) {
        return -1;
    }
    // The frame's first pixel, truncated, tells the exposure level it was taken at.
    const float first = frame.data[0];
    level = (first > static_cast<float>(INT_MIN) && first < static_cast<float>(INT_MAX))
                ? static_cast<int>(first)
                : 0;
    CalcGainMat(frame, gain);
    return 1;
}

void CVeltrano::CalcGainMat(imgmat& flat, imgmat& gain) {
    if (flat.data == nullptr) {
        return;
    }
    const unsigned long long count = flat.width * flat.height;
    if (count == 0) {
        return;
    }
    // A gain matrix of another size is remade, so that it is never written past its end.
    if (gain.data == nullptr || gain.width != flat.width || gain.height != flat.height) {
        gain.clearData();
        gain.width = flat.width;
        gain.height = flat.height;
        gain.depth = 1;
        gain.callMemory(count);
        if (gain.data == nullptr) {
            return;
        }
    }
    veltrano::FlatFieldGain(flat.data, gain.data, static_cast<size_t>(count));
}

int CVeltrano::GetBadPixelInfo() {
    if (m_defectMap.data == nullptr) {
        const std::string path = FindCalibrationFile(m_workDir, fpdsys::kDefectExtension);
        if (!path.empty()) {
            unsigned long long width = 0;
            unsigned long long height = 0;
            CalibrationSize(m_sensorSize, width, height);
            m_defectMap.readRawFile(path.c_str(), width, height, kHeaderBytes, kRawUnsigned8);
        }
    }
    if (m_defectMap.data != nullptr) {
        LogLine("Success to load defectFile");
        return 0;
    }
    LogLine("No defectFile!");
    return -2;
}

int CVeltrano::DoGainCorrection(imgmat& image) {
    int result = 0;
    if (m_gainImages.size() == 1) {
        result = image.doMul(m_gainImages[0]);
    } else if (m_gainImages.size() == 4 && image.data != nullptr) {
        // Four frames taken at different exposures: use the one whose level is nearest to the
        // mean of the image's brightest pixels.
        const unsigned long long count = image.width * image.height * image.depth;
        const double brightMean =
            veltrano::BrightMean(image.data, static_cast<size_t>(count), kBrightPixels);
        const size_t chosen = veltrano::NearestLevel(m_gainLevels, brightMean);
        result = image.doMul(m_gainImages[chosen]);
    }
    LogLine(result == 1 ? "Success to do GainCorrection" : "Fail to do GainCorrection!");
    return result;
}

int CVeltrano::DoFixBadPixel(imgmat& image, imgmat& defects) {
    int result = 0;
    if (!FitsInt(image.width) || !FitsInt(image.height)) {
        result = -1;
    } else if (image.data != nullptr && defects.data != nullptr &&
               defects.getDataSize() < image.width * image.height) {
        // The repair reads one map value per pixel: a smaller map is as good as none.
        result = -3;
    } else {
        result = ImgFix(image.data, image.data, defects.data, static_cast<int>(image.width),
                        static_cast<int>(image.height), 1, kFloatPixels, 200);
    }
    LogLine(result == 1 ? "Success to do PixelCorrection!" : "Fail to do PixelCorrection!");
    return result;
}

int CVeltrano::DoLog(imgmat& src, imgmat& dst) {
    if (src.data == nullptr) {
        LogLine("Do log,but no image!");
        return -1;
    }
    if (src.width > UINT32_MAX || src.height > UINT32_MAX) {
        LogLine("An Error happened when do log");
        LogLine("Do log is sucessful");
        return -1;
    }
    PrepareDestination(src, dst);
    const int result = Image_Log(src.data, dst.data, static_cast<uint32_t>(src.width),
                                 static_cast<uint32_t>(src.height), 1);
    if (result != 1) {
        LogLine("An Error happened when do log");
    }
    // Logged whatever the result: hosts look for this line.
    LogLine("Do log is sucessful");
    return result;
}

int CVeltrano::FillCutCorners(imgmat& src, imgmat& dst, int k) {
    if (src.data == nullptr) {
        return -1;
    }
    if (!FitsInt(src.width) || !FitsInt(src.height)) {
        LogLine("Do Copy_RightDown_To_LeftUp is wrong");
        return -2;
    }
    PrepareDestination(src, dst);
    const int width = static_cast<int>(src.width);
    const int height = static_cast<int>(src.height);
    const int left = Copy_RightDown_To_LeftUp(reinterpret_cast<uint8_t*>(src.data),
                                              reinterpret_cast<uint8_t*>(dst.data), width, height,
                                              kFourBytePixels, 0, 0, k);
    if (left != 1) {
        LogLine("Do Copy_RightDown_To_LeftUp is wrong");
        return -2;
    }
    LogLine("Do Copy_RightDown_To_LeftUp is Sucessful");
    const int right = Copy_LeftDown_To_RightUp(reinterpret_cast<uint8_t*>(dst.data),
                                               reinterpret_cast<uint8_t*>(dst.data), width, height,
                                               kFourBytePixels, width - k, 0, k);
    LogLine(right == 1 ? "Do Copy_LeftDown_To_RightUp is Sucessful"
                       : "Do Copy_LeftDown_To_RightUp is wrong");
    return right == 1 ? 1 : -2;
}
