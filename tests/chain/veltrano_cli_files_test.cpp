// The program's files under hostile conditions: PNGs of every kind, inputs and outputs that are
// not regular files, full and read-only file systems, and an exposure stopped early.
#include "cli_support.h"

#if !defined(_WIN32)
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <thread>
#include <vector>

#include "png_maker.h"

extern char** environ;

namespace {
using namespace cli_test;

// Pseudo-random 16-bit samples: both bytes used, and nothing a compressor could shrink.
std::vector<uint16_t> Pattern(uint32_t width, uint32_t height, int channels = 1) {
    std::vector<uint16_t> v(static_cast<size_t>(width) * height * channels);
    uint32_t state = 2463534242u;
    for (uint16_t& sample : v) {
        state ^= state << 13;
        state ^= state >> 17;
        state ^= state << 5;
        sample = static_cast<uint16_t>(state >> 8);
    }
    return v;
}

png_maker::PngPlan Gray16(uint32_t width, uint32_t height, bool interlaced) {
    png_maker::PngPlan plan;
    plan.width = width;
    plan.height = height;
    plan.interlaced = interlaced;
    plan.samples = Pattern(width, height);
    return plan;
}

std::vector<float> ReadFloats(const fs::path& path) {
    const std::string bytes = ReadAll(path);
    std::vector<float> values(bytes.size() / sizeof(float));
    std::memcpy(values.data(), bytes.data(), values.size() * sizeof(float));
    return values;
}

// What stands at a path, without following a link: 'f' file, 'd' folder, 'p' FIFO, 'l' link,
// 'c' character device, '-' nothing.
char EntryKind(const fs::path& path) {
    struct stat info;
    if (::lstat(path.c_str(), &info) != 0) return '-';
    if (S_ISLNK(info.st_mode)) return 'l';
    if (S_ISFIFO(info.st_mode)) return 'p';
    if (S_ISDIR(info.st_mode)) return 'd';
    if (S_ISCHR(info.st_mode)) return 'c';
    return 'f';
}

// Nothing named like a temporary output is left in the folder.
bool NoTemporaryFiles(const fs::path& folder) {
    for (const auto& entry : fs::directory_iterator(folder)) {
        const std::string name = entry.path().filename().string();
        if (name.size() > 5 && name.compare(name.size() - 5, 5, ".part") == 0) return false;
    }
    return true;
}

const char kKeepChain[] = "[Inverse]\nend\n";  // the Inverse step leaves a 16-bit image as it is

TEST_F(VeltranoCli, InterlacedAndPlainPngsReadToTheSamePixels) {
    Write("keep.chain", kKeepChain);
    // Sizes where some of the seven Adam7 passes are empty, and one where all are full.
    for (const auto& size : {std::pair<uint32_t, uint32_t>{1, 1}, {3, 2}, {5, 9}, {13, 11}}) {
        const std::string label = std::to_string(size.first) + "x" + std::to_string(size.second);
        for (const bool interlaced : {false, true}) {
            const png_maker::PngPlan plan = Gray16(size.first, size.second, interlaced);
            Write("in.png", png_maker::Make(plan));
            const auto run = Veltrano("process --chain keep.chain --in in.png --out out.raw");
            ASSERT_EQ(run.first, 0) << label << run.second;
            const std::vector<float> read = ReadFloats(dir_ / "out.raw");
            ASSERT_EQ(read.size(), plan.samples.size()) << label;
            for (size_t i = 0; i < read.size(); ++i) {
                ASSERT_EQ(read[i], plan.samples[i])
                    << label << (interlaced ? " Adam7" : "") << " pixel " << i;
            }
        }
    }
}

TEST_F(VeltranoCli, PngsOfOtherKindsOrDamagedAreRefusedWithOneLine) {
    Write("keep.chain", kKeepChain);
    auto kind = [](int depth, int colour, bool interlaced = false) {
        png_maker::PngPlan plan;
        plan.width = 6;
        plan.height = 5;
        plan.bitDepth = depth;
        plan.colourType = colour;
        plan.interlaced = interlaced;
        plan.samples = Pattern(6, 5, plan.channels());
        for (uint16_t& v : plan.samples) v = static_cast<uint16_t>(v % (1u << depth));
        return png_maker::Make(plan);
    };
    const std::string good = png_maker::Make(Gray16(40, 30, false));
    std::string badCrc = good;
    badCrc[29] ^= 0x01;  // last byte of the header chunk's data: its CRC no longer matches
    const struct {
        std::string bytes;
        const char* message;
    } cases[] = {
        {kind(8, 0), "is not a 16-bit grayscale PNG (it is 8-bit grayscale)"},
        {kind(4, 0), "is not a 16-bit grayscale PNG (it is 4-bit grayscale)"},
        {kind(2, 0, true), "is not a 16-bit grayscale PNG (it is 2-bit grayscale)"},
        {kind(1, 0), "is not a 16-bit grayscale PNG (it is 1-bit grayscale)"},
        {kind(16, 2), "is not a 16-bit grayscale PNG (it is 16-bit RGB)"},
        {kind(8, 3, true), "is not a 16-bit grayscale PNG (it is 8-bit palette)"},
        {kind(16, 4), "is not a 16-bit grayscale PNG (it is 16-bit grayscale with alpha)"},
        {kind(8, 6), "is not a 16-bit grayscale PNG (it is 8-bit RGBA)"},
        {good.substr(0, good.size() / 2), "is damaged: it ends before its image data does"},
        {good.substr(0, 33), "is damaged: it ends before its image data does"},
        {badCrc, "is damaged: IHDR: CRC error"},
        // A few bytes that claim 20000 x 20000 pixels, more than the library takes on.
        {png_maker::Make(Gray16(4, 4, false), 20000, 20000),
         "declares 20000 x 20000 pixels, more than the 268435456 this program reads"},
        // Within the limit, but the data ends long before: refused without holding the image.
        {png_maker::Make(Gray16(4, 4, false), 16384, 16384), "is damaged"},
        {"", "is not a PNG file"},
        {"GIF89a", "is not a PNG file"},
    };
    for (const auto& c : cases) {
        Write("in.png", c.bytes);
        Write("out.png", "previous output");
        const auto run = Veltrano("process --chain keep.chain --in in.png --out out.png");
        EXPECT_EQ(run.first, 1) << c.message;
        EXPECT_EQ(Lines(run.second), 1u) << run.second;
        EXPECT_NE(run.second.find(std::string("in.png: ") + c.message), std::string::npos)
            << run.second;
        EXPECT_EQ(ReadAll(dir_ / "out.png"), "previous output") << c.message;
    }
    EXPECT_TRUE(NoTemporaryFiles(dir_));
}

TEST_F(VeltranoCli, InputsThatAreNotRegularFilesAreRefusedAtOnce) {
    Write("keep.chain", kKeepChain);
    Write("in.png", png_maker::Make(Gray16(8, 8, false)));
    ASSERT_EQ(::mkfifo((dir_ / "fifo.png").c_str(), 0600), 0);
    ASSERT_EQ(::mkfifo((dir_ / "fifo.chain").c_str(), 0600), 0);
    ASSERT_EQ(::mkfifo((dir_ / "fifo.raw").c_str(), 0600), 0);
    fs::create_symlink("fifo.png", dir_ / "link.png");
    const char* cases[][2] = {
        // Opening any of these FIFOs would wait for a writer that never comes.
        {"--chain keep.chain --in fifo.png", "fifo.png: is a FIFO, not a regular file"},
        {"--chain keep.chain --in link.png", "link.png: is a FIFO, not a regular file"},
        {"--chain fifo.chain --in in.png", "fifo.chain: is a FIFO, not a regular file"},
        {"--chain keep.chain --in fifo.raw --width 4 --height 4 --type 3",
         "fifo.raw: is a FIFO, not a regular file"},
        {"--chain keep.chain --in /dev/zero --width 4 --height 4 --type 3",
         "/dev/zero: is a device, not a regular file"},
        {"--chain /dev/null --in in.png", "/dev/null: is a device, not a regular file"},
        {"--chain keep.chain --in in.png --width 100000 --height 100000 --type 3",
         "in.png: raw layout of 100000 x 100000 pixels is more than the 268435456"},
    };
    for (const auto& c : cases) {
        const auto start = std::chrono::steady_clock::now();
        const auto run = Veltrano(std::string("process ") + c[0] + " --out out.png");
        EXPECT_EQ(run.first, 1) << c[0];
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10)) << c[0];
        EXPECT_EQ(Lines(run.second), 1u) << run.second;
        EXPECT_NE(run.second.find(c[1]), std::string::npos) << run.second;
        EXPECT_FALSE(fs::exists(dir_ / "out.png")) << c[0];
    }
}

