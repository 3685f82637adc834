// The calibration files below a work folder, through whole acquisitions on the virtual sensor.
// Each input makes a gain file and a defect file from the sensor's own (cut short, lengthened
// past the four-frame size, overwritten here and there, missing, or moved into a sub-folder)
// and takes one exposure of a flat field with a fresh detector object. The acquisition must end
// with the code its files call for, and a delivered image must have the sensor's size and
// finite, non-negative values; from the sensor's own intact files, it must come back flat.
#include <fuzzer/FuzzedDataProvider.h>

#include <cmath>
#include <filesystem>
#include <string>
#include <vector>

#include "fuzz_support.h"
#include "platform/dynamic_library.h"
#include "veltrano/detector.h"

namespace {
namespace fs = std::filesystem;

constexpr int kColumns = 1000;  // sensor size 1000
constexpr int kRows = 1500;
constexpr int kCornerCut = 211;
constexpr size_t kHeader = 1040;
constexpr size_t kFrameBytes = size_t(kColumns) * kRows * 2;

struct Sensor {
    std::string workDir;
    std::string folder;
    std::string gain;  // the sensor's own files, as written by it
    std::string defects;
};

// A work folder configured for the virtual sensor, and its genuine calibration files.
const Sensor& GenuineSensor() {
    static const Sensor sensor = [] {
        Sensor s;
        s.workDir = fuzz::ScratchPath("calibration");
        s.folder = s.workDir + "/Correct/Default";
        fs::create_directories(s.workDir);
        fuzz::WriteFile(s.workDir + "/VirtualSensor.ini",
                        "[VirtualSensor]\nSensorSize=1000\nScene=flat\nDose=20000\nExposureMs=1\n");
        // Held open for the life of the process: the detector objects load and unload the driver
        // with every input, and libFuzzer must never see an instrumented library unmapped.
        static veltrano::platform::DynamicLibrary* const driver =
            new veltrano::platform::DynamicLibrary;
        using WriteFn = int (*)(const char*, int);
        auto write =
            driver->open("FpdSys")
                ? reinterpret_cast<WriteFn>(driver->symbol("VirtualSensor_WriteCalibration"))
                : nullptr;
        FUZZ_CHECK(write != nullptr && write(s.workDir.c_str(), 1) == 0, "no virtual sensor");
        s.gain = fuzz::ReadFile(s.folder + "/VirtualSensor.gn");
        s.defects = fuzz::ReadFile(s.folder + "/VirtualSensor.dft");
        FUZZ_CHECK(s.gain.size() == kHeader + kFrameBytes, "gain file of %zu bytes", s.gain.size());
        return s;
    }();
    return sensor;
}

// A file made from a genuine one; the bool says whether it is the genuine one unchanged.
std::pair<std::string, bool> Variant(FuzzedDataProvider& in, const std::string& genuine) {
    std::string bytes = genuine;
    bool intact = true;
    switch (in.ConsumeIntegralInRange(0, 7)) {
    case 0:
        bytes.resize(in.ConsumeIntegralInRange<size_t>(0, genuine.size()));
        intact = false;
        break;
    case 1:
        bytes.resize(in.ConsumeIntegralInRange<size_t>(0, kHeader + 8));
        intact = false;
        break;
    case 2:  // longer: past two frames' size a gain file holds four
        bytes.append(in.ConsumeIntegralInRange<size_t>(1, kFrameBytes + 16), '\x7f');
        intact = false;
        break;
    case 3:
    case 4: {
        const int patches = in.ConsumeIntegralInRange(1, 16);
        for (int i = 0; i < patches && !bytes.empty(); ++i) {
            const size_t at = in.ConsumeIntegralInRange<size_t>(0, bytes.size() - 1);
            const size_t run = in.ConsumeIntegralInRange<size_t>(1, 4096);
            const char value = static_cast<char>(in.ConsumeIntegral<uint8_t>());
            for (size_t k = at; k < bytes.size() && k < at + run; ++k) bytes[k] = value;
        }
        intact = false;
        break;
    }
    default:
        break;
    }
    return {bytes, intact};
}

// Coefficient of variation over the rows below the cut corners.
double Variation(const imgmat& image) {
    double sum = 0, squares = 0, count = 0;
    for (size_t i = size_t(kCornerCut + 1) * kColumns; i < size_t(kColumns) * kRows; ++i, ++count) {
        sum += image.data[i];
        squares += double(image.data[i]) * image.data[i];
    }
    return std::sqrt(std::max(0.0, squares / count - sum * sum / count / count)) / (sum / count);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::SilenceStdout();
    const Sensor& sensor = GenuineSensor();
    FuzzedDataProvider in(data, size);
    const auto gain = Variant(in, sensor.gain);
    const auto defects = Variant(in, sensor.defects);
    const int gainPlace = in.ConsumeIntegralInRange(0, 3);  // 0: missing, 3: in a sub-folder
    const int defectPlace = in.ConsumeIntegralInRange(0, 3);

    fs::remove_all(sensor.folder);
    fs::create_directories(sensor.folder + "/sub");
    if (gainPlace != 0) {
        fuzz::WriteFile(sensor.folder + (gainPlace == 3 ? "/sub" : "") + "/sensor.gn", gain.first);
    }
    if (defectPlace != 0) {
        fuzz::WriteFile(sensor.folder + (defectPlace == 3 ? "/sub" : "") + "/sensor.dft",
                        defects.first);
    }
    // A name with the extension inside it, which must not count.
    fuzz::WriteFile(sensor.folder + "/decoy.gn.bak", "not a gain file");

    imgmat image;
    int code = 0;
    int endSign = -1;
    int progress = -1;
    {
        CVeltrano detector(sensor.workDir.c_str());
        FUZZ_CHECK(detector.Initialize() == 0 && detector.Connect() == 0, "the virtual sensor");
        code = detector.AcqImageEx(image, 0, 6, 100);
        endSign = detector.GetEndSign();
        progress = detector.GetProgressBar();
        detector.Disconnect();
        detector.Deinit();
    }
    const bool loadable = gainPlace != 0 && !gain.first.empty() && defectPlace != 0;
    if (!loadable) {
        FUZZ_CHECK(code == -3 && endSign == 2 && progress == 0 && image.data == nullptr,
                   "without calibration: code %d, end sign %d, progress %d", code, endSign,
                   progress);
        return 0;
    }
    FUZZ_CHECK(code == 0 && endSign == 1 && progress == 11, "code %d, end sign %d, progress %d",
               code, endSign, progress);
    FUZZ_CHECK(image.data != nullptr && image.width == kColumns && image.height == kRows,
               "image of %llu x %llu", image.width, image.height);
    for (size_t i = 0; i < size_t(kColumns) * kRows; ++i) {
        FUZZ_CHECK(std::isfinite(image.data[i]) && image.data[i] >= 0.0f, "pixel %zu is %g", i,
                   static_cast<double>(image.data[i]));
    }
    if (gain.second && defects.second) {
        const double variation = Variation(image);
        FUZZ_CHECK(variation < 0.02, "the genuine calibration left a variation of %g", variation);
    }
    return 0;
}
