#include "platform/directory.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <vector>

namespace veltrano::platform {
namespace {

namespace fs = std::filesystem;

// A fresh folder below the system's temporary folder, removed again at the end of the test.
class TempTree {
public:
    TempTree() {
        std::random_device seed;
        const auto stamp = std::chrono::steady_clock::now().time_since_epoch().count();
        root_ = fs::temp_directory_path() /
                ("veltrano_dir_" + std::to_string(seed()) + "_" + std::to_string(stamp));
        fs::create_directories(root_);
    }
    ~TempTree() {
        std::error_code ignored;
        fs::remove_all(root_, ignored);
    }
    // The root with forward slashes, as the library's callers build their folder names.
    std::string root() const { return root_.generic_string(); }

    void addFile(const std::string& relative) {
        const fs::path path = root_ / relative;
        fs::create_directories(path.parent_path());
        std::ofstream(path, std::ios::binary) << "x";
    }
    void addFolder(const std::string& relative) { fs::create_directories(root_ / relative); }

private:
    fs::path root_;
};

// The expected listing: files in the order the directory is enumerated, each sub-folder's
// files in place where the sub-folder is met.
void ExpectedInto(const std::string& folder, std::vector<std::string>& files) {
    for (const fs::directory_entry& entry : fs::directory_iterator(folder)) {
        const std::string path = folder + "/" + entry.path().filename().string();
        if (entry.is_directory()) {
            ExpectedInto(path, files);
        } else {
            files.push_back(path);
        }
    }
}

TEST(Directory, ListsFilesOfAllSubFoldersInEnumerationOrder) {
    TempTree tree;
    tree.addFile("top.gn");
    tree.addFile("a/first.dft");
    tree.addFile("a/second.txt");
    tree.addFile("a/deeper/third.gn");
    tree.addFile("b/fourth");
    tree.addFile(".hidden");
    tree.addFolder("empty");
    tree.addFolder("a/empty_too");

    const std::vector<std::string> files = ListFilesRecursive(tree.root());

    std::vector<std::string> sorted = files;
    std::sort(sorted.begin(), sorted.end());
    const std::string r = tree.root();
    const std::vector<std::string> want = {r + "/.hidden",           r + "/a/deeper/third.gn",
                                           r + "/a/first.dft",       r + "/a/second.txt",
                                           r + "/b/fourth",          r + "/top.gn"};
    EXPECT_EQ(sorted, want);

    std::vector<std::string> expectedOrder;
    ExpectedInto(r, expectedOrder);
    EXPECT_EQ(files, expectedOrder);

    // No "." or ".." entry and no folder appears as a file.
    for (const std::string& file : files) {
        const std::string name = file.substr(file.rfind('/') + 1);
        EXPECT_NE(name, ".");
        EXPECT_NE(name, "..");
        EXPECT_FALSE(fs::is_directory(file)) << file;
    }
}

TEST(Directory, FolderThatCannotBeOpenedGivesNothing) {
    TempTree tree;
    tree.addFile("plain.gn");
    EXPECT_TRUE(ListFilesRecursive(tree.root() + "/missing").empty());
    // A file given as the folder is no folder.
    EXPECT_TRUE(ListFilesRecursive(tree.root() + "/plain.gn").empty());

    tree.addFolder("empty");
    EXPECT_TRUE(ListFilesRecursive(tree.root() + "/empty").empty());
}

#if !defined(_WIN32)
TEST(Directory, SymbolicLinksToFilesAreListedButLinkedFoldersAreNotEntered) {
    TempTree tree;
    tree.addFile("real/data.gn");
    const std::string r = tree.root();
    fs::create_symlink(r + "/real/data.gn", r + "/link.gn");
    // A link back to the root would recurse forever if it were followed.
    fs::create_directory_symlink(r, r + "/real/loop");
    fs::create_symlink(r + "/nowhere", r + "/dangling");

    std::vector<std::string> files = ListFilesRecursive(r);
    std::sort(files.begin(), files.end());
    EXPECT_EQ(files, (std::vector<std::string>{r + "/link.gn", r + "/real/data.gn"}));
}
#endif

}  // namespace
}  // namespace veltrano::platform
