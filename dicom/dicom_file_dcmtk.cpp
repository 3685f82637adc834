// DICOM files through DCMTK.
#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <mutex>

#include "dicom.h"
#include "dicom_entry.h"

#include <dcmtk/config/osconfig.h>
#include <dcmtk/dcmdata/dcdeftag.h>
#include <dcmtk/dcmdata/dcdict.h>
#include <dcmtk/dcmdata/dcfilefo.h>
#include <dcmtk/dcmdata/dcrledrg.h>
#include <dcmtk/dcmdata/dcuid.h>
#include <dcmtk/dcmdata/dcxfer.h>
#include <dcmtk/dcmjpeg/djdecode.h>
#include <dcmtk/dcmjpls/djdecode.h>
#include <dcmtk/oflog/oflog.h>

namespace vdicom {
namespace {

// The most pixels an image may have: the library's own limit for one image (2^28).
constexpr uint64_t kMaxPixels = uint64_t(1) << 28;

// The tooth travels in the image comments in these words, and is read back from them.
const char kToothComment[] = "FDI tooth ";

// Intra-oral sensors have pixels of some hundredths of a millimetre; a pitch not above 0 or over
// 10 mm is no sensor's.
bool PlausiblePitch(double mm) { return mm > 0.0 && mm <= 10.0; }

// A value of a foreign file quoted in a refusal: at most 64 characters, control characters as '?',
// so that the message stays one line whatever the file holds.
std::string Quoted(const std::string& value) {
    std::string out = value.substr(0, 64);
    for (char& c : out) {
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) c = '?';
    }
    return value.size() > 64 ? out + "..." : out;
}

// DCMTK names elements through its data dictionary, a file of its installation; without it no
// file can be read or written correctly.
bool DictionaryLoaded(std::string& error) {
    if (dcmDataDict.isDictionaryLoaded()) {
        return true;
    }
    error = "cannot be handled: DCMTK's data dictionary is not loaded (see DCMDICTPATH)";
    return false;
}

// DCMTK's own log would print on the console; the program reports failures in its own words.
void QuietDcmtk() {
    static std::once_flag once;
    std::call_once(once, [] {
        OFLog::configure(OFLogger::FATAL_LOG_LEVEL);
        DcmRLEDecoderRegistration::registerCodecs();
        DJDecoderRegistration::registerCodecs();
        DJLSDecoderRegistration::registerCodecs();
        // The registrations live until they are cleaned up; at exit, so that nothing is left
        // behind for a leak checker to report.
        std::atexit([] {
            DJLSDecoderRegistration::cleanup();
            DJDecoderRegistration::cleanup();
            DcmRLEDecoderRegistration::cleanup();
        });
    });
}

struct Clock {
    std::string date;  // YYYYMMDD
    std::string time;  // HHMMSS
};

Clock Now() {
    const std::time_t now = std::time(nullptr);
    std::tm local{};
#if defined(_WIN32)
    localtime_s(&local, &now);
#else
    localtime_r(&now, &local);
#endif
    char date[64], time[64];
    std::snprintf(date, sizeof date, "%04d%02d%02d", local.tm_year + 1900, local.tm_mon + 1,
                  local.tm_mday);
    std::snprintf(time, sizeof time, "%02d%02d%02d", local.tm_hour, local.tm_min, local.tm_sec);
    return {date, time};
}

// A decimal string of at most 16 characters, as DICOM's DS type allows.
std::string Decimal(double value) {
    char text[32];
    for (int digits = 10; digits > 0; --digits) {
        std::snprintf(text, sizeof text, "%.*g", digits, value);
        if (std::string(text).size() <= 16) {
            break;
        }
    }
    return text;
}

// Puts elements into a dataset and keeps the first failure.
class Builder {
public:
    explicit Builder(DcmItem* item) : item_(item) {}

