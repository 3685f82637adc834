// The subcommands of the veltrano program. Each returns the process exit code: 0 done,
// 1 failure (after a one-line message on standard error), 2 usage error, 130 an exposure
// stopped before it gave an image.
#pragma once

#include <string>

#include "acquisition.h"
#include "dicom_output.h"
#include "image_files.h"

namespace vcli {

constexpr int kExitDone = 0;
constexpr int kExitFailure = 1;
constexpr int kExitUsage = 2;
// An exposure stopped with Ctrl-C before it gave an image: the shells' code for an interrupt.
constexpr int kExitStopped = 130;

// What each subcommand was asked to do. The command line (command_line.cpp) fills these, with
// every range and every required option already checked; the defaults here are the ones its
// help shows.

struct DemoOptions {
    std::string outDir = "demo-out";
    std::string chain;   // empty: the chain file shipped with the program
    DicomOptions dicom;  // for DIR/processed.dcm
};

struct AcquireOptions {
    std::string workDir;
    std::string out;
    std::string chain;  // empty: no chain
    ExposureSettings exposure;
    bool verbose = false;
    DicomOptions dicom;  // for a .dcm output
};

struct ProcessOptions {
    std::string chain;
    std::string in;
    std::string out;
    bool raw = false;  // the input is a headerless raw file of the layout below
    RawLayout layout;
    DicomOptions dicom;  // for a .dcm output; a .dcm input brings its own patient and study
};

struct CalibrateOptions {
    std::string workDir;
    int levels = 4;
    int exposures = 8;
    bool yes = false;
    bool verbose = false;
    // --virtual: the virtual sensor writes its own calibration of `frames` gain frames instead.
    bool virtualSensor = false;
    int frames = 1;
};

struct InfoOptions {
    std::string workDir;
    bool verbose = false;
};

struct StudioCommandOptions {
    std::string image;    // a picture file, or
    std::string workDir;  // a fresh exposure from this sensor
    std::string chain;    // empty: the chain file shipped with the program
    int port = 0;         // 0: 8765, or any free port when that is taken
    bool raw = false;     // the picture is a headerless raw file of the layout below
    RawLayout layout;
    bool noBrowser = false;
};

int RunDemo(const DemoOptions& options);
int RunAcquire(const AcquireOptions& options);
int RunProcess(const ProcessOptions& options);
// Either form of calibrate: the calibration from the sensor's own exposures, or --virtual.
int RunCalibrate(const CalibrateOptions& options);
int RunVirtualCalibrate(const CalibrateOptions& options);
int RunInfo(const InfoOptions& options);
// The chain studio (studio/), where the program is built with it.
int RunStudioCommand(const StudioCommandOptions& options);

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

// The chain file shipped with the program: bin/chains/default.chain beside the executable,
// else chains/default.chain under the current folder.
std::string DefaultChainPath();

}  // namespace vcli
