// A host program in a few lines: opens the virtual sensor, acquires one exposure while a second
// thread shows the progress, runs the default chain and writes the processed image, as a raw
// file and, where the package has its dicom component, as a DICOM file beside it (OUTPUT.dcm).
//
//   veltrano_host WORKDIR [OUTPUT.raw]
#include <veltrano.h>
#include <veltrano/virtual_sensor.h>
#if HOST_WITH_DICOM
#include <veltrano/dicom.h>
#endif

#include <atomic>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

int main(int argc, char** argv) {
    if (argc < 2) {
        std::fprintf(stderr, "usage: veltrano_host WORKDIR [OUTPUT.raw]\n");
        return 2;
    }
    const std::string workDir = argv[1];
    const std::string output = argc > 2 ? argv[2] : workDir + "/processed.raw";
    std::filesystem::create_directories(workDir);
    // The virtual sensor writes its own calibration; a real sensor comes with one.
    if (VirtualSensor_WriteCalibration(workDir.c_str(), 4) != 0) {
        std::fprintf(stderr, "cannot write the calibration into %s\n", workDir.c_str());
        return 1;
    }

    CVeltrano detector(workDir.c_str());
    if (detector.Initialize() != 0 || detector.Connect() != 0) {
        std::fprintf(stderr, "the sensor does not answer\n");
        return 1;
    }

    std::atomic<bool> done{false};
    std::thread progress([&] {
        while (!done) {
            std::printf("progress %d\n", detector.GetProgressBar());
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        }
    });
    imgmat image;
    const int rc = detector.AcqImageEx(image, 0, 6, 100);
    done = true;
    progress.join();
    if (rc != 0 || image.data == nullptr) {
        std::fprintf(stderr, "the acquisition failed with %d\n", rc);
        return 1;
    }

    const int width = static_cast<int>(image.width), height = static_cast<int>(image.height);
    std::vector<uint16_t> frame(image.getDataSize()), processed(frame.size());
    for (size_t i = 0; i < frame.size(); ++i) {
        const float v = image.data[i];
        frame[i] = static_cast<uint16_t>(v < 0 ? 0 : v > 65535 ? 65535 : v + 0.5f);
    }
    std::string chainText;
    const std::string chain = std::string(VELTRANO_CHAIN_DIR) + "/default.chain";
    if (Img_Post_Process_Chain(frame.data(), processed.data(), width, height, chain.c_str(),
                               chainText) != 0) {
        std::fprintf(stderr, "the chain %s did not run\n", chain.c_str());
        return 1;
    }
    std::vector<float> out(processed.begin(), processed.end());
    if (image.writeRawFile(output.c_str(), out.data(), out.size()) != 1) return 1;
    std::printf("%d x %d image written to %s\n", width, height, output.c_str());

#if HOST_WITH_DICOM
    // A processed image for presentation; no patient given, so the file says the patient is
    // unknown. The sensor names itself; the virtual sensor's pixels are 20 micrometres apart.
    vdicom::DicomDetector sensor;
    sensor.serialNumber = detector.GetDectectorSerialNum();
    sensor.sensorSize = detector.GetSensorSize();
    sensor.pixelPitchMm = 0.02;
    vdicom::DicomImage dicom;
    dicom.width = static_cast<uint32_t>(width);
    dicom.height = static_cast<uint32_t>(height);
    dicom.pixels = processed;
    const std::string dicomOutput =
        std::filesystem::path(output).replace_extension(".dcm").string();
    std::string error;
    // MONOCHROME1: the sensor's values are high where little absorbs; a viewer then shows enamel
    // bright, as radiographs are read.
    if (!vdicom::WriteDicom(dicomOutput, dicom, vdicom::DicomImageKind::ForPresentation,
                            vdicom::DicomIdentity(), sensor, error,
                            vdicom::DicomPhotometric::Monochrome1)) {
        std::fprintf(stderr, "%s: %s\n", dicomOutput.c_str(), error.c_str());
        return 1;
    }
    std::printf("DICOM image written to %s\n", dicomOutput.c_str());
#else
    std::printf("DICOM: not available (Veltrano was installed without its dicom component)\n");
#endif
    detector.Deinit();
    return 0;
}
