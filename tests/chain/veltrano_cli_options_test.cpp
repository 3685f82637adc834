// The program's command line: what the parser refuses (one line, exit code 2), what it lets
// through to the subcommand, its help texts, and docs/cli.md against those help texts.
#include "cli_support.h"

#if !defined(_WIN32)
#include <iterator>
#include <map>
#include <set>
#include <sstream>
#include <vector>

namespace {
using namespace cli_test;

struct Refusal {
    const char* name;     // the case's name in the test report
    const char* args;     // the command line after "veltrano"
    const char* where;    // how the line begins: "veltrano" or "veltrano SUBCOMMAND"
    const char* problem;  // a part of what the line says is wrong
};

std::ostream& operator<<(std::ostream& out, const Refusal& c) { return out << c.args; }

class VeltranoRefuses : public VeltranoCli, public testing::WithParamInterface<Refusal> {};

TEST_P(VeltranoRefuses, WithOneLineAndExitCodeTwo) {
    const Refusal& c = GetParam();
    const Run run = VeltranoOutput(c.args);
    EXPECT_EQ(run.code, 2) << run.err;
    EXPECT_EQ(Lines(run.err), 1u) << run.err;
    const std::string where = c.where;
    EXPECT_EQ(run.err.compare(0, where.size() + 2, where + ": "), 0) << run.err;
    EXPECT_NE(run.err.find(c.problem), std::string::npos) << run.err;
    EXPECT_NE(run.err.find("(see '" + where + " --help')\n"), std::string::npos) << run.err;
    EXPECT_EQ(run.out, "");
}

const Refusal kRefusals[] = {
    {"NoCommand", "", "veltrano", "no command given"},
    {"UnknownCommand", "frobnicate", "veltrano", "unknown command 'frobnicate'"},
    {"UnknownOptionBeforeCommand", "--bogus", "veltrano", "unknown option --bogus"},
    {"MissingRequiredOption", "info", "veltrano info", "--workdir is required"},
    {"EmptyPath", "info --workdir ''", "veltrano info", "--workdir: needs a value"},
    {"ValueMissingAtTheEnd", "acquire --workdir w --out", "veltrano acquire", "--out"},
    {"StrayArgument", "demo extra", "veltrano demo", "extra"},
    {"UnknownOption", "process --chain c --in a.png --out b.png --bogus", "veltrano process",
     "--bogus"},
    {"ProcessWithoutChain", "process --in a.png --out b.png", "veltrano process",
     "--chain is required"},
    {"WidthNotANumber", "process --chain c --in a.raw --out b.png --width x --height 3 --type 3",
     "veltrano process", "--width"},
    {"WidthOverTheLimit",
     "process --chain c --in a.raw --out b.png --width 100001 --height 3 --type 3",
     "veltrano process", "--width"},
    {"TypeOutOfRange", "process --chain c --in a.raw --out b.png --width 3 --height 3 --type 10",
     "veltrano process", "--type"},
    {"LayoutWithoutType", "process --chain c --in a.raw --out b.png --width 3 --height 3",
     "veltrano process", "requires --type"},
    {"HeaderWithoutLayout", "process --chain c --in a.raw --out b.png --header 4",
     "veltrano process", "--header requires"},
    {"RawInputWithoutLayout", "process --chain c --in a.raw --out b.png", "veltrano process",
     "'a.raw' is not a .png or .dcm file"},
    {"TriggerModeNotSixOrSeven", "acquire --workdir w --out o.png --trigger-mode 5",
     "veltrano acquire", "--trigger-mode"},
    {"DelayTooLong", "acquire --workdir w --out o.png --delay 600001", "veltrano acquire",
     "--delay"},
    {"NegativeThreshold", "acquire --workdir w --out o.png --threshold -1", "veltrano acquire",
     "--threshold"},
    {"LevelsNotOneOrFour", "calibrate --workdir w --levels 2", "veltrano calibrate", "--levels"},
    {"TooFewExposures", "calibrate --workdir w --exposures 1", "veltrano calibrate", "--exposures"},
    {"FramesWithoutVirtual", "calibrate --workdir w --frames 4", "veltrano calibrate",
     "--frames requires --virtual"},
    {"FramesNotOneOrFour", "calibrate --workdir w --virtual --frames 2", "veltrano calibrate",
     "--frames"},
    {"VirtualWithLevels", "calibrate --workdir w --virtual --levels 4", "veltrano calibrate",
     "excludes"},
    {"VirtualWithVerbose", "calibrate --workdir w --virtual --verbose", "veltrano calibrate",
     "excludes"},
    {"SwitchWithAValue", "info --workdir w --verbose=no", "veltrano info", "verbose"},
    // The patient options are checked by the parse, in every build, before any sensor is opened.
    {"ToothNotFdi", "acquire --workdir w --out o.dcm --pixel-pitch 0.02 --tooth 19",
     "veltrano acquire", "--tooth: '19' is not a tooth"},
    {"BirthDateNotADay", "demo --birth-date 1980-02-30", "veltrano demo",
     "--birth-date: '1980-02-30' is not a valid date"},
    {"PatientNameWithControl", "demo --patient-name 'Doe\tJane'", "veltrano demo",
     "--patient-name: control characters"},
    {"PixelPitchNotANumber", "process --chain c --in a.png --out b.dcm --pixel-pitch abc",
     "veltrano process", "--pixel-pitch: needs a pixel pitch in millimetres"},
    {"PixelPitchTooLarge", "acquire --workdir w --out o.dcm --pixel-pitch 2", "veltrano acquire",
     "--pixel-pitch"},
    {"PatientOfDicomInput", "process --chain c --in a.dcm --out b.dcm --patient-id 7",
     "veltrano process", "patient and study of a DICOM input are kept"},
};

INSTANTIATE_TEST_SUITE_P(BadCommandLines, VeltranoRefuses, testing::ValuesIn(kRefusals),
                         [](const testing::TestParamInfo<Refusal>& info) {
                             return std::string(info.param.name);
                         });

// Values at the edges of their ranges, and the "--name=value" form, reach the subcommand: these
// runs fail on the missing files, not in the parser.
TEST_F(VeltranoCli, ValuesInRangeReachTheSubcommand) {
    const char* cases[][2] = {
        {"acquire --workdir missing --out o.raw --delay 600000 --trigger-mode 7 --threshold 0",
         "veltrano: missing: is not a folder\n"},
        {"acquire --workdir=missing --out=o.raw --delay=0 --trigger-mode=6 --threshold=1000000",
         "veltrano: missing: is not a folder\n"},
        {"process --chain c --in in.raw --out o.raw --width 100000 --height 1 --type 9 "
         "--header 1099511627776",
         "veltrano: c: cannot be opened\n"},
        {"process --chain c --in in.raw --out o.raw --width 1 --height 100000 --type 0",
         "veltrano: c: cannot be opened\n"},
        {"calibrate --workdir missing --levels 1 --exposures 64 --yes --verbose",
         "veltrano: missing: is not a folder\n"},
        {"calibrate --workdir missing --levels 4 --exposures 2",
         "veltrano: missing: is not a folder\n"},
        {"info --workdir missing --verbose", "veltrano: missing: is not a folder\n"},
    };
    for (const auto& c : cases) {
        const Run run = VeltranoOutput(c[0]);
        EXPECT_EQ(run.code, 1) << c[0];
        EXPECT_EQ(run.err, c[1]) << c[0];
    }
}

// The help of the program and of each subcommand goes to standard output with exit code 0 and
// begins with the usage line the parser makes from the options.
TEST_F(VeltranoCli, HelpComesFromTheParser) {
    const char* cases[][2] = {
        {"--help", "usage: veltrano <command> [options]\n"},
        {"-h", "usage: veltrano <command> [options]\n"},
        {"help", "usage: veltrano <command> [options]\n"},
        {"demo --help", "usage: veltrano demo [--out DIR] [--chain FILE] [--patient-name NAME]"},
        {"info -h", "usage: veltrano info --workdir DIR [--verbose]\n"},
        {"acquire --help",
         "usage: veltrano acquire --workdir DIR [--delay MS] [--trigger-mode 6|7] "
         "[--threshold N]\n"},
        {"process --help",
         "usage: veltrano process --chain FILE --in IMAGE --out IMAGE [--width W]"},
        {"calibrate --help",
         "usage: veltrano calibrate --workdir DIR [--levels 1|4] [--exposures N]"},
    };
    for (const auto& c : cases) {
        const Run run = VeltranoOutput(c[0]);
        EXPECT_EQ(run.code, 0) << c[0];
        EXPECT_EQ(run.err, "") << c[0];
        EXPECT_EQ(run.out.compare(0, std::string(c[1]).size(), c[1]), 0) << c[0] << "\n" << run.out;
    }
    // The defaults shown are the ones the subcommands use.
    EXPECT_NE(
        VeltranoOutput("calibrate --help").out.find("exposures per level, 2 to 64 (default 8)"),
        std::string::npos);
    EXPECT_NE(VeltranoOutput("acquire --help").out.find("trigger threshold (default 100)"),
              std::string::npos);
}

// "--name VALUE" (or "--name" for a switch) for each option, per subcommand.
using OptionsOf = std::map<std::string, std::map<std::string, std::string>>;

// From docs/cli.md: the headings "### `veltrano SUB [--name VALUE] ...`". A subcommand with two
// forms has two headings; its options are those of both. "SUB1|SUB2" lists options they share.
OptionsOf DocumentedOptions(const std::string& markdown) {
    OptionsOf options;
    std::istringstream lines(markdown);
    const std::string prefix = "### `veltrano ";
    for (std::string line; std::getline(lines, line);) {
        if (line.compare(0, prefix.size(), prefix) != 0) continue;
        std::string synopsis = line.substr(prefix.size());
        synopsis = synopsis.substr(0, synopsis.find('`'));
        for (char& ch : synopsis) {
            if (ch == '[' || ch == ']') ch = ' ';
        }
        std::istringstream words(synopsis);
        std::string commands;
        words >> commands;
        std::vector<std::string> rest{std::istream_iterator<std::string>(words), {}};
        // "demo|acquire|process": options that several subcommands share.
        std::istringstream names(commands);
        for (std::string command; std::getline(names, command, '|');) {
            auto& mine = options[command];
            for (size_t i = 0; i < rest.size(); ++i) {
                if (rest[i].compare(0, 2, "--") != 0) continue;
                const bool hasValue = i + 1 < rest.size() && rest[i + 1].compare(0, 2, "--") != 0;
                mine[rest[i]] = hasValue ? rest[i + 1] : "";
            }
        }
    }
    return options;
}

// The first word of each line of a help text's section ("commands:", "options:").
std::vector<std::string> SectionLines(const std::string& help, const std::string& title) {
    std::vector<std::string> result;
    std::istringstream lines(help);
    bool inside = false;
    for (std::string line; std::getline(lines, line);) {
        if (line == title) {
            inside = true;
        } else if (inside && line.empty()) {
            break;
        } else if (inside && line.size() > 2 && line[2] != ' ') {
            // "  --name VALUE   description": the name part ends at the first double space.
            result.push_back(line.substr(2, line.find("  ", 2) - 2));
        }
    }
    return result;
}

TEST_F(VeltranoCli, DocumentationListsTheOptionsOfTheHelp) {
    const std::string markdown = ReadAll(VELTRANO_CLI_DOC);
    ASSERT_FALSE(markdown.empty()) << VELTRANO_CLI_DOC;
    const OptionsOf documented = DocumentedOptions(markdown);

    const Run main = VeltranoOutput("--help");
    ASSERT_EQ(main.code, 0);
    std::set<std::string> commands;
    for (const std::string& line : SectionLines(main.out, "commands:")) {
        commands.insert(line.substr(0, line.find(' ')));
    }
    std::set<std::string> documentedCommands;
    for (const auto& entry : documented) documentedCommands.insert(entry.first);
    EXPECT_EQ(commands, documentedCommands) << main.out;
    ASSERT_GE(commands.size(), 5u) << main.out;

    for (const std::string& command : commands) {
        const Run help = VeltranoOutput(command + " --help");
        ASSERT_EQ(help.code, 0) << command;
        std::map<std::string, std::string> shown;
        for (const std::string& entry : SectionLines(help.out, "options:")) {
            if (entry == "-h,--help") continue;
            const size_t space = entry.find(' ');
            shown[entry.substr(0, space)] =
                space == std::string::npos ? "" : entry.substr(space + 1);
        }
        EXPECT_EQ(shown, documented.at(command)) << "veltrano " << command << " --help:\n"
                                                 << help.out;
    }
}

}  // namespace
#endif
