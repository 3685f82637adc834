// DICOM images in the program: the patient options, and a .dcm output written through the
// temporary file of a PendingOutput like every other image, so that a failed run leaves the
// target as it was.
#pragma once

#include <string>

#include "dicom/dicom.h"
#include "image_files.h"

namespace vcli {

// What the patient options and --pixel-pitch gave (demo, acquire and process take them all;
// command_line.cpp defines them once for the three).
struct DicomOptions {
    // The patient options as given; empty when not given.
    std::string patientName;
    std::string patientId;
    std::string birthDate;
    std::string sex;
    std::string studyDescription;
    std::string tooth;
    std::string accession;
    double pixelPitchMm = 0.0;  // the sensor's pixel pitch, 0 when not given
};

// The identity from the options, checked and in the form DICOM stores it. False with one line
// that names the option and says what is wrong; the command line calls this during the parse,
// so that a bad value is a usage error before anything is acquired or processed.
bool DicomIdentityFromOptions(const DicomOptions& options, vdicom::DicomIdentity& identity,
                              std::string& error);
// True when any of the patient options was given.
bool HasDicomIdentityOptions(const DicomOptions& options);
// The pixel pitch for a .dcm output in millimetres: --pixel-pitch when given, else the one the
// sensor is known to have (0: unknown).
double PixelPitchFromOptions(const DicomOptions& options, double sensorPitchMm = 0.0);

// Refuses, before any work is spent, a .dcm output in a build without DCMTK, without a known
// pixel pitch (pitchMm 0) or whose DICOM library cannot be loaded. Returns false with a
// description of the problem.
bool CheckDicomOutput(const std::string& target, double pitchMm, std::string& error);

// How the program's own images are drawn. The sensor's values are high where little absorbs;
// MONOCHROME1 draws them dark, so that a viewer shows enamel bright, as the demo's preview and
// every radiograph do, while the values stay exactly as the sensor and the chain gave them.
constexpr vdicom::DicomPhotometric kSensorPhotometric = vdicom::DicomPhotometric::Monochrome1;

// Writes the image as DICOM into an opened output and commits it.
bool WriteDicomImage(PendingOutput& output, const Image16& image, vdicom::DicomImageKind kind,
                     const vdicom::DicomIdentity& identity, const vdicom::DicomDetector& detector,
                     std::string& error, vdicom::DicomPhotometric photometric = kSensorPhotometric);

// Reads a DICOM input as a 16-bit image (the caller names the file in errors).
bool ReadDicomImage(const std::string& path, Image16& image, vdicom::DicomSource& source,
                    std::string& error);

}  // namespace vcli
