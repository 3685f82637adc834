// Who and what a DICOM image is about: the patient and study fields a practice fills in, checked
// and put into the form DICOM stores them in, and the unique identifiers of new instances.
// Plain C++: a build without DCMTK still checks the fields (and then says DICOM is missing).
#pragma once

#include <string>

#include "dicom_export.h"

namespace vdicom {

// The patient's name written when none is given: the file stays valid and a viewer shows
// plainly that nobody has been assigned to the image.
inline const char kUnknownPatientName[] = "UNKNOWN^PATIENT";

// The patient and study of an image. Empty fields are absent. The source* fields are filled by
// ReadDicom from an input file: a processed image written with them joins the same study and
// refers back to the image it was made from.
struct DicomIdentity {
    std::string patientName;  // "Family^Given^Middle^Prefix^Suffix" or plain text
    std::string patientId;
    std::string birthDate;  // YYYYMMDD or YYYY-MM-DD; stored as YYYYMMDD
    std::string sex;        // M, F or O (any case; "male", "female", "other" too)
    std::string studyDescription;
    std::string tooth;  // two-digit FDI number: 11..48 permanent, 51..85 primary
    std::string accession;

    // Carried over from an input file; empty for a new study.
    std::string studyInstanceUid;
    std::string studyId;
    std::string studyDate;  // YYYYMMDD
    std::string studyTime;  // HHMMSS[.FFFFFF]
    std::string referringPhysician;
    std::string sourceSopClassUid;  // the input image, referred to by the new one
    std::string sourceSopInstanceUid;
    std::string sourceSeriesNumber;
    std::string sourceLaterality;  // the input's image laterality when it gave no tooth
};

// Checks every field a user gives and rewrites it in its stored form (dates without dashes,
// sex as one capital letter, surrounding spaces removed). Text is UTF-8; anything outside
// ASCII makes the file declare the UTF-8 character set. On a bad value returns false with one
// line that names the field and says what is wrong, for instance
// "--tooth: 19 is not a tooth in FDI numbering (11-18, 21-28, 31-38, 41-48 or 51-55, ..., 81-85)".
VELTRANO_DICOM_API bool ValidateIdentity(DicomIdentity& identity, std::string& error);

// True when any text of the identity needs more than ASCII.
VELTRANO_DICOM_API bool NeedsUtf8(const DicomIdentity& identity);

// Where a tooth lies, from its FDI quadrant: 'R' for the patient's right (quadrants 1, 4, 5, 8),
// 'L' for the left, 0 for an empty or invalid number.
VELTRANO_DICOM_API char ToothSide(const std::string& fdiTooth);
// True for the upper jaw (quadrants 1, 2, 5, 6), false otherwise.
VELTRANO_DICOM_API bool ToothInUpperJaw(const std::string& fdiTooth);

// A new unique identifier in the form that needs no registered root: "2.25." followed by the
// decimal value of a random (version 4) UUID.
VELTRANO_DICOM_API std::string NewUid();
// The decimal digits of a 128-bit number given as two 64-bit halves (used by NewUid).
VELTRANO_DICOM_API std::string Decimal128(unsigned long long high, unsigned long long low);

}  // namespace vdicom
