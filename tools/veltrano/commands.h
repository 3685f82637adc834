// The subcommands of the veltrano program. Each returns the process exit code: 0 done,
// 1 failure (after a one-line message on standard error), 2 usage error, 130 an exposure
// stopped before it gave an image.
#pragma once

#include <string>

#include "acquisition.h"
#include "image_files.h"

namespace vcli {

constexpr int kExitDone = 0;
constexpr int kExitFailure = 1;
constexpr int kExitUsage = 2;
// An exposure stopped with Ctrl-C before it gave an image: the shells' code for an interrupt.
constexpr int kExitStopped = 130;

int RunDemo(int argc, char** argv);
int RunAcquire(int argc, char** argv);
int RunProcess(int argc, char** argv);
int RunCalibrate(int argc, char** argv);
// The virtual sensor writes its own calibration files (calibrate --virtual, without the switch).
int RunVirtualCalibrate(int argc, char** argv);
int RunInfo(int argc, char** argv);
// The chain studio (studio/), where the program is built with it.
int RunStudioCommand(int argc, char** argv);
extern const char kStudioUsage[];

// Shared by the subcommands.

// "veltrano: <subject>: <problem>" on standard error; returns kExitFailure.
int Fail(const std::string& subject, const std::string& problem);

// Reports an exposure and returns the exit code: kExitDone when it gave an image (after a
// warning on standard error when a setting failed); otherwise one line and kExitStopped for a
// stop (also one that came before the sensor was armed), kExitFailure for a failure.
int ReportExposure(const std::string& subject, const ExposureResult& exposure);

// Runs the chain file on `in` into `out`. On failure sets error to a description of what is
// wrong with the chain file (the caller names the file).
bool RunChain(const std::string& chainPath, const Image16& in, Image16& out, std::string& error);

// Runs the chain once on a small test picture, so that a chain file with a malformed number
// is refused before an exposure is spent on it. Same errors as RunChain.
bool CheckChain(const std::string& chainPath, std::string& error);

// The null device, for silencing the library's own console lines where the program reports
// the same failure in its own words.
const char* NullDevice();

// The chain file shipped with the program: bin/chains/default.chain beside the executable,
// else chains/default.chain under the current folder.
std::string DefaultChainPath();

}  // namespace vcli
