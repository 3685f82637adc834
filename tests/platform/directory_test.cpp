#include "platform/directory.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

namespace veltrano::platform {
namespace {

namespace fs = std::filesystem;

std::string FreshFolderName() {
    const auto stamp = std::chrono::steady_clock::now().time_since_epoch().count();
    return (fs::temp_directory_path() / ("veltrano_dir_" + std::to_string(stamp)))
        .generic_string();
}

// A fresh folder below the temporary folder with the given files, removed at the end.
struct TempTree {
    const std::string root = FreshFolderName();

    explicit TempTree(std::initializer_list<const char*> files) {
        fs::create_directories(root);
        for (const char* file : files) {
            fs::create_directories(fs::path(root + "/" + file).parent_path());
            std::ofstream(root + "/" + file) << "x";
        }
    }
    ~TempTree() {
        std::error_code ignored;
        fs::remove_all(root, ignored);
    }
};

// Files in the order the folder is enumerated, each sub-folder's files where it is met.
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
    TempTree tree({"top.gn", "a/first.dft", "a/second.txt", "a/deeper/third.gn", "b/fourth",
                   ".hidden"});
    fs::create_directories(tree.root + "/empty");
    const std::vector<std::string> files = ListFilesRecursive(tree.root);

    std::vector<std::string> expected;
    ExpectedInto(tree.root, expected);
    EXPECT_EQ(files, expected);
    std::sort(expected.begin(), expected.end());
    const std::string& r = tree.root;
    EXPECT_EQ(expected, (std::vector<std::string>{r + "/.hidden", r + "/a/deeper/third.gn",
                                                  r + "/a/first.dft", r + "/a/second.txt",
                                                  r + "/b/fourth", r + "/top.gn"}));

    EXPECT_TRUE(ListFilesRecursive(r + "/missing").empty());
    EXPECT_TRUE(ListFilesRecursive(r + "/top.gn").empty());
    EXPECT_TRUE(ListFilesRecursive(r + "/empty").empty());
}

#if !defined(_WIN32)
TEST(Directory, SymbolicLinksToFilesAreListedButLinkedFoldersAreNotEntered) {
    TempTree tree({"real/data.gn"});
    const std::string& r = tree.root;
    fs::create_symlink(r + "/real/data.gn", r + "/link.gn");
    fs::create_directory_symlink(r, r + "/real/loop");  // would recurse forever if followed
    fs::create_symlink(r + "/nowhere", r + "/dangling");

    std::vector<std::string> files = ListFilesRecursive(r);
    std::sort(files.begin(), files.end());
    EXPECT_EQ(files, (std::vector<std::string>{r + "/link.gn", r + "/real/data.gn"}));
}
#endif

}  // namespace
}  // namespace veltrano::platform
