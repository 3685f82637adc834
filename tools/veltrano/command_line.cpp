// Every subcommand of the program and every option it takes, defined once. The parser checks
// what these definitions say (required options, ranges, options that need or exclude each
// other) and writes the help texts from them; docs/cli.md describes the same options, and a
// test holds the two together.
//
// A new subcommand is an options struct and a Run function in commands.h, a Define function
// here, and one line in BuildCommands. A new option is one line in its subcommand's Define
// function (and its line in docs/cli.md).
#include "command_line.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "commands.h"
#include "dicom_output.h"
#include "image_files.h"

namespace vcli {
namespace {

constexpr std::size_t kOptionColumn = 24;  // where option descriptions start
constexpr std::size_t kUsageWidth = 96;    // where the usage line wraps

// Help in this program's layout: the usage line made from the options (required ones bare,
// the others in brackets), the command's help text, the options with their value names and
// defaults, the commands (first line of each help text only) and the footer.
class HelpFormatter : public CLI::Formatter {
public:
    HelpFormatter() {
        column_width(kOptionColumn);
        label("Usage", "usage");
    }

    std::string make_help(const CLI::App* app, std::string name,
                          CLI::AppFormatMode mode) const override {
        std::string text = make_usage(app, name) + "\n" + app->get_description() + "\n";
        text += make_groups(app, mode);
        text += make_subcommands(app, mode);
        if (!app->get_footer().empty()) {
            text += "\n" + app->get_footer() + "\n";
        }
        return text;
    }

    std::string make_usage(const CLI::App* app, std::string name) const override {
        std::vector<std::string> words;
        if (!app->get_subcommands({}).empty()) {
            words.push_back("<command>");
            words.push_back("[options]");
        }
        for (const CLI::Option* opt : app->get_options()) {
            if (opt == app->get_help_ptr() || opt->get_lnames().empty()) {
                continue;
            }
            std::string word = "--" + opt->get_lnames().front();
            if (!opt->get_type_name().empty()) {  // a switch has no value name
                word += " " + opt->get_type_name();
            }
            words.push_back(opt->get_required() ? word : "[" + word + "]");
        }
        const std::string head = get_label("Usage") + ": " + name;
        std::string text = head;
        std::size_t lineStart = 0;
        for (const std::string& word : words) {
            if (text.size() - lineStart + 1 + word.size() > kUsageWidth) {
                text += "\n" + std::string(head.size(), ' ');
                lineStart = text.size() - head.size();
            }
            text += " " + word;
        }
        return text + "\n";
    }

    // The commands' list shows the first line of each description.
    std::string make_subcommand(const CLI::App* sub) const override {
        const std::string& description = sub->get_description();
        auto line = std::string("  ") + sub->get_name();
        line.resize(std::max(line.size() + 1, kOptionColumn), ' ');
        return line + description.substr(0, description.find('\n')) + "\n";
    }

    // " DIR" after the option's name, no "REQUIRED" (the usage line shows what is required).
    // The validators have no descriptions of their own, so that the value name stays as given.
    std::string make_option_opts(const CLI::Option* opt) const override {
        return opt->get_type_name().empty() ? std::string() : " " + opt->get_type_name();
    }