    void Text(const DcmTagKey& tag, const std::string& value) {
        Keep(item_->putAndInsertString(tag, value.c_str()));
    }
    void Empty(const DcmTagKey& tag) { Keep(item_->insertEmptyElement(tag)); }
    void Short(const DcmTagKey& tag, Uint16 value) { Keep(item_->putAndInsertUint16(tag, value)); }
    void Signed(const DcmTagKey& tag, Sint16 value) { Keep(item_->putAndInsertSint16(tag, value)); }
    // The first item of a sequence, created here.
    DcmItem* Item(const DcmTagKey& sequence) {
        DcmItem* item = nullptr;
        Keep(item_->findOrCreateSequenceItem(sequence, item, -2));
        return status_.good() ? item : nullptr;
    }
    void Code(const DcmTagKey& sequence, const char* value, const char* scheme,
              const char* meaning) {
        DcmItem* item = Item(sequence);
        if (item != nullptr) {
            Builder code(item);
            code.Text(DCM_CodeValue, value);
            code.Text(DCM_CodingSchemeDesignator, scheme);
            code.Text(DCM_CodeMeaning, meaning);
            Keep(code.status_);
        }
    }
    void Keep(const OFCondition& status) {
        if (status_.good() && status.bad()) {
            status_ = status;
        }
    }
    const OFCondition& Status() const { return status_; }

private:
    DcmItem* item_;
    OFCondition status_ = EC_Normal;
};

// The window spans the values between the 0.5 % and 99.5 % points, so that a few hot or dead
// pixels do not squeeze the picture.
void FindWindow(const std::vector<uint16_t>& pixels, double& centre, double& width) {
    std::vector<uint64_t> histogram(65536, 0);
    for (const uint16_t value : pixels) {
        ++histogram[value];
    }
    const uint64_t tail = pixels.size() / 200;
    uint32_t low = 0;
    uint64_t seen = 0;
    while (low < 65535 && seen + histogram[low] <= tail) {
        seen += histogram[low++];
    }
    uint32_t high = 65535;
    seen = 0;
    while (high > low && seen + histogram[high] <= tail) {
        seen += histogram[high--];
    }
    width = static_cast<double>(high - low + 1);
    centre = low + width / 2.0;
}

unsigned BitsFor(uint16_t largest) {
    unsigned bits = 1;
    while (bits < 16 && (largest >> bits) != 0) {
        ++bits;
    }
    return std::max(bits, 6u);  // DX images store 6 to 16 bits
}

// Text from the driver, made fit for a DICOM string of at most maxChars: a backslash would
// split the value and control characters are not allowed.
std::string Clean(const std::string& text, size_t maxChars) {
    std::string clean = text.substr(0, maxChars);
    for (char& c : clean) {
        const unsigned char u = static_cast<unsigned char>(c);
        if (c == '\\' || u < 0x20 || u >= 0x7F) {
            c = '_';
        }
    }
    return clean;
}

std::string Get(DcmItem* item, const DcmTagKey& tag) {
    OFString value;
    if (item->findAndGetOFStringArray(tag, value).good()) {
        return value.c_str();
    }
    return "";
}

}  // namespace

bool DicomSupported() { return true; }

