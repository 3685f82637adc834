// Digital intra-oral X-ray images as DICOM files: a writer of new instances and a reader of
// 16-bit single-frame images, for the veltrano program and for hosts (installed as
// <veltrano/dicom.h>, the library Veltrano::dicom). Built on DCMTK where it is found; a build
// without it answers every call with kNoDicomSupport.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "dicom_export.h"
#include "dicom_identity.h"

namespace vdicom {

// False in a build without DCMTK; every function below then fails with this explanation.
VELTRANO_DICOM_API bool DicomSupported();
extern VELTRANO_DICOM_API const char kNoDicomSupport[];

// True for a path whose extension is ".dcm" (any case).
VELTRANO_DICOM_API bool IsDicomPath(const std::string& path);

// The two kinds of image a sensor gives: the corrected frame that is still to be processed,
// and a processed one meant to be looked at.
enum class DicomImageKind { ForProcessing, ForPresentation };

// How a viewer maps values to grey. Monochrome2 draws high values bright: with the sensor's
// values (high where little absorbs) soft tissue and air come out bright. Monochrome1 draws
// them dark, the way radiographs are read; the values stay as they are either way.
enum class DicomPhotometric { Monochrome2, Monochrome1 };

// The sensor and the moment of the exposure.
struct DicomDetector {
    std::string serialNumber;
    int sensorSize = -1;          // size code (1000, 1500, 2000), -1 unknown
    double pixelPitchMm = 0.0;    // centre-to-centre distance of the pixels; 0 unknown
    std::string acquisitionDate;  // YYYYMMDD; empty: the time of writing
    std::string acquisitionTime;  // HHMMSS
    std::string softwareVersion;  // written into Software Versions when given
};

// A 16-bit single-frame image, row-major, width x height.
struct DicomImage {
    uint32_t width = 0;
    uint32_t height = 0;
    std::vector<uint16_t> pixels;
};

// Writes a new Digital Intra-Oral X-Ray Image instance to `path` (the file as given, replaced if
// present: the program gives the temporary file of its atomic write). A new identity is checked
// with ValidateIdentity first; one read from an input file is written as it came. Bits stored cover
// the largest value; the window spans the values between the 0.5 % and 99.5 % points of the
// histogram. With an identity read from an input file the image joins that file's study in a series
// of its own and refers back to the input.
VELTRANO_DICOM_API bool WriteDicom(const std::string& path, const DicomImage& image,
                                   DicomImageKind kind, const DicomIdentity& identity,
                                   const DicomDetector& detector, std::string& error,
                                   DicomPhotometric photometric = DicomPhotometric::Monochrome2);

// What ReadDicom takes from a file besides its pixels.
struct DicomSource {
    DicomIdentity identity;  // patient, study and source fields, ready for WriteDicom
    DicomDetector detector;  // serial number, pixel spacing, acquisition date and time
    DicomImageKind kind = DicomImageKind::ForProcessing;
    DicomPhotometric photometric = DicomPhotometric::Monochrome2;
    unsigned bitsStored = 16;
};

// Reads a grey 16-bit single-frame image, uncompressed or in a compressed form DCMTK decodes
// without loss. Colour, fewer or more than 16 bits allocated, signed values, several frames,
// lossy compression and files that end early are refused with a one-line reason.
VELTRANO_DICOM_API bool ReadDicom(const std::string& path, DicomImage& image, DicomSource& source,
                                  std::string& error);

}  // namespace vdicom