TEST_F(VeltranoCli, OutputsThatAreNotRegularFilesAreLeftAlone) {
    Write("keep.chain", kKeepChain);
    const png_maker::PngPlan plan = Gray16(8, 8, false);
    Write("in.png", png_maker::Make(plan));
    ASSERT_EQ(::mkfifo((dir_ / "fifo.png").c_str(), 0600), 0);
    fs::create_directories(dir_ / "folder.png");
    fs::create_symlink("fifo.png", dir_ / "to_fifo.png");
    fs::create_symlink("nowhere.png", dir_ / "dangling.png");
    const bool root = ::geteuid() == 0;
    if (root) {  // a character device like /dev/null, made in the test's own folder
        ASSERT_EQ(::mknod((dir_ / "device.png").c_str(), S_IFCHR | 0600, makedev(1, 3)), 0);
    }
    struct Case {
        const char* out;
        char kind;  // what stands there before and after
        const char* message;
    };
    const Case cases[] = {
        {"fifo.png", 'p', "fifo.png: is a FIFO, not a regular file"},
        {"folder.png", 'd', "folder.png: is a folder, not a regular file"},
        {"to_fifo.png", 'l', "to_fifo.png: is a symbolic link to a FIFO, not to a regular file"},
        {"dangling.png", 'l', "dangling.png: is a symbolic link to nothing, not to a regular file"},
        {"missing/out.png", '-',
         "missing/out.png: cannot be written: the folder missing does not exist"},
        {"device.png", 'c', "device.png: is a device, not a regular file"},
    };
    for (const Case& c : cases) {
        if (c.kind == 'c' && !root) continue;
        ASSERT_EQ(EntryKind(dir_ / c.out), c.kind) << c.out;
        const auto run =
            Veltrano(std::string("process --chain keep.chain --in in.png --out ") + c.out);
        EXPECT_EQ(run.first, 1) << c.out;
        EXPECT_EQ(Lines(run.second), 1u) << run.second;
        EXPECT_NE(run.second.find(c.message), std::string::npos) << run.second;
        EXPECT_EQ(EntryKind(dir_ / c.out), c.kind) << c.out;
    }
    EXPECT_TRUE(NoTemporaryFiles(dir_));

    // A link to a regular file stays a link; the file it points to gets the image. A temporary
    // file left from an earlier run is neither used nor removed.
    Write("target.png", "previous output");
    Write("target.png.part", "left from a crash");
    fs::create_symlink("target.png", dir_ / "link.png");
    ASSERT_EQ(Veltrano("process --chain keep.chain --in in.png --out link.png").first, 0);
    EXPECT_EQ(EntryKind(dir_ / "link.png"), 'l');
    EXPECT_EQ(ReadAll(dir_ / "target.png").substr(0, 4), "\x89PNG");
    ASSERT_EQ(Veltrano("process --chain keep.chain --in target.png --out back.raw").first, 0);
    const std::vector<float> back = ReadFloats(dir_ / "back.raw");
    EXPECT_EQ(std::vector<float>(plan.samples.begin(), plan.samples.end()), back);
    EXPECT_EQ(ReadAll(dir_ / "target.png.part"), "left from a crash");
    EXPECT_FALSE(fs::exists(dir_ / "target.png.1.part"));
}

