// The DICOM interface of a build without DCMTK: every file operation fails with the same
// explanation; the identity checks still work.
#include "dicom.h"

namespace vdicom {

bool DicomSupported() { return false; }

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
