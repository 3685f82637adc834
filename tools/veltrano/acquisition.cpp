#include "acquisition.h"

#include <atomic>
#include <chrono>
#include <cstdio>
#include <thread>

#include "platform/console.h"
#include "platform/interrupt.h"

namespace vcli {
namespace {

// Set by the Ctrl-C handler, read by the polling thread: a lock-free atomic is safe for both.
std::atomic<bool> g_interrupted{false};
static_assert(std::atomic<bool>::is_always_lock_free, "the signal handler needs a lock-free flag");

void OnInterrupt(int) { g_interrupted.store(true); }

const char* StageName(int progress) {
    switch (progress) {
    case 0:
        return "loading calibration";
    case 6:
        return "armed, waiting for the exposure";
    case 7:
    case 8:
        return "image received";
    case 9:
        return "corrected";
    case 10:
        return "finished";
    case 11:
        return "handed over";
    default:
        return "working";
    }
}

// Draws the progress of one acquisition on standard error.
class ProgressView {
public:
    explicit ProgressView(bool terminal) : terminal_(terminal) {}

    void Show(int progress, double seconds) {
        if (!terminal_) {
            if (progress != shown_) {
                std::fprintf(stderr, "acquire: %2d %s (%.2f s)\n", progress, StageName(progress),
                             seconds);
                shown_ = progress;
            }
            return;
        }
        constexpr int kWidth = 30;
        const int filled = progress <= 0 ? 0 : progress >= 11 ? kWidth : progress * kWidth / 11;
        char bar[kWidth + 1];
        for (int i = 0; i < kWidth; ++i) {
            bar[i] = i < filled ? '#' : '-';
        }
        bar[kWidth] = '\0';
        static const char kSpinner[] = "|/-\\";
        std::fprintf(stderr, "\racquire [%s] %3d%% %c %-32s %5.1f s", bar,
                     progress >= 11 ? 100 : progress * 100 / 11, kSpinner[ticks_++ % 4],
                     StageName(progress), seconds);
        std::fflush(stderr);
        shown_ = progress;
    }

    void Finish() {
        if (terminal_) {
            std::fputc('\n', stderr);
        }
    }

private:
    bool terminal_;
    int shown_ = -1;
    unsigned ticks_ = 0;
};

}  // namespace

bool OpenDetector(CVeltrano& detector, std::string& error) {
    const int init = detector.Initialize();
    if (init != 0) {
        error =
            "the driver library could not be loaded or started (code " + std::to_string(init) + ")";
        return false;
    }
    const int connect = detector.Connect();
    if (connect != 0) {
        error = connect == -101
                    ? "the sensor reports a size that is not supported (code -101)"
                    : "the sensor could not be connected (code " + std::to_string(connect) + ")";
        detector.Deinit();
        return false;
    }
    return true;
}

void CloseDetector(CVeltrano& detector) {
    detector.Disconnect();
    detector.Deinit();
}

ExposureOutcome ClassifyExposure(int code, int endSign, bool hasImage, bool userStop) {
    if (endSign == 1 && hasImage) {
        return code == 0 ? ExposureOutcome::Delivered : ExposureOutcome::DeliveredWithWarning;
    }
    if (code == -9 || (code == 0 && userStop)) {
        return ExposureOutcome::Stopped;
    }
    return ExposureOutcome::Failed;
}

ExposureResult TakeExposure(CVeltrano& detector, const ExposureSettings& settings, imgmat& image) {
    // The hand-shake wants both back at 0 before each acquisition.
    detector.SetEndSign(0);
    detector.SetProgressBar(0);
    detector.ResetUserStop();

    g_interrupted.store(false);
    const veltrano::platform::InterruptHandler previous =
        veltrano::platform::SetInterruptHandler(OnInterrupt);
    std::atomic<bool> done{false};
    const auto start = std::chrono::steady_clock::now();
    std::thread poller([&] {
        ProgressView view(veltrano::platform::IsTerminal(stderr));
        bool stopSent = false;
        for (;;) {
            const bool last = done.load();
            const double seconds =
                std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
            view.Show(detector.GetProgressBar(), seconds);
            if (last) {
                break;
            }
            if (g_interrupted.load() && !stopSent) {
                detector.StopAcq();
                stopSent = true;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(40));
        }
        view.Finish();
    });
    const int code =
        detector.AcqImageEx(image, settings.delayMs, settings.triggerMode, settings.threshold);
    done.store(true);
    poller.join();
    veltrano::platform::SetInterruptHandler(previous);
    ExposureResult result;
    result.code = code;
    result.outcome = ClassifyExposure(code, detector.GetEndSign(), image.data != nullptr,
                                      detector.GetUserStop());
    return result;
}

std::string DescribeAcquisitionCode(int code) {
    switch (code) {
    case 0:
        return "done";
    case -1:
        return "the detector was not ready (progress not reset or sensor size unknown)";
    case -2:
        return "the detector is not initialised";
    case -3:
        return "no calibration files below the work directory's Correct/Default folder";
    case -4:
        return "the delay time could not be set";
    case -5:
        return "the trigger mode could not be set";
    case -6:
        return "the trigger threshold could not be set";
    case -7:
        return "the sensor could not be prepared for the exposure";
    case -8:
        return "the detector reported an error while waiting for the image";
    case -9:
        return "the wait for the exposure was stopped";
    case -10:
        return "no image was delivered";
    default:
        return "the driver reported an error";
    }
}

}  // namespace vcli
