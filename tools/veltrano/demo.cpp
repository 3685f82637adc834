// veltrano demo: the whole road of one exposure on the virtual sensor, from an empty work
// folder to the corrected and processed images.
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>

#include "acquisition.h"
#include "commands.h"
#include "dicom_output.h"
#include "host_system.h"
#include "png_io.h"
#include "preview.h"

namespace vcli {
namespace fs = std::filesystem;

namespace {

// The largest sensor, the phantom scene and a fixed seed, so that every run shows the same
// picture.
const char kSensorIni[] =
    "[VirtualSensor]\n"
    "SensorSize=2000\n"
    "Scene=phantom\n"
    "ExposureMs=300\n"
    "Seed=20240601\n";

// The virtual sensor's pixels stand for 20 micrometres: size 2000 then covers 26 x 36 mm, as an
// intra-oral sensor of that size does.
constexpr double kVirtualPixelPitchMm = 0.02;

class Stopwatch {
public:
    double Lap() {
        const auto now = std::chrono::steady_clock::now();
        const double seconds = std::chrono::duration<double>(now - last_).count();
        last_ = now;
        return seconds;
    }

private:
    std::chrono::steady_clock::time_point last_ = std::chrono::steady_clock::now();
};

}  // namespace

int RunDemo(const DemoOptions& options) {
    const fs::path outDir = options.outDir;
    const std::string chain = options.chain.empty() ? DefaultChainPath() : options.chain;
    if (!PngSupported()) {
        return Fail((outDir / "corrected.png").string(), kNoPngSupport);
    }
    std::string error;
    vdicom::DicomIdentity identity;
    if (!DicomIdentityFromOptions(options.dicom, identity, error)) {
        return Fail((outDir / "processed.dcm").string(), error);  // refused by the command line
    }
    vdicom::DicomDetector sensor;
    sensor.pixelPitchMm = PixelPitchFromOptions(options.dicom, kVirtualPixelPitchMm);
    if (!CheckChain(chain, error)) {
        return Fail(chain, error);
    }
    const std::string dicomPath = (outDir / "processed.dcm").string();
    if (vdicom::DicomSupported() && !CheckDicomOutput(dicomPath, sensor.pixelPitchMm, error)) {
        return Fail(dicomPath, error);
    }
    const fs::path workDir = outDir / "sensor";
    std::error_code ec;
    fs::create_directories(workDir, ec);
    if (!fs::is_directory(workDir, ec)) {
        return Fail(workDir.string(), "cannot be created");
    }
    const std::string logPath = (outDir / "veltrano.log").string();
    const std::string iniPath = (workDir / "VirtualSensor.ini").string();
    for (const std::string& path : {logPath, iniPath}) {
        if (!CheckWritableFile(path, error)) {
            return Fail(path, error);
        }
    }
    fs::remove(logPath, ec);

    Stopwatch watch;
    std::printf("veltrano demo: virtual sensor 2000 (1300 x 1800 pixels) in %s\n",
                workDir.string().c_str());
    {
        std::ofstream ini(iniPath, std::ios::trunc);
        ini << kSensorIni;
        if (!ini.flush()) {
            return Fail(iniPath, "cannot be written");
        }
    }
    bool written = false;
    {
        StdoutToFile log(logPath);
        written = WriteVirtualSensorCalibration(workDir.string(), 1, error);
    }
    if (!written) {
        return Fail(workDir.string(), error);
    }
    std::printf("  %-28s %6.2f s\n", "calibration written", watch.Lap());
    std::fflush(stdout);

    imgmat frame;
    ExposureResult exposure;
    double openSeconds = 0.0;
    double acquireSeconds = 0.0;
    {
        StdoutToFile log(logPath);
        CVeltrano detector(workDir.string().c_str());
        if (!OpenDetector(detector, error)) {
            return Fail(workDir.string(), error);
        }
        openSeconds = watch.Lap();
        sensor.serialNumber = detector.GetDectectorSerialNum();
        sensor.sensorSize = detector.GetSensorSize();
        exposure = TakeExposure(detector, ExposureSettings{}, frame);
        acquireSeconds = watch.Lap();
        CloseDetector(detector);
    }
    std::printf("  %-28s %6.2f s\n", "detector opened", openSeconds);
    if (exposure.outcome != ExposureOutcome::Delivered &&
        exposure.outcome != ExposureOutcome::DeliveredWithWarning) {
        return ReportExposure(workDir.string(), exposure);
    }
    std::printf("  %-28s %6.2f s\n", "exposure acquired", acquireSeconds);
    ReportExposure(workDir.string(), exposure);  // a warning, if a setting failed
    watch.Lap();

    const Image16 corrected = ToImage16(frame);
    Image16 processed;
    if (!RunChain(chain, corrected, processed, error)) {
        return Fail(chain, error);
    }
    std::printf("  %-28s %6.2f s\n", ("chain " + fs::path(chain).filename().string()).c_str(),
                watch.Lap());

    // Detector values are high where little absorbs; a radiograph is read with enamel bright.
    const Preview preview = RenderSideBySide(corrected, processed, true);
    const std::string correctedPath = (outDir / "corrected.png").string();
    const std::string processedPath = (outDir / "processed.png").string();
    const std::string previewPath = (outDir / "preview.png").string();
    if (!WriteImage(correctedPath, corrected, error)) {
        return Fail(correctedPath, error);
    }
    if (!WriteImage(processedPath, processed, error)) {
        return Fail(processedPath, error);
    }
    if (!WritePreview(previewPath, preview.width, preview.height, preview.pixels, error)) {
        return Fail(previewPath, error);
    }
    if (vdicom::DicomSupported()) {
        PendingOutput output;
        if (!output.Open(dicomPath, error) ||
            !WriteDicomImage(output, processed, vdicom::DicomImageKind::ForPresentation, identity,
                             sensor, error)) {
            return Fail(dicomPath, error);
        }
    }
    std::printf("  %-28s %6.2f s\n", "images written", watch.Lap());
    std::printf("wrote %s (%u x %u, 16-bit)\n", correctedPath.c_str(), corrected.width,
                corrected.height);
    std::printf("wrote %s (%u x %u, 16-bit)\n", processedPath.c_str(), processed.width,
                processed.height);
    std::printf("wrote %s (%u x %u, 8-bit: corrected | processed)\n", previewPath.c_str(),
                preview.width, preview.height);
    if (vdicom::DicomSupported()) {
        std::printf("wrote %s (%u x %u, DICOM intra-oral image for presentation)\n",
                    dicomPath.c_str(), processed.width, processed.height);
    } else {
        std::printf("DICOM: not available (DCMTK was not found when this program was built)\n");
    }
    std::printf("library log: %s\n", logPath.c_str());
    return kExitDone;
}

}  // namespace vcli
