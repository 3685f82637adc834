// The program's DICOM reader on fuzzed files: images the writer made (16-bit, a few pixels,
// with fuzzed patient fields), cut short or with a byte changed, besides raw bytes. An intact
// file must read back to exactly its pixels and identity, anything else must be read or refused
// with a one-line reason, and whatever is read must write and read back unchanged.
#include <fuzzer/FuzzedDataProvider.h>

#include <string>

#include "dicom.h"
#include "fuzz_support.h"

namespace {

struct Read {
    bool ok = false;
    vdicom::DicomImage image;
    vdicom::DicomSource source;
    std::string error;
};

Read ReadBytes(const std::string& bytes) {
    const std::string path = fuzz::ScratchPath("input.dcm");
    fuzz::WriteFile(path, bytes);
    Read r;
    r.ok = vdicom::ReadDicom(path, r.image, r.source, r.error);
    if (r.ok) {
        FUZZ_CHECK(r.image.width > 0 && r.image.height > 0 &&
                       r.image.pixels.size() == static_cast<size_t>(r.image.width) * r.image.height,
                   "read %u x %u with %zu pixels", r.image.width, r.image.height,
                   r.image.pixels.size());
    } else {
        FUZZ_CHECK(!r.error.empty() && r.error.find('\n') == std::string::npos,
                   "a refusal must be one line: '%s'", r.error.c_str());
    }
    return r;
}

std::string Write(const vdicom::DicomImage& image, vdicom::DicomImageKind kind,
                  const vdicom::DicomIdentity& identity, const vdicom::DicomDetector& detector) {
    const std::string path = fuzz::ScratchPath("output.dcm");
    std::string error;
    FUZZ_CHECK(vdicom::WriteDicom(path, image, kind, identity, detector, error),
               "could not write: %s", error.c_str());
    return fuzz::ReadFile(path);
}

// Whatever was read, written as a new instance of its study and read again, is the same image of
// the same patient.
void ExpectRoundTrip(const Read& r) {
    // A file without imager pixel spacing is written with one given, as the program's option does.
    vdicom::DicomDetector detector = r.source.detector;
    if (!(detector.pixelPitchMm > 0.0)) detector.pixelPitchMm = 0.05;
    const Read back = ReadBytes(Write(r.image, r.source.kind, r.source.identity, detector));
    FUZZ_CHECK(back.ok && back.image.width == r.image.width &&
                   back.image.height == r.image.height && back.image.pixels == r.image.pixels,
               "written image read back differently: %s", back.error.c_str());
    FUZZ_CHECK(back.source.identity.patientName == r.source.identity.patientName &&
                   back.source.identity.studyInstanceUid == r.source.identity.studyInstanceUid,
               "the patient or the study changed on the way");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzedDataProvider in(data, size);
    if (in.ConsumeIntegralInRange(0, 3) == 0) {  // raw bytes
        const Read r = ReadBytes(in.ConsumeRemainingBytesAsString());
        if (r.ok) ExpectRoundTrip(r);
        return 0;
    }
    vdicom::DicomImage image;
    image.width = in.ConsumeIntegralInRange<uint32_t>(1, 24);
    image.height = in.ConsumeIntegralInRange<uint32_t>(1, 24);
    const vdicom::DicomImageKind kind = in.ConsumeBool() ? vdicom::DicomImageKind::ForProcessing
                                                         : vdicom::DicomImageKind::ForPresentation;
    vdicom::DicomIdentity identity;
    identity.patientName = in.ConsumeRandomLengthString(40);
    identity.patientId = in.ConsumeRandomLengthString(20);
    identity.tooth = in.ConsumeBool() ? std::to_string(in.ConsumeIntegralInRange(10, 90)) : "";
    vdicom::DicomDetector detector;
    detector.serialNumber = in.ConsumeRandomLengthString(16);
    detector.pixelPitchMm = in.ConsumeFloatingPointInRange(0.001, 1.0);
    const int damage = in.ConsumeIntegralInRange(0, 3);  // 0: cut short, 1: a byte changed
    const size_t where = in.ConsumeIntegral<size_t>();
    const uint8_t flip = in.ConsumeIntegralInRange<uint8_t>(1, 255);
    image.pixels.resize(static_cast<size_t>(image.width) * image.height);
    for (uint16_t& v : image.pixels) v = in.ConsumeIntegral<uint16_t>();

    std::string error;
    if (!vdicom::ValidateIdentity(identity, error)) {
        FUZZ_CHECK(!error.empty() && error.find('\n') == std::string::npos,
                   "an identity refusal must be one line: '%s'", error.c_str());
        identity = vdicom::DicomIdentity();
    }
    std::string bytes = Write(image, kind, identity, detector);
    if (damage == 0) bytes.resize(where % bytes.size());
    if (damage == 1) {
        bytes[where % bytes.size()] = static_cast<char>(bytes[where % bytes.size()] ^ flip);
    }

    const Read r = ReadBytes(bytes);
    if (damage > 1) {  // an intact file
        FUZZ_CHECK(r.ok && r.image.width == image.width && r.image.height == image.height &&
                       r.image.pixels == image.pixels,
                   "a valid %u x %u image read %s: %s", image.width, image.height,
                   r.ok ? "wrong pixels" : "nothing", r.error.c_str());
        // The name that stands for nobody reads back as no name.
        const std::string expected =
            identity.patientName == vdicom::kUnknownPatientName ? "" : identity.patientName;
        FUZZ_CHECK(r.source.identity.patientName == expected, "patient '%s' read as '%s'",
                   identity.patientName.c_str(), r.source.identity.patientName.c_str());
    }
    if (r.ok) ExpectRoundTrip(r);
    return 0;
}
