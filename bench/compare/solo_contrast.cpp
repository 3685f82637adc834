// Contrast enhancement, window levelling, the record-driven unsharp mask and the flat-field gain
// map: functions with no OpenCV peer, reported in copies of the 16-bit frame.
#include <memory>
#include <vector>

#include "entries.h"
#include "veltrano.h"

namespace compare {
namespace {

struct Frame16Buffers {
    std::vector<uint16_t> src = Frame16();
    std::vector<uint16_t> dst = std::vector<uint16_t>(kPixels);
};

// Radius 20, alpha 1, maximum gain 3: the Ace_Gamma record's defaults.
const AddEntry kAce{[] {
    Entry e = Solo(1100, "AdaptiveContrastEnhancement 16U r20", FrameBytes<uint16_t>());
    e.limitMs = 10.0;
    e.setup = [] {
        auto b = std::make_shared<Frame16Buffers>();
        return Sides{[b] {
                         return AdaptiveContrastEnhancement(b->src.data(), b->dst.data(), kWidth,
                                                            kHeight, 4, 20, 1.0f, 3.0f) == 1;
                     },
                     {},
                     {}};
    };
    return e;
}()};

const AddEntry kAceQuick{[] {
    Entry e = Solo(1101, "AdaptiveContrastEnhancementQuick 16U r20", FrameBytes<uint16_t>());
    e.setup = [] {
        auto b = std::make_shared<Frame16Buffers>();
        return Sides{[b] {
                         return AdaptiveContrastEnhancementQuick(b->src.data(), b->dst.data(),
                                                                 kWidth, kHeight, 4, 20, 1.0f,
                                                                 3.0f) == 1;
                     },
                     {},
                     {}};
    };
    return e;
}()};

// The record's defaults: the quick enhancement at radius 20, then gamma 0.8.
const AddEntry kAceGamma{[] {
    Entry e = Solo(1102, "Ace_Gamma 16U default record", FrameBytes<uint16_t>());
    e.setup = [] {
        auto b = std::make_shared<Frame16Buffers>();
        auto param = std::make_shared<struAceGammaParam>();
        return Sides{[b, param] {
                         return Ace_Gamma(b->src.data(), b->dst.data(), kWidth, kHeight, 4,
                                          param.get(), nullptr) == 1;
                     },
                     {},
                     {}};
    };
    return e;
}()};

// A window inside the frame's range, stretched to the full 16 bits.
const AddEntry kWln{[] {
    Entry e = Solo(1103, "WLN 16U window 10000..50000", FrameBytes<uint16_t>());
    e.setup = [] {
        auto b = std::make_shared<Frame16Buffers>();
        auto param = std::make_shared<struWLNParam>();
        param->wl = 10000;
        param->wr = 50000;
        param->specifymin = 0;
        param->specifymax = 65535;
        return Sides{[b, param] {
                         return WLN(b->src.data(), b->dst.data(), kWidth, kHeight, param.get()) ==
                                1;
                     },
                     {},
                     {}};
    };
    return e;
}()};

// The default chain's unsharp mask: radius 2, amount 0.04, no stretch.
const AddEntry kUsmEx{[] {
    Entry e = Solo(1104, "USM_EX 16U r2", FrameBytes<uint16_t>());
    e.setup = [] {
        auto b = std::make_shared<Frame16Buffers>();
        auto param = std::make_shared<struUSMParam>();
        param->r = 2;
        param->lam = 0.04f;
        param->isNeedNorm = 0;
        return Sides{[b, param] {
                         return USM_EX(b->src.data(), b->dst.data(), kWidth, kHeight, 4,
                                       param.get(), nullptr) == 1;
                     },
                     {},
                     {}};
    };
    return e;
}()};

const AddEntry kGainMap{[] {
    Entry e = Solo(1110, "ImgGainCorrect 32F", FrameBytes<float>());
    e.limitCopies = 6.0;
    e.setup = [] {
        auto src = std::make_shared<std::vector<float>>(FrameF());
        auto dst = std::make_shared<std::vector<float>>(kPixels);
        return Sides{
            [src, dst] { return ImgGainCorrect(src->data(), dst->data(), kWidth, kHeight) == 1; },
            {},
            {}};
    };
    return e;
}()};

}  // namespace
}  // namespace compare