    std::string make_option_desc(const CLI::Option* opt) const override {
        std::string text = opt->get_description();
        if (!opt->get_default_str().empty()) {
            text += " (default " + opt->get_default_str() + ")";
        }
        return text;
    }
};

// A path or name given as an empty string is as good as none.
const CLI::Validator kNotEmpty(
    [](const std::string& value) {
        return value.empty() ? std::string("needs a value that is not empty") : std::string();
    },
    "", "not empty");

// A pixel pitch in millimetres; CLI::Range would show its bounds with six decimals.
const CLI::Validator kPixelPitch(
    [](const std::string& value) {
        char* end = nullptr;
        const double mm = std::strtod(value.c_str(), &end);
        return !value.empty() && *end == '\0' && mm >= 0.001 && mm <= 1.0
                   ? std::string()
                   : "needs a pixel pitch in millimetres from 0.001 to 1, not '" + value + "'";
    },
    "", "pixel pitch");

// Wording shared by several subcommands.
const char kWorkDirHelp[] = "the sensor's work folder";
const char kVerboseHelp[] = "show the library's console lines (default: DIR/veltrano.log)";

CLI::Option* AddPath(CLI::App* app, const std::string& name, std::string& value,
                     const std::string& valueName, const std::string& help) {
    return app->add_option(name, value, help)->type_name(valueName)->check(kNotEmpty);
}

template <typename T>
CLI::Option* AddNumber(CLI::App* app, const std::string& name, T& value,
                       const std::string& valueName, const std::string& help, T low, T high) {
    return app->add_option(name, value, help)
        ->type_name(valueName)
        ->check(CLI::Range(low, high).description(""))
        ->capture_default_str();
}

// An integer that takes one of a few values ("1|4").
CLI::Option* AddChoice(CLI::App* app, const std::string& name, int& value,
                       const std::vector<std::string>& choices, const std::string& help) {
    std::string valueName;
    for (const std::string& choice : choices) {
        valueName += (valueName.empty() ? "" : "|") + choice;
    }
    return app->add_option(name, value, help)
        ->type_name(valueName)
        ->check(CLI::IsMember(choices).description(""))
        ->capture_default_str();
}

// A switch takes no value: "--yes=no" is refused rather than read as "not yes".
CLI::Option* AddSwitch(CLI::App* app, const std::string& name, bool& value,
                       const std::string& help) {
    return app->add_flag(name, value, help)->disable_flag_override();
}

CLI::App* AddCommand(CLI::App& program, const std::string& name, const std::string& description) {
    CLI::App* command = program.add_subcommand(name, description);
    command->group("commands");
    command->get_help_ptr()->group("options");
    command->footer("");
    return command;
}

// The patient options and --pixel-pitch, which demo, acquire and process take alike. Returns
// the check that the subcommand's final callback runs: a bad value is then a usage error of the
// parse, before anything is acquired or processed.
std::function<void()> AddDicomOptions(CLI::App* app, DicomOptions& o) {
    app->add_option("--patient-name", o.patientName,
                    "DICOM: the patient, Family^Given (UTF-8, at most 64 characters)")
        ->type_name("NAME");
    app->add_option("--patient-id", o.patientId, "DICOM: at most 64 characters")->type_name("ID");
    app->add_option("--birth-date", o.birthDate, "DICOM: YYYYMMDD or YYYY-MM-DD")
        ->type_name("DATE");
    app->add_option("--sex", o.sex, "DICOM: the patient's sex")->type_name("M|F|O");
    app->add_option("--study-description", o.studyDescription, "DICOM: at most 64 characters")
        ->type_name("TEXT");
    app->add_option("--tooth", o.tooth,
                    "DICOM: FDI number (11-48, 51-85), which gives the side and the jaw")
        ->type_name("NN");
    app->add_option("--accession", o.accession, "DICOM: accession number, at most 16 characters")
        ->type_name("NUMBER");
    app->add_option("--pixel-pitch", o.pixelPitchMm,
                    "DICOM: the sensor's pixel pitch in millimetres, 0.001 to 1")
        ->type_name("MM")
        ->check(kPixelPitch);
    return [&o] {
        vdicom::DicomIdentity identity;
        std::string error;
        if (!DicomIdentityFromOptions(o, identity, error)) {
            throw CLI::ValidationError(error);
        }
    };
}

// Everything the command line fills in.
struct AllOptions {
    DemoOptions demo;
    AcquireOptions acquire;
    ProcessOptions process;
    CalibrateOptions calibrate;
    InfoOptions info;
    StudioCommandOptions studio;
};

// A subcommand and what runs when the command line names it.
struct Command {
    CLI::App* app;
    std::function<int()> run;
};

// The first line goes into the list of commands, the whole into "veltrano demo --help".
const char kDemoHelp[] =
    "acquire one exposure from the built-in virtual sensor and process it\n"
    "\n"
    "Sets up a virtual sensor of the largest size (2000: 1300 x 1800 pixels) in DIR/sensor,\n"
    "writes its calibration, takes one exposure of the phantom scene, runs the chain and writes\n"
    "  DIR/corrected.png  the corrected exposure (16-bit grayscale)\n"
    "  DIR/processed.png  after the post-processing chain (16-bit grayscale)\n"
    "  DIR/preview.png    both side by side, for viewing (8-bit)\n"
    "  DIR/processed.dcm  the processed image as DICOM (in a build with DCMTK)\n"
    "The library's console lines go to DIR/veltrano.log. The DICOM options fill in the patient\n"
    "and study; without them the patient is written as unknown.";

CLI::App* DefineDemo(CLI::App& program, DemoOptions& o) {
    CLI::App* demo = AddCommand(program, "demo", kDemoHelp);
    AddPath(demo, "--out", o.outDir, "DIR", "output folder")->capture_default_str();
    AddPath(demo, "--chain", o.chain, "FILE",
            "chain file (default: chains/default.chain shipped with the program)");
    demo->final_callback(AddDicomOptions(demo, o.dicom));
    return demo;
}

const char kAcquireHelp[] =
    "take one exposure from the driver library the Veltrano library finds\n"
    "\n"
    "Takes one exposure from the driver library that the Veltrano library loads (FpdSys), with\n"
    "the calibration below DIR/Correct/Default, and writes the corrected image (processed by\n"
    "the chain when one is given). FILE ending in .png gets a 16-bit grayscale PNG; any other\n"
    "name a raw file of 32-bit floats (element code 8, no header). Ctrl-C stops the wait.\n"
    "FILE ending in .dcm gets a DICOM intra-oral image (in a build with DCMTK): \"for\n"
    "processing\" without a chain, \"for presentation\" with one; it needs --pixel-pitch.";

CLI::App* DefineAcquire(CLI::App& program, AcquireOptions& o) {
    CLI::App* acquire = AddCommand(program, "acquire", kAcquireHelp);
    AddPath(acquire, "--workdir", o.workDir, "DIR", kWorkDirHelp)->required();
    AddNumber(acquire, "--delay", o.exposure.delayMs, "MS", "delay time", 0, 600000);
    AddChoice(acquire, "--trigger-mode", o.exposure.triggerMode, {"6", "7"}, "trigger mode");
    AddNumber(acquire, "--threshold", o.exposure.threshold, "N", "trigger threshold", 0, 1000000);
    AddPath(acquire, "--chain", o.chain, "FILE", "post-processing chain to run on the image");
    AddSwitch(acquire, "--verbose", o.verbose, kVerboseHelp);
    AddPath(acquire, "--out", o.out, "FILE", "output image")->required();
    acquire->final_callback(AddDicomOptions(acquire, o.dicom));
    return acquire;
}

const char kProcessHelp[] =
    "run a post-processing chain on a 16-bit PNG, DICOM or raw image file\n"
    "\n"
    "Runs a post-processing chain on a 16-bit grayscale PNG, or on a headerless raw file when\n"
    "its layout is given. Raw element codes: 0 int8, 1 uint8, 2 int16, 3 uint16, 4 int32,\n"
    "5 uint32, 6 int64, 7 uint64, 8 float32, 9 float64 (little-endian); values are clamped to\n"
    "0..65535 and rounded. An output ending in .png gets a 16-bit PNG, any other a raw file of\n"
    "32-bit floats (element code 8), one ending in .dcm a DICOM intra-oral image \"for\n"
    "presentation\" (in a build with DCMTK). An input ending in .dcm is read as DICOM (16-bit\n"
    "grey, one frame): its patient and study are kept, the output joins that study and refers\n"
    "back to it, and the patient options are refused. A PNG or raw input with a .dcm output\n"
    "needs --pixel-pitch. A failed run leaves an existing output file untouched.";

// The layout of a headerless raw input: --width, --height and --type come together or not at
// all, --header only with them. Returns --width, whose count says whether a layout was given.
CLI::Option* AddRawLayout(CLI::App* app, RawLayout& raw) {
    CLI::Option* width = AddNumber(app, "--width", raw.width, "W", "raw: pixels per row",
                                   uint64_t{1}, uint64_t{100000});
    CLI::Option* height =
        AddNumber(app, "--height", raw.height, "H", "raw: rows", uint64_t{1}, uint64_t{100000});
    CLI::Option* type = AddNumber(app, "--type", raw.type, "CODE", "raw: element code", 0, 9);
    CLI::Option* header =
        AddNumber(app, "--header", raw.headerBytes, "BYTES",
                  "raw: bytes to skip before the samples", uint64_t{0}, uint64_t{1} << 40);
    // The defaults are not a layout.
    for (CLI::Option* part : {width, height, type}) {
        part->default_str("");
    }
    width->needs(height)->needs(type);
    height->needs(width)->needs(type);
    type->needs(width)->needs(height);
    header->needs(width)->needs(height)->needs(type);
    return width;
}

CLI::App* DefineProcess(CLI::App& program, ProcessOptions& o) {
    CLI::App* process = AddCommand(program, "process", kProcessHelp);
    AddPath(process, "--chain", o.chain, "FILE", "post-processing chain")->required();
    AddPath(process, "--in", o.in, "IMAGE",
            "input image: a 16-bit PNG or DICOM file, or raw with the layout")
        ->required();
    AddPath(process, "--out", o.out, "IMAGE", "output image")->required();
    CLI::Option* width = AddRawLayout(process, o.layout);
    const std::function<void()> checkDicom = AddDicomOptions(process, o.dicom);
    // Runs after the checks above, as part of the parse: its error is a usage error like theirs.
    process->final_callback([&o, width, checkDicom] {
        o.raw = width->count() != 0;
        const bool dicomIn = !o.raw && vdicom::IsDicomPath(o.in);
        if (!o.raw && !IsPngPath(o.in) && !dicomIn) {
            throw CLI::ValidationError("--in", "'" + o.in +
                                                   "' is not a .png or .dcm file: give --width, "
                                                   "--height and --type to read it as a raw file");
        }
        checkDicom();
        if (dicomIn && HasDicomIdentityOptions(o.dicom)) {
            throw CLI::ValidationError(
                "the patient and study of a DICOM input are kept: the "
                "patient options cannot change them");
        }
    });
    return process;
}

const char kCalibrateHelp[] =
    "make the sensor's gain and defect files from its own flat exposures\n"
    "\n"
    "Calibrates the sensor of the work folder DIR through the driver library that the Veltrano\n"
    "library loads: flat exposures (nothing in the beam) at one dose or at four rising doses,\n"
    "N of each (default 4 levels of 8), then one check exposure. Each exposure must be a usable\n"
    "flat (not saturated, not too dark, uniform, at the dose of the one before) or the run stops.\n"
    "Only a run that succeeds replaces the gain and defect files below DIR/Correct/Default; the\n"
    "previous ones are kept beside them with \".previous\" appended. A real sensor asks the\n"
    "operator to set the source before each level and press Enter (--yes: go on at once); the\n"
    "virtual sensor sets its own dose. Ctrl-C stops the run and changes nothing. Prints the\n"
    "defects found by kind and the flat field's variation before and after correction, and\n"
    "writes DIR/calibration-report.png (check exposure raw and corrected, and the defect map).\n"
    "\n"
    "With --virtual, the virtual sensor writes its own calibration files instead (one gain\n"
    "frame, or four with --frames 4); DIR is created if needed and the size comes from\n"
    "DIR/VirtualSensor.ini. It takes only --workdir and --frames.";

CLI::App* DefineCalibrate(CLI::App& program, CalibrateOptions& o) {
    CLI::App* calibrate = AddCommand(program, "calibrate", kCalibrateHelp);
    AddPath(calibrate, "--workdir", o.workDir, "DIR", kWorkDirHelp)->required();
    CLI::Option* levels =
        AddChoice(calibrate, "--levels", o.levels, {"1", "4"}, "doses to calibrate at");
    CLI::Option* exposures = AddNumber(calibrate, "--exposures", o.exposures, "N",
                                       "exposures per level, 2 to 64", 2, 64);
    CLI::Option* yes =
        AddSwitch(calibrate, "--yes", o.yes, "do not wait for the operator before each level");
    CLI::Option* verbose = AddSwitch(calibrate, "--verbose", o.verbose, kVerboseHelp);
    CLI::Option* virtualSensor = AddSwitch(calibrate, "--virtual", o.virtualSensor,
                                           "have the virtual sensor write its own calibration");
    AddChoice(calibrate, "--frames", o.frames, {"1", "4"}, "--virtual: gain frames to write")
        ->needs(virtualSensor);
    for (CLI::Option* other : {levels, exposures, yes, verbose}) {
        virtualSensor->excludes(other);
    }
    return calibrate;
}

const char kInfoHelp[] =
    "show the state, serial number, USB information and size of the sensor\n"
    "\n"
    "Opens the sensor and shows its online state, serial number, USB information and size.";

CLI::App* DefineInfo(CLI::App& program, InfoOptions& o) {
    CLI::App* info = AddCommand(program, "info", kInfoHelp);
    AddPath(info, "--workdir", o.workDir, "DIR", kWorkDirHelp)->required();
    AddSwitch(info, "--verbose", o.verbose, kVerboseHelp);
    return info;
}

const char kStudioHelp[] =
    "tune a post-processing chain on a picture in the browser\n"
    "\n"
    "Serves a page on 127.0.0.1 on which a post-processing chain is tuned against a picture:\n"
    "steps added, removed and reordered, every value changed with the result shown at once,\n"
    "and the chain file saved. The picture is a 16-bit PNG (or a raw file with its layout, as\n"
    "for 'veltrano process'), or with --workdir a fresh exposure from the sensor of DIR. The\n"
    "page reads and writes chain files only in the folder of FILE (default: the chain shipped\n"
    "with the program). The address is printed, and opened where a desktop is available.";

CLI::App* DefineStudio(CLI::App& program, StudioCommandOptions& o) {
    CLI::App* studio = AddCommand(program, "studio", kStudioHelp);
    CLI::Option* image = AddPath(studio, "--image", o.image, "FILE", "picture to tune on");
    CLI::Option* workDir = AddPath(studio, "--workdir", o.workDir, "DIR",
                                   "take the picture from the sensor of this work folder instead");
    image->excludes(workDir);
    AddPath(studio, "--chain", o.chain, "FILE",
            "chain file to start from (created on the first save if missing)");
    AddNumber(studio, "--port", o.port, "N",
              "port on 127.0.0.1 (default: 8765, or any free one when that is taken)", 0, 65535)
        ->default_str("");
    CLI::Option* width = AddRawLayout(studio, o.layout);
    width->needs(image);
    AddSwitch(studio, "--no-browser", o.noBrowser, "do not open a browser");
    studio->final_callback([&o, image, workDir, width] {
        if (image->count() == 0 && workDir->count() == 0) {
            throw CLI::ValidationError("--image", "give either --image FILE or --workdir DIR");
        }
        o.raw = width->count() != 0;
        if (image->count() != 0 && !o.raw && !IsPngPath(o.image)) {
            throw CLI::ValidationError("--image",
                                       "'" + o.image +
                                           "' is not a .png file: give --width, "
                                           "--height and --type to read it as a raw file");
        }
    });
    return studio;
}

std::vector<Command> BuildCommands(CLI::App& program, AllOptions& o) {
    program.formatter(std::make_shared<HelpFormatter>());
    program.option_defaults()->group("options");
    program.set_help_flag("-h,--help", "show this help");
    // As before: an option given twice counts the last time; "/x" is a path, not an option,
    // on Windows too.
    program.option_defaults()->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);
    program.allow_windows_style_options(false);
    program.require_subcommand(1);
    program.footer(
        "Run 'veltrano <command> --help' for the options of a command.\n"
        "Exit codes: 0 done, 1 failure, 2 usage error, 130 exposure stopped with Ctrl-C.");

