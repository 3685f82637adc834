// Putting new calibration files in place without ever leaving the sensor without a complete
// calibration, and tidying up after a run that was interrupted.
//
// The acquisition takes the first file with the extension "gn" and the first with "dft" below
// Correct/Default (sub-folders included), so the new files replace those very files under
// their own names, and every other "gn" or "dft" file there is renamed aside, so that the new
// pair is the only one left. The steps:
//   1. the new files are written completely under temporary names ending in ".veltrano-new";
//   2. the files to be replaced are copied to their names with ".previous" appended;
//   3. a journal lists what is about to change and ends with a line "end";
//   4. the other files are renamed aside (".previous" appended), the new files renamed over
//      the old ones, and the journal removed.
// A run that stops before 3 leaves the old files in place, with harmless temporary files and
// copies; one that stops during 4 leaves a complete journal, from which the next run (or
// RecoverCalibrationFolder) restores the old files. Only between the two renames of 4, a moment,
// do a new gain file and the old defect file lie side by side.
#include <filesystem>
#include <fstream>

#include "calibration/calibration_internal.h"
#include "driver_interface/calibration_layout.h"
#include "platform/directory.h"

namespace veltrano {
namespace calibration {
namespace {

namespace fs = std::filesystem;

constexpr char kJournalName[] = "calibration-commit.journal";
constexpr char kJournalFirstLine[] = "veltrano calibration journal 1";
constexpr char kNewSuffix[] = ".veltrano-new";
constexpr char kBackupSuffix[] = ".previous";

// One change the journal records: a file replaced (backup empty when there was none to keep) or
// a file renamed aside to its backup.
struct Change {
    bool replace;
    std::string path;
    std::string backup;
};

std::string JournalOf(const std::string& workDir) {
    return CalibrationFolderOf(workDir) + "/" + kJournalName;
}

bool Exists(const std::string& path) {
    std::error_code ec;
    return fs::exists(path, ec);
}

bool EndsWith(const std::string& text, const std::string& end) {
    return text.size() >= end.size() &&
           text.compare(text.size() - end.size(), end.size(), end) == 0;
}

bool WriteJournal(const std::string& path, const std::vector<Change>& changes) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << kJournalFirstLine << '\n';
    for (const Change& c : changes) {
        out << (c.replace ? "replace" : "aside") << '\t' << c.path << '\t' << c.backup << '\n';
    }
    out << "end\n";
    out.close();
    return static_cast<bool>(out);
}

// False when the journal is missing or incomplete: written only in part, it was written before
// anything changed.
bool ReadJournal(const std::string& path, std::vector<Change>& changes) {
    std::ifstream in(path, std::ios::binary);
    std::string line;
    if (!std::getline(in, line) || line != kJournalFirstLine) {
        return false;
    }
    while (std::getline(in, line)) {
        if (line == "end") {
            return true;
        }
        const size_t first = line.find('\t');
        const size_t second = first == std::string::npos ? first : line.find('\t', first + 1);
        if (second == std::string::npos) {
            return false;
        }
        const std::string kind = line.substr(0, first);
        if (kind != "replace" && kind != "aside") {
            return false;
        }
        changes.push_back({kind == "replace", line.substr(first + 1, second - first - 1),
                           line.substr(second + 1)});
    }
    return false;
}

// Copies a file to a name whose previous file, if any, is removed first. (The standard
// library's overwriting copy takes every pair of files on Windows for one and the same file.)
bool CopyFresh(const std::string& from, const std::string& to, std::error_code& ec) {
    fs::remove(to, ec);
    if (!ec) {
        fs::copy_file(from, to, ec);
    }
    return !ec;
}

// Replaces `to` by a copy of `from` in one rename, so that `to` is never half-written.
bool CopyOver(const std::string& from, const std::string& to) {
    const std::string temporary = to + kNewSuffix;
    std::error_code ec;
    if (CopyFresh(from, temporary, ec)) {
        fs::rename(temporary, to, ec);
    }
    if (ec) {
        std::error_code ignored;
        fs::remove(temporary, ignored);
    }
    return !ec;
}

// Restores what the changes replaced; message names the first file that could not be restored.
bool Undo(const std::vector<Change>& changes, std::string& message) {
    bool complete = true;
    for (auto c = changes.rbegin(); c != changes.rend(); ++c) {
        std::error_code ec;
        if (c->replace && c->backup.empty()) {
            fs::remove(c->path, ec);  // there was no file before
        } else if (c->replace) {
            if (!CopyOver(c->backup, c->path)) {
                ec = std::make_error_code(std::errc::io_error);
            }
        } else if (!Exists(c->path) && Exists(c->backup)) {
            fs::rename(c->backup, c->path, ec);
        }
        if (ec && complete) {
            message = "the previous calibration file " + c->path + " could not be restored from " +
                      (c->backup.empty() ? std::string("nothing") : c->backup);
            complete = false;
        }
    }
    return complete;
}

void RemoveTemporaryFiles(const std::string& folder) {
    for (const std::string& path : platform::ListFilesRecursive(folder)) {
        if (EndsWith(path, kNewSuffix)) {
            std::error_code ignored;
            fs::remove(path, ignored);
        }
    }
}

// The journal must not outlive a finished replacement, or the next run would undo it. Should it
// resist removal, emptying it makes it incomplete, which the next run ignores.
void DropJournal(const std::string& path) {
    std::error_code ec;
    if (!fs::remove(path, ec) && Exists(path)) {
        std::ofstream(path, std::ios::binary | std::ios::trunc);
    }
}

}  // namespace

std::string CalibrationFolderOf(const std::string& workDir) {
    return workDir + fpdsys::kCalibrationFolder;
}

std::string ScratchFolderOf(const std::string& workDir) { return workDir + "/calibration-scratch"; }

std::vector<std::string> FindByExtension(const std::string& folder, const std::string& ext) {
    std::vector<std::string> found;
    for (const std::string& path : platform::ListFilesRecursive(folder)) {
        const size_t dot = path.rfind('.');
        const size_t separator = path.find_last_of("/\\");
        if (dot != std::string::npos && (separator == std::string::npos || dot > separator) &&
            path.compare(dot + 1, std::string::npos, ext) == 0) {
            found.push_back(path);
        }
    }
    return found;
}

bool ReplaceCalibration(const std::string& workDir,
                        const std::function<bool(const std::string&, const std::string&)>& write,
                        Replaced& replaced, std::string& message) {
    const std::string folder = CalibrationFolderOf(workDir);
    std::error_code ec;
    fs::create_directories(folder, ec);
    if (!fs::is_directory(folder, ec)) {
        message = "the calibration folder " + folder + " cannot be made";
        return false;
    }
    const std::vector<std::string> gains = FindByExtension(folder, fpdsys::kGainExtension);
    const std::vector<std::string> defects = FindByExtension(folder, fpdsys::kDefectExtension);
    const std::string gain = gains.empty() ? folder + "/Calibration.gn" : gains.front();
    const std::string defect = defects.empty() ? folder + "/Calibration.dft" : defects.front();
    const std::string newGain = gain + kNewSuffix;
    const std::string newDefect = defect + kNewSuffix;
    auto removeNew = [&] {
        std::error_code ignored;
        fs::remove(newGain, ignored);
        fs::remove(newDefect, ignored);
    };
    if (!write(newGain, newDefect)) {
        removeNew();
        message = "the new calibration files could not be written in " + folder;
        return false;
    }

    std::vector<Change> changes;
    for (const std::string& target : {gain, defect}) {
        const bool existed = Exists(target);
        changes.push_back({true, target, existed ? target + kBackupSuffix : std::string()});
        if (existed) {
            if (!CopyFresh(target, target + kBackupSuffix, ec)) {
                removeNew();
                message = "the previous calibration file " + target + " could not be kept as " +
                          target + kBackupSuffix;
                return false;
            }
        }
    }
    for (const std::vector<std::string>* others : {&gains, &defects}) {
        for (size_t i = 1; i < others->size(); ++i) {
            changes.push_back({false, (*others)[i], (*others)[i] + kBackupSuffix});
        }
    }
    const std::string journal = JournalOf(workDir);
    if (!WriteJournal(journal, changes)) {
        DropJournal(journal);
        removeNew();
        message = "the journal " + journal + " could not be written";
        return false;
    }

    std::string failed;
    for (const Change& c : changes) {
        if (!c.replace) {
            fs::rename(c.path, c.backup, ec);
            if (ec) {
                failed = c.path;
                break;
            }
        }
    }
    if (failed.empty()) {
        fs::rename(newGain, gain, ec);
        if (ec) {
            failed = gain;
        } else {
            fs::rename(newDefect, defect, ec);
            if (ec) failed = defect;
        }
    }
    if (!failed.empty()) {
        std::string undoProblem;
        const bool undone = Undo(changes, undoProblem);
        if (undone) {
            DropJournal(journal);
        }
        removeNew();
        message = "the calibration file " + failed + " could not be replaced" +
                  (undone ? std::string("; the previous calibration is unchanged")
                          : "; " + undoProblem + " (the next run will retry)");
        return false;
    }
    DropJournal(journal);
    replaced.gain = gain;
    replaced.defect = defect;
    replaced.gainBackup = changes[0].backup;
    replaced.defectBackup = changes[1].backup;
    return true;
}

}  // namespace calibration

int RecoverCalibrationFolder(const char* workDir, std::string& message) {
    message.clear();
    if (workDir == nullptr || *workDir == '\0') {
        message = "no work directory";
        return -1;
    }
    const std::string dir(workDir);
    const std::string journal = calibration::JournalOf(dir);
    int result = 0;
    if (calibration::Exists(journal)) {
        std::vector<calibration::Change> changes;
        if (calibration::ReadJournal(journal, changes)) {
            if (!calibration::Undo(changes, message)) {
                return -1;  // the journal stays for another attempt
            }
            result = 1;
            message = "an interrupted replacement of the calibration was undone";
        }
        calibration::DropJournal(journal);
    }
    calibration::RemoveTemporaryFiles(calibration::CalibrationFolderOf(dir));
    std::error_code ignored;
    std::filesystem::remove_all(calibration::ScratchFolderOf(dir), ignored);
    return result;
}

}  // namespace veltrano