bool WriteDicom(const std::string& path, const DicomImage& image, DicomImageKind kind,
                const DicomIdentity& given, const DicomDetector& detector, std::string& error,
                DicomPhotometric photometric) {
    QuietDcmtk();
    if (!DictionaryLoaded(error)) {
        return false;
    }
    if (image.width == 0 || image.height == 0 || image.width > 65535 || image.height > 65535 ||
        image.pixels.size() != static_cast<size_t>(image.width) * image.height) {
        error = "image size does not match its pixels or exceeds 65535 x 65535";
        return false;
    }
    if (!PlausiblePitch(detector.pixelPitchMm)) {
        error = "the sensor's pixel pitch is not known (it gives the imager pixel spacing)";
        return false;
    }
    DicomIdentity id = given;
    const bool derived = !id.sourceSopInstanceUid.empty();
    // What a user entered is checked; what came from an input file is kept as that file has it
    // (a name with ideographic forms, say), converted to UTF-8 by the reader.
    if (!derived && !ValidateIdentity(id, error)) {
        return false;
    }
    const bool forProcessing = kind == DicomImageKind::ForProcessing;
    const Clock now = Now();
    const std::string acquisitionDate =
        detector.acquisitionDate.empty() ? now.date : detector.acquisitionDate;
    const std::string acquisitionTime =
        detector.acquisitionDate.empty() ? now.time : detector.acquisitionTime;

    DcmFileFormat file;
    DcmDataset* dataset = file.getDataset();
    Builder put(dataset);

    // SOP common.
    if (NeedsUtf8(id)) {
        put.Text(DCM_SpecificCharacterSet, "ISO_IR 192");
    }
    put.Text(DCM_SOPClassUID, forProcessing ? UID_DigitalIntraOralXRayImageStorageForProcessing
                                            : UID_DigitalIntraOralXRayImageStorageForPresentation);
    const std::string instanceUid = NewUid();
    put.Text(DCM_SOPInstanceUID, instanceUid);
    put.Text(DCM_InstanceCreationDate, now.date);
    put.Text(DCM_InstanceCreationTime, now.time);

    // Patient.
    put.Text(DCM_PatientName, id.patientName.empty() ? kUnknownPatientName : id.patientName);
    put.Text(DCM_PatientID, id.patientId);
    put.Text(DCM_PatientBirthDate, id.birthDate);
    put.Text(DCM_PatientSex, id.sex);

    // Study: a new one, or the input's.
    const bool newStudy = id.studyInstanceUid.empty();
    if (newStudy) {
        id.studyInstanceUid = NewUid();
        id.studyDate = acquisitionDate;
        id.studyTime = acquisitionTime;
        id.studyId = acquisitionDate + acquisitionTime.substr(0, 6);  // 14 digits, fits SH
    }
    put.Text(DCM_StudyInstanceUID, id.studyInstanceUid);
    put.Text(DCM_StudyDate, id.studyDate);
    put.Text(DCM_StudyTime, id.studyTime);
    put.Text(DCM_ReferringPhysicianName, id.referringPhysician);
    put.Text(DCM_StudyID, id.studyId);
    put.Text(DCM_AccessionNumber, id.accession);
    if (!id.studyDescription.empty()) {
        put.Text(DCM_StudyDescription, id.studyDescription);
    }

    // Series: each image kind is a series of its own (the presentation intent belongs to the
    // series); a derived image follows its source's series number.
    const std::string seriesUid = NewUid();
    put.Text(DCM_Modality, "IO");
    put.Text(DCM_SeriesInstanceUID, seriesUid);
    long seriesNumber = 1;
    if (derived && !id.sourceSeriesNumber.empty()) {
        seriesNumber = std::atol(id.sourceSeriesNumber.c_str()) + 1;
    } else if (!forProcessing) {
        seriesNumber = 2;
    }
    put.Text(DCM_SeriesNumber, std::to_string(seriesNumber));
    put.Text(DCM_SeriesDate, now.date);
    put.Text(DCM_SeriesTime, now.time);
    put.Text(DCM_PresentationIntentType, forProcessing ? "FOR PROCESSING" : "FOR PRESENTATION");

    // Equipment and detector.
    put.Empty(DCM_Manufacturer);
    if (!detector.serialNumber.empty()) {
        put.Text(DCM_DeviceSerialNumber, Clean(detector.serialNumber, 64));
        put.Text(DCM_DetectorID, Clean(detector.serialNumber, 16));
    }
    if (!detector.softwareVersion.empty()) {
        put.Text(DCM_SoftwareVersions, Clean(detector.softwareVersion, 64));
    }
    put.Empty(DCM_DetectorType);
    if (detector.sensorSize > 0) {
        put.Text(DCM_DetectorDescription,
                 "intra-oral sensor, size " + std::to_string(detector.sensorSize));
    }
    const std::string pitch = Decimal(detector.pixelPitchMm);
    put.Text(DCM_ImagerPixelSpacing, pitch + "\\" + pitch);
    put.Text(DCM_DetectorElementSpacing, pitch + "\\" + pitch);
    put.Text(DCM_DetectorActiveShape, "RECTANGLE");
    // Rows first: the height of the active area, then its width, in millimetres.
    put.Text(DCM_DetectorActiveDimensions, Decimal(detector.pixelPitchMm * image.height) + "\\" +
                                               Decimal(detector.pixelPitchMm * image.width));

    // Image.
    put.Text(DCM_InstanceNumber, "1");
    // As a dental viewer mounts an intra-oral image: seen from the patient's front, rows running
    // towards the patient's left, columns towards the feet.
    put.Text(DCM_PatientOrientation, "L\\F");
    put.Text(DCM_ContentDate, derived ? now.date : acquisitionDate);
    put.Text(DCM_ContentTime, derived ? now.time : acquisitionTime);
    put.Text(DCM_AcquisitionDate, acquisitionDate);
    put.Text(DCM_AcquisitionTime, acquisitionTime);
    put.Text(DCM_ImageType, derived ? "DERIVED\\PRIMARY" : "ORIGINAL\\PRIMARY");
    put.Text(DCM_BurnedInAnnotation, "NO");
    put.Text(DCM_LossyImageCompression, "00");
    if (!id.tooth.empty()) {
        put.Text(DCM_ImageComments, kToothComment + id.tooth);
    }
    if (derived) {
        put.Text(DCM_DerivationDescription, "processed by a post-processing chain");
        DcmItem* source = put.Item(DCM_SourceImageSequence);
        if (source != nullptr) {
            Builder ref(source);
            ref.Text(DCM_ReferencedSOPClassUID, id.sourceSopClassUid);
            ref.Text(DCM_ReferencedSOPInstanceUID, id.sourceSopInstanceUid);
            ref.Code(DCM_PurposeOfReferenceCodeSequence, "121322", "DCM",
                     "Source image for image processing operation");
            put.Keep(ref.Status());
        }
    }

    // Intra-oral anatomy: the tooth decides the side and the jaw.
    const char side = ToothSide(id.tooth);
    std::string laterality = side != 0 ? std::string(1, side) : id.sourceLaterality;
    if (laterality != "R" && laterality != "L" && laterality != "B") {
        laterality = "B";
    }
    put.Text(DCM_ImageLaterality, laterality);
    put.Text(DCM_PositionerType, "NONE");
    put.Empty(DCM_AcquisitionContextSequence);
    // The region, with its side as the modifier (the tooth itself is in the image comments).
    DcmItem* region = put.Item(DCM_AnatomicRegionSequence);
    if (region != nullptr) {
        Builder anatomy(region);
        anatomy.Text(DCM_CodingSchemeDesignator, "SCT");
        if (id.tooth.empty()) {
            anatomy.Text(DCM_CodeValue, "661005");
            anatomy.Text(DCM_CodeMeaning, "Jaw region");
        } else if (ToothInUpperJaw(id.tooth)) {
            anatomy.Text(DCM_CodeValue, "70925003");
            anatomy.Text(DCM_CodeMeaning, "Maxilla");
        } else {
            anatomy.Text(DCM_CodeValue, "91609006");
            anatomy.Text(DCM_CodeMeaning, "Mandible");
        }
        if (laterality == "R") {
            anatomy.Code(DCM_AnatomicRegionModifierSequence, "24028007", "SCT", "Right");
        } else if (laterality == "L") {
            anatomy.Code(DCM_AnatomicRegionModifierSequence, "7771000", "SCT", "Left");
        } else {
            anatomy.Code(DCM_AnatomicRegionModifierSequence, "51440002", "SCT", "Right and left");
        }
        put.Keep(anatomy.Status());
    }

    // Pixels: the sensor's values, unsigned, as many bits as the largest needs.
    uint16_t largest = 0;
    for (const uint16_t value : image.pixels) {
        largest = std::max(largest, value);
    }
    const unsigned bits = BitsFor(largest);
    const bool inverse = photometric == DicomPhotometric::Monochrome1;
    put.Short(DCM_SamplesPerPixel, 1);
    put.Text(DCM_PhotometricInterpretation, inverse ? "MONOCHROME1" : "MONOCHROME2");
    put.Short(DCM_Rows, static_cast<Uint16>(image.height));
    put.Short(DCM_Columns, static_cast<Uint16>(image.width));
    put.Short(DCM_BitsAllocated, 16);
    put.Short(DCM_BitsStored, static_cast<Uint16>(bits));
    put.Short(DCM_HighBit, static_cast<Uint16>(bits - 1));
    put.Short(DCM_PixelRepresentation, 0);
    // The sensor's values grow with the radiation that reaches it.
    put.Text(DCM_PixelIntensityRelationship, "LIN");
    put.Signed(DCM_PixelIntensityRelationshipSign, 1);
    put.Text(DCM_RescaleIntercept, "0");
    put.Text(DCM_RescaleSlope, "1");
    put.Text(DCM_RescaleType, "US");
    put.Text(DCM_PresentationLUTShape, inverse ? "INVERSE" : "IDENTITY");
    // A window for display belongs to images meant to be looked at only.
    if (!forProcessing) {
        double centre = 0.0, width = 1.0;
        FindWindow(image.pixels, centre, width);
        put.Text(DCM_WindowCenter, Decimal(centre));
        put.Text(DCM_WindowWidth, Decimal(width));
    }
    put.Keep(dataset->putAndInsertUint16Array(DCM_PixelData, image.pixels.data(),
                                              static_cast<unsigned long>(image.pixels.size())));
    if (put.Status().bad()) {
        error = std::string("could not be composed: ") + put.Status().text();
        return false;
    }
    const OFCondition saved =
        file.saveFile(path.c_str(), EXS_LittleEndianExplicit, EET_ExplicitLength, EGL_recalcGL);
    if (saved.bad()) {
        error = std::string("could not be written: ") + saved.text();
        return false;
    }
    return true;
}