    // "veltrano help" is "veltrano --help"; it is not listed.
    CLI::App* help = program.add_subcommand("help")->group("");
    const auto mainHelp = [&program] {
        std::fputs(program.get_formatter()
                       ->make_help(&program, program.get_name(), CLI::AppFormatMode::Normal)
                       .c_str(),
                   stdout);
        return kExitDone;
    };
    return {
        {DefineDemo(program, o.demo), [&o] { return RunDemo(o.demo); }},
        {DefineAcquire(program, o.acquire), [&o] { return RunAcquire(o.acquire); }},
        {DefineProcess(program, o.process), [&o] { return RunProcess(o.process); }},
        {DefineCalibrate(program, o.calibrate), [&o] { return RunCalibrate(o.calibrate); }},
        {DefineInfo(program, o.info), [&o] { return RunInfo(o.info); }},
        {DefineStudio(program, o.studio), [&o] { return RunStudioCommand(o.studio); }},
        {help, mainHelp},
    };
}

// The one line for a command line the parser refuses, naming the subcommand it was for.
int ReportUsageError(const CLI::App& program, const CLI::ParseError& error) {
    std::string where = "veltrano";
    std::string problem = error.what();
    const std::vector<CLI::App*> chosen = program.get_subcommands();
    if (!chosen.empty()) {
        where += " " + chosen.front()->get_name();
    } else if (program.remaining().empty()) {
        problem = "no command given";
    } else {
        // Nothing was taken as a command: say what the first word is instead of "a
        // subcommand is required".
        const std::string first = program.remaining().front();
        problem = first.compare(0, 1, "-") == 0 ? "unknown option " + first
                                                : "unknown command '" + first + "'";
    }
    std::fprintf(stderr, "%s: %s (see '%s --help')\n", where.c_str(), problem.c_str(),
                 where.c_str());
    return kExitUsage;
}

}  // namespace

int RunCommandLine(int argc, char** argv) {
    AllOptions options;
    CLI::App program("Intraoral X-ray sensor driver and image processing from the command line.",
                     "veltrano");
    const std::vector<Command> commands = BuildCommands(program, options);
    try {
        program.parse(argc, argv);
    } catch (const CLI::CallForHelp&) {
        std::fputs(program.help().c_str(), stdout);
        return kExitDone;
    } catch (const CLI::ParseError& error) {
        return ReportUsageError(program, error);
    }
    for (const Command& command : commands) {
        if (!command.app->parsed()) {
            continue;
        }
        try {
            return command.run();
        } catch (const std::exception& e) {
            // The commands report their failures themselves; this only keeps an unforeseen
            // exception (memory, say) from ending the program without a word.
            std::fprintf(stderr, "veltrano %s: %s\n", command.app->get_name().c_str(), e.what());
            return kExitFailure;
        }
    }
    return kExitUsage;  // the parser requires a command: not reached
}

}  // namespace vcli
