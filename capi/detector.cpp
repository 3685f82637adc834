// The C interface's detector handle and library-owned images: a CVeltrano behind an opaque
// pointer, with the message of its last failed operation kept for any thread to read.
#include <algorithm>
#include <memory>
#include <mutex>
#include <string>

#include "capi/capi_support.h"
#include "driver_interface/sensor_sizes.h"
#include "veltrano/detector.h"
#include "veltrano/imgmat.h"

namespace {

// The protected exposure setters are part of the C interface's device settings.
class Detector : public CVeltrano {
public:
    using CVeltrano::CVeltrano;
    using CVeltrano::SetDelayTime;
    using CVeltrano::SetTriggerMode;
    using CVeltrano::SetTriggerThreshold;
};

// A vt_imgmat whose samples belong to the imgmat beside it.
struct ImageBox : vt_imgmat {
    ImageBox() : vt_imgmat{} {}
    imgmat matrix;

    // Shows the matrix through the C fields; false when it holds no samples.
    bool Publish() {
        data = matrix.data;
        width = matrix.width;
        height = matrix.height;
        depth = matrix.depth;
        return data != nullptr;
    }
};

}  // namespace

struct vt_CVeltrano {
    explicit vt_CVeltrano(const char* workDir) : detector(workDir) {}

    Detector detector;
    // The host's polling thread may read the message while the acquiring thread writes it.
    std::mutex messageMutex;
    std::string lastMessage;

    // Records the outcome of an operation that can fail: an empty message clears both the
    // handle's message and the thread's last error, any other sets both.
    void Report(const char* function, int code, const std::string& message) {
        {
            std::lock_guard<std::mutex> lock(messageMutex);
            lastMessage = message;
        }
        if (message.empty()) {
            veltrano::capi::ClearLastError();
        } else {
            veltrano::capi::SetLastError("%s returned %d: %s", function, code, message.c_str());
        }
    }
};

namespace {

using veltrano::capi::ClearLastError;
using veltrano::capi::SetLastError;
using veltrano::capi::TranslateCurrentException;

// Runs f on the handle's object so that no exception escapes; a null handle is refused.
template <class F>
int Call(vt_CVeltrano* handle, const char* function, F&& f) noexcept {
    ClearLastError();
    if (handle == nullptr) {
        SetLastError("%s: null detector handle", function);
        return VT_ERR_NULL_ARGUMENT;
    }
    try {
        return f(*handle);
    } catch (...) {
        const int code = TranslateCurrentException(function);
        try {
            std::lock_guard<std::mutex> lock(handle->messageMutex);
            handle->lastMessage = vt_last_error();
        } catch (...) {}
        return code;
    }
}

// What a driver code means, for the codes that the driver binding itself produces.
std::string DriverText(int code) {
    switch (code) {
    case 6:
        return "the driver library is not loaded";
    case 9:
        return "the driver library FpdSys could not be loaded";
    case 20:
        return "a null text was passed to the driver";
    case 22:
        return "the driver did not answer in time";
    default:
        return "the driver reported error " + std::to_string(code);
    }
}

std::string InitializeMessage(int code) { return code == 0 ? std::string() : DriverText(code); }

std::string ConnectMessage(int code) {
    switch (code) {
    case 0:
        return {};
    case -1:
        return "the detector is not initialised";
    case -101:
        return "Error: The SensorSize is not exist!";
    default:
        return DriverText(code);
    }
}

// The acquisition's own messages where it has them, a plain sentence where it has none. For -1
// the state before the call tells which of the two checks failed.
std::string AcquisitionMessage(int code, bool handshakeWasSet, bool sizeWasUnknown,
                               bool imageDelivered) {
    switch (code) {
    case 0:
        return imageDelivered ? std::string()
                              : "Stop operation! (the user stop is set: reset it first)";
    case -1: {
        std::string text;
        if (handshakeWasSet) text = "Please reset endSign and progress!";
        if (sizeWasUnknown)
            text += (text.empty() ? "" : " ") + std::string("Sensor Size is not right!");
        return text.empty() ? "Please reset endSign and progress!" : text;
    }
    case -2:
        return "Please Connect firmWare!";
    case -3:
        return "No CaliFile!";
    case -4:
        return "the delay time could not be written (the image was still delivered)";
    case -5:
        return "the trigger mode could not be written (the image was still delivered)";
    case -6:
        return "the trigger threshold could not be written (the image was still delivered)";
    case -7:
        return "the sensor could not be prepared for the exposure";
    case -8:
        return "Detector has an Error when getting an image!";
    case -9:
        return "Stop waitting!";
    case -10:
        return "Post Processs Failed!";
    default:
        return "the acquisition returned " + std::to_string(code);
    }
}

const fpdsys::SensorSizeRow* SensorRow(Detector& detector) {
    return fpdsys::FindSensorRow(detector.GetSensorSize());
}

int Acquire(vt_CVeltrano& handle, imgmat& image, int delayTime, int triggerMode,
            int triggerThreshold) {
    Detector& detector = handle.detector;
    const bool handshakeWasSet = detector.GetEndSign() != 0 || detector.GetProgressBar() != 0;
    const bool sizeWasUnknown = SensorRow(detector) == nullptr;
    const int code = detector.AcqImageEx(image, delayTime, triggerMode, triggerThreshold);
    handle.Report("AcqImageEx", code,
                  AcquisitionMessage(code, handshakeWasSet, sizeWasUnknown,
                                     image.data != nullptr && detector.GetEndSign() == 1));
    return code;
}

// A device text into the caller's buffer.
int Text(vt_CVeltrano* handle, const char* function, char* buffer, size_t size,
         std::string (CVeltrano::*query)()) {
    return Call(handle, function, [&](vt_CVeltrano& h) {
        return veltrano::capi::CopyText((h.detector.*query)(), buffer, size);
    });
}

int Setting(vt_CVeltrano* handle, const char* function, int value, int (Detector::*setter)(int)) {
    return Call(handle, function, [&](vt_CVeltrano& h) {
        const int code = (h.detector.*setter)(value);
        h.Report(function, code, code == 0 ? std::string() : DriverText(code));
        return code;
    });
}

}  // namespace

