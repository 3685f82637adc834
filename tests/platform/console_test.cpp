#include "platform/console.h"
#include "platform/interrupt.h"
#include "platform/system.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <sstream>
#include <string>

namespace veltrano::platform {
namespace {

namespace fs = std::filesystem;

struct Scratch {
    const fs::path root =
        fs::temp_directory_path() /
        ("veltrano_console_" +
         std::to_string(std::chrono::steady_clock::now().time_since_epoch().count()));
    Scratch() { fs::create_directories(root); }
    ~Scratch() {
        std::error_code ignored;
        fs::remove_all(root, ignored);
    }
};

std::string Contents(const fs::path& path) {
    // Text mode: the Windows runtime writes standard output with "\r\n" line ends.
    std::ifstream in(path);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

// Both printf and std::cout land in the file, the file is appended to rather than replaced, and
// each redirection hands standard output back to the one before it: the outer file gets what is
// printed after the inner one ends, and a redirection that cannot open its file leaves the outer
// one in place.
TEST(StdoutToFile, CatchesBothStreamsAppendsAndRestores) {
    Scratch scratch;
    const fs::path outer = scratch.root / "outer.log";
    const fs::path inner = scratch.root / "inner.log";
    std::ofstream(inner) << "old\n";
    {
        StdoutToFile toOuter(outer.string());
        ASSERT_TRUE(toOuter.active());
        std::printf("outer 1\n");
        {
            StdoutToFile toInner(inner.string());
            ASSERT_TRUE(toInner.active());
            std::printf("inner printf\n");
            std::cout << "inner cout" << std::endl;
        }
        std::printf("outer 2\n");
        {
            StdoutToFile nowhere((scratch.root / "missing" / "x.log").string());
            EXPECT_FALSE(nowhere.active());
            std::printf("outer 3\n");
        }
        std::cout << "outer 4\n";
    }
    EXPECT_EQ(Contents(inner), "old\ninner printf\ninner cout\n");
    EXPECT_EQ(Contents(outer), "outer 1\nouter 2\nouter 3\nouter 4\n");
    EXPECT_FALSE(fs::exists(scratch.root / "missing"));
}

TEST(Console, NullDeviceSwallowsOutputAndFilesAreNoTerminals) {
    {
        StdoutToFile quiet(NullDevice());
        EXPECT_TRUE(quiet.active());
    }
    std::FILE* sink = std::fopen(NullDevice(), "w");
    ASSERT_NE(sink, nullptr);
    EXPECT_GT(std::fprintf(sink, "gone\n"), 0);
    EXPECT_EQ(std::fclose(sink), 0);

    Scratch scratch;
    std::FILE* file = std::fopen((scratch.root / "plain").string().c_str(), "w");
    ASSERT_NE(file, nullptr);
    EXPECT_FALSE(IsTerminal(file));
    std::fclose(file);
}

TEST(ExecutableFolder, HoldsThisTestProgram) {
    const std::string folder = ExecutableFolder();
    ASSERT_FALSE(folder.empty());
    EXPECT_TRUE(folder.back() == '/' || folder.back() == '\\') << folder;
#if defined(_WIN32)
    const char* self = "test_platform.exe";
#else
    const char* self = "test_platform";
#endif
    EXPECT_TRUE(fs::is_regular_file(fs::path(folder + self))) << folder;
}

std::atomic<int> g_interrupts{0};
void CountInterrupt(int) { g_interrupts.fetch_add(1); }

// Ctrl-C reaches the handler, and the handler it replaced comes back to be put in place again.
TEST(Interrupt, HandlerRunsAndPreviousIsHandedBack) {
    g_interrupts.store(0);
    const InterruptHandler previous = SetInterruptHandler(CountInterrupt);
    EXPECT_EQ(previous, DefaultInterrupt());
    ASSERT_EQ(std::raise(SIGINT), 0);
    EXPECT_EQ(g_interrupts.load(), 1);
#if !defined(_WIN32)
    // On POSIX systems the handler stays for the next Ctrl-C (the Windows runtime resets it).
    ASSERT_EQ(std::raise(SIGINT), 0);
    EXPECT_EQ(g_interrupts.load(), 2);
    EXPECT_EQ(SetInterruptHandler(previous), CountInterrupt);
#else
    SetInterruptHandler(previous);
#endif
    EXPECT_EQ(SetInterruptHandler(DefaultInterrupt()), DefaultInterrupt());
}

// A request to end the process has a handler of its own: Ctrl-C's is not touched by it.
TEST(Interrupt, TerminationHasItsOwnHandler) {
    g_interrupts.store(0);
    const InterruptHandler previous = SetTerminationHandler(CountInterrupt);
    EXPECT_EQ(previous, DefaultInterrupt());
    EXPECT_EQ(SetInterruptHandler(DefaultInterrupt()), DefaultInterrupt());
    ASSERT_EQ(std::raise(SIGTERM), 0);
    EXPECT_EQ(g_interrupts.load(), 1);
#if !defined(_WIN32)
    EXPECT_EQ(SetTerminationHandler(previous), CountInterrupt);
#else
    SetTerminationHandler(previous);
#endif
}

}  // namespace
}  // namespace veltrano::platform
