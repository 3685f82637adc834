// Shared by the fuzz targets: a scratch folder per process, files written into it, and the check
// that turns a broken expectation into a crash libFuzzer keeps as a finding.
#pragma once

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>

namespace fuzz {

// A broken expectation is a finding like a crash: print what was expected and abort, so that
// libFuzzer saves the input that led here.
#define FUZZ_CHECK(condition, ...)                                                                 \
    do {                                                                                           \
        if (!(condition)) {                                                                        \
            std::fprintf(stderr, "check failed at %s:%d: %s\n  ", __FILE__, __LINE__, #condition); \
            std::fprintf(stderr, __VA_ARGS__);                                                     \
            std::fputc('\n', stderr);                                                              \
            std::abort();                                                                          \
        }                                                                                          \
    } while (0)

// A folder of this process's own below the system's temporary folder (shared memory where there
// is some, since every input writes files), made on first use. Parallel fuzzing jobs get one each.
inline const std::string& ScratchDir() {
    static const std::string dir = [] {
        const std::filesystem::path base = std::filesystem::exists("/dev/shm")
                                               ? std::filesystem::path("/dev/shm")
                                               : std::filesystem::temp_directory_path();
        const std::filesystem::path path = base / ("veltrano_fuzz_" + std::to_string(::getpid()));
        std::filesystem::create_directories(path);
        // Removed at exit; the name is kept apart from `dir`, which is gone by then.
        static char name[4096];
        std::snprintf(name, sizeof name, "%s", path.string().c_str());
        std::atexit([] {
            std::error_code ignored;
            std::filesystem::remove_all(name, ignored);
        });
        return path.string();
    }();
    return dir;
}

inline std::string ScratchPath(const std::string& name) { return ScratchDir() + "/" + name; }

inline void WriteFile(const std::string& path, const std::string& bytes) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
}

inline std::string ReadFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// The library's console lines would drown libFuzzer's own; they go to the null device.
inline void SilenceStdout() {
    static const bool done = [] { return std::freopen("/dev/null", "w", stdout) != nullptr; }();
    (void)done;
}

}  // namespace fuzz
