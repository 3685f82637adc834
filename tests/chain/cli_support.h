// The command-line program run as a host runs it: as a separate process, from the build's bin
// folder, with its arguments written as a shell would take them. Each test gets a folder of its
// own; the tests skip themselves where the program is not built.
#pragma once

#if !defined(_WIN32)
#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>
#include <wordexp.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>
#include <utility>
#include <vector>

extern char** environ;

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
        const int code = Start(args, "/dev/null");
        return {code, ReadAll(dir_ / "stderr.txt")};
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
        const int code = Start(args, (dir_ / "stdout.txt").string());
        return {code, ReadAll(dir_ / "stdout.txt"), ReadAll(dir_ / "stderr.txt")};
    }

    // The words of a command line as a POSIX shell takes them (quotes included), by the C
    // library's own word expansion. A command substitution or an undefined variable is a
    // mistake in the test, which fails.
    static std::vector<std::string> Words(const std::string& line) {
        std::vector<std::string> words;
        wordexp_t expanded;
        const int failed = wordexp(line.c_str(), &expanded, WRDE_NOCMD | WRDE_UNDEF);
        if (failed != 0) {
            ADD_FAILURE() << "cannot split (wordexp error " << failed << "): " << line;
            return words;
        }
        words.assign(expanded.we_wordv, expanded.we_wordv + expanded.we_wordc);
        wordfree(&expanded);
        return words;
    }

    // Runs the program in the test's folder without a shell between: standard output to out,
    // standard error to stderr.txt. The exit code, or 124 for a run ended after 60 s (as
    // timeout(1) answers), or -1 for one that a signal ended.
    int Start(const std::string& args, const std::string& out) const {
        std::vector<std::string> words = Words(args);
        words.insert(words.begin(), program_.string());
        std::vector<char*> argv;
        for (std::string& w : words) argv.push_back(w.data());
        argv.push_back(nullptr);
        const std::string dir = dir_.string(), err = (dir_ / "stderr.txt").string();
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addchdir_np(&actions, dir.c_str());
        posix_spawn_file_actions_addopen(&actions, 1, out.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                         0644);
        posix_spawn_file_actions_addopen(&actions, 2, err.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                         0644);
        pid_t pid = 0;
        const int failed = posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ);
        posix_spawn_file_actions_destroy(&actions);
        if (failed != 0) {
            ADD_FAILURE() << "cannot start " << argv[0] << ": error " << failed;
            return -1;
        }
        // Polled with a growing pause: a run takes milliseconds to a second, and a pause of at
        // most a millisecond costs neither time nor processor.
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
        auto pause = std::chrono::microseconds(50);
        int status = 0;
        for (;;) {
            const pid_t done = waitpid(pid, &status, WNOHANG);
            if (done == pid) {
                break;
            }
            if (done < 0 && errno != EINTR) {
                ADD_FAILURE() << "lost the run of " << args;
                return -1;
            }
            if (std::chrono::steady_clock::now() > deadline) {
                kill(pid, SIGKILL);
                waitpid(pid, &status, 0);
                return 124;
            }
            std::this_thread::sleep_for(pause);
            pause = std::min(2 * pause, std::chrono::microseconds(1000));
        }
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

    fs::path program_;
    fs::path dir_;
};

}  // namespace cli_test
#endif
