// The default chain through Img_Post_Process_Chain against its five steps assembled from
// OpenCV: median 3 x 3, min-max stretch to 16 bits, CLAHE in 6 rows by 4 columns of tiles,
// non-local means on an 8-bit rendering (3 x 3 patches, 7 x 7 search, h 7) scaled back by 257,
// and a 5 x 5 box unsharp mask of gain 1. The chain's window levelling over the whole 16-bit
// range is a pure stretch, hence normalize.
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>
#include <opencv2/photo.hpp>

#include <string>

#include "peer.h"
#include "veltrano.h"

namespace compare {
namespace {

const AddEntry kChain{[] {
    Entry e = Pair(1000, "default chain", "median, normalize, CLAHE, NLM 8U, USM",
                   FrameBytes<uint16_t>());
    e.targetRatio = 0.5;
    e.limitMs = 150.0;
    e.setup = [] {
        auto b = MakeBuffers(Frame16());
        struct Scratch {
            cv::Mat median, stretched, equalised, narrow, denoised, wide, blurred;
            cv::Ptr<cv::CLAHE> clahe;
        };
        auto s = std::make_shared<Scratch>();
        s->median.create(kHeight, kWidth, CV_16U);
        s->stretched.create(kHeight, kWidth, CV_16U);
        s->equalised.create(kHeight, kWidth, CV_16U);
        s->narrow.create(kHeight, kWidth, CV_8U);
        s->denoised.create(kHeight, kWidth, CV_8U);
        s->wide.create(kHeight, kWidth, CV_16U);
        s->blurred.create(kHeight, kWidth, CV_16U);
        // The chain clips at 200 counts of 1024 bins in tiles of (1300 / 4) x (1800 / 6) pixels.
        s->clahe = cv::createCLAHE(200.0 * 1024.0 / ((kWidth / 4) * (kHeight / 6)), cv::Size(4, 6));
        return Sides{[b] {
                         std::string text;
                         return Img_Post_Process_Chain(b->src.data(), b->outV.data(), kWidth,
                                                       kHeight, VELTRANO_DEFAULT_CHAIN, text) == 0;
                     },
                     [b, s] {
                         cv::medianBlur(b->srcMat, s->median, 3);
                         cv::normalize(s->median, s->stretched, 0, 65535, cv::NORM_MINMAX);
                         s->clahe->apply(s->stretched, s->equalised);
                         s->equalised.convertTo(s->narrow, CV_8U, 1.0 / 257.0);
                         cv::fastNlMeansDenoising(s->narrow, s->denoised, 7.0f, 3, 7);
                         s->denoised.convertTo(s->wide, CV_16U, 257.0);
                         cv::blur(s->wide, s->blurred, cv::Size(5, 5));
                         cv::addWeighted(s->wide, 2.0, s->blurred, -1.0, 0.0, b->outMat);
                         return true;
                     },
                     {},
                     Difference(b, kBorder)};
    };
    return e;
}()};

}  // namespace
}  // namespace compare