bool ReadDicom(const std::string& path, DicomImage& image, DicomSource& source,
               std::string& error) {
    QuietDcmtk();
    if (!DictionaryLoaded(error)) {
        return false;
    }
    DcmFileFormat file;
    const OFCondition loaded = file.loadFile(path.c_str());
    if (loaded.bad()) {
        error = std::string("is not a readable DICOM file (") + loaded.text() + ")";
        return false;
    }
    DcmDataset* dataset = file.getDataset();
    Uint16 samples = 0, rows = 0, columns = 0, allocated = 0, stored = 0, highBit = 0;
    Uint16 representation = 0;
    const std::string photometric = Get(dataset, DCM_PhotometricInterpretation);
    if (dataset->findAndGetUint16(DCM_Rows, rows).bad() ||
        dataset->findAndGetUint16(DCM_Columns, columns).bad() ||
        !dataset->tagExists(DCM_PixelData)) {
        error = "holds no image";
        return false;
    }
    dataset->findAndGetUint16(DCM_SamplesPerPixel, samples);
    if (samples != 1 || (photometric != "MONOCHROME1" && photometric != "MONOCHROME2")) {
        error = "is not a grey image (" + std::to_string(samples) + " samples per pixel, " +
                (photometric.empty() ? std::string("no photometric interpretation")
                                     : Quoted(photometric)) +
                ")";
        return false;
    }
    dataset->findAndGetUint16(DCM_BitsAllocated, allocated);
    dataset->findAndGetUint16(DCM_BitsStored, stored);
    dataset->findAndGetUint16(DCM_HighBit, highBit);
    dataset->findAndGetUint16(DCM_PixelRepresentation, representation);
    if (allocated != 16) {
        error = "is not a 16-bit image (" + std::to_string(allocated) + " bits allocated)";
        return false;
    }
    if (stored < 1 || stored > 16 || highBit != stored - 1) {
        error = "has an unusual pixel layout (" + std::to_string(stored) +
                " bits stored, high bit " + std::to_string(highBit) + ")";
        return false;
    }
    if (representation != 0) {
        error = "holds signed pixel values; only unsigned sensor values are read";
        return false;
    }
    const std::string frames = Get(dataset, DCM_NumberOfFrames);
    if (!frames.empty() && std::atol(frames.c_str()) != 1) {
        error = "holds " + Quoted(frames) + " frames; only single-frame images are read";
        return false;
    }
    if (rows == 0 || columns == 0 || uint64_t(rows) * columns > kMaxPixels) {
        error = "declares " + std::to_string(columns) + " x " + std::to_string(rows) +
                " pixels, which this program does not read";
        return false;
    }
    const DcmXfer transfer(dataset->getOriginalXfer());
    if (transfer.isEncapsulated()) {
        if (!transfer.isLossless() || Get(dataset, DCM_LossyImageCompression) == "01") {
            error = std::string("is compressed with loss (") + transfer.getXferName() + ")";
            return false;
        }
        const OFCondition decoded =
            dataset->chooseRepresentation(EXS_LittleEndianExplicit, nullptr);
        if (decoded.bad() || !dataset->canWriteXfer(EXS_LittleEndianExplicit)) {
            error = std::string("cannot be decompressed (") + transfer.getXferName() + ": " +
                    decoded.text() + ")";
            return false;
        }
    }
    const Uint16* data = nullptr;
    unsigned long count = 0;
    const OFCondition got = dataset->findAndGetUint16Array(DCM_PixelData, data, &count);
    const size_t needed = static_cast<size_t>(rows) * columns;
    if (got.bad() || data == nullptr || count < needed) {
        error = "is damaged: it ends before its pixel data does";
        return false;
    }
    std::vector<uint16_t> pixels(data, data + needed);
    if (!Get(dataset, DCM_SpecificCharacterSet).empty() &&
        Get(dataset, DCM_SpecificCharacterSet) != "ISO_IR 192" && dataset->convertToUTF8().bad()) {
        error = "has text in a character set that cannot be converted (" +
                Quoted(Get(dataset, DCM_SpecificCharacterSet)) + ")";
        return false;
    }

    image.width = columns;
    image.height = rows;
    image.pixels.swap(pixels);
    if (stored < 16) {
        const uint16_t mask = static_cast<uint16_t>((1u << stored) - 1);
        for (uint16_t& value : image.pixels) {
            value &= mask;
        }
    }

    DicomIdentity& id = source.identity;
    id = DicomIdentity{};
    id.patientName = Get(dataset, DCM_PatientName);
    if (id.patientName == kUnknownPatientName) {
        id.patientName.clear();
    }
    id.patientId = Get(dataset, DCM_PatientID);
    id.birthDate = Get(dataset, DCM_PatientBirthDate);
    id.sex = Get(dataset, DCM_PatientSex);
    id.studyDescription = Get(dataset, DCM_StudyDescription);
    id.accession = Get(dataset, DCM_AccessionNumber);
    id.studyInstanceUid = Get(dataset, DCM_StudyInstanceUID);
    id.studyId = Get(dataset, DCM_StudyID);
    id.studyDate = Get(dataset, DCM_StudyDate);
    id.studyTime = Get(dataset, DCM_StudyTime);
    id.referringPhysician = Get(dataset, DCM_ReferringPhysicianName);
    id.sourceSopClassUid = Get(dataset, DCM_SOPClassUID);
    id.sourceSopInstanceUid = Get(dataset, DCM_SOPInstanceUID);
    id.sourceSeriesNumber = Get(dataset, DCM_SeriesNumber);
    id.sourceLaterality = Get(dataset, DCM_ImageLaterality);
    const std::string comments = Get(dataset, DCM_ImageComments);
    if (comments.compare(0, sizeof kToothComment - 1, kToothComment) == 0) {
        id.tooth = comments.substr(sizeof kToothComment - 1, 2);
    }
    if (id.studyInstanceUid.empty() || id.sourceSopInstanceUid.empty()) {
        error = "lacks its study or instance UID";
        return false;
    }

    DicomDetector& detector = source.detector;
    detector = DicomDetector{};
    detector.serialNumber = Get(dataset, DCM_DeviceSerialNumber);
    Float64 spacing = 0.0;
    // A spacing no sensor has counts as none, so that the program asks for the pitch instead of
    // writing it on.
    if ((dataset->findAndGetFloat64(DCM_ImagerPixelSpacing, spacing).good() ||
         dataset->findAndGetFloat64(DCM_PixelSpacing, spacing).good()) &&
        PlausiblePitch(spacing)) {
        detector.pixelPitchMm = spacing;
    }
    detector.acquisitionDate = Get(dataset, DCM_AcquisitionDate);
    detector.acquisitionTime = Get(dataset, DCM_AcquisitionTime);
    source.kind = Get(dataset, DCM_PresentationIntentType) == "FOR PROCESSING"
                      ? DicomImageKind::ForProcessing
                      : DicomImageKind::ForPresentation;
    source.photometric = photometric == "MONOCHROME1" ? DicomPhotometric::Monochrome1
                                                      : DicomPhotometric::Monochrome2;
    source.bitsStored = stored;
    return true;
}

}  // namespace vdicom

extern "C" const vdicom::DicomFileFunctions* veltrano_dicom_file_functions(uint64_t layout) {
    static const vdicom::DicomFileFunctions functions = {&vdicom::WriteDicom, &vdicom::ReadDicom};
    return layout == vdicom::DicomLayout() ? &functions : nullptr;
}
