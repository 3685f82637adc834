#include "host.h"

#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <system_error>
#include <vector>

namespace compare {

StdoutSilenced::StdoutSilenced() {
    std::fflush(stdout);
    const int null = open("/dev/null", O_WRONLY);
    if (null < 0) {
        return;
    }
    saved_ = dup(fileno(stdout));
    if (saved_ >= 0) {
        dup2(null, fileno(stdout));
    }
    close(null);
}

StdoutSilenced::~StdoutSilenced() {
    if (saved_ < 0) {
        return;
    }
    std::fflush(stdout);
    dup2(saved_, fileno(stdout));
    close(saved_);
}

TempDir::TempDir() {
    std::error_code ec;
    const std::filesystem::path base = std::filesystem::temp_directory_path(ec);
    std::string pattern = (ec ? std::string("/tmp") : base.string()) + "/veltrano_compare_XXXXXX";
    std::vector<char> buffer(pattern.begin(), pattern.end());
    buffer.push_back('\0');
    if (mkdtemp(buffer.data()) != nullptr) {
        path_ = buffer.data();
    }
}

TempDir::~TempDir() {
    if (!path_.empty()) {
        std::error_code ec;
        std::filesystem::remove_all(path_, ec);
    }
}

std::string MachineSummary() {
    // /proc/cpuinfo gives the model; the caches come from sysfs (index 0..3 of cpu0).
    std::string model;
    std::ifstream cpuinfo("/proc/cpuinfo");
    for (std::string line; std::getline(cpuinfo, line);) {
        if (line.rfind("model name", 0) == 0) {
            const size_t colon = line.find(':');
            model = colon == std::string::npos ? line : line.substr(colon + 2);
            break;
        }
    }
    std::string caches;
    for (int i = 0; i < 8; ++i) {
        const std::string dir =
            "/sys/devices/system/cpu/cpu0/cache/index" + std::to_string(i) + "/";
        std::ifstream level(dir + "level"), type(dir + "type"), size(dir + "size");
        std::string l, t, s;
        if (!(level >> l) || !(type >> t) || !(size >> s)) {
            break;
        }
        if (t == "Instruction") {
            continue;
        }
        caches += (caches.empty() ? "" : ", ") + std::string("L") + l + " " + s;
    }
    const long cores = sysconf(_SC_NPROCESSORS_ONLN);
    std::string text = model.empty() ? "unknown processor" : model;
    text += ", " + std::to_string(cores) + " logical cores online";
    if (!caches.empty()) {
        text += ", caches seen by cpu0: " + caches;
    }
    return text;
}

}  // namespace compare
