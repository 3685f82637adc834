// The program's DICOM outputs and inputs, run as a host runs the program.
#include "chain/cli_support.h"
#include "chain/png_maker.h"

#if !defined(_WIN32)
#include <dcmtk/config/osconfig.h>
#include <dcmtk/dcmdata/dcdeftag.h>
#include <dcmtk/dcmdata/dcfilefo.h>

namespace {
using cli_test::ReadAll;
using cli_test::VeltranoCli;
namespace fs = std::filesystem;

std::string Field(const fs::path& file, const DcmTagKey& tag) {
    DcmFileFormat dicom;
    if (dicom.loadFile(file.c_str()).bad()) {
        return "(unreadable)";
    }
    OFString value;
    dicom.getDataset()->findAndGetOFStringArray(tag, value);
    return value.c_str();
}

class VeltranoDicom : public VeltranoCli {
protected:
    // dciodvfy's error lines for a file in the test's folder (empty: none).
    std::string Errors(const std::string& name) const {
        Shell("dciodvfy '" + name + "' 2>&1 | grep Error > dciodvfy.txt; true");
        return ReadAll(dir_ / "dciodvfy.txt");
    }
    // A small 16-bit PNG of a ramp in the test's folder: an input that needs no sensor.
    void WriteRampPng(const std::string& name) const {
        png_maker::PngPlan plan;
        plan.width = 64;
        plan.height = 48;
        for (uint32_t i = 0; i < plan.width * plan.height; ++i) {
            plan.samples.push_back(static_cast<uint16_t>(1000 + 7 * i));
        }
        Write(name, png_maker::Make(plan));
    }
};

TEST_F(VeltranoDicom, AcquireAndProcessWriteValidImagesOfOneStudy) {
    if (std::system("command -v dciodvfy >/dev/null 2>&1") != 0) {
        GTEST_SKIP() << "dciodvfy (dicom3tools) is not installed";
    }
    // What the image shows does not matter here: a flat field and a light chain.
    fs::create_directories(dir_ / "w");
    Write("w/VirtualSensor.ini", "[VirtualSensor]\nSensorSize=1000\nExposureMs=50\nScene=flat\n");
    ASSERT_EQ(Veltrano("calibrate --workdir w --virtual").first, 0);
    Write("bc.chain", "[BC]\nb=100;\nc=0.5;\nend\n");

    // With all patient options (without them: the PNG input below).
    auto run = Veltrano(
        "acquire --workdir w --pixel-pitch 0.02 --patient-name 'Doe^Jane' "
        "--patient-id 42 --birth-date 1980-01-31 --sex F --study-description Check "
        "--tooth 21 --accession A1 --out named.dcm");
    ASSERT_EQ(run.first, 0) << run.second;
    EXPECT_EQ(Errors("named.dcm"), "");
    EXPECT_EQ(Field(dir_ / "named.dcm", DCM_PatientBirthDate), "19800131");
    EXPECT_EQ(Field(dir_ / "named.dcm", DCM_ImageLaterality), "L");
    EXPECT_EQ(Field(dir_ / "named.dcm", DCM_Rows), "1500");
    EXPECT_EQ(Field(dir_ / "named.dcm", DCM_PresentationIntentType), "FOR PROCESSING");
    // Drawn as radiographs are read (enamel bright), the sensor's values unchanged.
    EXPECT_EQ(Field(dir_ / "named.dcm", DCM_PhotometricInterpretation), "MONOCHROME1");

    // process: the output joins the input's study and keeps its patient.
    run = Veltrano("process --chain bc.chain --in named.dcm --out processed.dcm");
    ASSERT_EQ(run.first, 0) << run.second;
    EXPECT_EQ(Errors("processed.dcm"), "");
    EXPECT_EQ(Field(dir_ / "processed.dcm", DCM_StudyInstanceUID),
              Field(dir_ / "named.dcm", DCM_StudyInstanceUID));
    EXPECT_EQ(Field(dir_ / "processed.dcm", DCM_PatientName), "Doe^Jane");
    EXPECT_EQ(Field(dir_ / "processed.dcm", DCM_PresentationIntentType), "FOR PRESENTATION");

    // A PNG input has no pitch of its own: the option gives it, and without one nothing is
    // written.
    const std::string chainArg =
        " --chain '" + (fs::absolute("chains") / "default.chain").string() + "'";
    WriteRampPng("in.png");
    run = Veltrano("process" + chainArg + " --in in.png --out frompng.dcm");
    EXPECT_EQ(run.first, 1) << run.second;
    EXPECT_FALSE(fs::exists(dir_ / "frompng.dcm"));
    run = Veltrano("process" + chainArg +
                   " --in in.png --pixel-pitch 0.035 --tooth 85 --out frompng.dcm");
    ASSERT_EQ(run.first, 0) << run.second;
    EXPECT_EQ(Errors("frompng.dcm"), "");
    EXPECT_EQ(Field(dir_ / "frompng.dcm", DCM_ImagerPixelSpacing), "0.035\\0.035");
    EXPECT_EQ(Field(dir_ / "frompng.dcm", DCM_ImageLaterality), "R");
    EXPECT_EQ(Field(dir_ / "frompng.dcm", DCM_PatientName), "UNKNOWN^PATIENT");

    // A viewer's reader renders it.
    if (std::system("command -v dcm2pnm >/dev/null 2>&1") == 0) {
        EXPECT_EQ(Shell("dcm2pnm processed.dcm view.pgm").first, 0);
        EXPECT_TRUE(fs::exists(dir_ / "view.pgm"));
    }
}

TEST_F(VeltranoDicom, BadValuesAndInputsAreRefusedWithoutOutput) {
    // A work folder without sensor or calibration: whatever reached the exposure would fail
    // there with a message of its own.
    fs::create_directories(dir_ / "w");
    Write("old.dcm", "previous content");
    const std::string chain = (fs::absolute("chains") / "default.chain").string();
    struct Case {
        const char* args;
        int code;
        const char* problem;
    };
    const Case cases[] = {
        // Refused by the parse, before the exposure: exit 2 and the option's own message.
        {"acquire --workdir w --pixel-pitch 0.02 --tooth 19 --out old.dcm", 2, "--tooth: '19'"},
        {"acquire --workdir w --pixel-pitch 0.02 --birth-date 1980-02-30 --out old.dcm", 2,
         "--birth-date: '1980-02-30' is not a valid date"},
        {"acquire --workdir w --pixel-pitch 0.02 --sex Q --out old.dcm", 2, "--sex: 'Q'"},
        {"acquire --workdir w --pixel-pitch abc --out old.dcm", 2, "--pixel-pitch: needs"},
        // Refused by the subcommand, before the exposure or the chain.
        {"acquire --workdir w --out old.dcm", 1, "needs the sensor's pixel pitch"},
        {"process --chain CHAIN --in text.dcm --out old.dcm", 1,
         "text.dcm: is not a readable DICOM"},
    };
    Write("text.dcm", "not DICOM");
    for (const Case& c : cases) {
        std::string args = c.args;
        const size_t at = args.find("CHAIN");
        if (at != std::string::npos) {
            args.replace(at, 5, chain);
        }
        const auto run = Veltrano(args);
        EXPECT_EQ(run.first, c.code) << args << "\n" << run.second;
        EXPECT_NE(run.second.find(c.problem), std::string::npos) << args << "\n" << run.second;
        EXPECT_EQ(ReadAll(dir_ / "old.dcm"), "previous content") << args;
    }
    // The patient of a DICOM input cannot be changed on the way through.
    WriteRampPng("in.png");
    ASSERT_EQ(
        Veltrano("process --chain '" + chain + "' --in in.png --pixel-pitch 0.02 --out in.dcm")
            .first,
        0);
    const auto run =
        Veltrano("process --chain '" + chain + "' --in in.dcm --patient-id 7 --out old.dcm");
    EXPECT_EQ(run.first, 2);
    EXPECT_NE(run.second.find("patient and study of a DICOM input are kept"), std::string::npos)
        << run.second;
    EXPECT_FALSE(fs::exists(dir_ / "old.dcm.part"));
}

// The program loads the DICOM library only to read or write a DICOM file. A copy of it beside a
// damaged library, which the loader finds first in the program's own folder, still starts,
// checks the patient options and processes PNG images, and refuses DICOM files with one line
// before any work, leaving no output behind.
TEST_F(VeltranoDicom, DamagedDicomLibraryFailsOnlyWhatNeedsIt) {
    const fs::path bin = dir_ / "bin";
    fs::create_directories(bin);
    fs::copy_file(program_, bin / "veltrano");
    Write("bin/" VELTRANO_DICOM_LIBRARY_FILE, "not a shared library");
    const std::string chain =
        " --chain '" + (fs::absolute("chains") / "default.chain").string() + "'";
    WriteRampPng("in.png");
    // A DICOM input made by the program in the build folder, with the library in its place.
    ASSERT_EQ(Veltrano("process" + chain + " --in in.png --out good.dcm --pixel-pitch 0.02").first,
              0);
    const std::string copy = "timeout 60 bin/veltrano ";

    auto run = Shell(copy + "process" + chain + " --in in.png --out out.png");
    EXPECT_EQ(run.first, 0) << run.second;
    EXPECT_TRUE(fs::exists(dir_ / "out.png"));

    run = Shell(copy + "process" + chain + " --in in.png --out out.dcm --tooth 19");
    EXPECT_EQ(run.first, 2);
    EXPECT_NE(run.second.find("--tooth: '19'"), std::string::npos) << run.second;

    const std::string refused[] = {
        "process" + chain + " --in in.png --out out.dcm --pixel-pitch 0.02",
        "process" + chain + " --in good.dcm --out fromdcm.png",
        "demo --out demo" + chain,
    };
    for (const std::string& args : refused) {
        run = Shell(copy + args);
        EXPECT_EQ(run.first, 1) << args;
        EXPECT_EQ(cli_test::Lines(run.second), 1u) << args << "\n" << run.second;
        EXPECT_NE(run.second.find("the DICOM library cannot be loaded"), std::string::npos)
            << args << "\n"
            << run.second;
    }
    EXPECT_FALSE(fs::exists(dir_ / "out.dcm"));
    EXPECT_FALSE(fs::exists(dir_ / "out.dcm.part"));
    EXPECT_FALSE(fs::exists(dir_ / "fromdcm.png"));
    // Refused before the exposure: nothing of the demo was written.
    EXPECT_FALSE(fs::exists(dir_ / "demo" / "corrected.png"));
}

}  // namespace
#endif
