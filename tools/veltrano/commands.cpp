// The subcommands process, acquire, calibrate and info.
#include "commands.h"

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <memory>

#include "acquisition.h"
#include "dicom_output.h"
#include "host_system.h"
#include "png_io.h"
#include "veltrano/detector.h"
#include "veltrano/imgmat.h"

namespace vcli {
namespace fs = std::filesystem;

namespace {

// The work directory must exist: the driver creates nothing there on its own.
bool CheckWorkDir(const std::string& dir) {
    std::error_code ec;
    return fs::is_directory(dir, ec);
}

std::string LogPathIn(const std::string& dir) { return (fs::path(dir) / "veltrano.log").string(); }

}  // namespace

int ReportExposure(const std::string& subject, const ExposureResult& exposure) {
    const std::string code = " (code " + std::to_string(exposure.code) + ")";
    switch (exposure.outcome) {
    case ExposureOutcome::Delivered:
        return kExitDone;
    case ExposureOutcome::DeliveredWithWarning:
        std::fprintf(stderr, "veltrano: warning: %s%s; the image was taken\n",
                     DescribeAcquisitionCode(exposure.code).c_str(), code.c_str());
        return kExitDone;
    case ExposureOutcome::Stopped:
        std::fprintf(stderr, "veltrano: %s: stopped: no image was taken%s\n", subject.c_str(),
                     code.c_str());
        return kExitStopped;
    case ExposureOutcome::Failed:
        break;
    }
    return Fail(subject, "no image: " + DescribeAcquisitionCode(exposure.code) + code);
}

int RunProcess(const ProcessOptions& options) {
    const std::string& chain = options.chain;
    const std::string& in = options.in;
    const std::string& out = options.out;
    const bool dicomIn = !options.raw && vdicom::IsDicomPath(in);
    std::string error;
    vdicom::DicomIdentity identity;
    if (!DicomIdentityFromOptions(options.dicom, identity, error)) {
        return Fail(out, error);  // already refused by the command line
    }
    vdicom::DicomDetector detector;
    detector.pixelPitchMm = PixelPitchFromOptions(options.dicom);
    if (!CheckInputFile(chain, error)) {
        return Fail(chain, error);
    }
    if (IsPngPath(out) && !PngSupported()) {
        return Fail(out, kNoPngSupport);
    }
    Image16 image;
    vdicom::DicomSource source;
    const bool read = options.raw ? ReadRawImage(in, options.layout, image, error)
                      : dicomIn   ? ReadDicomImage(in, image, source, error)
                                  : ReadPngImage(in, image, error);
    if (!read) {
        return Fail(in, error);
    }
    if (dicomIn) {
        // The processed image joins the input's study and refers back to it; a pitch given on
        // the command line overrides the input's.
        identity = source.identity;
        detector = source.detector;
        detector.pixelPitchMm = PixelPitchFromOptions(options.dicom, source.detector.pixelPitchMm);
    }
    if (!CheckDicomOutput(out, detector.pixelPitchMm, error)) {
        return Fail(out, error);
    }
    // The output is checked, and its temporary file made, before the chain runs.
    PendingOutput output;
    if (!output.Open(out, error)) {
        return Fail(out, error);
    }
    Image16 result;
    if (!RunChain(chain, image, result, error)) {
        return Fail(chain, error);
    }
    const bool written =
        vdicom::IsDicomPath(out)
            ? WriteDicomImage(output, result, vdicom::DicomImageKind::ForPresentation, identity,
                              detector, error, dicomIn ? source.photometric : kSensorPhotometric)
            : WriteImage(output, out, result, error);
    if (!written) {
        return Fail(out, error);
    }
    std::printf("wrote %s (%u x %u)\n", out.c_str(), result.width, result.height);
    return kExitDone;
}

int RunAcquire(const AcquireOptions& options) {
    const std::string& workDir = options.workDir;
    const std::string& out = options.out;
    const std::string& chain = options.chain;
    std::string error;
    vdicom::DicomIdentity identity;
    if (!DicomIdentityFromOptions(options.dicom, identity, error)) {
        return Fail(out, error);  // already refused by the command line
    }
    vdicom::DicomDetector sensor;
    sensor.pixelPitchMm = PixelPitchFromOptions(options.dicom);
    if (!CheckWorkDir(workDir)) {
        return Fail(workDir, "is not a folder");
    }
    if (!chain.empty() && !CheckChain(chain, error)) {
        return Fail(chain, error);
    }
    if (IsPngPath(out) && !PngSupported()) {
        return Fail(out, kNoPngSupport);  // before the exposure, not after it
    }
    if (!CheckDicomOutput(out, sensor.pixelPitchMm, error)) {
        return Fail(out, error);
    }
    const std::string logPath = LogPathIn(workDir);
    if (!options.verbose && !CheckWritableFile(logPath, error)) {
        return Fail(logPath, error);
    }
    PendingOutput output;
    if (!output.Open(out, error)) {
        return Fail(out, error);
    }

    imgmat frame;
    ExposureResult exposure;
    {
        // The library's console lines go to a log in the work folder unless asked for.
        std::unique_ptr<StdoutToFile> log;
        if (!options.verbose) {
            log = std::make_unique<StdoutToFile>(logPath);
        }
        CVeltrano detector(workDir.c_str());
        if (!OpenDetector(detector, error)) {
            return Fail(workDir, error);
        }
        sensor.serialNumber = detector.GetDectectorSerialNum();
        sensor.sensorSize = detector.GetSensorSize();
        exposure = TakeExposure(detector, options.exposure, frame);
        CloseDetector(detector);
    }
    if (const int exit = ReportExposure(workDir, exposure); exit != kExitDone) {
        return exit;
    }
    Image16 image = ToImage16(frame);
    if (!chain.empty()) {
        Image16 processed;
        if (!RunChain(chain, image, processed, error)) {
            return Fail(chain, error);
        }
        image.pixels.swap(processed.pixels);
    }
    const bool written =
        vdicom::IsDicomPath(out)
            ? WriteDicomImage(output, image,
                              chain.empty() ? vdicom::DicomImageKind::ForProcessing
                                            : vdicom::DicomImageKind::ForPresentation,
                              identity, sensor, error)
            : WriteImage(output, out, image, error);
    if (!written) {
        return Fail(out, error);
    }
    std::printf("wrote %s (%u x %u)\n", out.c_str(), image.width, image.height);
    return kExitDone;
}

int RunVirtualCalibrate(const CalibrateOptions& options) {
    const std::string& workDir = options.workDir;
    std::error_code ec;
    fs::create_directories(workDir, ec);
    if (!CheckWorkDir(workDir)) {
        return Fail(workDir, "cannot be created");
    }
    std::string error;
    if (!WriteVirtualSensorCalibration(workDir, options.frames, error)) {
        return Fail(workDir, error);
    }
    std::printf("wrote the %d-frame calibration below %s\n", options.frames,
                (fs::path(workDir) / "Correct" / "Default").string().c_str());
    return kExitDone;
}

int RunInfo(const InfoOptions& options) {
    const std::string& workDir = options.workDir;
    if (!CheckWorkDir(workDir)) {
        return Fail(workDir, "is not a folder");
    }
    std::string error;
    int state = 0;
    std::string serial, usb;
    int size = -1;
    {
        std::unique_ptr<StdoutToFile> log;
        if (!options.verbose) {
            log = std::make_unique<StdoutToFile>(LogPathIn(workDir));
        }
        CVeltrano detector(workDir.c_str());
        if (!OpenDetector(detector, error)) {
            return Fail(workDir, error);
        }
        state = static_cast<int>(detector.GetDectectorState());
        serial = detector.GetDectectorSerialNum();
        usb = detector.GetDectectorUSBInfo();
        size = detector.GetSensorSize();
        CloseDetector(detector);
    }
    const char* stateName = state == Enm_Online_Offline   ? "offline"
                            : state == Enm_Online_Online  ? "online"
                            : state == Enm_Online_Standby ? "standby"
                                                          : "unknown";
    std::printf("state:           %d (%s)\n", state, stateName);
    std::printf("serial number:   %s\n", serial.c_str());
    std::printf("USB information: %s\n", usb.c_str());
    switch (size) {
    case 1000:
        std::printf("sensor size:     1000 (1000 x 1500 pixels)\n");
        break;
    case 1500:
        std::printf("sensor size:     1500 (1200 x 1650 pixels)\n");
        break;
    case 2000:
        std::printf("sensor size:     2000 (1300 x 1800 pixels)\n");
        break;
    default:
        std::printf("sensor size:     %d (unknown)\n", size);
        break;
    }
    return kExitDone;
}

}  // namespace vcli
