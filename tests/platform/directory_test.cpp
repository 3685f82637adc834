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

// A fresh folder below the temporary folder with the given files, removed at the end.
struct TempTree {
    const std::string root =
        (fs::temp_directory_path() /
         ("veltrano_dir_" +
          std::to_string(std::chrono::steady_clock::now().time_since_epoch().count())))
            .generic_string();

    explicit TempTree(std::initializer_list<const char*> files) {
        fs::create_directories(root + "/empty");
        for (const char* file : files) {
            fs::create_directories(fs::path(root + "/" + file).parent_path());
            std::ofstream(root + "/" + file) << "x";
        }
    }
    ~TempTree() {
        std::error_code ignored;
        fs::remove_all(root, ignored);
    }

    std::vector<std::string> sortedListing(const std::string& folder) const {
        std::vector<std::string> files = ListFilesRecursive(root + folder);
        std::sort(files.begin(), files.end());
        return files;
    }
};

TEST(Directory, ListsTheFilesOfAllSubFoldersAndNothingForAnythingElse) {
    const TempTree tree({"top.gn", "a/first.dft", "a/deeper/third.gn", "b/fourth", ".hidden"});
    const std::string& r = tree.root;
    EXPECT_EQ(tree.sortedListing(""),
              (std::vector<std::string>{r + "/.hidden", r + "/a/deeper/third.gn",
                                        r + "/a/first.dft", r + "/b/fourth", r + "/top.gn"}));
    for (const char* notAFolder : {"/missing", "/top.gn", "/empty"}) {
        EXPECT_TRUE(ListFilesRecursive(r + notAFolder).empty()) << notAFolder;
    }
#if !defined(_WIN32)
    // Symbolic links: one to a file is listed, a linked folder is not entered (a loop would
    // recurse forever), a dangling one is left out.
    fs::create_symlink(r + "/top.gn", r + "/b/link.gn");
    fs::create_directory_symlink(r, r + "/b/loop");
    fs::create_symlink(r + "/nowhere", r + "/b/dangling");
    EXPECT_EQ(tree.sortedListing("/b"),
              (std::vector<std::string>{r + "/b/fourth", r + "/b/link.gn"}));
#endif
}

}  // namespace
}  // namespace veltrano::platform
