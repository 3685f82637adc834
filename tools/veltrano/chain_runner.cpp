#include <cstdio>
#include <filesystem>
#include <fstream>
#include <stdexcept>

#include "commands.h"
#include "host_system.h"
#include "platform/console.h"
#include "platform/system.h"
#include "veltrano/chain.h"

namespace vcli {

// Beside the program in a build tree; in share/veltrano/ once installed.
std::string DefaultChainPath() {
    for (const char* place : {"chains/default.chain", "../share/veltrano/chains/default.chain"}) {
        const std::string path = veltrano::platform::ExecutableFolder() + place;
        if (std::ifstream(path).good()) {
            return path;
        }
    }
    return "chains/default.chain";
}

bool RunChain(const std::string& chainPath, const Image16& in, Image16& out, std::string& error) {
    // The library would open a FIFO and wait for a writer: only regular files go to it.
    if (!CheckInputFile(chainPath, error)) {
        return false;
    }
    out.width = in.width;
    out.height = in.height;
    out.pixels.assign(in.pixels.size(), 0);
    std::string text;
    int result = 0;
    try {
        // The chain prints its own failure lines on standard output; this program reports
        // them on standard error in its own words instead.
        StdoutToFile quiet(veltrano::platform::NullDevice());
        result =
            Img_Post_Process_Chain(in.pixels.data(), out.pixels.data(), static_cast<int>(in.width),
                                   static_cast<int>(in.height), chainPath.c_str(), text);
    } catch (const std::invalid_argument& e) {
        error = std::string("has a malformed number in a step (") + e.what() + ")";
        return false;
    } catch (const std::out_of_range& e) {
        error = std::string("has a number out of range in a step (") + e.what() + ")";
        return false;
    }
    switch (result) {
    case 0:
        return true;
    case -1:
        error = "cannot be opened";
        return false;
    case -2:
        error = "holds no complete step block (no line beginning with \"end\")";
        return false;
    default:
        error = "cannot run on an empty image (code " + std::to_string(result) + ")";
        return false;
    }
}

bool CheckChain(const std::string& chainPath, std::string& error) {
    Image16 probe;
    probe.width = 32;
    probe.height = 32;
    probe.pixels.resize(32 * 32);
    for (size_t i = 0; i < probe.pixels.size(); ++i) {
        probe.pixels[i] = static_cast<uint16_t>(1000 + 53 * i);
    }
    Image16 ignored;
    return RunChain(chainPath, probe, ignored, error);
}

int Fail(const std::string& subject, const std::string& problem) {
    std::fprintf(stderr, "veltrano: %s: %s\n", subject.c_str(), problem.c_str());
    return kExitFailure;
}

}  // namespace vcli
