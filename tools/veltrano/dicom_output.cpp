#include "dicom_output.h"

#include <cstdlib>

#include "options.h"
#include "veltrano_c.h"

namespace vcli {

const std::set<std::string>& DicomOptionNames() {
    static const std::set<std::string> names = {"patient-name", "patient-id", "birth-date", "sex",
                                                "study-description", "tooth", "accession"};
    return names;
}

vdicom::DicomIdentity DicomIdentityFromOptions(const Options& options) {
    vdicom::DicomIdentity id;
    id.patientName = options.Text("patient-name", "");
    id.patientId = options.Text("patient-id", "");
    id.birthDate = options.Text("birth-date", "");
    id.sex = options.Text("sex", "");
    id.studyDescription = options.Text("study-description", "");
    id.tooth = options.Text("tooth", "");
    id.accession = options.Text("accession", "");
    std::string error;
    if (!vdicom::ValidateIdentity(id, error)) {
        throw UsageError(error);
    }
    return id;
}

bool HasDicomIdentityOptions(const Options& options) {
    for (const std::string& name : DicomOptionNames()) {
        if (options.Has(name)) {
            return true;
        }
    }
    return false;
}

double PixelPitchFromOptions(const Options& options) {
    if (!options.Has(kPixelPitchOption)) {
        return 0.0;
    }
    const std::string text = options.Text(kPixelPitchOption, "");
    char* end = nullptr;
    const double value = std::strtod(text.c_str(), &end);
    if (text.empty() || *end != '\0' || !(value >= 0.001 && value <= 1.0)) {
        throw UsageError("option --pixel-pitch needs a pixel pitch in millimetres from 0.001 to "
                         "1, not '" + text + "'");
    }
    return value;
}

bool CheckDicomOutput(const std::string& target, double pitchMm, std::string& error) {
    if (!vdicom::IsDicomPath(target)) {
        return true;
    }
    if (!vdicom::DicomSupported()) {
        error = vdicom::kNoDicomSupport;
        return false;
    }
    if (!(pitchMm > 0.0)) {
        error = "a DICOM image needs the sensor's pixel pitch: give --pixel-pitch MM";
        return false;
    }
    return true;
}

bool WriteDicomImage(PendingOutput& output, const Image16& image, vdicom::DicomImageKind kind,
                     const vdicom::DicomIdentity& identity, const vdicom::DicomDetector& detector,
                     std::string& error, vdicom::DicomPhotometric photometric) {
    // DCMTK writes by name: the temporary file made for us is closed and written again.
    if (!output.CloseFile(error)) {
        return false;
    }
    vdicom::DicomImage dicom;
    dicom.width = image.width;
    dicom.height = image.height;
    dicom.pixels = image.pixels;
    vdicom::DicomDetector written = detector;
    written.softwareVersion = std::string("veltrano ") + vt_version();
    if (!vdicom::WriteDicom(output.TemporaryPath(), dicom, kind, identity, written, error,
                            photometric)) {
        return false;
    }
    return output.Commit(error);
}

bool ReadDicomImage(const std::string& path, Image16& image, vdicom::DicomSource& source,
                    std::string& error) {
    if (!CheckInputFile(path, error)) {
        return false;
    }
    vdicom::DicomImage dicom;
    if (!vdicom::ReadDicom(path, dicom, source, error)) {
        return false;
    }
    image.width = dicom.width;
    image.height = dicom.height;
    image.pixels.swap(dicom.pixels);
    return true;
}

}  // namespace vcli
