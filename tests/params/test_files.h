// Scratch INI files for the parameter tests: one per test case, named after it (the cases run
// in parallel processes), removed at the end. Files are read and written in text mode, as the
// library does, so that the texts compare equal on every platform.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

namespace params_test {

// Int and float fields of a record, compared in one go.
template <class... T>
std::vector<double> Values(T... values) {
    return {static_cast<double>(values)...};
}

class ScratchFile {
public:
    explicit ScratchFile(const char* tag = "") {
        const auto* info = ::testing::UnitTest::GetInstance()->current_test_info();
        name_ =
            std::string("params_") + info->test_suite_name() + "_" + info->name() + tag + ".ini";
        // Parameterised cases are named Prefix/Suite.Name/Case: no folders, one flat name.
        std::replace(name_.begin(), name_.end(), '/', '_');
        std::remove(name_.c_str());
    }
    ~ScratchFile() { std::remove(name_.c_str()); }

    const char* path() const { return name_.c_str(); }
    void write(const std::string& text) const { std::ofstream(name_) << text; }
    // The whole text, or "<missing>" when the file does not exist.
    std::string read() const {
        std::ifstream in(name_);
        return in ? std::string(std::istreambuf_iterator<char>(in), {}) : "<missing>";
    }

private:
    std::string name_;
};

}  // namespace params_test