// The file systems are made in a mount namespace of their own, so nothing stays mounted when
// the test ends; where the system allows no such namespace, the test skips itself.
TEST_F(VeltranoCli, FullAndReadOnlyFileSystemsLeaveTheOutputAsItWas) {
    if (Shell("unshare -rm true").first != 0) {
        GTEST_SKIP() << "no mount namespace can be made here";
    }
    Write("keep.chain", kKeepChain);
    Write("in.png", png_maker::Make(Gray16(256, 256, false)));  // 128 KiB that do not compress
    fs::create_directories(dir_ / "small");
    const std::string veltrano = "'" + program_.string() + "'";
    struct Case {
        const char* out;
        const char* remount;  // after the previous output is in place
        const char* message;
    };
    const Case cases[] = {
        {"out.png", "", "small/out.png: could not be written completely (No space left on device)"},
        {"out.raw", "", "small/out.raw: could not be written completely (No space left on device)"},
        {"out.png", "mount -o remount,ro small &&",
         "small/out.png: cannot be written: the file system is read-only"},
    };
    for (const Case& c : cases) {
        const std::string out = std::string("small/") + c.out;
        const std::string script =
            "mount -t tmpfs -o size=64k tmpfs small && printf 'previous output' > " + out + " && " +
            c.remount + " " + veltrano + " process --chain keep.chain --in in.png --out " + out +
            "; code=\\$?; cat " + out + " > after.txt; ls small > listing.txt; exit \\$code";
        const auto run = Shell("unshare -rm sh -c \"" + script + "\"");
        EXPECT_EQ(run.first, 1) << c.out << c.remount;
        EXPECT_EQ(Lines(run.second), 1u) << run.second;
        EXPECT_NE(run.second.find(c.message), std::string::npos) << run.second;
        EXPECT_EQ(ReadAll(dir_ / "after.txt"), "previous output") << c.out;
        EXPECT_EQ(ReadAll(dir_ / "listing.txt"), std::string(c.out) + "\n") << c.out;
    }
}

