#include "dicom_output.h"

#if defined(VELTRANO_DICOM_LOADER)
#include "dicom/dicom_entry.h"
#endif

#include "veltrano_c.h"

namespace vcli {

bool DicomIdentityFromOptions(const DicomOptions& options, vdicom::DicomIdentity& identity,
                              std::string& error) {
    identity = vdicom::DicomIdentity();
    identity.patientName = options.patientName;
    identity.patientId = options.patientId;
    identity.birthDate = options.birthDate;
    identity.sex = options.sex;
    identity.studyDescription = options.studyDescription;
    identity.tooth = options.tooth;
    identity.accession = options.accession;
    return vdicom::ValidateIdentity(identity, error);
}

bool HasDicomIdentityOptions(const DicomOptions& options) {
    for (const std::string* text :
         {&options.patientName, &options.patientId, &options.birthDate, &options.sex,
          &options.studyDescription, &options.tooth, &options.accession}) {
        if (!text->empty()) {
            return true;
        }
    }
    return false;
}

double PixelPitchFromOptions(const DicomOptions& options, double sensorPitchMm) {
    return options.pixelPitchMm > 0.0 ? options.pixelPitchMm : sensorPitchMm;
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
#if defined(VELTRANO_DICOM_LOADER)
    // The library that writes it is loaded now, so that an installation without it fails here.
    return vdicom::LoadDicomLibrary(error);
#else
    return true;
#endif
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
