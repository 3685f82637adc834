#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include <dcmtk/config/osconfig.h>
#include <dcmtk/dcmdata/dcdeftag.h>
#include <dcmtk/dcmdata/dcfilefo.h>
#include <dcmtk/dcmdata/dcuid.h>
#include <dcmtk/dcmjpls/djencode.h>
#include <dcmtk/dcmjpls/djrparam.h>

#include "dicom/dicom.h"

namespace {
namespace fs = std::filesystem;
using namespace vdicom;

// Output and exit status of a shell command.
std::string RunShell(const std::string& command) {
    std::string output;
    if (std::FILE* pipe = popen((command + " 2>&1").c_str(), "r")) {
        char buffer[512];
        while (std::fgets(buffer, sizeof buffer, pipe) != nullptr) {
            output += buffer;
        }
        pclose(pipe);
    }
    return output;
}

bool HaveProgram(const char* name) {
    return std::system((std::string("command -v ") + name + " >/dev/null 2>&1").c_str()) == 0;
}

// dciodvfy's "Error" lines for a file; its warnings are left to the reader of the log.
std::string DciodvfyErrors(const fs::path& file, std::string& all) {
    all = RunShell("dciodvfy '" + file.string() + "'");
    std::string errors;
    size_t start = 0;
    while (start < all.size()) {
        const size_t end = all.find('\n', start);
        const std::string line = all.substr(start, end - start);
        if (line.find("Error") != std::string::npos) {
            errors += line + "\n";
        }
        start = end == std::string::npos ? all.size() : end + 1;
    }
    return errors;
}

std::string Text(DcmItem* item, const DcmTagKey& tag) {
    OFString value;
    item->findAndGetOFStringArray(tag, value);
    return value.c_str();
}

// A frame with a ramp, a bright disc and a few hot pixels, its largest value `top`.
DicomImage TestFrame(uint32_t width, uint32_t height, uint16_t top) {
    DicomImage image;
    image.width = width;
    image.height = height;
    image.pixels.resize(static_cast<size_t>(width) * height);
    for (uint32_t y = 0; y < height; ++y) {
        for (uint32_t x = 0; x < width; ++x) {
            const int dx = int(x) - int(width / 2), dy = int(y) - int(height / 2);
            uint32_t v = 200 + (x * 7 + y * 3) % 1500;
            if (dx * dx + dy * dy < 400) {
                v += 1800;
            }
            image.pixels[size_t(y) * width + x] = static_cast<uint16_t>(std::min<uint32_t>(v, top));
        }
    }
    image.pixels[5] = top;
    return image;
}

DicomDetector Sensor() {
    DicomDetector detector;
    detector.serialNumber = "VS-2000-0001";
    detector.sensorSize = 2000;
    detector.pixelPitchMm = 0.02;
    detector.softwareVersion = "veltrano 0.1.0";
    return detector;
}

class DicomFiles : public testing::Test {
protected:
    void SetUp() override {
        dir_ = fs::absolute(std::string("dicom_test_") +
                            testing::UnitTest::GetInstance()->current_test_info()->name());
        fs::remove_all(dir_);
        fs::create_directories(dir_);
    }
    void TearDown() override {
        if (!HasFailure()) {
            std::error_code ec;
            fs::remove_all(dir_, ec);
        }
    }
    // The file passes dciodvfy without an error (checked where dicom3tools is installed).
    void ExpectValid(const fs::path& file) {
        if (!HaveProgram("dciodvfy")) {
            return;
        }
        std::string all;
        EXPECT_EQ(DciodvfyErrors(file, all), "") << file << ":\n" << all;
    }
    fs::path dir_;
};

TEST_F(DicomFiles, EveryKindPassesTheValidatorAndReadsBackUnchanged) {
    if (!HaveProgram("dciodvfy")) {
        GTEST_SKIP() << "dciodvfy (dicom3tools) is not installed";
    }
    DicomIdentity full;
    full.patientName = "M\xC3\xBCller^J\xC3\xBCrgen";  // Müller^Jürgen: UTF-8 text
    full.patientId = "P-77";
    full.birthDate = "1975-06-01";
    full.sex = "m";
    full.studyDescription = "Periapical lower left";
    full.tooth = "36";
    full.accession = "A2026-11";
    const DicomIdentity unknown;
    const DicomImage frame = TestFrame(130, 180, 4095);
    int n = 0;
    const DicomIdentity* identities[] = {&unknown, &full};
    for (const DicomIdentity* id : identities) {
        for (DicomImageKind kind :
             {DicomImageKind::ForProcessing, DicomImageKind::ForPresentation}) {
            for (DicomPhotometric look :
                 {DicomPhotometric::Monochrome2, DicomPhotometric::Monochrome1}) {
                const fs::path file = dir_ / ("image" + std::to_string(n++) + ".dcm");
                SCOPED_TRACE(file.string());
                std::string error;
                ASSERT_TRUE(WriteDicom(file.string(), frame, kind, *id, Sensor(), error, look))
                    << error;
                ExpectValid(file);

                // DCMTK's own view of the file.
                DcmFileFormat read;
                ASSERT_TRUE(read.loadFile(file.c_str()).good());
                DcmDataset* ds = read.getDataset();
                const bool processing = kind == DicomImageKind::ForProcessing;
                EXPECT_EQ(Text(ds, DCM_SOPClassUID),
                          processing ? UID_DigitalIntraOralXRayImageStorageForProcessing
                                     : UID_DigitalIntraOralXRayImageStorageForPresentation);
                EXPECT_EQ(Text(ds, DCM_Modality), "IO");
                EXPECT_EQ(Text(ds, DCM_BitsStored), "12");  // the largest value is 4095
                EXPECT_EQ(Text(ds, DCM_HighBit), "11");
                EXPECT_EQ(Text(ds, DCM_ImagerPixelSpacing), "0.02\\0.02");
                EXPECT_EQ(Text(ds, DCM_DeviceSerialNumber), "VS-2000-0001");
                EXPECT_EQ(Text(ds, DCM_PhotometricInterpretation),
                          look == DicomPhotometric::Monochrome1 ? "MONOCHROME1" : "MONOCHROME2");
                EXPECT_EQ(Text(ds, DCM_SOPInstanceUID).compare(0, 5, "2.25."), 0);
                if (id == &full) {
                    EXPECT_EQ(Text(ds, DCM_SpecificCharacterSet), "ISO_IR 192");
                    EXPECT_EQ(Text(ds, DCM_PatientName), full.patientName);
                    EXPECT_EQ(Text(ds, DCM_PatientBirthDate), "19750601");
                    EXPECT_EQ(Text(ds, DCM_PatientSex), "M");
                    EXPECT_EQ(Text(ds, DCM_AccessionNumber), "A2026-11");
                    EXPECT_EQ(Text(ds, DCM_ImageLaterality), "L");  // tooth 36: lower left
                } else {
                    EXPECT_EQ(Text(ds, DCM_PatientName), kUnknownPatientName);
                    EXPECT_EQ(Text(ds, DCM_PatientID), "");
                }
                const Uint16* pixels = nullptr;
                unsigned long count = 0;
                ASSERT_TRUE(ds->findAndGetUint16Array(DCM_PixelData, pixels, &count).good());
                ASSERT_EQ(count, frame.pixels.size());
                EXPECT_TRUE(std::equal(frame.pixels.begin(), frame.pixels.end(), pixels));

                // And the program's reader.
                DicomImage back;
                DicomSource source;
                ASSERT_TRUE(ReadDicom(file.string(), back, source, error)) << error;
                EXPECT_EQ(back.pixels, frame.pixels);
                EXPECT_EQ(source.kind, kind);
                EXPECT_EQ(source.identity.patientName, id->patientName);
                EXPECT_EQ(source.identity.tooth, id->tooth);
                EXPECT_DOUBLE_EQ(source.detector.pixelPitchMm, 0.02);
            }
        }
    }
}

TEST_F(DicomFiles, ProcessedImageJoinsTheStudyOfItsSource) {
    DicomIdentity id;
    id.patientName = "Doe^Jane";
    id.patientId = "12345";
    id.tooth = "11";
    const fs::path corrected = dir_ / "corrected.dcm";
    std::string error;
    ASSERT_TRUE(WriteDicom(corrected.string(), TestFrame(100, 150, 9000),
                           DicomImageKind::ForProcessing, id, Sensor(), error))
        << error;

    DicomImage image;
    DicomSource source;
    ASSERT_TRUE(ReadDicom(corrected.string(), image, source, error)) << error;
    for (uint16_t& v : image.pixels) {
        v = static_cast<uint16_t>(65535 - v);  // some processing that needs all 16 bits
    }
    const fs::path processed = dir_ / "processed.dcm";
    ASSERT_TRUE(WriteDicom(processed.string(), image, DicomImageKind::ForPresentation,
                           source.identity, source.detector, error))
        << error;
    ExpectValid(processed);

    DcmFileFormat a, b;
    ASSERT_TRUE(a.loadFile(corrected.c_str()).good());
    ASSERT_TRUE(b.loadFile(processed.c_str()).good());
    DcmDataset* first = a.getDataset();
    DcmDataset* second = b.getDataset();
    for (const DcmTagKey& same : {DCM_StudyInstanceUID, DCM_StudyDate, DCM_StudyTime,
                                  DCM_PatientName, DCM_PatientID, DCM_ImageLaterality}) {
        EXPECT_EQ(Text(first, same), Text(second, same)) << DcmTag(same).getTagName();
    }
    EXPECT_NE(Text(first, DCM_SeriesInstanceUID), Text(second, DCM_SeriesInstanceUID));
    EXPECT_NE(Text(first, DCM_SOPInstanceUID), Text(second, DCM_SOPInstanceUID));
    EXPECT_EQ(Text(second, DCM_BitsStored), "16");
    DcmItem* reference = nullptr;
    ASSERT_TRUE(second->findAndGetSequenceItem(DCM_SourceImageSequence, reference, 0).good());
    EXPECT_EQ(Text(reference, DCM_ReferencedSOPInstanceUID), Text(first, DCM_SOPInstanceUID));
    EXPECT_EQ(Text(reference, DCM_ReferencedSOPClassUID),
              UID_DigitalIntraOralXRayImageStorageForProcessing);
}

TEST_F(DicomFiles, LosslessCompressedInputIsDecoded) {
    const DicomImage frame = TestFrame(90, 120, 16000);
    const fs::path plain = dir_ / "plain.dcm";
    const fs::path packed = dir_ / "packed.dcm";
    std::string error;
    ASSERT_TRUE(
        WriteDicom(plain.string(), frame, DicomImageKind::ForProcessing, {}, Sensor(), error))
        << error;
    DJLSEncoderRegistration::registerCodecs();
    DcmFileFormat file;
    ASSERT_TRUE(file.loadFile(plain.c_str()).good());
    const DJLSRepresentationParameter lossless(2, OFTrue);
    ASSERT_TRUE(file.getDataset()->chooseRepresentation(EXS_JPEGLSLossless, &lossless).good());
    ASSERT_TRUE(file.saveFile(packed.c_str(), EXS_JPEGLSLossless).good());
    DJLSEncoderRegistration::cleanup();

    DicomImage back;
    DicomSource source;
    ASSERT_TRUE(ReadDicom(packed.string(), back, source, error)) << error;
    EXPECT_EQ(back.pixels, frame.pixels);
    EXPECT_LT(fs::file_size(packed), fs::file_size(plain));  // really compressed
}

// A spacing that no sensor has is no pitch at all: the program then asks for one instead of
// refusing to write what it read.
TEST_F(DicomFiles, ASpacingNoSensorHasReadsAsUnknown) {
    const fs::path path = dir_ / "spacing.dcm";
    std::string error;
    ASSERT_TRUE(WriteDicom(path.string(), TestFrame(8, 6, 1000), DicomImageKind::ForProcessing, {},
                           Sensor(), error))
        << error;
    for (const char* spacing : {"0.035\\0.035", "25\\25", "0\\0", "-0.02\\-0.02"}) {
        DcmFileFormat file;
        ASSERT_TRUE(file.loadFile(path.c_str()).good());
        ASSERT_TRUE(file.getDataset()->putAndInsertString(DCM_ImagerPixelSpacing, spacing).good());
        ASSERT_TRUE(file.saveFile(path.c_str(), EXS_LittleEndianExplicit).good());
        DicomImage image;
        DicomSource source;
        ASSERT_TRUE(ReadDicom(path.string(), image, source, error)) << error;
        EXPECT_EQ(source.detector.pixelPitchMm,
                  spacing[0] == '0' && spacing[1] == '.' ? 0.035 : 0.0)
            << spacing;
    }
}

// A file as another system might send it, with the pixel layout given.
void WriteForeign(const fs::path& path, Uint16 samples, const char* photometric, Uint16 bits,
                  const char* frames, Uint16 representation) {
    DcmFileFormat file;
    DcmDataset* ds = file.getDataset();
    ds->putAndInsertString(DCM_SOPClassUID, UID_DigitalXRayImageStorageForPresentation);
    ds->putAndInsertString(DCM_SOPInstanceUID, "2.25.1");
    ds->putAndInsertString(DCM_StudyInstanceUID, "2.25.2");
    ds->putAndInsertUint16(DCM_SamplesPerPixel, samples);
    ds->putAndInsertString(DCM_PhotometricInterpretation, photometric);
    ds->putAndInsertUint16(DCM_Rows, 4);
    ds->putAndInsertUint16(DCM_Columns, 4);
    ds->putAndInsertUint16(DCM_BitsAllocated, bits);
    ds->putAndInsertUint16(DCM_BitsStored, bits);
    ds->putAndInsertUint16(DCM_HighBit, static_cast<Uint16>(bits - 1));
    ds->putAndInsertUint16(DCM_PixelRepresentation, representation);
    if (frames != nullptr) {
        ds->putAndInsertString(DCM_NumberOfFrames, frames);
    }
    const int frameCount = frames != nullptr ? std::atoi(frames) : 1;
    std::vector<Uint8> bytes(size_t(16) * samples * (bits / 8) * frameCount, 7);
    if (bits == 8) {
        ds->putAndInsertUint8Array(DCM_PixelData, bytes.data(), bytes.size());
    } else {
        ds->putAndInsertUint16Array(DCM_PixelData, reinterpret_cast<Uint16*>(bytes.data()),
                                    bytes.size() / 2);
    }
    ASSERT_TRUE(file.saveFile(path.c_str(), EXS_LittleEndianExplicit).good());
}

TEST_F(DicomFiles, ForeignAndDamagedInputsAreRefused) {
    struct Case {
        const char* name;
        Uint16 samples;
        const char* photometric;
        Uint16 bits;
        const char* frames;
        Uint16 representation;
        const char* expected;
    };
    const Case cases[] = {
        {"colour", 3, "RGB", 8, nullptr, 0, "is not a grey image (3 samples per pixel, RGB)"},
        {"eight-bit", 1, "MONOCHROME2", 8, nullptr, 0, "is not a 16-bit image (8 bits"},
        {"multi-frame", 1, "MONOCHROME2", 16, "3", 0, "holds 3 frames"},
        {"signed", 1, "MONOCHROME2", 16, nullptr, 1, "holds signed pixel values"},
        // The file's own text is quoted on one line.
        {"broken-text", 1, "MONO\nCHROME2", 16, "2\r\n", 0,
         "is not a grey image (1 samples per pixel, MONO?CHROME2)"},
        {"broken-frames", 1, "MONOCHROME2", 16, "2\n", 0, "holds 2? frames"},
    };
    for (const Case& c : cases) {
        const fs::path file = dir_ / (std::string(c.name) + ".dcm");
        WriteForeign(file, c.samples, c.photometric, c.bits, c.frames, c.representation);
        DicomImage image;
        DicomSource source;
        std::string error;
        EXPECT_FALSE(ReadDicom(file.string(), image, source, error)) << c.name;
        EXPECT_NE(error.find(c.expected), std::string::npos) << c.name << ": " << error;
        EXPECT_EQ(error.find_first_of("\r\n"), std::string::npos) << c.name << ": " << error;
    }
    // A single-frame 16-bit grey file of the same making is read: the refusals above are for
    // the layout alone.
    WriteForeign(dir_ / "fine.dcm", 1, "MONOCHROME2", 16, "1", 0);
    DicomImage image;
    DicomSource source;
    std::string error;
    EXPECT_TRUE(ReadDicom((dir_ / "fine.dcm").string(), image, source, error)) << error;

    // A file cut short, at several places: in the pixels and in the header.
    const fs::path whole = dir_ / "whole.dcm";
    ASSERT_TRUE(WriteDicom(whole.string(), TestFrame(64, 64, 1000), DicomImageKind::ForProcessing,
                           {}, Sensor(), error))
        << error;
    for (const double part : {0.9, 0.5, 0.1}) {
        const fs::path cut = dir_ / ("cut" + std::to_string(int(part * 100)) + ".dcm");
        fs::copy_file(whole, cut);
        fs::resize_file(cut, static_cast<uintmax_t>(fs::file_size(whole) * part));
        error.clear();
        EXPECT_FALSE(ReadDicom(cut.string(), image, source, error)) << part;
        EXPECT_FALSE(error.empty()) << part;
    }
    // Not DICOM at all.
    {
        std::FILE* f = std::fopen((dir_ / "text.dcm").c_str(), "w");
        std::fputs("hello\n", f);
        std::fclose(f);
    }
    EXPECT_FALSE(ReadDicom((dir_ / "text.dcm").string(), image, source, error));
    EXPECT_NE(error.find("is not a readable DICOM file"), std::string::npos) << error;
}

TEST_F(DicomFiles, WriterRefusesBeforeWritingAnything) {
    const fs::path file = dir_ / "never.dcm";
    std::string error;
    DicomIdentity bad;
    bad.tooth = "99";
    EXPECT_FALSE(WriteDicom(file.string(), TestFrame(8, 8, 100), DicomImageKind::ForProcessing, bad,
                            Sensor(), error));
    EXPECT_NE(error.find("--tooth"), std::string::npos) << error;
    DicomDetector noPitch = Sensor();
    noPitch.pixelPitchMm = 0.0;
    EXPECT_FALSE(WriteDicom(file.string(), TestFrame(8, 8, 100), DicomImageKind::ForProcessing, {},
                            noPitch, error));
    EXPECT_NE(error.find("pixel pitch"), std::string::npos) << error;
    DicomImage wrongSize = TestFrame(8, 8, 100);
    wrongSize.pixels.pop_back();
    EXPECT_FALSE(
        WriteDicom(file.string(), wrongSize, DicomImageKind::ForProcessing, {}, Sensor(), error));
    EXPECT_FALSE(fs::exists(file));
}

}  // namespace