// Starts the program with its standard error going to a file; the process ID, or -1.
pid_t Spawn(const std::vector<std::string>& args, const fs::path& stderrFile) {
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 2, stderrFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                     0644);
    std::vector<char*> argv;
    for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    pid_t pid = -1;
    if (posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ) != 0) pid = -1;
    posix_spawn_file_actions_destroy(&actions);
    return pid;
}

// The exit code of a child, or -1 when it has not ended within the time (it is then killed).
int WaitFor(pid_t pid, std::chrono::seconds limit) {
    const auto end = std::chrono::steady_clock::now() + limit;
    int status = 0;
    while (::waitpid(pid, &status, WNOHANG) == 0) {
        if (std::chrono::steady_clock::now() > end) {
            ::kill(pid, SIGKILL);
            ::waitpid(pid, &status, 0);
            return -1;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST_F(VeltranoCli, AStopBeforeTheSensorIsArmedIsReportedAsStopped) {
    // The acquisition reads the defect file after the gain file; a FIFO in its place holds the
    // acquisition there, before the sensor is armed, until this test opens the other end.
    fs::create_directories(dir_ / "w");
    Write("w/VirtualSensor.ini", "[VirtualSensor]\nSensorSize=1000\nExposureMs=50\n");
    ASSERT_EQ(Veltrano("calibrate --workdir w --virtual").first, 0);
    const fs::path defects = dir_ / "w/Correct/Default/VirtualSensor.dft";
    ASSERT_TRUE(fs::remove(defects));
    ASSERT_EQ(::mkfifo(defects.c_str(), 0600), 0);
    Write("out.png", "previous output");

    const pid_t pid = Spawn({program_.string(), "acquire", "--workdir", (dir_ / "w").string(),
                             "--out", (dir_ / "out.png").string()},
                            dir_ / "stderr.txt");
    ASSERT_GT(pid, 0);
    // The first progress line comes once the program handles Ctrl-C; the acquisition is then
    // loading its calibration or already waiting for the FIFO's writer.
    const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (ReadAll(dir_ / "stderr.txt").find("loading calibration") == std::string::npos &&
           std::chrono::steady_clock::now() < until) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    ::kill(pid, SIGINT);  // Ctrl-C: the program's polling thread calls StopAcq
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    // Opening the writing end without blocking succeeds once the program waits at the reading
    // end; closing it ends the defect file, and the acquisition goes on to see the stop.
    int exit = -1;
    for (bool ended = false; !ended && std::chrono::steady_clock::now() < until;) {
        const int fifo = ::open(defects.c_str(), O_WRONLY | O_NONBLOCK);
        if (fifo >= 0) {
            ::close(fifo);
            exit = WaitFor(pid, std::chrono::seconds(30));
            ended = true;
        } else if (int status = 0; ::waitpid(pid, &status, WNOHANG) == pid) {
            exit = WIFEXITED(status) ? WEXITSTATUS(status) : -1;  // stopped before the file
            ended = true;
        } else {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
    }
    if (exit == -1) WaitFor(pid, std::chrono::seconds(0));

    const std::string err = ReadAll(dir_ / "stderr.txt");
    EXPECT_EQ(exit, 130) << err;
    EXPECT_NE(err.find("w: stopped: no image was taken (code 0)"), std::string::npos) << err;
    EXPECT_EQ(ReadAll(dir_ / "out.png"), "previous output");
    EXPECT_TRUE(NoTemporaryFiles(dir_));
}

TEST_F(VeltranoCli, WorkFoldersAndLogsThatCannotServeAreRefusedBeforeTheExposure) {
    Write("file", "not a folder");
    ASSERT_EQ(::mkfifo((dir_ / "fifo").c_str(), 0600), 0);
    fs::create_directories(dir_ / "w");
    Write("w/VirtualSensor.ini", "[VirtualSensor]\nSensorSize=1000\nExposureMs=50\n");
    fs::create_directories(dir_ / "nocalibration");
    fs::create_directories(dir_ / "fifolog");
    ASSERT_EQ(::mkfifo((dir_ / "fifolog/veltrano.log").c_str(), 0600), 0);
    ASSERT_EQ(Veltrano("calibrate --workdir w --virtual").first, 0);
    const char* cases[][2] = {
        {"info --workdir missing", "missing: is not a folder"},
        {"info --workdir fifo", "fifo: is not a folder"},
        {"acquire --workdir file --out out.png", "file: is not a folder"},
        {"calibrate --workdir file --virtual", "file: cannot be created"},
        {"calibrate --workdir file", "file: is not a folder"},
        {"acquire --workdir w --out missing/out.png",
         "missing/out.png: cannot be written: the folder missing does not exist"},
        {"acquire --workdir w --out fifo", "fifo: is a FIFO, not a regular file"},
        {"acquire --workdir w --chain fifo --out out.png", "fifo: is a FIFO, not a regular file"},
        {"acquire --workdir fifolog --out out.png",
         "fifolog/veltrano.log: is a FIFO, not a regular file"},
        {"acquire --workdir nocalibration --out out.png",
         "nocalibration: no image: no calibration files below the work directory's "
         "Correct/Default folder (code -3)"},
    };
    for (const auto& c : cases) {
        const auto run = Veltrano(c[0]);
        EXPECT_EQ(run.first, 1) << c[0];
        // acquire draws its progress on standard error too; the failure is one line of its own.
        const size_t error = run.second.find("veltrano: ");
        ASSERT_NE(error, std::string::npos) << run.second;
        EXPECT_EQ(Lines(run.second.substr(error)), 1u) << run.second;
        EXPECT_NE(run.second.find(c[1]), std::string::npos) << run.second;
        EXPECT_FALSE(fs::exists(dir_ / "out.png")) << c[0];
    }
    // Nothing was exposed: the refusals came before the detector was opened.
    EXPECT_FALSE(fs::exists(dir_ / "w/veltrano.log"));
    EXPECT_EQ(EntryKind(dir_ / "fifolog/veltrano.log"), 'p');
}

}  // namespace
#endif
