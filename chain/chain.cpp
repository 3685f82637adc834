// Img_Post_Process_Chain: runs the steps of a chain file, in place, on a copy of the image.

#include "veltrano/chain.h"

#include <cstring>
#include <fstream>
#include <iostream>
#include <vector>

#include "chain/chain_file.h"
#include "imgproc/scratch_buffers.h"
#include "veltrano/clahe.h"
#include "veltrano/contrast.h"
#include "veltrano/fastnlm.h"
#include "veltrano/filters.h"
#include "veltrano/params.h"
#include "veltrano/pixel_type.h"
#include "veltrano/point_ops.h"
#include "veltrano/usm.h"

namespace veltrano::chain {
namespace {

constexpr int kWrongBlockSize = -11;

// The image every step works on, in place: the chain's destination buffer.
struct Image {
    uint16_t* pixels;
    int width;
    int height;
};

// One step kind: its name, the number of lines of its block (header included) and the work.
// The work only runs on a block of the right length; numbers are read as the work needs them.
struct Step {
    const char* name;
    size_t lines;
    int (*run)(const Block& block, const Image& image);
};

int RunAce(const Block& b, const Image& im) {
    struAceGammaParam param;
    param.param1 = IntParam(b, 1);
    param.param2 = FloatParam(b, 2);
    param.param3 = FloatParam(b, 3);
    param.param4 = FloatParam(b, 4);
    param.param5 = IntParam(b, 5);
    param.param6 = IntParam(b, 6);
    return Ace_Gamma(im.pixels, im.pixels, im.width, static_cast<uint32_t>(im.height), kPix16U,
                     &param, "");
}

int RunClahe(const Block& b, const Image& im) {
    claheParam param;
    // The lines run from peak to the tile columns, the reverse of the record's own key order.
    param.peak = IntParam(b, 1);
    param.histBin = IntParam(b, 2);
    param.heightBlockNum = IntParam(b, 3);
    param.widthBlockNum = IntParam(b, 4);
    return clahe_16U(im.pixels, im.pixels, im.width, im.height, &param, "");
}

int RunWln(const Block& b, const Image& im) {
    struWLNParam param;
    param.wl = IntParam(b, 1);
    param.wr = IntParam(b, 2);
    param.specifymin = IntParam(b, 3);
    param.specifymax = IntParam(b, 4);
    return WLN(im.pixels, im.pixels, static_cast<uint32_t>(im.width),
               static_cast<uint32_t>(im.height), &param);
}

int RunUsm(const Block& b, const Image& im) {
    struUSMParam param;
    param.r = IntParam(b, 1);
    param.lam = FloatParam(b, 2);
    param.isNeedNorm = IntParam(b, 3);
    return USM_EX(im.pixels, im.pixels, static_cast<uint32_t>(im.width),
                  static_cast<uint32_t>(im.height), kPix16U, &param, "");
}

int RunBrightnessContrast(const Block& b, const Image& im) {
    const float brightness = static_cast<float>(IntParam(b, 1));
    const float contrast = FloatParam(b, 2);
    return BrigntAndContrast(im.pixels, im.pixels, im.width, im.height, kPix16U, brightness,
                             contrast);
}

int RunMedian(const Block& b, const Image& im) {
    return Median_Blur(im.pixels, im.pixels, im.width, im.height, IntParam(b, 1), kPix16U);
}

int RunBox(const Block& b, const Image& im) {
    return Box_Filter(im.pixels, im.pixels, im.width, im.height, kPix16U, IntParam(b, 1));
}

// The denoiser serves 8-bit images only, so the step renders the frame to 8 bits, denoises that
// and scales it back: the result keeps only 8 bits of precision.
//
// Each 16-bit value v becomes the float v / 257 + 0.5, truncated. That is (v + 128) div 257 for
// every v: v / 257 is never within 1/514 of a half (257 is odd), far more than the float's error
// below 256, so the float sum never crosses an integer the exact one does not. The integer form
// runs several times faster; the chain's tests compare the two over all 65536 values.
int RunFastNlm(const Block& b, const Image& im) {
    const int patchRadius = IntParam(b, 1);
    const int searchRadius = IntParam(b, 2);
    const float strength = FloatParam(b, 3);
    const uint16_t* in = im.pixels;
    uint16_t* out = im.pixels;
    if (in == nullptr) {
        return -1;
    }
    if (out == nullptr) {
        return -2;
    }
    const size_t count = static_cast<size_t>(im.width) * static_cast<size_t>(im.height);
    std::vector<uint8_t> bytes(count);
    for (size_t i = 0; i < count; ++i) {
        bytes[i] = static_cast<uint8_t>((static_cast<uint32_t>(in[i]) + 128u) / 257u);
    }
    const int result = FastNLM(bytes.data(), bytes.data(), im.width, im.height, strength,
                               patchRadius, searchRadius);
    for (size_t i = 0; i < count; ++i) {
        out[i] = static_cast<uint16_t>(bytes[i] * 257);
    }
    return result;
}

// Inverse refuses the 16-bit code it is given here, so this step leaves the image as it is.
// Chain files rely on that: the block is accepted and the chain goes on.
int RunInverse(const Block&, const Image& im) {
    return Inverse(im.pixels, im.pixels, im.width, im.height, kPix16U);
}

// In the order in which a block's name is tested.
constexpr Step kSteps[] = {
    {"ACE", 7, RunAce},        {"CLAHE", 5, RunClahe},           {"WLN", 5, RunWln},
    {"USM", 4, RunUsm},        {"BC", 3, RunBrightnessContrast}, {"Smooth_Med", 2, RunMedian},
    {"Smooth_Box", 2, RunBox}, {"FastNLM", 4, RunFastNlm},       {"Inverse", 1, RunInverse},
};

// A block of the wrong length is refused with its own code, and the step does nothing.
int RunStep(const Step& step, const Block& block, const Image& image) {
    if (block.size() != step.lines) {
        return kWrongBlockSize;
    }
    return step.run(block, image);
}

const Step* FindStep(const std::string& name) {
    for (const Step& step : kSteps) {
        if (name == step.name) {
            return &step;
        }
    }
    return nullptr;
}

}  // namespace
}  // namespace veltrano::chain

