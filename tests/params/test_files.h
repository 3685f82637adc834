// Scratch INI files for the parameter tests: one per test case, named after it (the cases run
// in parallel processes), removed at the end. Files are read and written in text mode, as the
// library does, so that the texts compare equal on every platform.
#pragma once

#include <gtest/gtest.h>

#include <cstdio>
#include <string>

namespace params_test {

class ScratchFile {
public:
    explicit ScratchFile(const char* tag = "") {
        const auto* info = ::testing::UnitTest::GetInstance()->current_test_info();
        name_ = std::string("params_") + info->test_suite_name() + "_" + info->name() + tag + ".ini";
        std::remove(name_.c_str());
    }
    ~ScratchFile() { std::remove(name_.c_str()); }
    ScratchFile(const ScratchFile&) = delete;
    ScratchFile& operator=(const ScratchFile&) = delete;

    const char* path() const { return name_.c_str(); }

    void write(const std::string& text) const {
        std::FILE* f = std::fopen(name_.c_str(), "w");
        ASSERT_NE(f, nullptr) << name_;
        ASSERT_EQ(std::fwrite(text.data(), 1, text.size(), f), text.size());
        ASSERT_EQ(std::fclose(f), 0);
    }

    // The whole text, or "<missing>" when the file does not exist.
    std::string read() const {
        std::FILE* f = std::fopen(name_.c_str(), "r");
        if (f == nullptr) return "<missing>";
        std::string text;
        char chunk[65536];
        size_t got;
        while ((got = std::fread(chunk, 1, sizeof chunk, f)) > 0) text.append(chunk, got);
        std::fclose(f);
        return text;
    }

private:
    std::string name_;
};

}  // namespace params_test
