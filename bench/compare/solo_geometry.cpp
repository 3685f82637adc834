// The geometry functions, with the settings the detector and the hosts use, reported in copies
// of the 16-bit frame.
#include <memory>
#include <vector>

#include "entries.h"
#include "veltrano.h"

namespace compare {
namespace {

uint8_t* Bytes(std::vector<uint16_t>& v) { return reinterpret_cast<uint8_t*>(v.data()); }
uint8_t* Bytes(std::vector<float>& v) { return reinterpret_cast<uint8_t*>(v.data()); }

const AddEntry kCopyRoi{[] {
    Entry e = Solo(1200, "CopyRoiTo 16U 400x300 block", FrameBytes<uint16_t>());
    e.setup = [] {
        struct B {
            std::vector<uint16_t> src = Frame16(), dst = std::vector<uint16_t>(kPixels),
                                  block = std::vector<uint16_t>(400 * 300, 1234);
        };
        auto b = std::make_shared<B>();
        return Sides{[b] {
                         return CopyRoiTo(Bytes(b->src), Bytes(b->dst), Bytes(b->block), 4, kWidth,
                                          kHeight, 400, 300, 850, 100) == 1;
                     },
                     {},
                     {}};
    };
    return e;
}()};

const AddEntry kWaterMark{[] {
    Entry e = Solo(1201, "AddWaterMask 16U 400x120 mark", FrameBytes<uint16_t>());
    e.setup = [] {
        struct B {
            std::vector<uint16_t> src = Frame16(), dst = std::vector<uint16_t>(kPixels),
                                  mark = std::vector<uint16_t>(400 * 120);
        };
        auto b = std::make_shared<B>();
        for (size_t i = 0; i < b->mark.size(); ++i) b->mark[i] = (i / 7) % 3 == 0 ? 60000 : 0;
        return Sides{[b] {
                         return AddWaterMask(Bytes(b->src), Bytes(b->dst), Bytes(b->mark), kWidth,
                                             kHeight, 400, 120, 850, 1650, 4, 0.3f) == 1;
                     },
                     {},
                     {}};
    };
    return e;
}()};

// The detector's corner fill: squares of the corner cut's side (281 on this sensor) at the
// top corners of the float frame, addressed as 4-byte elements.
constexpr int kCornerCut = 281;

struct FloatFrames {
    std::vector<float> src = FrameF();
    std::vector<float> dst = std::vector<float>(kPixels);
};

const AddEntry kRightDown{[] {
    Entry e = Solo(1202, "Copy_RightDown_To_LeftUp 32F corner", FrameBytes<float>());
    e.setup = [] {
        auto b = std::make_shared<FloatFrames>();
        return Sides{[b] {
                         return Copy_RightDown_To_LeftUp(Bytes(b->src), Bytes(b->dst), kWidth,
                                                         kHeight, 8, 0, 0, kCornerCut) == 1;
                     },
                     {},
                     {}};
    };
    return e;
}()};

const AddEntry kLeftDown{[] {
    Entry e = Solo(1203, "Copy_LeftDown_To_RightUp 32F corner", FrameBytes<float>());
    e.setup = [] {
        auto b = std::make_shared<FloatFrames>();
        return Sides{[b] {
                         return Copy_LeftDown_To_RightUp(Bytes(b->src), Bytes(b->dst), kWidth,
                                                         kHeight, 8, kWidth - kCornerCut, 0,
                                                         kCornerCut) == 1;
                     },
                     {},
                     {}};
    };
    return e;
}()};

const AddEntry kMaskByLine{[] {
    Entry e = Solo(1204, "MakeMaskByLine 16U", FrameBytes<uint16_t>());
    e.setup = [] {
        struct B {
            std::vector<uint16_t> src = Frame16(), dst = std::vector<uint16_t>(kPixels);
        };
        auto b = std::make_shared<B>();
        return Sides{[b] {
                         return MakeMaskByLine(b->src.data(), b->dst.data(), kWidth, kHeight, 0.0f,
                                               1500.0f, 1300.0f, 1700.0f, 1, 0) == 1;
                     },
                     {},
                     {}};
    };
    return e;
}()};

}  // namespace
}  // namespace compare