extern "C" {

VT_API vt_CVeltrano* VT_CALL vt_CVeltrano_new(const char* workDir) {
    ClearLastError();
    try {
        return new vt_CVeltrano(workDir);
    } catch (...) {
        TranslateCurrentException("vt_CVeltrano_new");
        return nullptr;
    }
}

VT_API void VT_CALL vt_CVeltrano_delete(vt_CVeltrano* detector) {
    ClearLastError();
    delete detector;
}

VT_API int VT_CALL vt_CVeltrano_Initialize(vt_CVeltrano* detector) {
    return Call(detector, "Initialize", [](vt_CVeltrano& h) {
        const int code = h.detector.Initialize();
        h.Report("Initialize", code, InitializeMessage(code));
        return code;
    });
}

VT_API int VT_CALL vt_CVeltrano_InitializeByPath(vt_CVeltrano* detector, const char* path) {
    return Call(detector, "InitializeByPath", [&](vt_CVeltrano& h) {
        const int code = h.detector.InitializeByPath(path);
        h.Report("InitializeByPath", code, InitializeMessage(code));
        return code;
    });
}

VT_API int VT_CALL vt_CVeltrano_Connect(vt_CVeltrano* detector) {
    return Call(detector, "Connect", [](vt_CVeltrano& h) {
        const int code = h.detector.Connect();
        h.Report("Connect", code, ConnectMessage(code));
        return code;
    });
}

VT_API int VT_CALL vt_CVeltrano_Disconnect(vt_CVeltrano* detector) {
    return Call(detector, "Disconnect", [](vt_CVeltrano& h) {
        h.detector.Disconnect();
        return 0;
    });
}

VT_API int VT_CALL vt_CVeltrano_Deinit(vt_CVeltrano* detector) {
    return Call(detector, "Deinit", [](vt_CVeltrano& h) {
        h.detector.Deinit();
        return 0;
    });
}

VT_API int VT_CALL vt_CVeltrano_ReSet(vt_CVeltrano* detector) {
    return Call(detector, "ReSet", [](vt_CVeltrano& h) {
        h.detector.ReSet();
        return 0;
    });
}

VT_API int VT_CALL vt_CVeltrano_ReadUserRom(vt_CVeltrano* detector) {
    return Call(detector, "ReadUserRom", [](vt_CVeltrano& h) {
        h.detector.ReadUserRom();
        return 0;
    });
}

VT_API int VT_CALL vt_CVeltrano_UpdateFirmWare(vt_CVeltrano* detector, const char* path) {
    return Call(detector, "UpdateFirmWare", [&](vt_CVeltrano& h) {
        const int code = h.detector.UpdateFirmWare(path);
        h.Report("UpdateFirmWare", code,
                 code == 0 ? std::string() : "the firmware update was not started");
        return code;
    });
}

VT_API int VT_CALL vt_CVeltrano_GetDectectorState(vt_CVeltrano* detector) {
    return Call(detector, "GetDectectorState",
                [](vt_CVeltrano& h) { return static_cast<int>(h.detector.GetDectectorState()); });
}

VT_API int VT_CALL vt_CVeltrano_GetDectectorSerialNum(vt_CVeltrano* detector, char* buffer,
                                                      size_t size) {
    return Text(detector, "GetDectectorSerialNum", buffer, size, &CVeltrano::GetDectectorSerialNum);
}

VT_API int VT_CALL vt_CVeltrano_GetDectectorUSBInfo(vt_CVeltrano* detector, char* buffer,
                                                    size_t size) {
    return Text(detector, "GetDectectorUSBInfo", buffer, size, &CVeltrano::GetDectectorUSBInfo);
}

VT_API int VT_CALL vt_CVeltrano_JudgeSensorSize(vt_CVeltrano* detector) {
    return Call(detector, "JudgeSensorSize",
                [](vt_CVeltrano& h) { return h.detector.JudgeSensorSize(); });
}

VT_API int VT_CALL vt_CVeltrano_GetSensorSize(vt_CVeltrano* detector) {
    return Call(detector, "GetSensorSize",
                [](vt_CVeltrano& h) { return h.detector.GetSensorSize(); });
}

VT_API int VT_CALL vt_CVeltrano_GetImageSize(vt_CVeltrano* detector, uint32_t* width,
                                             uint32_t* height) {
    return Call(detector, "GetImageSize", [&](vt_CVeltrano& h) {
        const fpdsys::SensorSizeRow* row = SensorRow(h.detector);
        if (width != nullptr) *width = row != nullptr ? static_cast<uint32_t>(row->width) : 0;
        if (height != nullptr) *height = row != nullptr ? static_cast<uint32_t>(row->height) : 0;
        return row != nullptr ? 0 : -1;
    });
}

VT_API int VT_CALL vt_CVeltrano_SetDelayTime(vt_CVeltrano* detector, int delayTime) {
    return Setting(detector, "SetDelayTime", delayTime, &Detector::SetDelayTime);
}

VT_API int VT_CALL vt_CVeltrano_SetTriggerMode(vt_CVeltrano* detector, int triggerMode) {
    return Setting(detector, "SetTriggerMode", triggerMode, &Detector::SetTriggerMode);
}

VT_API int VT_CALL vt_CVeltrano_SetTriggerThreshold(vt_CVeltrano* detector, int triggerThreshold) {
    return Setting(detector, "SetTriggerThreshold", triggerThreshold,
                   &Detector::SetTriggerThreshold);
}

VT_API int VT_CALL vt_CVeltrano_AcqImageEx(vt_CVeltrano* detector, float* buffer, size_t capacity,
                                           uint32_t* width, uint32_t* height, int delayTime,
                                           int triggerMode, int triggerThreshold) {
    if (width != nullptr) *width = 0;
    if (height != nullptr) *height = 0;
    return Call(detector, "AcqImageEx", [&](vt_CVeltrano& h) {
        // Refused before the exposure, so that no image is taken only to be lost.
        const fpdsys::SensorSizeRow* row = SensorRow(h.detector);
        if (row != nullptr &&
            (buffer == nullptr || static_cast<unsigned long long>(row->width) *
                                          static_cast<unsigned long long>(row->height) >
                                      capacity)) {
            if (width != nullptr) *width = static_cast<uint32_t>(row->width);
            if (height != nullptr) *height = static_cast<uint32_t>(row->height);
            const std::string message = "the buffer of " + std::to_string(capacity) +
                                        " floats cannot hold a " + std::to_string(row->width) +
                                        " x " + std::to_string(row->height) + " image";
            h.Report("AcqImageEx", VT_ERR_BUFFER_TOO_SMALL, message);
            return VT_ERR_BUFFER_TOO_SMALL;
        }
        imgmat image;
        const int code = Acquire(h, image, delayTime, triggerMode, triggerThreshold);
        if (image.data == nullptr) {
            return code;
        }
        const unsigned long long count = image.width * image.height;
        if (count > capacity) {
            h.Report("AcqImageEx", VT_ERR_BUFFER_TOO_SMALL,
                     "the delivered image is larger than the buffer");
            return VT_ERR_BUFFER_TOO_SMALL;
        }
        std::copy(image.data, image.data + count, buffer);
        if (width != nullptr) *width = static_cast<uint32_t>(image.width);
        if (height != nullptr) *height = static_cast<uint32_t>(image.height);
        return code;
    });
}

VT_API int VT_CALL vt_CVeltrano_AcqImage(vt_CVeltrano* detector, vt_imgmat** image, int delayTime,
                                         int triggerMode, int triggerThreshold) {
    if (image != nullptr) *image = nullptr;
    return Call(detector, "AcqImageEx", [&](vt_CVeltrano& h) {
        if (image == nullptr) {
            SetLastError("AcqImageEx: null image pointer");
            return VT_ERR_NULL_ARGUMENT;
        }
        auto box = std::make_unique<ImageBox>();
        const int code = Acquire(h, box->matrix, delayTime, triggerMode, triggerThreshold);
        if (box->Publish()) {
            *image = box.release();
        }
        return code;
    });
}

VT_API int VT_CALL vt_CVeltrano_StopAcq(vt_CVeltrano* detector) {
    return Call(detector, "StopAcq", [](vt_CVeltrano& h) {
        h.detector.StopAcq();
        return 0;
    });
}

VT_API int VT_CALL vt_CVeltrano_GetProgressBar(vt_CVeltrano* detector) {
    return Call(detector, "GetProgressBar",
                [](vt_CVeltrano& h) { return h.detector.GetProgressBar(); });
}

VT_API int VT_CALL vt_CVeltrano_SetProgressBar(vt_CVeltrano* detector, int progress) {
    return Call(detector, "SetProgressBar", [&](vt_CVeltrano& h) {
        h.detector.SetProgressBar(progress);
        return 0;
    });
}

VT_API int VT_CALL vt_CVeltrano_GetEndSign(vt_CVeltrano* detector) {
    return Call(detector, "GetEndSign", [](vt_CVeltrano& h) { return h.detector.GetEndSign(); });
}

VT_API int VT_CALL vt_CVeltrano_SetEndSign(vt_CVeltrano* detector, int endSign) {
    return Call(detector, "SetEndSign", [&](vt_CVeltrano& h) {
        h.detector.SetEndSign(endSign);
        return 0;
    });
}

VT_API int VT_CALL vt_CVeltrano_GetUserStop(vt_CVeltrano* detector) {
    return Call(detector, "GetUserStop",
                [](vt_CVeltrano& h) { return h.detector.GetUserStop() ? 1 : 0; });
}

VT_API int VT_CALL vt_CVeltrano_ResetUserStop(vt_CVeltrano* detector) {
    return Call(detector, "ResetUserStop", [](vt_CVeltrano& h) {
        h.detector.ResetUserStop();
        return 0;
    });
}

VT_API int VT_CALL vt_CVeltrano_GetLastMessage(vt_CVeltrano* detector, char* buffer, size_t size) {
    return Call(detector, "GetLastMessage", [&](vt_CVeltrano& h) {
        std::string message;
        {
            std::lock_guard<std::mutex> lock(h.messageMutex);
            message = h.lastMessage;
        }
        return veltrano::capi::CopyText(message, buffer, size);
    });
}

// Library-owned images.

VT_API void VT_CALL vt_imgmat_free(vt_imgmat* image) { delete static_cast<ImageBox*>(image); }

VT_API int VT_CALL vt_imgmat_readRawFile(const char* path, uint64_t width, uint64_t height,
                                         uint64_t headerBytes, int type, vt_imgmat** image) {
    if (image != nullptr) *image = nullptr;
    return veltrano::capi::Guard(
        "readRawFile",
        [&] {
            if (image == nullptr) {
                SetLastError("readRawFile: null image pointer");
                return VT_ERR_NULL_ARGUMENT;
            }
            auto box = std::make_unique<ImageBox>();
            if (box->matrix.readRawFile(path, width, height, headerBytes, type) == 1) {
                box->Publish();
                *image = box.release();
                return 1;
            }
            SetLastError("readRawFile: cannot read %s", path != nullptr ? path : "(null)");
            return 0;
        },
        veltrano::capi::NegativeFails);
}

VT_API int VT_CALL vt_imgmat_writeRawFile(const char* path, const float* samples, uint64_t count) {
    return veltrano::capi::Guard("writeRawFile", [&] {
        imgmat writer;
        const int code = writer.writeRawFile(path, const_cast<float*>(samples), count);
        if (code != 1) {
            SetLastError("writeRawFile: cannot write %s", path != nullptr ? path : "(null)");
        }
        return code;
    });
}

}  // extern "C"
