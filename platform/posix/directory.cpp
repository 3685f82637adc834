#include "platform/directory.h"

#include <dirent.h>
#include <sys/stat.h>

#include <cstring>

namespace veltrano::platform {

namespace {

enum class EntryKind { File, Folder, Skip };

// readdir's d_type is free but not every file system fills it in; lstat answers then.
// Symbolic links are resolved: one to a file counts as that file, one to a folder is not
// descended into (that keeps a link loop from recursing forever), a dangling one is left out.
EntryKind KindOf(const struct dirent& entry, const std::string& path) {
    bool link = entry.d_type == DT_LNK;
    if (entry.d_type == DT_DIR) {
        return EntryKind::Folder;
    }
    if (entry.d_type == DT_UNKNOWN) {
        struct stat info;
        if (::lstat(path.c_str(), &info) != 0) {
            return EntryKind::Skip;
        }
        if (S_ISDIR(info.st_mode)) {
            return EntryKind::Folder;
        }
        link = S_ISLNK(info.st_mode);
    }
    if (link) {
        struct stat target;
        if (::stat(path.c_str(), &target) != 0 || S_ISDIR(target.st_mode)) {
            return EntryKind::Skip;
        }
    }
    // Regular files, and devices, pipes and sockets too, are listed as files.
    return EntryKind::File;
}

void ListInto(const std::string& folder, std::vector<std::string>& files) {
    DIR* dir = ::opendir(folder.c_str());
    if (dir == nullptr) {
        return;
    }
    while (const struct dirent* entry = ::readdir(dir)) {
        if (std::strcmp(entry->d_name, ".") == 0 || std::strcmp(entry->d_name, "..") == 0) {
            continue;
        }
        std::string path = folder + "/" + entry->d_name;
        switch (KindOf(*entry, path)) {
        case EntryKind::Folder:
            ListInto(path, files);
            break;
        case EntryKind::File:
            files.push_back(std::move(path));
            break;
        case EntryKind::Skip:
            break;
        }
    }
    ::closedir(dir);
}

}  // namespace

std::vector<std::string> ListFilesRecursive(const std::string& folder) {
    std::vector<std::string> files;
    ListInto(folder, files);
    return files;
}

}  // namespace veltrano::platform