int Img_Post_Process_Chain(const uint16_t* src, uint16_t* dst, int width, int height,
                           const char* chainFile, std::string& chainText) {
    using namespace veltrano::chain;
    chainText.clear();
    std::ifstream in;
    if (chainFile != nullptr) {
        in.open(chainFile);
    }
    if (!in.is_open()) {
        std::cout << "NO Post Process Chain File" << std::endl;
        return -1;
    }
    ChainFile file = ReadChainFile(in);
    chainText = std::move(file.text);
    if (file.blocks.empty()) {
        std::cout << "Do Not Find Param" << std::endl;
        return -2;
    }
    // Null buffers and negative sizes would make the copy below read or write memory the
    // caller never gave, so they are refused with a code of their own. An empty image (a zero
    // size) is not refused: nothing is copied, every step refuses it on its own, and the chain
    // still reports that it ran.
    if (src == nullptr || dst == nullptr || width < 0 || height < 0) {
        return -3;
    }
    // Nor is an image larger than any processing function takes on: every step would refuse
    // it, and the denoising step would first allocate a copy of it.
    if (static_cast<uint64_t>(width) * static_cast<uint64_t>(height) > veltrano::kMaxElements) {
        return -3;
    }

    const size_t count = static_cast<size_t>(width) * static_cast<size_t>(height);
    if (src != dst) {
        std::memmove(dst, src, count * sizeof(uint16_t));
    }
    const Image image{dst, width, height};
    for (const Block& block : file.blocks) {
        const Step* step = FindStep(StepName(block));
        if (step == nullptr) {
            break;  // an unknown name ends the chain; the steps before it stay applied
        }
        RunStep(*step, block, image);  // step results are not examined
    }
    return 0;
}
