// DICOM images in the program: the patient options, and a .dcm output written through the
// temporary file of a PendingOutput like every other image, so that a failed run leaves the
// target as it was.
#pragma once

#include <set>
#include <string>

#include "dicom/dicom_file.h"
#include "image_files.h"

namespace vcli {

class Options;

// Option names (without "--") that fill the patient and study of a DICOM output.
const std::set<std::string>& DicomOptionNames();
// The pixel pitch of a sensor that does not report its own, in millimetres.
inline const char kPixelPitchOption[] = "pixel-pitch";

// The identity from the options, checked: UsageError for a bad value, so that nothing is
// acquired or processed with it.
vdicom::DicomIdentity DicomIdentityFromOptions(const Options& options);
// True when any of the patient options was given.
bool HasDicomIdentityOptions(const Options& options);
// --pixel-pitch in millimetres, 0 when not given; UsageError for a bad value.
double PixelPitchFromOptions(const Options& options);

// Refuses, before any work is spent, a .dcm output in a build without DCMTK or without a known
// pixel pitch (pitchMm 0). Returns false with a description of the problem.
bool CheckDicomOutput(const std::string& target, double pitchMm, std::string& error);

// How the program's own images are drawn. The sensor's values are high where little absorbs;
// MONOCHROME1 draws them dark, so that a viewer shows enamel bright, as the demo's preview and
// every radiograph do, while the values stay exactly as the sensor and the chain gave them.
constexpr vdicom::DicomPhotometric kSensorPhotometric = vdicom::DicomPhotometric::Monochrome1;

// Writes the image as DICOM into an opened output and commits it.
bool WriteDicomImage(PendingOutput& output, const Image16& image, vdicom::DicomImageKind kind,
                     const vdicom::DicomIdentity& identity, const vdicom::DicomDetector& detector,
                     std::string& error,
                     vdicom::DicomPhotometric photometric = kSensorPhotometric);

// Reads a DICOM input as a 16-bit image (the caller names the file in errors).
bool ReadDicomImage(const std::string& path, Image16& image, vdicom::DicomSource& source,
                    std::string& error);

}  // namespace vcli
