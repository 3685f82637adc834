#include "platform/file_kind.h"
#include "platform/new_file.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>

#if !defined(_WIN32)
#include <sys/stat.h>
#endif

namespace veltrano::platform {
namespace {

namespace fs = std::filesystem;

// A fresh folder below the temporary folder, removed at the end.
struct Scratch {
    const fs::path root =
        fs::temp_directory_path() /
        ("veltrano_kind_" +
         std::to_string(std::chrono::steady_clock::now().time_since_epoch().count()));
    Scratch() {
        fs::create_directories(root / "folder");
        std::ofstream(root / "file") << "x";
    }
    ~Scratch() {
        std::error_code ignored;
        fs::remove_all(root, ignored);
    }
    std::string at(const char* name) const { return (root / name).string(); }
};

TEST(FileKind, TellsFilesFoldersAndMissingPathsApart) {
    Scratch s;
    EXPECT_EQ(FileKindOf(s.at("file")), FileKind::Regular);
    EXPECT_EQ(FileKindOf(s.at("folder")), FileKind::Directory);
    EXPECT_EQ(FileKindOf(s.at("missing")), FileKind::Missing);
    EXPECT_EQ(FileKindOf(s.at("missing/below")), FileKind::Missing);
    EXPECT_EQ(FileKindOf(s.at("file/below")), FileKind::Missing);  // a file on the way
    EXPECT_EQ(LinkKindOf(s.at("file")), FileKind::Regular);
#if defined(_WIN32)
    EXPECT_EQ(FileKindOf("NUL"), FileKind::Device);
#else
    EXPECT_EQ(FileKindOf("/dev/null"), FileKind::Device);
    ASSERT_EQ(::mkfifo(s.at("fifo").c_str(), 0600), 0);
    EXPECT_EQ(FileKindOf(s.at("fifo")), FileKind::Fifo);
    // Links: followed by FileKindOf and FinalTarget, seen as links by LinkKindOf.
    fs::create_symlink(s.root / "file", s.root / "to_file");
    fs::create_symlink(s.root / "fifo", s.root / "to_fifo");
    fs::create_symlink(s.root / "missing", s.root / "dangling");
    EXPECT_EQ(FileKindOf(s.at("to_file")), FileKind::Regular);
    EXPECT_EQ(FileKindOf(s.at("to_fifo")), FileKind::Fifo);
    EXPECT_EQ(FileKindOf(s.at("dangling")), FileKind::Missing);
    for (const char* link : {"to_file", "to_fifo", "dangling"}) {
        EXPECT_EQ(LinkKindOf(s.at(link)), FileKind::SymbolicLink) << link;
    }
    EXPECT_EQ(FinalTarget(s.at("to_file")), fs::canonical(s.root / "file").string());
    EXPECT_EQ(FinalTarget(s.at("dangling")), "");
#endif
}

TEST(NewFile, CreatesOnlyWhereNothingStands) {
    Scratch s;
    NewFileError error = NewFileError::Other;
    std::FILE* file = CreateNewFile(s.at("new"), error);
    ASSERT_NE(file, nullptr);
    EXPECT_EQ(error, NewFileError::None);
    EXPECT_GE(std::fputs("written", file), 0);
    EXPECT_EQ(std::fclose(file), 0);
    std::ifstream in(s.root / "new");
    std::string text;
    std::getline(in, text);
    EXPECT_EQ(text, "written");

    // Whatever stands at the path already, it is neither opened nor changed.
    const struct {
        const char* name;
        NewFileError error;
    } refused[] = {
        {"file", NewFileError::Exists},
        {"folder", NewFileError::Exists},
        {"new", NewFileError::Exists},
        {"missing/new", NewFileError::NoFolder},
    };
    for (const auto& r : refused) {
        EXPECT_EQ(CreateNewFile(s.at(r.name), error), nullptr) << r.name;
        EXPECT_EQ(error, r.error) << r.name;
    }
#if !defined(_WIN32)
    // A link is not followed, not even one that points to nothing yet.
    fs::create_symlink(s.root / "target", s.root / "dangling");
    EXPECT_EQ(CreateNewFile(s.at("dangling"), error), nullptr);
    EXPECT_EQ(error, NewFileError::Exists);
    EXPECT_FALSE(fs::exists(s.root / "target"));
#endif
    EXPECT_EQ(std::ifstream(s.root / "file").get(), 'x');
}

}  // namespace
}  // namespace veltrano::platform
