// The few operating-system services the comparison program needs (it runs on Linux only, as
// its OpenCV comes from the distribution).
#pragma once

#include <string>

namespace compare {

// While alive, standard output goes to /dev/null: the detector object logs every correction
// there, which would break up the report.
class StdoutSilenced {
public:
    StdoutSilenced();
    ~StdoutSilenced();
    StdoutSilenced(const StdoutSilenced&) = delete;
    StdoutSilenced& operator=(const StdoutSilenced&) = delete;

private:
    int saved_ = -1;
};

// A fresh, empty directory of this program's own below the system's temporary directory,
// removed with everything in it when the object goes away. path() is empty when none could be
// made.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::string& path() const { return path_; }

private:
    std::string path_;
};

// The processor's model name, cores and caches, as lscpu would give them; empty where unknown.
std::string MachineSummary();

}  // namespace compare
