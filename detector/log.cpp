// The detector's log output: plain lines on standard output, each written and flushed in one
// piece, so that the lines of the host's thread and of the driver's callback thread never mix
// and a host reading the output sees each line as soon as it is written.
#include <cstdio>
#include <string>

#include "detector/detector_internal.h"

namespace veltrano::detail {

void LogText(const std::string& text) {
    std::fwrite(text.data(), 1, text.size(), stdout);
    std::fflush(stdout);
}

void LogLine(const std::string& text) { LogText(text + "\n"); }

}  // namespace veltrano::detail
