// veltrano: the command-line host of the Veltrano library.
#include <cstdio>
#include <cstring>
#include <exception>
#include <string>

#include "commands.h"
#include "options.h"
#include "usage.h"

int main(int argc, char** argv) {
    using namespace vcli;
    if (argc < 2) {
        std::fputs(kMainUsage, stderr);
        return kExitUsage;
    }
    const std::string command = argv[1];
    if (command == "--help" || command == "-h" || command == "help") {
        std::fputs(kMainUsage, stdout);
        return kExitDone;
    }
    struct Entry {
        const char* name;
        int (*run)(int, char**);
        const char* usage;
    };
    const Entry entries[] = {
        {"demo", RunDemo, kDemoUsage},
        {"acquire", RunAcquire, kAcquireUsage},
        {"process", RunProcess, kProcessUsage},
        {"calibrate", RunCalibrate, kCalibrateUsage},
        {"info", RunInfo, kInfoUsage},
        {"studio", RunStudioCommand, kStudioUsage},
    };
    for (const Entry& entry : entries) {
        if (command != entry.name) {
            continue;
        }
        try {
            return entry.run(argc, argv);
        } catch (const UsageError& e) {
            std::fprintf(stderr, "veltrano %s: %s\n\n%s", entry.name, e.what(), entry.usage);
            return kExitUsage;
        } catch (const std::exception& e) {
            std::fprintf(stderr, "veltrano %s: %s\n", entry.name, e.what());
            return kExitFailure;
        }
    }
    std::fprintf(stderr, "veltrano: unknown command '%s'\n\n%s", command.c_str(), kMainUsage);
    return kExitUsage;
}
