// A host program in a few lines: opens the virtual sensor, acquires one exposure while a second
// thread shows the progress, runs the default chain and writes the processed image.
//
//   veltrano_host WORKDIR [OUTPUT.raw]
#include <veltrano.h>
#include <veltrano/virtual_sensor.h>

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
    detector.Deinit();
    return 0;
}
