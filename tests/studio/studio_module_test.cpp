// "veltrano studio" through the studio's module, which the program loads only for this command:
// served from the module that lies beside the program, and one line with exit code 1 when that
// module is missing or is not the studio's.
#include "tests/chain/cli_support.h"

#if !defined(_WIN32)
namespace {
using cli_test::Lines;
using cli_test::ReadAll;
using cli_test::VeltranoCli;
namespace fs = std::filesystem;

class StudioModule : public VeltranoCli {
protected:
    // A 16 x 16 raw picture of 16-bit values, and the options that describe it.
    std::string RawPicture() const {
        Write("pic.raw", std::string(16 * 16 * 2, '\x10'));
        return "--image pic.raw --width 16 --height 16 --type 3 --no-browser --port 0";
    }
};

TEST_F(StudioModule, ServesThroughTheModuleBesideTheProgram) {
    const std::string picture = RawPicture();
    // Started in the background; ended politely as soon as it prints its address (or after 20 s).
    const std::string script =
        "'" + program_.string() + "' studio " + picture +
        " >stdout.txt 2>stderr.txt & pid=$!; "
        "for i in $(seq 200); do grep -q http stdout.txt && break; sleep 0.1; done; "
        "kill -TERM $pid; wait $pid; echo $? >code.txt";
    ASSERT_EQ(std::system(("cd '" + dir_.string() + "' || exit 1; " + script).c_str()), 0);
    EXPECT_EQ(ReadAll(dir_ / "code.txt"), "0\n") << ReadAll(dir_ / "stderr.txt");
    EXPECT_NE(ReadAll(dir_ / "stdout.txt").find("veltrano studio: http://127.0.0.1:"),
              std::string::npos)
        << ReadAll(dir_ / "stderr.txt");
}

TEST_F(StudioModule, MissingOrForeignModuleIsOneLineAndExitOne) {
    // A copy of the program in a folder of its own, with or without something in the module's
    // place. Its run path still reaches the library in the build folder.
    const fs::path bin = dir_ / "bin";
    fs::create_directories(bin);
    fs::copy_file(program_, bin / "veltrano");
    const std::string picture = RawPicture();
    const std::string copy = "timeout 60 bin/veltrano studio " + picture;
    // As the program names it: the folder of its executable file, links resolved.
    const fs::path module = fs::canonical(bin) / VELTRANO_STUDIO_MODULE_FILE;

    auto run = Shell(copy);
    EXPECT_EQ(run.first, 1);
    EXPECT_EQ(Lines(run.second), 1u) << run.second;
    EXPECT_EQ(run.second.rfind(
                  "veltrano: studio: its module " VELTRANO_STUDIO_MODULE_FILE " is missing", 0),
              0u)
        << run.second;

    Write("bin/" VELTRANO_STUDIO_MODULE_FILE, "not a shared library");
    run = Shell(copy);
    EXPECT_EQ(run.first, 1);
    EXPECT_EQ(Lines(run.second), 1u) << run.second;
    EXPECT_NE(run.second.find(module.string() + ": cannot be loaded as the studio module"),
              std::string::npos)
        << run.second;

    // A real shared library, but not the studio: Veltrano's own library.
    fs::remove(module);
    fs::copy_file(fs::absolute(VELTRANO_LIBRARY_FILE), module);
    run = Shell(copy);
    EXPECT_EQ(run.first, 1);
    EXPECT_EQ(Lines(run.second), 1u) << run.second;
    EXPECT_NE(run.second.find(module.string() + ": is not the studio module"), std::string::npos)
        << run.second;

    // The help comes from the program alone.
    EXPECT_EQ(Shell("bin/veltrano studio --help").first, 0);
}

}  // namespace
#endif
