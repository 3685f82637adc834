// The DICOM interface of a build without DCMTK: every file operation fails with the same
// explanation; the identity checks still work.
#include <algorithm>
#include <cctype>
#include <filesystem>

#include "dicom.h"

namespace vdicom {

const char kNoDicomSupport[] = "DICOM support is not built into this program (DCMTK was not found)";

bool DicomSupported() { return false; }

bool IsDicomPath(const std::string& path) {
    std::string ext = std::filesystem::path(path).extension().string();
    std::transform(ext.begin(), ext.end(), ext.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return ext == ".dcm";
}

bool WriteDicom(const std::string&, const DicomImage&, DicomImageKind, const DicomIdentity&,
                const DicomDetector&, std::string& error, DicomPhotometric) {
    error = kNoDicomSupport;
    return false;
}

bool ReadDicom(const std::string&, DicomImage&, DicomSource&, std::string& error) {
    error = kNoDicomSupport;
    return false;
}

}  // namespace vdicom
