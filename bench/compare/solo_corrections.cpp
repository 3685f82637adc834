// The corrections every acquisition applies to a raw frame, reached through the detector object
// as the acquisition reaches them: the gain correction (one calibration frame, or the choice
// among four), the defect repair on a realistic defect map, and the outlier statistics pass.
// Their sum (the slower gain correction plus the other two) is the acquisition's processing
// time apart from its described sleeps.
#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "defects.h"
#include "host.h"
#include "entries.h"
#include "veltrano.h"

namespace compare {
namespace {

constexpr int kCornerCut = 281;  // this sensor's cut upper corners

// Exposes the protected statistics pass.
class DetectorProbe : public CVeltrano {
public:
    explicit DetectorProbe(const char* workDir) : CVeltrano(workDir) {}
    using CVeltrano::CalcOutlierMarks;
};

// A flat-field frame at the given level: a gentle fall-off towards the corners; the first pixel
// carries the level, as the calibration reads it from there.
std::vector<uint16_t> FlatFrame(double level) {
    std::vector<uint16_t> f(kPixels);
    for (int y = 0; y < kHeight; ++y) {
        for (int x = 0; x < kWidth; ++x) {
            const double dx = (x - kWidth / 2.0) / kWidth, dy = (y - kHeight / 2.0) / kHeight;
            f[static_cast<size_t>(y) * kWidth + x] = static_cast<uint16_t>(
                level * (1.0 - 0.3 * (dx * dx + dy * dy)) + ((x * 7 + y * 13) % 17));
        }
    }
    f[0] = static_cast<uint16_t>(level);
    return f;
}

// A detector object loaded from calibration files written to a temporary work directory in
// the layout the acquisition reads: a gain file with one frame per level (none: no gain file)
// and, when asked, a defect file with the realistic defect map.
std::shared_ptr<DetectorProbe> CalibratedDetector(const std::vector<double>& levels, bool defects) {
    TempDir dir;
    if (dir.path().empty()) {
        throw std::runtime_error("no temporary directory for the calibration files");
    }
    const std::string folder = dir.path() + "/Correct/Default";
    std::filesystem::create_directories(folder);
    const std::vector<char> header(1040, 0);
    if (!levels.empty()) {
        std::ofstream file(folder + "/sensor.gn", std::ios::binary);
        file.write(header.data(), static_cast<std::streamsize>(header.size()));
        for (double level : levels) {
            const std::vector<uint16_t> frame = FlatFrame(level);
            file.write(reinterpret_cast<const char*>(frame.data()),
                       static_cast<std::streamsize>(frame.size() * sizeof(uint16_t)));
        }
        if (!file) {
            throw std::runtime_error("cannot write the gain file");
        }
    }
    if (defects) {
        std::ofstream file(folder + "/sensor.dft", std::ios::binary);
        file.write(header.data(), static_cast<std::streamsize>(header.size()));
        for (float marked : RealisticDefects()) file.put(marked >= 1.0f ? 1 : 0);
        if (!file) {
            throw std::runtime_error("cannot write the defect file");
        }
    }
    auto detector = std::make_shared<DetectorProbe>(dir.path().c_str());
    if (!levels.empty() && detector->GetAndCaliFile_Gain() != 0) {
        throw std::runtime_error("the detector did not load the gain file");
    }
    if (defects && detector->GetBadPixelInfo() != 0) {
        throw std::runtime_error("the detector did not load the defect file");
    }
    return detector;
}

// The raw frame as the acquisition holds it, and a pristine copy to restore before each call,
// since the corrections work in place.
struct RawImage {
    imgmat image{kWidth, kHeight, 1};
    std::vector<float> pristine = FrameF();
    void Restore() { std::copy(pristine.begin(), pristine.end(), image.data); }
};

Entry GainEntry(int order, const char* name, std::vector<double> levels) {
    Entry e = Solo(order, name, FrameBytes<float>());
    e.quiet = true;
    e.correction = Correction::GainChoice;
    e.setup = [levels] {
        auto detector = CalibratedDetector(levels, false);
        auto raw = std::make_shared<RawImage>();
        return Sides{[detector, raw] { return detector->DoGainCorrection(raw->image) == 1; },
                     {},
                     [raw] { raw->Restore(); }};
    };
    return e;
}

const AddEntry kGainOne{GainEntry(1300, "CVeltrano::DoGainCorrection 1 gain frame", {30000.0})};
const AddEntry kGainFour{GainEntry(1301, "CVeltrano::DoGainCorrection 4 gain frames",
                                   {6000.0, 14000.0, 26000.0, 40000.0})};

const AddEntry kFixBadPixel{[] {
    Entry e = Solo(1302, "CVeltrano::DoFixBadPixel realistic map", FrameBytes<float>());
    e.quiet = true;
    e.correction = Correction::Step;
    e.setup = [] {
        auto detector = std::make_shared<DetectorProbe>(".");
        auto raw = std::make_shared<RawImage>();
        auto defects = std::make_shared<imgmat>(kWidth, kHeight, 1);
        const std::vector<float> map = RealisticDefects();
        std::copy(map.begin(), map.end(), defects->data);
        return Sides{
            [detector, raw, defects] { return detector->DoFixBadPixel(raw->image, *defects) == 1; },
            {},
            [raw] { raw->Restore(); }};
    };
    return e;
}()};

const AddEntry kOutliers{[] {
    Entry e = Solo(1303, "CVeltrano::CalcOutlierMarks", FrameBytes<float>());
    e.quiet = true;
    e.correction = Correction::Step;
    e.setup = [] {
        // The marks take the size of the detector's defect map, so it needs one.
        auto detector = CalibratedDetector({}, true);
        auto raw = std::make_shared<RawImage>();
        raw->Restore();
        auto marks = std::make_shared<imgmat>();
        return Sides{[detector, raw, marks] {
                         int low = 0, high = 0;
                         detector->CalcOutlierMarks(raw->image, kCornerCut, low, high, *marks);
                         // The pass always yields levels in 0..65535 and a map of the image's size.
                         return marks->data != nullptr && low >= 0 && high <= 65535;
                     },
                     {},
                     {}};
    };
    return e;
}()};

}  // namespace
}  // namespace compare
