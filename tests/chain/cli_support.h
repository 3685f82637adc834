// The command-line program run as a host runs it: as a separate process, from the build's bin
// folder, through a POSIX shell. Each test gets a folder of its own; the tests skip themselves
// where the program is not built.
#pragma once

#if !defined(_WIN32)
#include <gtest/gtest.h>

#include <sys/wait.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <utility>

namespace cli_test {
namespace fs = std::filesystem;

inline std::string ReadAll(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

inline size_t Lines(const std::string& text) { return std::count(text.begin(), text.end(), '\n'); }

class VeltranoCli : public testing::Test {
protected:
    void SetUp() override {
        program_ = fs::absolute("veltrano");
        if (!fs::exists(program_)) {
            GTEST_SKIP() << "the veltrano program is not part of this build";
        }
        // One folder per test: CTest runs the tests of this file side by side. A parameterised
        // case is named "Case/param": one folder, not a folder in a folder.
        std::string name = testing::UnitTest::GetInstance()->current_test_info()->name();
        std::replace(name.begin(), name.end(), '/', '_');
        dir_ = fs::absolute("cli_test_" + name);
        fs::remove_all(dir_);
        fs::create_directories(dir_);
    }
    void TearDown() override {
        std::error_code ec;
        fs::remove_all(dir_, ec);
    }

    void Write(const std::string& name, const std::string& bytes) const {
        std::ofstream(dir_ / name, std::ios::binary) << bytes;
    }

    // The exit code and standard error of one run in the test's folder. A run that blocks (on a
    // FIFO, say) is ended after 60 s and answers 124.
    std::pair<int, std::string> Veltrano(const std::string& args) const {
        return Shell("timeout 60 '" + program_.string() + "' " + args);
    }

    // Any shell command in the test's folder, its standard error collected the same way.
    std::pair<int, std::string> Shell(const std::string& command) const {
        const std::string line =
            "cd '" + dir_.string() + "' && " + command + " >/dev/null 2>stderr.txt";
        const int status = std::system(line.c_str());
        return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, ReadAll(dir_ / "stderr.txt")};
    }

    // Exit code, standard output and standard error of one run of the program.
    struct Run {
        int code;
        std::string out;
        std::string err;
    };
    Run VeltranoOutput(const std::string& args) const {
        const std::string line = "cd '" + dir_.string() + "' && timeout 60 '" + program_.string() +
                                 "' " + args + " >stdout.txt 2>stderr.txt";
        const int status = std::system(line.c_str());
        return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, ReadAll(dir_ / "stdout.txt"),
                ReadAll(dir_ / "stderr.txt")};
    }

    fs::path program_;
    fs::path dir_;
};

}  // namespace cli_test
#endif
